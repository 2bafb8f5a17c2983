// The credential encoders and the in-place conversion of a request's credentials (null and full: api/hostile_test).
#include "tests/support/helpers.h"

using Encoder = char *(*)(const char *, uint32_t);
const Encoder kScp = admin_convert_username_and_password_for_scp, kFtp = admin_convert_username_and_password_for_ftp;

// "(null)", or the result's bytes up to the first NUL within size + 2 (room for an overrun): a missing end shows.
static std::string encode(Encoder encoder, const char *text, uint32_t size) {
    const std::unique_ptr<char, decltype(&free)> out(encoder(text, size), free);
    return out == nullptr ? "(null)" : std::string(out.get(), strnlen(out.get(), size_t{size} + 2));
}

TEST(Encoders, EscapeEveryByteThatIsNotALetterOrDigit) {
    const std::tuple<Encoder, const char *, uint32_t, std::string> rows[] = {
        {kScp, "Ab9 :@\xe9", 384, "Ab9\\ \\:\\@\\\xe9"}, {kFtp, "j.doe p:\xff", 384, "j%2edoe%20p%3a%ff"},
        {kFtp, "a\tb", 384, "a%9"},  // one digit for a control character, and the terminator after it cuts the rest
        {kScp, "", 0, ""}, {kFtp, "", 1, ""}, {kScp, "a", 1, "(null)"}, {kFtp, "a", 0, "(null)"},
        // Room is tested before each character only: a pair that begins at size - 2 fills the last byte (no
        // terminator inside size), and a percent escape near the bound is written whole, past it.
        {kScp, "ab.", 4, "ab\\."}, {kScp, "abc", 4, "abc"}, {kScp, "abcd", 4, "(null)"}, {kScp, "abc.", 4, "(null)"},
        {kFtp, "ab:", 4, "ab%3a"}, {kFtp, ":", 2, "%3a"}, {kFtp, "abc:", 4, "(null)"},
    };
    for (const auto &[encoder, text, size, bytes] : rows) EXPECT_EQ(encode(encoder, text, size), bytes) << size;
}

TEST(ConvertCredentials, OnlyFtpRequestsAreEncodedInPlace) {
    std::string escaped, hashes(129, '#');  // rows: protocol, user, password, "result|user|password" afterwards
    for (int i = 0; i < 127; ++i) escaped += "%23";
    const std::tuple<const char *, std::string, std::string, std::string> rows[] = {
        {"ftp", "j.doe", "p w", "0|j%2edoe|p%20w"}, {"", "j.doe", "p w", "0|j%2edoe|p%20w"},
        {"f", "j.doe", "p w", "0|j%2edoe|p%20w"}, {"scp", "j.doe", "p w", "0|j.doe|p w"},
        {"ftpx", "j.doe", "p w", "0|j.doe|p w"}, {"ftp", hashes.substr(2), "", "0|" + escaped + "|"},
        // 128 escapes pass the test before each character but are cut to the field's 383 bytes; 129 do not,
        // and leave the request unchanged; a password that does not fit is no error.
        {"ftp", hashes.substr(1), "", "0|" + escaped + "%2|"}, {"ftp", hashes, "p w", "-12|" + hashes + "|p w"},
        {"ftp", "u", hashes, "0|u|"},
    };
    for (const auto &[protocol, user, password, after] : rows) {
        TransferRequest r = fcadmin_test::transfer_request(protocol, user.c_str(), password.c_str(), "", "");
        const int32_t result = admin_convert_username_and_password(&r);
        EXPECT_EQ(std::to_string(result) + "|" + r.user_name + "|" + r.password, after);
    }
}
