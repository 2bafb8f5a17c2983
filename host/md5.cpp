// MD5_hash_compute for an ordinary Linux host: OpenSSL's MD5. Weak, so that the full set of host
// platform services, or a program's own definition, takes its place.
#include "fcadmin_platform.h"

#include <openssl/evp.h>

extern "C" __attribute__((weak)) void MD5_hash_compute(unsigned char digest[16], const unsigned char *data,
                                                      uint32_t length) {
    if (digest == nullptr) return;
    static const unsigned char kNothing = 0;
    if (data == nullptr) {
        data = &kNothing;
        length = 0;
    }
    EVP_Digest(data, length, digest, nullptr, EVP_md5(), nullptr);
}
