// Oracles: the literal forms that the tests and the fuzz targets hold the library's fast paths against.
#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>

#include <cstddef>
#include <cstdint>
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

// The literal Base64 decoder, reading the filter one byte at a time into the zero-filled buffer of
// (3 * length) / 4 + 1 bytes: "<result length>:<the whole buffer>".
inline std::string one_byte_base64_decode(const char *text, uint32_t length) {
    std::string out((3 * uint64_t{length}) / 4 + 1, '\0');
    BIO *chain = BIO_push(BIO_new(BIO_f_base64()), BIO_new(BIO_s_mem()));
    BIO_write(BIO_next(chain), text, static_cast<int>(length));
    BIO_set_flags(chain, BIO_FLAGS_BASE64_NO_NL);
    size_t count = 0;
    while (count + 1 < out.size() && BIO_read(chain, &out[count], 1) >= 1) ++count;
    BIO_free_all(chain);
    return std::to_string(count) + ":" + out;
}

}  // namespace fcadmin_test
