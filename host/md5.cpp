// The platform digest on a host: MD5 through OpenSSL's EVP interface.
#include "fcadmin_platform.h"

#include <openssl/evp.h>

#include <cstring>

namespace {
constexpr size_t kDigestLength = 16;
}

// A digest that OpenSSL refuses (a provider configuration without MD5) comes out as sixteen zero
// bytes rather than as whatever the caller's buffer held.
extern "C" FCADMIN_PLATFORM_API void MD5_hash_compute(unsigned char digest[16], const unsigned char *data,
                                                      uint32_t length) {
    if (digest == nullptr) return;
    static const unsigned char kEmpty[1] = {0};
    if (data == nullptr) {
        data = kEmpty;
        length = 0;
    }
    unsigned int written = 0;
    if (EVP_Digest(data, length, digest, &written, EVP_md5(), nullptr) != 1 || written != kDigestLength)
        memset(digest, 0, kDigestLength);
}
