// CRC-16/ARC and its table, the file digest, Base64 decoding, bounded formatting, byte order and the bit
// count. The fast paths are held against the literal code, kept here as oracles.
#include "common/format.h"
#include "fileutil/crc16.h"
#include "tests/support/fake_platform.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <thread>

using namespace fcadmin_test;

namespace {

std::string random_bytes(size_t size, uint32_t seed) {
    std::string out(size, '\0');
    for (auto &byte : out) byte = static_cast<char>((seed = seed * 1103515245u + 12345u) >> 16);
    return out;
}

TEST(Checksums, Crc16OfEveryPathMatchesTheBitwiseDefinitionAtEveryLengthAndAlignment) {
    constexpr size_t kLongest = 2200;
    const std::string data = random_bytes(kLongest, 7);
    std::vector<uint32_t> oracle(kLongest + 1, 0);  // the CRC of every prefix, bit by bit
    for (size_t n = 0; n < kLongest; ++n) {
        oracle[n + 1] = oracle[n] ^ static_cast<unsigned char>(data[n]);
        for (int bit = 0; bit < 8; ++bit) oracle[n + 1] = (oracle[n + 1] >> 1) ^ (oracle[n + 1] & 1u ? 0xA001u : 0);
    }
    for (unsigned i = 0; i < 256; ++i) {  // entry i is the CRC of the one byte i
        const std::string byte(1, static_cast<char>(i));
        EXPECT_EQ(crc_table16[i], crc16_compute(reinterpret_cast<const unsigned char *>(byte.data()), 1)) << i;
    }
    EXPECT_EQ(crc_table16[1] + 0x10000 * crc_table16[255], 0xC0C1 + 0x10000 * 0x4040);
    EXPECT_EQ(crc16_compute(reinterpret_cast<const unsigned char *>("123456789"), 9), 0xBB3Du);
    EXPECT_EQ(crc16_compute(reinterpret_cast<const unsigned char *>("1"), 0) + crc16_compute(nullptr, 9), 0u);
    EXPECT_EQ(crc16_compute(reinterpret_cast<const unsigned char *>("1"), -1), 0u);
    unsigned char buffer[kLongest + 16];
    for (size_t align = 0, wrong = 0; align < 16; ++align) {
        const auto *p = static_cast<unsigned char *>(memcpy(buffer + align, data.data(), kLongest));
        for (size_t n = 0; n <= kLongest && wrong < 5; ++n)
            for (uint32_t crc : {fcadmin::crc16_portable(0, p, n), fcadmin::crc16_clmul(0, p, n),
                                 crc16_compute(p, static_cast<int32_t>(n)),
                                 fcadmin::crc16_clmul(fcadmin::crc16_portable(0, p, n / 3), p + n / 3, n - n / 3)})
                if (crc != oracle[n]) ADD_FAILURE() << "length " << n << " alignment " << align << " #" << ++wrong;
    }
}

// The literal digest: fopen, the size from the end position, a zero-filled buffer, one fread.
int32_t literal_get_crc(const std::string &path) {
    FILE *file = fopen(path.c_str(), "r");
    std::string buffer(static_cast<size_t>(fseek(file, 0, SEEK_END) == 0 ? std::max(ftell(file), 0L) : 0), '\0');
    if (fseek(file, 0, SEEK_SET) == 0 && !buffer.empty()) (void)!fread(buffer.data(), buffer.size(), 1, file);
    fclose(file);
    unsigned char d[16];
    EVP_Digest(buffer.data(), buffer.size(), d, nullptr, EVP_md5(), nullptr);
    return static_cast<int32_t>((uint32_t{d[0]} << 24) | (uint32_t{d[1]} << 16) | (uint32_t{d[2]} << 8) | d[3]);
}

TEST(Checksums, FileDigestIsTheHeadOfTheMd5BigEndianReadAsTheLiteralPathDid) {
    write_file("/tmp/digits", "123456789");
    write_file("/tmp/binary", std::string("a\0b\r\nc", 6));  // read whole: NUL bytes and CR LF pairs count
    write_file("/tmp/empty", "");
    reset_platform();
    EXPECT_EQ(get_crc("/tmp") + get_crc("/tmp/missing") + get_crc(nullptr), 0);  // nothing to digest: 0
    EXPECT_EQ(get_crc("/tmp/digits"), 637134740);  // 0x25F9E794
    EXPECT_EQ(get_crc("/tmp/binary"), static_cast<int32_t>(0x33AD78A6u));
    EXPECT_EQ(args_of("MD5_hash_compute", 0), (Lines{"9", "6"}));
    EXPECT_EQ(get_crc2("/tmp/missing", "/tmp/digits") + get_crc2("/tmp/digits", nullptr), 2 * 637134740);
    EXPECT_EQ(get_crc2("/tmp/empty", "/tmp/empty"), static_cast<int32_t>(0xA83B19B2u));  // 0xD41D8CD9 twice, wrapped
    const std::string path = "/tmp/digested";
    for (size_t size : {0, 1, 4095, 4096, 4097, 5 << 20}) {
        write_file(path, random_bytes(size, 3));
        EXPECT_EQ(get_crc(path.c_str()), literal_get_crc(path)) << size;
    }
    // Zeros only, so that a digest taken while the file shrinks or grows is that of one of the sizes.
    const int32_t empty = ((void)!truncate(path.c_str(), 0), literal_get_crc(path));
    const int32_t large = ((void)!truncate(path.c_str(), 6 << 20), literal_get_crc(path));
    std::atomic<bool> done{false};
    std::thread resizer([&] {
        for (int i = 0; !done; ++i) (void)!truncate(path.c_str(), i % 2 ? 0 : 6 << 20);
    });
    for (int i = 0, digest; i < 40; ++i) EXPECT_TRUE((digest = get_crc(path.c_str())) == empty || digest == large);
    done = true;
    resizer.join();
}

// The literal decoder, one byte a read: "<result length>:<the whole buffer>".
std::string one_byte_decode(const std::string &text, uint32_t length) {
    std::string out((3 * uint64_t{length}) / 4 + 1, '\0');
    BIO *chain = BIO_push(BIO_new(BIO_f_base64()), BIO_new(BIO_s_mem()));
    BIO_write(BIO_next(chain), text.data(), static_cast<int>(length));
    BIO_set_flags(chain, BIO_FLAGS_BASE64_NO_NL);
    size_t count = 0;
    while (count + 1 < out.size() && BIO_read(chain, &out[count], 1) >= 1) ++count;
    BIO_free_all(chain);
    return std::to_string(count) + ":" + out;
}

TEST(Base64, DecodesAsTheOneByteLoopDidIntoABufferEndedByAZeroByte) {
    // Text of every size class, as it is and with a line break, padding, a foreign character or a blank in
    // its middle, decoded at every cut of its length.
    for (size_t size : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 44, 45, 46, 47, 700, 3000}) {
        const std::string bytes = random_bytes(size, static_cast<uint32_t>(size));
        std::string valid(4 * ((size + 2) / 3) + 1, '\0');
        valid.resize(static_cast<size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char *>(valid.data()),
                                                         reinterpret_cast<const unsigned char *>(bytes.data()),
                                                         static_cast<int>(size))));
        for (const char *insert : {"", "\n", "==", "@", " "}) {
            const std::string text = std::string(valid).insert(valid.size() / 8 * 4 + size % 4, insert);
            for (uint32_t cut = 0; cut <= text.size(); cut += cut < 64 || text.size() - cut < 8 ? 1 : 61) {
                uint32_t length = 0xDEAD;
                unsigned char *out = base64decode(text.data(), cut, &length);
                const std::string buffer(reinterpret_cast<char *>(out), 3 * cut / 4 + 1);
                free(out);
                ASSERT_EQ(std::to_string(length) + ":" + buffer, one_byte_decode(text, cut)) << text << " cut " << cut;
                ASSERT_TRUE(*insert != '\0' || cut != text.size() || buffer.substr(0, length) == bytes);
            }
        }
    }
    uint32_t length = 77;
    EXPECT_EQ(base64decode(nullptr, 4, &length), nullptr);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(base64decode("QUJD", 4, nullptr), nullptr);
}

#pragma GCC diagnostic ignored "-Wformat-nonliteral"  // the formats are the loop's, on purpose
TEST(BoundedFormat, StoresWhatSnprintfStores) {
    char fast[128], literal[128];
    for (size_t size : {1, 2, 9, 17, 128})
        for (const char *format : {"a%sb%dc%ld%%", "%s|%5d", "%.2s%d%lu", "%s %d %p", "%%%s%d"}) {
            const char *text = size > 9 ? "text" : nullptr;
            snprintf(literal, size, format, text, INT_MIN, LONG_MIN);
            const auto n = static_cast<size_t>(fcadmin::bounded_format(fast, size, format, text, INT_MIN, LONG_MIN));
            EXPECT_EQ(std::string(fast, n), literal) << format << " in " << size;
        }
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
