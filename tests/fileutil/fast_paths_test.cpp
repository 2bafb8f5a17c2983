// The fast CRC-16, Base64 and digest paths against the literal code they replaced, kept here as oracles.
#include "fcadmin.h"
#include "fileutil/crc16.h"
#include "tests/support/helpers.h"

#include <gtest/gtest.h>

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

std::string random_bytes(size_t size, uint32_t seed) {
    std::string out(size, '\0');
    for (auto &byte : out) byte = static_cast<char>((seed = seed * 1103515245u + 12345u) >> 16);
    return out;
}

TEST(FastPaths, Crc16MatchesTheBitwiseDefinitionAtEveryLengthAndAlignment) {
    constexpr size_t kLongest = 2200;
    const std::string data = random_bytes(kLongest, 7);
    std::vector<uint32_t> oracle(kLongest + 1, 0);  // the crc of every prefix, bit by bit
    for (size_t n = 0; n < kLongest; ++n) {
        uint32_t crc = oracle[n] ^ static_cast<unsigned char>(data[n]);
        for (int bit = 0; bit < 8; ++bit) crc = (crc & 1u) ? (crc >> 1) ^ 0xA001u : crc >> 1;
        oracle[n + 1] = crc;
    }
    std::vector<unsigned char> buffer(kLongest + 16);
    int wrong = 0;
    for (size_t align = 0; align < 16; ++align) {
        const unsigned char *p = buffer.data() + align;
        memcpy(buffer.data() + align, data.data(), kLongest);
        for (size_t n = 0; n <= kLongest && wrong < 5; ++n) {
            const uint32_t fast[] = {fcadmin::crc16_portable(0, p, n), fcadmin::crc16_clmul(0, p, n),
                                     crc16_compute(p, static_cast<int32_t>(n)),
                                     fcadmin::crc16_clmul(fcadmin::crc16_portable(0, p, n / 3), p + n / 3, n - n / 3)};
            for (uint32_t crc : fast)
                if (crc != oracle[n]) ADD_FAILURE() << "length " << n << " alignment " << align << ": " << ++wrong;
        }
    }
    RecordProperty("clmul", fcadmin::crc16_clmul_available() ? "used" : "portable path only");
}

// The literal decoder: the whole text into a memory BIO, then one byte a read through the filter.
std::string one_byte_decode(const std::string &text, uint32_t length) {
    const uint64_t capacity = (3 * uint64_t{length}) / 4 + 1;
    std::string out(capacity, '\0');
    BIO *chain = BIO_push(BIO_new(BIO_f_base64()), BIO_new(BIO_s_mem()));
    BIO_write(BIO_next(chain), text.data(), static_cast<int>(length));
    BIO_set_flags(chain, BIO_FLAGS_BASE64_NO_NL);
    uint64_t count = 0;
    while (count + 1 < capacity && BIO_read(chain, &out[count], 1) >= 1) ++count;
    BIO_free_all(chain);
    return std::to_string(count) + ":" + out;  // the result length and the whole buffer
}

TEST(FastPaths, Base64BlockReadsDecodeAsOneByteReadsDid) {
    // Valid text of every size class, with a line break, padding in the middle, a foreign character and a
    // blank put in, each decoded at every cut of its length.
    const char *inserts[] = {"", "\n", "==", "@", " "};
    for (size_t size : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 44, 45, 46, 47, 700, 3000}) {
        const std::string bytes = random_bytes(size, static_cast<uint32_t>(size));
        std::string valid(4 * ((size + 2) / 3) + 1, '\0');
        valid.resize(static_cast<size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char *>(valid.data()),
                                                         reinterpret_cast<const unsigned char *>(bytes.data()),
                                                         static_cast<int>(size))));
        for (const char *insert : inserts) {
            std::string text = valid;
            text.insert(text.size() / 2 / 4 * 4 + (size % 4), insert);
            for (uint32_t cut = 0; cut <= text.size(); cut += cut < 64 || text.size() - cut < 8 ? 1 : 61) {
                uint32_t length = 0xDEAD;
                unsigned char *decoded = base64decode(text.data(), cut, &length);
                const std::string got = std::to_string(length) + ":" +
                                        std::string(reinterpret_cast<char *>(decoded), (3 * uint64_t{cut}) / 4 + 1);
                free(decoded);
                ASSERT_EQ(got, one_byte_decode(text, cut)) << "'" << text << "' cut at " << cut;
            }
        }
    }
}

// The literal digest: fopen, the size from the end position, a zero-filled buffer, one fread.
int32_t literal_get_crc(const std::string &path) {
    FILE *file = fopen(path.c_str(), "r");
    fseek(file, 0, SEEK_END);
    const long end = ftell(file);
    const size_t size = end > 0 ? static_cast<size_t>(end) : 0;
    fseek(file, 0, SEEK_SET);
    std::string buffer(size, '\0');
    if (size > 0) (void)!fread(buffer.data(), size, 1, file);
    fclose(file);
    unsigned char digest[16];
    EVP_Digest(buffer.data(), size, digest, nullptr, EVP_md5(), nullptr);
    return static_cast<int32_t>((uint32_t{digest[0]} << 24) | (uint32_t{digest[1]} << 16) |
                                (uint32_t{digest[2]} << 8) | digest[3]);
}

TEST(FastPaths, DigestReadsTheFileAsTheLiteralPathDidAndSurvivesAResize) {
    const std::string path = "/tmp/fast_paths_digest";
    for (size_t size : {0, 1, 4095, 4096, 4097, 5 << 20}) {
        fcadmin_test::write_file(path, random_bytes(size, 3));
        EXPECT_EQ(get_crc(path.c_str()), literal_get_crc(path)) << size;
    }
    // Zeros only, so that a digest taken while the file shrinks or grows is one of the two sizes'.
    constexpr off_t kLarge = 6 << 20;
    ASSERT_EQ(truncate(path.c_str(), 0), 0);
    const int32_t empty = literal_get_crc(path);
    ASSERT_EQ(truncate(path.c_str(), kLarge), 0);
    const int32_t large = literal_get_crc(path);
    std::atomic<bool> done{false};
    std::thread resizer([&] {
        for (int i = 0; !done; ++i) (void)!truncate(path.c_str(), i % 2 ? 0 : kLarge);
    });
    for (int i = 0; i < 40; ++i) {
        const int32_t digest = get_crc(path.c_str());
        EXPECT_TRUE(digest == empty || digest == large) << digest;
    }
    done = true;
    resizer.join();
    unlink(path.c_str());
}

}  // namespace
