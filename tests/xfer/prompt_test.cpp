// The password prompt with the platform fakes, on a pseudo-terminal: when it asks, how often, with what
// echo, and what ends the process.
#include "fcadmin.h"
#include "tests/support/fake_platform.h"
#include "tests/support/helpers.h"

#include <fcntl.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cstring>

using namespace fcadmin_test;

namespace {

constexpr int kPasswordSize = 384;

bool stdin_echo() {
    termios t{};
    return tcgetattr(0, &t) == 0 && (t.c_lflag & ECHO) != 0;
}

// Makes a new pseudo-terminal the standard input of the calling (child) process, echo on.
void terminal_on_stdin() {
    int master = -1, slave = -1;
    ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    ASSERT_EQ(dup2(slave, 0), 0);
    close(slave);
    ASSERT_TRUE(stdin_echo());
    // The master stays open for the child's life, so the terminal stays usable.
}

// Reads the echo bit of standard input at every prompt.
std::vector<bool> &watch_echo_at_prompts() {
    static std::vector<bool> seen;
    seen.clear();
    on_platform_call("ork_infra_scanf", [] { seen.push_back(stdin_echo()); });
    return seen;
}

TEST(QueryPassword, AsksNothingWhenNoPasswordIsNeeded) {
    // Standard input is no terminal here: touching it would end the child with status 1.
    EXPECT_IN_CHILD({
        int null_fd = open("/dev/null", O_RDONLY);
        dup2(null_fd, 0);
        reset_platform();
        char password[kPasswordSize] = "given";
        EXPECT_EQ(QueryPassword("guest", password), 0);
        EXPECT_STREQ(password, "given");
        char empty[kPasswordSize] = {};
        for (const char *user : {"anonymous", "anon", "a", ""}) EXPECT_EQ(QueryPassword(user, empty), 0) << user;
        EXPECT_EQ(QueryPassword(nullptr, empty), -1);
        EXPECT_EQ(QueryPassword("guest", nullptr), -1);
        EXPECT_TRUE(platform_calls().empty());
    });
}

TEST(QueryPassword, PromptsWithEchoOffAndTurnsItBackOn) {
    // "anonymous2" is no prefix of "anonymous": the bound is the name's own length.
    EXPECT_IN_CHILD({
        terminal_on_stdin();
        reset_platform();
        auto &echo = watch_echo_at_prompts();
        script_answers({"wrong", "right"});
        script_results("ork_verify_password", {0, 1});
        char password[kPasswordSize] = {};
        EXPECT_EQ(QueryPassword("anonymous2", password), 0);
        EXPECT_STREQ(password, "right");
        EXPECT_EQ(platform_call_names(), (std::vector<std::string>{"ork_infra_scanf", "ork_verify_password",
                                                                   "ork_infra_scanf", "ork_verify_password"}));
        for (const auto &call : platform_calls_of("ork_infra_scanf"))
            EXPECT_EQ(call.args, (std::vector<std::string>{"Password", "384"}));
        EXPECT_EQ(platform_calls_of("ork_verify_password")[0].args[0], "wrong");
        EXPECT_EQ(echo, (std::vector<bool>{false, false}));
        EXPECT_TRUE(stdin_echo());
    });
}

TEST(QueryPassword, GivesUpAfterThreePromptsAndKeepsTheLastAnswer) {
    EXPECT_IN_CHILD({
        terminal_on_stdin();
        reset_platform();
        script_answers({"one", "two", "three", "four"});
        set_default_result("ork_verify_password", 0);
        char password[kPasswordSize] = {};
        EXPECT_EQ(QueryPassword("guest", password), -1);
        EXPECT_EQ(platform_calls_of("ork_infra_scanf").size(), 3u);
        EXPECT_EQ(platform_calls_of("ork_verify_password").size(), 3u);
        EXPECT_STREQ(password, "three");
        EXPECT_TRUE(stdin_echo());
    });
    // A prompt whose read fails is not judged; the verdict before it stands.
    EXPECT_IN_CHILD({
        terminal_on_stdin();
        reset_platform();
        script_answers({"a1", "a2", "a3"});
        script_results("ork_infra_scanf", {0, -1, 0});
        set_default_result("ork_verify_password", 0);
        char password[kPasswordSize] = {};
        EXPECT_EQ(QueryPassword("guest", password), -1);
        EXPECT_EQ(platform_calls_of("ork_verify_password").size(), 2u);
    });
    EXPECT_IN_CHILD({
        terminal_on_stdin();
        reset_platform();
        set_default_result("ork_infra_scanf", -1);
        set_default_result("ork_verify_password", 1);
        char password[kPasswordSize] = {};
        EXPECT_EQ(QueryPassword("guest", password), -1);
        EXPECT_EQ(platform_call_names(), (std::vector<std::string>(3, "ork_infra_scanf")));
    });
}

TEST(QueryPassword, EndsTheProcessWhenStdinIsNoTerminal) {
    std::string errors = "/tmp/prompt_stderr";
    int status = run_in_child([&] {
        int null_fd = open("/dev/null", O_RDONLY);
        dup2(null_fd, 0);
        int err = open(errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(err, 2);
        reset_platform();
        char password[kPasswordSize] = {};
        QueryPassword("guest", password);
        fprintf(stderr, "returned\n");
        _exit(0);
    });
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_EQ(read_file(errors), "Failed to set tty info\n");
}

}  // namespace
