// The host prompt service: prompt on standard output, one line from standard input per call.
#include "fcadmin_platform.h"
#include "tests/support/helpers.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <string>

using namespace fcadmin_test;

namespace {

// Makes standard input read the given bytes and standard output go to a file (in a forked child).
void feed_stdin(const std::string &input, const std::string &output) {
    write_file("/tmp/scanf_test.in", input);
    int in = open("/tmp/scanf_test.in", O_RDONLY);
    dup2(in, STDIN_FILENO);
    close(in);
    int out = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(out, STDOUT_FILENO);
    close(out);
}

}  // namespace

TEST(HostScanf, ReadsOneLinePerCallAndCutsLongOnes) {
    EXPECT_IN_CHILD({
        feed_stdin("first\nsecond-and-longer\n\nlast", "/tmp/scanf_test.out");
        char answer[16];
        memset(answer, 'x', sizeof answer);
        EXPECT_EQ(ork_infra_scanf("Password", answer, 16), 0);
        EXPECT_STREQ(answer, "first");
        // Cut at limit - 1; the rest of the line is consumed, not left for the next answer.
        EXPECT_EQ(ork_infra_scanf("Password", answer, 7), 0);
        EXPECT_STREQ(answer, "second");
        EXPECT_EQ(ork_infra_scanf("Password", answer, 16), 0);
        EXPECT_STREQ(answer, "");
        EXPECT_EQ(ork_infra_scanf(nullptr, answer, 16), 0);
        EXPECT_STREQ(answer, "last");
        EXPECT_EQ(ork_infra_scanf("Password", answer, 16), -1);
        EXPECT_STREQ(answer, "");
    });
    EXPECT_EQ(read_file("/tmp/scanf_test.out"), "Password: Password: Password: : Password: ");
}

TEST(HostScanf, LeavesTheRestOfTheInputUnreadAndRejectsBadArguments) {
    EXPECT_IN_CHILD({
        feed_stdin("secret\nfor the next program\n", "/tmp/scanf_test.out2");
        char answer[384];
        EXPECT_EQ(ork_infra_scanf("Password", answer, sizeof answer), 0);
        EXPECT_STREQ(answer, "secret");
        char rest[64] = {};
        EXPECT_EQ(read(STDIN_FILENO, rest, sizeof rest - 1), 21);
        EXPECT_STREQ(rest, "for the next program\n");

        EXPECT_EQ(ork_infra_scanf("Password", nullptr, 16), -1);
        EXPECT_EQ(ork_infra_scanf("Password", answer, 0), -1);
        EXPECT_EQ(ork_infra_scanf("Password", answer, -5), -1);
    });
    EXPECT_IN_CHILD({
        // A limit of 1 leaves room for the terminator only; the line is still consumed.
        feed_stdin("abc\ndef\n", "/tmp/scanf_test.out2");
        char answer[4] = "zzz";
        EXPECT_EQ(ork_infra_scanf("Password", answer, 1), 0);
        EXPECT_STREQ(answer, "");
        EXPECT_EQ(ork_infra_scanf("Password", answer, 4), 0);
        EXPECT_STREQ(answer, "def");
    });
    EXPECT_IN_CHILD({
        feed_stdin("", "/tmp/scanf_test.out2");
        close(STDIN_FILENO);
        char answer[8] = "zzz";
        EXPECT_EQ(ork_infra_scanf("Password", answer, 8), -1);
        EXPECT_STREQ(answer, "");
    });
}
