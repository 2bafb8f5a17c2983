// Base64 decoding into a fresh buffer that the caller frees, through OpenSSL's base64 filter.
#include "fcadmin.h"

#include <openssl/bio.h>
#include <openssl/evp.h>

#include <climits>
#include <cstdlib>
#include <cstring>

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
    // Zeroed below, where the decoder leaves off: the buffer reads as a zero-filled one, written once.
    unsigned char *buffer = static_cast<unsigned char *>(malloc(static_cast<size_t>(capacity)));
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

    // Blocks as large as the room left, until the filter has nothing more: the filter decodes the same
    // quanta whatever a read asks for, so this gives what reading one byte at a time gave. The last byte
    // stays the terminating 0 even if the decoder ever produced more than three bytes for every four.
    uint64_t count = 0;
    while (count + 1 < capacity) {
        const uint64_t room = capacity - 1 - count;
        const int got = BIO_read(chain, buffer + count, room > INT_MAX ? INT_MAX : static_cast<int>(room));
        if (got < 1) break;
        count += static_cast<uint64_t>(got);
    }
    *decoded_length = static_cast<uint32_t>(count);
    memset(buffer + count, 0, static_cast<size_t>(capacity - count));

    BIO_free_all(chain);
    return buffer;
}

}  // extern "C"
