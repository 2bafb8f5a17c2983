// CRC-16/ARC and its table, and the file digest taken through the platform's MD5.
#include "fcadmin.h"
#include "fileutil/crc16.h"
#include "tests/support/fake_platform.h"
#include "tests/support/helpers.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

using fcadmin_test::platform_calls_of;

constexpr int32_t kDigitsDigest = 637134740;  // 0x25F9E794
constexpr int32_t kEmptyDigest = -736260903;  // 0xD41D8CD9, MD5 of no data

// CRC-16/ARC taken bit by bit from its definition, to hold the table-driven one against.
uint16_t bitwise_crc16(const unsigned char *data, size_t length) {
    uint16_t crc = 0;
    for (size_t i = 0; i < length; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) ? static_cast<uint16_t>((crc >> 1) ^ 0xA001) : crc >> 1;
    }
    return crc;
}

TEST(Crc16, TableAndChecksum) {
    EXPECT_EQ(crc_table16[1], 0xC0C1);
    EXPECT_EQ(crc_table16[2], 0xC181);
    EXPECT_EQ(crc_table16[3], 0x0140);
    EXPECT_EQ(crc_table16[255], 0x4040);
    for (unsigned i = 0; i < 256; ++i) {
        const auto byte = static_cast<unsigned char>(i);
        EXPECT_EQ(crc_table16[i], bitwise_crc16(&byte, 1)) << "entry " << i;  // a one-byte CRC from 0
    }

    const auto *digits = reinterpret_cast<const unsigned char *>("123456789");
    EXPECT_EQ(crc16_compute(digits, 9), 0xBB3Du);
    EXPECT_EQ(crc16_compute(digits, 0), 0u);
    EXPECT_EQ(crc16_compute(digits, -1), 0u);
    EXPECT_EQ(crc16_compute(nullptr, 9), 0u);
    unsigned char block[4099];
    for (size_t i = 0; i < sizeof block; ++i) block[i] = static_cast<unsigned char>(i * 131 + 7);
    EXPECT_EQ(crc16_compute(block, sizeof block), bitwise_crc16(block, sizeof block));
}

TEST(FileDigest, FirstFourDigestBytesBigEndianAndThePairsSum) {
    char templ[] = "/tmp/checksum.XXXXXX";
    ASSERT_NE(mkdtemp(templ), nullptr);
    const std::string dir = templ, digits = dir + "/digits", empty = dir + "/empty", missing = dir + "/missing";
    fcadmin_test::write_file(digits, "123456789");
    fcadmin_test::write_file(empty, "");
    // Read whole: bytes after a NUL and CR LF pairs count.
    fcadmin_test::write_file(dir + "/binary", std::string("a\0b\r\nc", 6));

    fcadmin_test::reset_platform();
    EXPECT_EQ(get_crc(dir.c_str()), 0);  // a directory has nothing to digest
    EXPECT_EQ(get_crc(missing.c_str()), 0);
    EXPECT_EQ(get_crc(nullptr), 0);
    EXPECT_TRUE(platform_calls_of("MD5_hash_compute").empty());
    EXPECT_EQ(get_crc(digits.c_str()), kDigitsDigest);
    EXPECT_EQ(get_crc(empty.c_str()), kEmptyDigest);
    EXPECT_EQ(get_crc((dir + "/binary").c_str()), static_cast<int32_t>(0x33AD78A6u));
    const auto calls = platform_calls_of("MD5_hash_compute");
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].args[0] + calls[1].args[0] + calls[2].args[0], "906") << "the lengths digested: 9, 0 and 6";

    EXPECT_EQ(get_crc2(digits.c_str(), empty.c_str()), -99126163);
    EXPECT_EQ(get_crc2(empty.c_str(), empty.c_str()), static_cast<int32_t>(0xA83B19B2u));  // wraps
    EXPECT_EQ(get_crc2(missing.c_str(), digits.c_str()), kDigitsDigest);
    EXPECT_EQ(get_crc2(digits.c_str(), missing.c_str()), kDigitsDigest);
    EXPECT_EQ(get_crc2(nullptr, empty.c_str()), kEmptyDigest);
}

}  // namespace
