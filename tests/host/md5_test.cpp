// The host digest: MD5 of the known test vectors.
#include "fcadmin_platform.h"
#include "tests/support/helpers.h"

#include <cstdio>
#include <string>

namespace {

std::string md5_hex(const void *data, uint32_t length) {
    unsigned char digest[16];
    memset(digest, 0xAA, sizeof digest);
    MD5_hash_compute(digest, static_cast<const unsigned char *>(data), length);
    char hex[33] = {};
    for (int i = 0; i < 16; ++i) snprintf(hex + 2 * i, 3, "%02x", digest[i]);
    return hex;
}

}  // namespace

TEST(HostMd5, KnownDigests) {
    EXPECT_EQ(md5_hex("", 0), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(md5_hex("123456789", 9), "25f9e794323b453885f5181f1b624d0b");
    EXPECT_EQ(md5_hex("abc", 3), "900150983cd24fb0d6963f7d28e17f72");
    // Bytes after the length and a NUL inside it: the length decides, not the terminator.
    EXPECT_EQ(md5_hex("abcdef", 3), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(md5_hex("\0", 1), "93b885adfe0da089cdf634904fd59f71");
    const std::string million(1000000, 'a');
    EXPECT_EQ(md5_hex(million.data(), 1000000), "7707d6ae4e027c70eea2a935c2296f21");
    // No data is the empty message; no digest buffer is ignored.
    EXPECT_EQ(md5_hex(nullptr, 10), "d41d8cd98f00b204e9800998ecf8427e");
    MD5_hash_compute(nullptr, reinterpret_cast<const unsigned char *>("abc"), 3);
}
