// The password prompt: when it asks, how often, which verdict counts, echo while reading, no terminal.
#include "tests/support/fake_platform.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

using namespace fcadmin_test;

const auto echo_on = [] { termios t{}; return tcgetattr(STDIN_FILENO, &t) != 0 || (t.c_lflag & ECHO) != 0; };

// Rows: user, given password, read results, verdicts, result, "calls|field" (s a read with echo off, v a check).
// Every prefix of "anonymous" is anonymous; a rejected answer stays in the field; a failed read keeps the verdict.
TEST(QueryPassword, AsksOnlyWhenNeededAndTheLatestReadDecides) {
    const std::tuple<const char *, const char *, std::vector<long>, std::vector<long>, int32_t, std::string> rows[] = {
        {"guest", "given", {}, {}, 0, "|given"}, {"anonymous2", "", {0}, {1}, 0, "sv|one"},
        {"anon", "", {}, {}, 0, "|"}, {"", "", {}, {}, 0, "|"},
        {"guest", "", {0, 0, 0}, {0, 0, 0}, -1, "svsvsv|three"}, {"guest", "", {0, 0}, {0, 1}, 0, "svsv|two"},
        {"guest", "", {0, -1, 0}, {0, 0}, -1, "svssv|three"}, {"guest", "", {-1, -1, -1}, {1}, -1, "sss|three"},
    };
    in_child([&] {
        terminal_on_stdin();
        for (const auto &[user, given, reads, verdicts, result, want] : rows) {
            reset_platform(), script("ork_infra_scanf Password 384", reads), script("ork_verify_password", verdicts);
            script_answers({"one", "two", "three"});  // reads scripted for their prompt and size; "!": echo on
            std::string echo, password = given + std::string(384, '\0');
            on_call("ork_infra_scanf", [&echo] { echo += echo_on() ? "!" : ""; });
            EXPECT_EQ(QueryPassword(user, password.data()), result) << user << " " << want;
            EXPECT_EQ(call_letters("s=ork_infra_scanf v=ork_verify_password") + echo + (echo_on() ? "|" : " off|") +
                          password.c_str(), want);
        }
    });
}

TEST(QueryPassword, WithoutATerminalTheProcessEnds) {
    const auto body = [] { char p[384] = {}; dup2(open("/dev/null", O_RDONLY), 0), QueryPassword("u", p), _exit(0); };
    int status = 0;
    const std::string err = captured(STDERR_FILENO, [&] { status = run_in_child(body); });
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1 && err == "Failed to set tty info\n") << status << err;
}
