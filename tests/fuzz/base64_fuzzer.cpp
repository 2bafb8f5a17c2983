// base64decode: on any text what the one-byte loop gave, and on well-formed text what OpenSSL's decoder gives.
#include "tests/fuzz/fuzz.h"

#include <openssl/evp.h>

// OpenSSL's own decoder on well-formed text (the alphabet and padding alone: it would skip line breaks, blanks
// and an end marker): the bytes it accepts whole; nothing for text it refuses or that is not well-formed.
static std::string evp_decode(const std::string &text) {
    if (text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=") != text.npos) return "-";
    std::string out(text.size() + 80, '\0');
    auto *bytes = reinterpret_cast<unsigned char *>(out.data());
    int head = 0, tail = 0;
    EVP_ENCODE_CTX *context = EVP_ENCODE_CTX_new();
    EVP_DecodeInit(context);
    const auto *in = reinterpret_cast<const unsigned char *>(text.data());
    const bool accepted = EVP_DecodeUpdate(context, bytes, &head, in, static_cast<int>(text.size())) >= 0 &&
                          EVP_DecodeFinal(context, bytes + head, &tail) == 1;
    EVP_ENCODE_CTX_free(context);
    return accepted ? out.substr(0, static_cast<size_t>(head + tail)) : "-";
}

FUZZ_TARGET(data, size) {
    const char *text = reinterpret_cast<const char *>(data);
    const std::string got = fcadmin_test::decoded(base64decode, text, uint32_t(size));  // "<length>:<buffer>"
    FUZZ_CHECK(got == fcadmin_test::decoded(fcadmin_test::one_byte_base64decode, text, uint32_t(size)));
    const std::string evp = evp_decode(std::string(text, size));  // "-": not for this check
    FUZZ_CHECK(evp == "-" || got.substr(got.find(':') + 1, std::stoul(got)) == evp);
}
