// Oracles: the literal forms that the tests and the fuzz targets hold the library's fast paths against, and that
// the benchmarks measure them against.
#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace fcadmin_test {

// CRC-16/ARC bit by bit: reflected polynomial 0xA001, initial value 0 (or the running crc), no final XOR.
inline uint32_t bitwise_crc16(uint32_t crc, const unsigned char *data, size_t length) {
    for (size_t i = 0; i < length; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1u) != 0 ? 0xA001u : 0);
    }
    return crc;
}

// The one-byte loop that base64decode was: the filter read one byte at a time into a zero-filled buffer of
// (3 * length) / 4 + 1 bytes, which the caller frees.
inline unsigned char *one_byte_base64decode(const char *text, uint32_t length, uint32_t *decoded_length) {
    const uint64_t capacity = (3 * uint64_t{length}) / 4 + 1;
    auto *buffer = static_cast<unsigned char *>(calloc(capacity, 1));
    BIO *chain = BIO_push(BIO_new(BIO_f_base64()), BIO_new(BIO_s_mem()));
    BIO_write(BIO_next(chain), text, static_cast<int>(length));
    BIO_set_flags(chain, BIO_FLAGS_BASE64_NO_NL);
    uint64_t count = 0;
    while (count + 1 < capacity && BIO_read(chain, buffer + count, 1) >= 1) ++count;
    *decoded_length = static_cast<uint32_t>(count);
    BIO_free_all(chain);
    return buffer;
}

// What a decoder of base64decode's contract gives: "<decoded length>:<the whole buffer>".
inline std::string decoded(unsigned char *(*decode)(const char *, uint32_t, uint32_t *), const char *text,
                           uint32_t length) {
    uint32_t count = 0xDEAD;  // a length never written shows
    unsigned char *out = decode(text, length, &count);
    const auto size = static_cast<size_t>((3 * uint64_t{length}) / 4 + 1);
    std::string result = std::to_string(count) + ":" + std::string(reinterpret_cast<char *>(out), size);
    free(out);
    return result;
}

// The get_crc that was: fopen, the size from the end position, calloc, one fread; the head of the MD5 (taken here
// through OpenSSL, not the platform's digest), 0 when the file cannot be opened.
inline int32_t literal_get_crc(const char *path) {
    FILE *file = fopen(path, "r");
    if (file == nullptr) return 0;
    const size_t size = fseek(file, 0, SEEK_END) == 0 ? static_cast<size_t>(std::max(ftell(file), 0L)) : 0;
    auto *buffer = static_cast<unsigned char *>(calloc(std::max<size_t>(size, 1), 1));
    if (fseek(file, 0, SEEK_SET) == 0 && size > 0) (void)!fread(buffer, size, 1, file);
    fclose(file);
    unsigned char d[16];
    EVP_Digest(buffer, size, d, nullptr, EVP_md5(), nullptr);
    free(buffer);
    return static_cast<int32_t>((uint32_t{d[0]} << 24) | (uint32_t{d[1]} << 16) | (uint32_t{d[2]} << 8) | d[3]);
}

}  // namespace fcadmin_test
