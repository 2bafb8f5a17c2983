// The host digest: MD5 of the known test vectors.
#include "fcadmin_platform.h"
#include "tests/support/helpers.h"

#include <cstdio>
#include <string>

TEST(HostMd5, KnownDigests) {
    const std::string million(1000000, 'a');
    // The length decides, not a terminator; no data is the empty message.
    const struct {
        const char *data;
        uint32_t length;
        const char *hex;
    } cases[] = {{"", 0, "d41d8cd98f00b204e9800998ecf8427e"},        {"123456789", 9, "25f9e794323b453885f5181f1b624d0b"},
                 {"abcdef", 3, "900150983cd24fb0d6963f7d28e17f72"},  {"\0", 1, "93b885adfe0da089cdf634904fd59f71"},
                 {million.c_str(), 1000000, "7707d6ae4e027c70eea2a935c2296f21"},
                 {nullptr, 10, "d41d8cd98f00b204e9800998ecf8427e"}};
    for (const auto &c : cases) {
        unsigned char digest[16];
        memset(digest, 0xAA, sizeof digest);
        MD5_hash_compute(digest, reinterpret_cast<const unsigned char *>(c.data), c.length);
        char hex[33] = {};
        for (int i = 0; i < 16; ++i) snprintf(hex + 2 * i, 3, "%02x", digest[i]);
        EXPECT_STREQ(hex, c.hex) << c.length;
    }
    MD5_hash_compute(nullptr, reinterpret_cast<const unsigned char *>("abc"), 3);  // no digest buffer: ignored
}
