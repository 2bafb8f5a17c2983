// The host password check: non-empty, at most 383 bytes, no control characters.
#include "fcadmin_platform.h"
#include "tests/support/helpers.h"

#include <string>

TEST(HostPassword, AcceptsPrintableAnswersThatFitTheField) {
    EXPECT_EQ(ork_verify_password("with blank and !\"#$%&'()*+,-./:;<=>?@[\\]^_`{|}~"), 1);
    EXPECT_EQ(ork_verify_password("p\xc3\xa4sswort"), 1);  // UTF-8
    EXPECT_EQ(ork_verify_password(std::string(383, 'a').c_str()), 1);
    EXPECT_EQ(ork_verify_password(std::string(384, 'a').c_str()), 0);
    EXPECT_EQ(ork_verify_password(""), 0);
    EXPECT_EQ(ork_verify_password(nullptr), 0);
    EXPECT_EQ(ork_verify_password("tab\there"), 0);
    EXPECT_EQ(ork_verify_password("escape\x1b[0m"), 0);
    EXPECT_EQ(ork_verify_password("del\x7f"), 0);
    EXPECT_EQ(ork_verify_password("line\n"), 0);
}
