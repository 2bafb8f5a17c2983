// The host prompt service: prompt on standard output, one line from standard input per call.
#include "fcadmin_platform.h"
#include "tests/support/helpers.h"

#include <fcntl.h>
#include <unistd.h>

#include <string>

using namespace fcadmin_test;

namespace {

// Makes standard input read the given bytes and standard output go to a file (in a forked child).
void feed_stdin(const std::string &input) {
    write_file("/tmp/scanf_test.in", input);
    dup2(open("/tmp/scanf_test.in", O_RDONLY), STDIN_FILENO);
    dup2(open("/tmp/scanf_test.out", O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
}

}  // namespace

TEST(HostScanf, ReadsOneLinePerCallCutsLongOnesAndLeavesTheRestUnread) {
    EXPECT_IN_CHILD({
        feed_stdin("first\nsecond-and-longer\n\nabc\nlast\nfor the next program\n");
        char answer[16] = "xxxxxxxxxxxxxxx";
        EXPECT_EQ(ork_infra_scanf("Password", answer, 16), 0);
        EXPECT_STREQ(answer, "first");
        // Cut at limit - 1; the rest of the line is consumed, not left for the next answer.
        EXPECT_EQ(ork_infra_scanf("Password", answer, 7), 0);
        EXPECT_STREQ(answer, "second");
        EXPECT_EQ(ork_infra_scanf("Password", answer, 16), 0);
        EXPECT_STREQ(answer, "");
        EXPECT_EQ(ork_infra_scanf("Password", answer, 1), 0);  // room for the terminator only
        EXPECT_STREQ(answer, "");
        EXPECT_EQ(ork_infra_scanf(nullptr, answer, 16), 0);
        EXPECT_STREQ(answer, "last");
        char rest[64] = {};
        EXPECT_EQ(read(STDIN_FILENO, rest, sizeof rest - 1), 21);
        EXPECT_STREQ(rest, "for the next program\n");
        EXPECT_EQ(ork_infra_scanf("Password", answer, 16), -1);
        EXPECT_STREQ(answer, "");

        EXPECT_EQ(ork_infra_scanf("Password", nullptr, 16), -1);
        EXPECT_EQ(ork_infra_scanf("Password", answer, 0), -1);
        EXPECT_EQ(ork_infra_scanf("Password", answer, -5), -1);
        close(STDIN_FILENO);
        answer[0] = 'z';
        EXPECT_EQ(ork_infra_scanf("Password", answer, 8), -1);
        EXPECT_STREQ(answer, "");
    });
    EXPECT_EQ(read_file("/tmp/scanf_test.out"), "Password: Password: Password: Password: : Password: Password: ");
}
