// Base64 decoding into a fresh buffer that the caller frees, through OpenSSL's base64 filter.
#include "fcadmin.h"

#include <openssl/bio.h>
#include <openssl/evp.h>

#include <climits>
#include <cstdlib>

namespace fcadmin {
namespace {

// The described size is (3 * length) / 4 + 1 in signed 32-bit arithmetic. Taken in 64 bits it is the
// same for every length whose product fits, and for longer texts it stays large enough instead of
// wrapping into a buffer smaller than what the decoder writes.
uint64_t decode_capacity(uint32_t length) { return (3 * uint64_t{length}) / 4 + 1; }

// BIO_write takes an int: a text longer than INT_MAX goes in several pieces.
bool write_all(BIO *bio, const char *text, uint32_t length) {
    while (length > 0) {
        int piece = length > static_cast<uint32_t>(INT_MAX) ? INT_MAX : static_cast<int>(length);
        if (BIO_write(bio, text, piece) != piece) return false;
        text += piece;
        length -= static_cast<uint32_t>(piece);
    }
    return true;
}

}  // namespace
}  // namespace fcadmin

extern "C" {

// The decoded bytes are always followed by one 0 byte, so callers may treat short results as text.
// A text that is not Base64 decodes to as many bytes as came before the fault, often none.
unsigned char *base64decode(const char *text, uint32_t length, uint32_t *decoded_length) {
    if (decoded_length != nullptr) *decoded_length = 0;
    if (text == nullptr || decoded_length == nullptr) return nullptr;

    uint64_t capacity = fcadmin::decode_capacity(length);
    if (capacity > SIZE_MAX) return nullptr;
    unsigned char *buffer = static_cast<unsigned char *>(calloc(static_cast<size_t>(capacity), 1));
    if (buffer == nullptr) return nullptr;

    BIO *memory = BIO_new(BIO_s_mem());
    BIO *filter = BIO_new(BIO_f_base64());
    if (memory == nullptr || filter == nullptr || !fcadmin::write_all(memory, text, length)) {
        BIO_free(memory);
        BIO_free(filter);
        free(buffer);
        return nullptr;
    }
    BIO *chain = BIO_push(filter, memory);
    BIO_set_flags(chain, BIO_FLAGS_BASE64_NO_NL);

    // One byte a read, until the filter has nothing more. The last byte stays the terminating 0 even if
    // the decoder ever produced more than three bytes for every four.
    uint64_t count = 0;
    while (count + 1 < capacity && BIO_read(chain, buffer + count, 1) >= 1) ++count;
    *decoded_length = static_cast<uint32_t>(count);

    BIO_free_all(chain);
    return buffer;
}

}  // extern "C"
