// The file digest, CRC-16/ARC and its table, Base64 decoding, byte order and the bit count.
#include "fcadmin.h"
#include "fileutil/crc16.h"
#include "tests/support/fake_platform.h"

#include <openssl/evp.h>

using namespace fcadmin_test;

namespace {

// CRC-16/ARC taken bit by bit from its definition.
uint16_t bitwise_crc16(const unsigned char *data, size_t length) {
    uint16_t crc = 0;
    for (size_t i = 0; i < length; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) ? static_cast<uint16_t>((crc >> 1) ^ 0xA001) : crc >> 1;
    }
    return crc;
}

TEST(Checksums, Crc16AndItsTable) {
    EXPECT_EQ(crc_table16[1] + 0x10000 * crc_table16[255], 0xC0C1 + 0x10000 * 0x4040);
    for (unsigned i = 0; i < 256; ++i) {  // entry i is the CRC of the one byte i
        const auto byte = static_cast<unsigned char>(i);
        EXPECT_EQ(crc_table16[i] + 0x10000 * crc16_compute(&byte, 1), 0x10001u * bitwise_crc16(&byte, 1)) << i;
    }
    const auto *digits = reinterpret_cast<const unsigned char *>("123456789");
    EXPECT_EQ(crc16_compute(digits, 9), 0xBB3Du);
    EXPECT_EQ(crc16_compute(digits, 0) + crc16_compute(digits, -1) + crc16_compute(nullptr, 9), 0u);
    unsigned char block[4099];
    for (size_t i = 0; i < sizeof block; ++i) block[i] = static_cast<unsigned char>(i * 131 + 7);
    EXPECT_EQ(crc16_compute(block, sizeof block), bitwise_crc16(block, sizeof block));
}

TEST(Checksums, FileDigestIsTheHeadOfTheMd5BigEndianAndThePairsSum) {
    write_file("/tmp/digits", "123456789");
    write_file("/tmp/empty", "");
    write_file("/tmp/binary", std::string("a\0b\r\nc", 6));  // read whole: NUL bytes and CR LF pairs count
    reset_platform();
    EXPECT_EQ(get_crc("/tmp") + get_crc("/tmp/missing") + get_crc(nullptr), 0);  // nothing to digest: 0
    EXPECT_EQ(args_of("MD5_hash_compute", 0), Lines{});
    EXPECT_EQ(get_crc("/tmp/digits"), 637134740);            // 0x25F9E794
    EXPECT_EQ(get_crc("/tmp/empty"), -736260903);            // 0xD41D8CD9, MD5 of no data
    EXPECT_EQ(get_crc("/tmp/binary"), static_cast<int32_t>(0x33AD78A6u));
    EXPECT_EQ(args_of("MD5_hash_compute", 0), (Lines{"9", "0", "6"}));
    EXPECT_EQ(get_crc2("/tmp/digits", "/tmp/empty"), -99126163);
    EXPECT_EQ(get_crc2("/tmp/empty", "/tmp/empty"), static_cast<int32_t>(0xA83B19B2u));  // wraps
    EXPECT_EQ(get_crc2("/tmp/missing", "/tmp/digits") + get_crc2("/tmp/digits", nullptr), 2 * 637134740);
}

TEST(Base64, DecodesIntoABufferEndedByAZeroByte) {
    std::string data(3000, '\0');  // binary data of every length class, NUL bytes included
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 37);
    std::string encoded(4004, '\0');
    encoded.resize(static_cast<size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char *>(encoded.data()),
                                                       reinterpret_cast<const unsigned char *>(data.data()), 3000)));
    // Only `length` characters count; text that is not Base64, or has line breaks, gives nothing.
    const struct {
        std::string text;
        uint32_t length;
        std::string bytes;
    } rows[] = {{"QUJD", 4, "ABC"}, {"QUJDRA==", 8, "ABCD"}, {"QUJDREVG", 4, "ABC"}, {"", 0, ""}, {"@@@@", 4, ""},
                {"QUJD\nREVG\n", 10, ""}, {"AA==", 4, std::string(1, '\0')}, {encoded, 4000, data}};
    for (const auto &row : rows) {
        uint32_t length = 77;
        unsigned char *buffer = base64decode(row.text.c_str(), row.length, &length);
        ASSERT_NE(buffer, nullptr);
        EXPECT_TRUE(std::string(reinterpret_cast<char *>(buffer), length) == row.bytes) << row.text.substr(0, 10);
        EXPECT_EQ(buffer[length], 0);
        free(buffer);
    }
    uint32_t length = 77;
    EXPECT_EQ(base64decode(nullptr, 4, &length), nullptr);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(base64decode("QUJD", 4, nullptr), nullptr);
}

TEST(ByteOrder, SwapsProbeAndBitCount) {
    EXPECT_EQ(endian_swap_32(0x11223344u), 0x44332211u);
    EXPECT_EQ(endian_swap_16(0x1234u), 0x3412u);
    EXPECT_EQ(endian_swap_16(0x00AB1234u), 0xBF12u);  // bits 16..23 of a wider argument land in the high byte
    EXPECT_EQ(endian_check(), __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? 2 : 1);
    const std::pair<int32_t, int32_t> bits[] = {{0, 0}, {-1, 32}, {INT32_MIN, 1}, {0x0F0F, 8}, {0x7FFFFFFF, 31}};
    for (const auto &[value, count] : bits) EXPECT_EQ(_count_bits(value), count) << value;
}

}  // namespace
