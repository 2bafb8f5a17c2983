// The password prompt: when it asks, how often, which verdict counts, echo off while the answer is read,
// and a terminal it cannot use.
#include "tests/support/fake_platform.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

using namespace fcadmin_test;

namespace {

TEST(QueryPassword, AsksOnlyWhenNeededAndTheLatestReadDecides) {
    const struct {
        const char *user, *given;
        std::vector<long> reads, verdicts;
        int32_t result;
        std::string calls, field;  // s a prompt with echo off, v a check; the field afterwards
    } rows[] = {
        {"guest", "given", {}, {}, 0, "", "given"},
        {"anon", "", {}, {}, 0, "", ""},  // every prefix of "anonymous" is anonymous, the empty name too
        {"", "", {}, {}, 0, "", ""},
        {"anonymous2", "", {0}, {1}, 0, "sv", "one"},
        // A rejected answer stays in the field; a read that fails keeps the verdict before it.
        {"guest", "", {0, 0, 0}, {0, 0, 0}, -1, "svsvsv", "three"},
        {"guest", "", {0, 0}, {0, 1}, 0, "svsv", "two"},
        {"guest", "", {0, -1, 0}, {0, 0}, -1, "svssv", "three"},
        {"guest", "", {-1, -1, -1}, {1}, -1, "sss", "three"},
    };
    in_child([&] {
        terminal_on_stdin();
        for (const auto &row : rows) {
            reset_platform();
            script("ork_infra_scanf", row.reads);
            script("ork_verify_password", row.verdicts);
            script_answers({"one", "two", "three"});
            std::string echo;
            on_call("ork_infra_scanf", [&] {
                termios t{};
                echo += tcgetattr(STDIN_FILENO, &t) == 0 && (t.c_lflag & ECHO) == 0 ? "" : "echo!";
            });
            char password[384] = {};
            strcpy(password, row.given);
            EXPECT_EQ(QueryPassword(row.user, password), row.result) << row.user << " " << row.calls;
            EXPECT_EQ(call_letters("s=ork_infra_scanf v=ork_verify_password") + echo + "|" + password, row.calls + "|" + row.field);
            for (const auto &call : calls()) EXPECT_TRUE(call.name[4] == 'v' || call.text() == "ork_infra_scanf Password 384");
            termios t{};
            EXPECT_TRUE(tcgetattr(STDIN_FILENO, &t) == 0 && (t.c_lflag & ECHO) != 0);
        }
    });
    char password[384] = {};
    EXPECT_EQ(QueryPassword(nullptr, password) + QueryPassword("guest", nullptr), -2);
}

TEST(QueryPassword, WithoutATerminalTheProcessEnds) {
    const int status = run_in_child([] {
        dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
        dup2(open("/tmp/prompt.err", O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
        char password[384] = {};
        QueryPassword("guest", password);
        _exit(0);
    });
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
    EXPECT_EQ(read_file("/tmp/prompt.err"), "Failed to set tty info\n");
}

}  // namespace
