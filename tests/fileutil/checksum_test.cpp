// CRC-16/ARC and its table, and the file digest taken through the platform's MD5.
#include "fcadmin.h"
#include "fileutil/crc16.h"
#include "tests/support/fake_platform.h"
#include "tests/support/helpers.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using fcadmin_test::platform_calls_of;
using fcadmin_test::write_file;

const unsigned char kDigits[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
constexpr int32_t kDigitsDigest = 637134740;       // 0x25F9E794
constexpr int32_t kEmptyDigest = -736260903;       // 0xD41D8CD9, MD5 of no data

// CRC-16/ARC taken bit by bit from its definition, to hold the table-driven one against.
uint16_t bitwise_crc16(const unsigned char *data, size_t length) {
    uint16_t crc = 0;
    for (size_t i = 0; i < length; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) ? static_cast<uint16_t>((crc >> 1) ^ 0xA001) : crc >> 1;
    }
    return crc;
}

std::string scratch_dir() {
    char templ[] = "/tmp/checksum.XXXXXX";
    EXPECT_NE(mkdtemp(templ), nullptr);
    return templ;
}

TEST(Crc16, TableAndChecksum) {
    EXPECT_EQ(crc_table16[0], 0x0000);
    EXPECT_EQ(crc_table16[1], 0xC0C1);
    EXPECT_EQ(crc_table16[2], 0xC181);
    EXPECT_EQ(crc_table16[3], 0x0140);
    EXPECT_EQ(crc_table16[255], 0x4040);
    for (unsigned i = 0; i < 256; ++i) {
        unsigned char byte = static_cast<unsigned char>(i);
        // A one-byte CRC from 0 is the table entry itself.
        EXPECT_EQ(crc_table16[i], bitwise_crc16(&byte, 1)) << "entry " << i;
    }

    EXPECT_EQ(crc16_compute(kDigits, 9), 0xBB3Du);
    EXPECT_EQ(crc16_compute(kDigits, 0), 0u);
    EXPECT_EQ(crc16_compute(kDigits, -1), 0u);
    EXPECT_EQ(crc16_compute(nullptr, 9), 0u);

    unsigned char block[4099];
    for (size_t i = 0; i < sizeof block; ++i) block[i] = static_cast<unsigned char>(i * 131 + 7);
    uint32_t crc = crc16_compute(block, sizeof block);
    EXPECT_EQ(crc, bitwise_crc16(block, sizeof block));
    EXPECT_LE(crc, 0xFFFFu);
}

TEST(FileDigest, FirstFourDigestBytesBigEndian) {
    std::string dir = scratch_dir();
    write_file(dir + "/digits", "123456789");
    write_file(dir + "/empty", "");

    fcadmin_test::reset_platform();
    EXPECT_EQ(get_crc(dir.c_str()), 0);  // a directory has nothing to digest
    EXPECT_EQ(get_crc((dir + "/missing").c_str()), 0);
    EXPECT_EQ(get_crc(nullptr), 0);
    EXPECT_TRUE(platform_calls_of("MD5_hash_compute").empty());

    EXPECT_EQ(get_crc((dir + "/digits").c_str()), kDigitsDigest);
    EXPECT_EQ(get_crc((dir + "/empty").c_str()), kEmptyDigest);
    auto calls = platform_calls_of("MD5_hash_compute");
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].args, std::vector<std::string>{"9"});
    EXPECT_EQ(calls[1].args, std::vector<std::string>{"0"});

    // Binary content is read whole: bytes after a NUL and CR LF pairs count.
    std::string binary("a\0b\r\nc", 6);
    write_file(dir + "/binary", binary);
    fcadmin_test::reset_platform();
    EXPECT_EQ(get_crc((dir + "/binary").c_str()), static_cast<int32_t>(0x33AD78A6u));
    EXPECT_EQ(platform_calls_of("MD5_hash_compute").front().args, std::vector<std::string>{"6"});

    // A file the caller may not read is one that cannot be opened (root reads anything, so drop it).
    chmod(dir.c_str(), 0755);
    write_file(dir + "/secret", "123456789", 0000);
    EXPECT_IN_CHILD({
        if (geteuid() == 0) {
            ASSERT_EQ(setuid(65534), 0);
        }
        EXPECT_EQ(get_crc((dir + "/secret").c_str()), 0);
    });
}

TEST(FileDigest, PairAddsModulo32Bits) {
    std::string dir = scratch_dir();
    write_file(dir + "/digits", "123456789");
    write_file(dir + "/empty", "");
    std::string digits = dir + "/digits", empty = dir + "/empty", missing = dir + "/missing";

    EXPECT_EQ(get_crc2(digits.c_str(), empty.c_str()), -99126163);
    EXPECT_EQ(get_crc2(digits.c_str(), digits.c_str()), 1274269480);
    // 0xD41D8CD9 twice wraps to 0xA83B19B2.
    EXPECT_EQ(get_crc2(empty.c_str(), empty.c_str()), static_cast<int32_t>(0xA83B19B2u));
    EXPECT_EQ(get_crc2(missing.c_str(), digits.c_str()), kDigitsDigest);
    EXPECT_EQ(get_crc2(digits.c_str(), missing.c_str()), kDigitsDigest);
    EXPECT_EQ(get_crc2(nullptr, empty.c_str()), kEmptyDigest);
    EXPECT_EQ(get_crc2(missing.c_str(), nullptr), 0);
}

}  // namespace
