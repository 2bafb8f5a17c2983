// The credential encoders on any text and result size, and a request converted in place, fields unterminated.
#include "tests/fuzz/fuzz.h"

FUZZ_TARGET(data, size) {
    const uint32_t room = size < 2 ? 0 : data[0] | uint32_t{data[1]} << 8;  // often shorter than the text
    const std::string text = fuzz_c_string(data + std::min<size_t>(size, 2), size - std::min<size_t>(size, 2));
    char *scp = admin_convert_username_and_password_for_scp(text.c_str(), room);
    std::string back;  // a result without its backslashes is the whole text again
    for (const char *p = scp; p != nullptr && *p != '\0'; ++p) back += *p == '\\' ? *++p : *p;
    FUZZ_CHECK(scp == nullptr || back == text);
    free(scp);
    free(admin_convert_username_and_password_for_ftp(text.c_str(), room));
    TransferRequest request{};  // protocol, user name and password (778 bytes) from the input
    memcpy(reinterpret_cast<char *>(&request) + offsetof(TransferRequest, protocol), data, std::min<size_t>(size, 778));
    const int32_t result = admin_convert_username_and_password(&request);
    FUZZ_CHECK(result == 0 || result == -12);
}
