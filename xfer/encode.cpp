// Credential encoders: backslash escaping for secure-copy command lines, percent encoding for ftp URLs,
// and the in-place conversion of a transfer request's credentials.
#include "common/format.h"
#include "fcadmin.h"
#include "xfer/protocol.h"

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace fcadmin {
namespace {

constexpr int32_t kResultInvalidInput = -8;
constexpr int32_t kResultOutOfMemory = -12;
constexpr uint32_t kCredentialSize = sizeof(TransferRequest{}.user_name);
static_assert(sizeof(TransferRequest{}.password) == kCredentialSize);

// A percent escape is written whole even when it begins at one of the last positions before the
// bound, so its digits and the terminator of the formatted text can land up to two bytes past the
// requested size. Every result carries that much zeroed room, so that the same inputs give the same
// output as they always have, without a write outside the allocation.
constexpr size_t kEscapeSpare = 2;
constexpr size_t kHexEscapeRoom = 3;  // up to two digits and the terminator

enum class Encoding { backslash, percent };

// Writes the escape of c at out[p]; returns how far the output position advances.
size_t write_escape(char *out, size_t p, unsigned char c, Encoding encoding) {
    if (encoding == Encoding::backslash) {
        out[p] = '\\';
        out[p + 1] = static_cast<char>(c);
        return 2;
    }
    // A byte below 16 gets one digit, and the terminator of its digits at p + 2 ends the encoded text:
    // whatever follows a control character is written past it and lost. Callers have always seen it so.
    out[p] = '%';
    bounded_format(out + p + 1, kHexEscapeRoom, "%x", c);
    return 3;
}

// The room test is made before each character, not for its whole escape: an escape that begins just
// before the bound is written whole. A backslash pair that begins at size - 2 fills the last byte and
// leaves the result without a terminator inside size; callers copy at most size - 1 bytes of it.
char *encode(const char *text, size_t length, uint32_t size, Encoding encoding) {
    if (text == nullptr) return nullptr;
    if (size_t{size} > SIZE_MAX - kEscapeSpare) return nullptr;
    char *out = static_cast<char *>(calloc(size_t{size} + kEscapeSpare, 1));
    if (out == nullptr) return nullptr;
    if (length == 0) return out;
    if (size < 2) {
        free(out);
        return nullptr;
    }
    const size_t limit = size_t{size} - 1;
    size_t p = 0;
    size_t i = 0;
    while (p < limit) {
        const auto c = static_cast<unsigned char>(text[i++]);
        if (isalnum(c) != 0)
            out[p++] = static_cast<char>(c);
        else
            p += write_escape(out, p, c, encoding);
        if (i == length) return out;
    }
    free(out);
    return nullptr;
}

void replace_credential(char (&field)[kCredentialSize], char *encoded) {
    memset(field, 0, sizeof field);
    if (encoded == nullptr) return;
    bounded_copy(field, encoded);
    free(encoded);
}

int32_t convert_credentials(TransferRequest &request) {
    // scp and sftp take their credentials as they stand, and usb has none.
    if (!protocol_matches(request.protocol, kProtocolFtp)) return 0;

    char *user = encode(request.user_name, strnlen(request.user_name, kCredentialSize), kCredentialSize,
                        Encoding::percent);
    if (user == nullptr) return kResultOutOfMemory;
    replace_credential(request.user_name, user);

    // The password's encoding is not tested: one that does not fit leaves the field empty, and the
    // conversion still succeeds. There has never been an error code for the password; keep it so.
    char *password = encode(request.password, strnlen(request.password, kCredentialSize), kCredentialSize,
                            Encoding::percent);
    replace_credential(request.password, password);
    return 0;
}

}  // namespace
}  // namespace fcadmin

extern "C" {

char *admin_convert_username_and_password_for_scp(const char *text, uint32_t size) {
    if (text == nullptr) return nullptr;
    return fcadmin::encode(text, strlen(text), size, fcadmin::Encoding::backslash);
}

char *admin_convert_username_and_password_for_ftp(const char *text, uint32_t size) {
    if (text == nullptr) return nullptr;
    return fcadmin::encode(text, strlen(text), size, fcadmin::Encoding::percent);
}

int32_t admin_convert_username_and_password(TransferRequest *request) {
    if (request == nullptr) return fcadmin::kResultInvalidInput;
    return fcadmin::convert_credentials(*request);
}

}  // extern "C"
