// CRC-16/ARC, the file digest, Base64, bounded formatting, byte order, bit count: fast paths against literal oracles.
#include "common/format.h"
#include "fileutil/crc16.h"
#include "tests/support/fake_platform.h"
#include "tests/support/oracles.h"

#include <unistd.h>

#include <climits>
#include <thread>

using namespace fcadmin_test;

std::string random_bytes(size_t size, uint32_t seed) {
    std::string out(size, '\0');
    for (auto &byte : out) byte = static_cast<char>((seed = seed * 1103515245u + 12345u) >> 16);
    return out;
}

#pragma GCC diagnostic ignored "-Wformat-nonliteral"  // the formats below are the loop's, on purpose
TEST(Utils, Crc16TheFileDigestBase64FormattingByteOrderAndBitCountMatchTheirLiteralDefinitions) {
    const std::string data = random_bytes(2200, 7), path = "/tmp/digested";
    std::vector<uint32_t> oracle(data.size() + 1, 0);  // the CRC of every prefix, bit by bit
    for (size_t n = 0; n < data.size(); ++n)
        oracle[n + 1] = bitwise_crc16(oracle[n], reinterpret_cast<const unsigned char *>(&data[n]), 1);
    unsigned char buffer[2200 + 16] = {};  // the table's entry i: i run through a zero byte
    for (uint32_t i = 0; i < 256; ++i) EXPECT_EQ(crc_table16[i], bitwise_crc16(i, buffer, 1)) << i;
    EXPECT_EQ(crc16_compute(buffer, 0) + crc16_compute(nullptr, 9) + crc16_compute(buffer, -1), 0u);
    for (size_t align = 0, wrong = 0; align < 16; ++align)
        for (size_t n = 0; n <= data.size() && wrong < 5; ++n)
            for (auto p = static_cast<unsigned char *>(memcpy(buffer + align, data.data(), data.size())); uint32_t crc :
                 {fcadmin::crc16_portable(0, p, n), crc16_compute(p, static_cast<int32_t>(n)),
                  fcadmin::crc16_clmul(fcadmin::crc16_portable(0, p, n / 3), p + n / 3, n - n / 3)})
                if (crc != oracle[n]) ADD_FAILURE() << "length " << n << " alignment " << align << " #" << ++wrong;
    write_file(path, "123456789");
    EXPECT_EQ(get_crc("/tmp") + get_crc("/tmp/missing") + get_crc(nullptr), 0);  // nothing to digest: 0
    EXPECT_EQ(get_crc2("/tmp/missing", path.c_str()) + get_crc2(path.c_str(), nullptr), 2 * 637134740);  // 0x25F9E794
    EXPECT_EQ(get_crc2("/dev/null", "/dev/null"), static_cast<int32_t>(0xA83B19B2u));  // 0xD41D8CD9 twice, wrapped
    for (size_t size : {0, 1, 4095, 4096, 4097, 5 << 20}) {
        write_file(path, random_bytes(size, 3));
        EXPECT_EQ(get_crc(path.c_str()), literal_get_crc(path.c_str())) << size;
    }
    // Every size class, as it is and with a line break, padding, a foreign character or a blank inside, at every cut.
    for (int size : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 44, 45, 46, 47, 700, 3000}) {
        const std::string bytes = random_bytes(static_cast<size_t>(size), static_cast<uint32_t>(size));
        unsigned char encoded[4 * 1000 + 1];
        const int n = EVP_EncodeBlock(encoded, reinterpret_cast<const unsigned char *>(bytes.data()), size);
        for (const char *insert : {"", "\n", "==", "@", " "}) {
            const auto text = std::string(reinterpret_cast<char *>(encoded), n).insert(n / 8 * 4 + size % 4, insert);
            for (uint32_t cut = 0; cut <= text.size(); cut += cut < 64 || text.size() - cut < 8 ? 1 : 61)
                ASSERT_EQ(decoded(one_byte_base64decode, text.data(), cut), decoded(base64decode, text.data(), cut))
                    << cut << ' ' << text;
        }
    }
    for (char fast[128], literal[128]; size_t size : {1, 2, 9, 17, 128})
        for (const char *format : {"a%sb%dc%ld%%", "%s|%5d", "%.2s%d%lu", "%s %d %p", "%%%s%d"}) {
            const char *text = size > 9 ? "text" : nullptr;
            snprintf(literal, size, format, text, INT_MIN, LONG_MIN);
            const auto n = static_cast<size_t>(fcadmin::bounded_format(fast, size, format, text, INT_MIN, LONG_MIN));
            EXPECT_EQ(std::string(fast, n), literal) << format << " in " << size;
        }
    EXPECT_EQ(std::make_tuple(endian_swap_32(0x11223344u), endian_swap_16(0x00AB1234u), endian_check(), _count_bits(0),
                              _count_bits(-1), _count_bits(INT32_MIN), _count_bits(0x0F0F), _count_bits(0x7FFFFFFF)),
              std::make_tuple(0x44332211u, 0xBF12u, __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? 2 : 1, 0, 32, 1, 8, 31));
    write_file(path, std::string(6 << 20, '\0'));  // zeros: a digest taken mid-resize is that of either size
    const int32_t empty = literal_get_crc("/dev/null"), large = literal_get_crc(path.c_str());
    std::jthread resizer([&](std::stop_token stop) {
        for (int i = 0; !stop.stop_requested(); ++i) (void)!truncate(path.c_str(), i % 2 ? 0 : 6 << 20);
    });
    for (int i = 0, digest; i < 40; ++i) EXPECT_TRUE((digest = get_crc(path.c_str())) == empty || digest == large);
}
