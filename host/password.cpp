// The platform password check on a host: shape only, since a host has no account database to ask.
#include "fcadmin_platform.h"

#include <cstring>

namespace {

// The request's password field holds 384 bytes with its terminator.
constexpr size_t kMaxPasswordLength = 383;

}  // namespace

// 1 for a non-empty answer of at most 383 bytes without control characters (bytes below 0x20 and
// DEL), else 0. Bytes above 0x7f pass: a password may be UTF-8.
extern "C" FCADMIN_PLATFORM_API int32_t ork_verify_password(const char *password) {
    if (password == nullptr) return 0;
    const size_t length = strnlen(password, kMaxPasswordLength + 1);
    if (length == 0 || length > kMaxPasswordLength) return 0;
    for (size_t i = 0; i < length; ++i) {
        const unsigned char c = static_cast<unsigned char>(password[i]);
        if (c < 0x20 || c == 0x7f) return 0;
    }
    return 1;
}
