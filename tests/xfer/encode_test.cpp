// The credential encoders and the in-place conversion of a request's credentials.
#include "tests/support/helpers.h"

using fcadmin_test::transfer_request;

namespace {

using Encoder = char *(*)(const char *, uint32_t);
const Encoder kScp = admin_convert_username_and_password_for_scp, kFtp = admin_convert_username_and_password_for_ftp;

// "(null)", or the result's bytes up to the first NUL within size + 2 (the room an escape may take beyond
// size), so that a missing terminator shows.
std::string encode(Encoder encoder, const char *text, uint32_t size) {
    char *out = encoder(text, size);
    const std::string bytes = out == nullptr ? "(null)" : std::string(out, strnlen(out, size_t{size} + 2));
    free(out);
    return bytes;
}

TEST(Encoders, EscapeEveryByteThatIsNotALetterOrDigit) {
    const struct {
        Encoder encoder;
        const char *text;
        uint32_t size;
        std::string bytes;
    } rows[] = {
        {kScp, "Ab9 :@\xe9", 384, "Ab9\\ \\:\\@\\\xe9"}, {kFtp, "j.doe p:\xff", 384, "j%2edoe%20p%3a%ff"},
        {kFtp, "a\tb", 384, "a%9"},  // one digit for a control character, and the terminator after it cuts the rest
        {kScp, "", 0, ""}, {kFtp, "", 1, ""}, {kScp, "a", 1, "(null)"}, {kFtp, "a", 0, "(null)"}, {kScp, nullptr, 9, "(null)"},
        // Room is tested before each character only: a pair that begins at size - 2 fills the last byte (no
        // terminator inside size), and a percent escape near the bound is written whole, past it.
        {kScp, "ab.", 4, "ab\\."}, {kScp, "abc", 4, "abc"}, {kScp, "abcd", 4, "(null)"}, {kScp, "abc.", 4, "(null)"},
        {kFtp, "ab:", 4, "ab%3a"}, {kFtp, ":", 2, "%3a"}, {kFtp, "abc:", 4, "(null)"}, {kFtp, nullptr, 9, "(null)"},
    };
    for (const auto &row : rows) EXPECT_EQ(encode(row.encoder, row.text, row.size), row.bytes) << row.size;
    // Every size against every kind of tail: under AddressSanitizer no byte outside the allocation is touched.
    for (uint32_t size = 0; size <= 12; ++size)
        for (const char *text : {"a", ":", "a:", "::", "\x01", "a\x01", "ab:", "abc", "\xff\xff\xff", "x.y.z"})
            for (Encoder encoder : {kScp, kFtp}) encode(encoder, text, size);
}

TEST(ConvertCredentials, OnlyFtpRequestsAreEncodedInPlace) {
    std::string escaped;
    for (int i = 0; i < 127; ++i) escaped += "%23";
    const struct {
        const char *protocol;
        std::string user, password;
        int32_t result;
        std::string after;  // "user|password"
    } rows[] = {
        {"ftp", "j.doe", "p w", 0, "j%2edoe|p%20w"}, {"", "j.doe", "p w", 0, "j%2edoe|p%20w"},
        {"f", "j.doe", "p w", 0, "j%2edoe|p%20w"},   {"scp", "j.doe", "p w", 0, "j.doe|p w"},
        {"ftpx", "j.doe", "p w", 0, "j.doe|p w"},    {"ftp", std::string(127, '#'), "", 0, escaped + "|"},
        // 128 escapes pass the test before each character but are cut to the field's 383 bytes.
        {"ftp", std::string(128, '#'), "", 0, escaped + "%2|"},
        {"ftp", std::string(129, '#'), "p w", -12, std::string(129, '#') + "|p w"},  // unchanged
        {"ftp", "u", std::string(129, '#'), 0, "u|"},  // a password that does not fit is no error
    };
    for (const auto &row : rows) {
        TransferRequest r = transfer_request(row.protocol, row.user.c_str(), row.password.c_str(), "", "");
        EXPECT_EQ(admin_convert_username_and_password(&r), row.result) << row.protocol << " " << row.user;
        EXPECT_EQ(std::string(r.user_name) + "|" + r.password, row.after);
    }
    EXPECT_EQ(admin_convert_username_and_password(nullptr), -8);
    // Fields filled to their last byte are read no further than the record's fields.
    TransferRequest full{};
    memset(full.user_name, 'u', sizeof full.user_name);
    memset(full.password, 'p', sizeof full.password);
    EXPECT_EQ(admin_convert_username_and_password(&full), -12);
    memset(full.user_name + 10, 0, sizeof full.user_name - 10);
    EXPECT_EQ(admin_convert_username_and_password(&full), 0);
    EXPECT_EQ(std::string(full.user_name) + "|" + full.password, "uuuuuuuuuu|");
}

}  // namespace
