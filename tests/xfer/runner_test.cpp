// The command runner with real child processes: the test binary re-run as the tool.
#include "fcadmin.h"
#include "tests/support/fake_platform.h"
#include "tests/support/helpers.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

using namespace fcadmin_test;

namespace {

const std::string kLog = FCADMIN_TRANSFER_LOG;
constexpr int kGuarded[] = {SIGINT, SIGQUIT, SIGTSTP, SIGUSR1, SIGUSR2};

std::string names_of(const sigset_t &set) {
    std::string out;
    for (int sig = 1; sig < 32; ++sig)
        if (sigismember(&set, sig) == 1) out.append(out.empty() ? "" : ",").append(sigabbrev_np(sig));
    return out;
}

std::string blocked() {
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    return "blocked=" + names_of(mask);
}

// Everything of the caller's signal state that the runner may touch, for comparing before and after.
std::string caller_state() {
    std::string out;
    for (int sig : {SIGINT, SIGQUIT, SIGTSTP, SIGSTOP, SIGUSR1, SIGUSR2, SIGCHLD}) {
        struct sigaction a {};
        sigaction(sig, nullptr, &a);
        char line[160];
        snprintf(line, sizeof line, "%s %p %#x %s\n", sigabbrev_np(sig), reinterpret_cast<void *>(a.sa_handler),
                 static_cast<unsigned>(a.sa_flags), names_of(a.sa_mask).c_str());
        out += line;
    }
    return out + blocked();
}

// The tool the runner starts in these tests: argv[1] says what it does.
FCADMIN_TEST_HELPER(runner_tool) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "exit") return atoi(argv[2]);
    if (mode == "kill") {
        signal(atoi(argv[2]), SIG_DFL);
        raise(atoi(argv[2]));
        return 100;
    }
    if (mode == "stop") {
        raise(SIGSTOP);
        puts("continued");
    } else if (mode == "args") {
        // The count on (unbuffered) standard error comes first in the log, the words after it.
        fprintf(stderr, "%d\n", argc);
        for (int i = 1; i < argc; ++i) printf("[%s]\n", argv[i]);
    } else if (mode == "state") {
        for (int sig : kGuarded) {
            struct sigaction a {};
            sigaction(sig, nullptr, &a);
            printf("%s=%s ", sigabbrev_np(sig), a.sa_handler == SIG_IGN ? "ign" : "dfl");
        }
        printf("%s\n", blocked().c_str());
    } else if (mode == "poke") {
        // The caller sets its ignoring actions after the fork, so this tool may start first: wait
        // (bounded) until the caller's ignored set shows them before signalling it.
        const unsigned long long wanted = (1ull << (SIGINT - 1)) | (1ull << (SIGQUIT - 1)) |
                                          (1ull << (SIGUSR1 - 1)) | (1ull << (SIGUSR2 - 1));
        const std::string status_path = "/proc/" + std::to_string(getppid()) + "/status";
        for (int tries = 0; tries < 5000; ++tries) {
            const std::string status = read_file(status_path);
            const size_t at = status.find("SigIgn:");
            if (at != std::string::npos && (std::stoull(status.substr(at + 7), nullptr, 16) & wanted) == wanted)
                break;
            usleep(1000);
        }
        for (int sig : {SIGINT, SIGQUIT, SIGUSR1, SIGUSR2}) kill(getppid(), sig);
    } else {
        return 99;
    }
    return 0;
}

std::string tool(const std::string &args) { return self_exe() + " " + args; }
int32_t run(const std::string &command) { return admin_system_call(command.c_str()); }

// What fn prints on standard output (fd 1) or through console_printf (fd -1), the latter also from a
// forked runner child.
template <typename F>
std::string printed(int fd, F fn) {
    const std::string path = "/tmp/runner_printed";
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    fflush(nullptr);
    const int saved = fd >= 0 ? dup(fd) : -1;
    if (fd >= 0) dup2(file, fd);
    echo_console_to(fd >= 0 ? -1 : file);
    fn();
    fflush(nullptr);
    echo_console_to(-1);
    if (saved >= 0) {
        dup2(saved, fd);
        close(saved);
    }
    close(file);
    return read_file(path);
}

mode_t log_mode() {
    struct stat st {};
    return stat(kLog.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

class Runner : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("FCADMIN_TEST_HELPER", "runner_tool", 1);
        reset_platform();
        unlink(kLog.c_str());
    }
};

void note_signal(int) {}

void install_caller_signals() {
    struct sigaction handled {};
    handled.sa_handler = note_signal;
    sigaddset(&handled.sa_mask, SIGHUP);
    handled.sa_flags = SA_RESTART;
    sigaction(SIGINT, &handled, nullptr);
    sigaction(SIGUSR1, &handled, nullptr);
    signal(SIGQUIT, SIG_IGN);
    sigset_t usr2;
    sigemptyset(&usr2);
    sigaddset(&usr2, SIGUSR2);
    sigprocmask(SIG_BLOCK, &usr2, nullptr);
}

TEST_F(Runner, ExitStatusAndSignalDecideTheResult) {
    // Killed by SIGKILL fails; killed by any other signal counts as success.
    const struct {
        const char *command;
        int32_t result;
    } cases[] = {{"exit 0", 0}, {"exit 1", -1}, {"exit 3", -1}, {"kill 9", -1}, {"kill 15", 0}, {"kill 10", 0}};
    for (const auto &c : cases) EXPECT_EQ(run(tool(c.command)), c.result) << c.command;
    // A name without a slash is looked up on the search path.
    EXPECT_EQ(run("true"), 0);
    EXPECT_EQ(run("false"), -1);
    EXPECT_EQ(admin_system_call(nullptr), -1);
    EXPECT_TRUE(platform_calls_of("console_printf").empty());
    EXPECT_IN_CHILD({
        alarm(60);  // a tool left stopped would hang the runner; end this child instead
        EXPECT_EQ(run(tool("stop")), 0);
        EXPECT_EQ(read_file(kLog), "continued\n");
    });
}

TEST_F(Runner, ErrorLogHoldsTheLastCommandsOutputOnly) {
    write_file(kLog, "stale\n", 0644);
    EXPECT_EQ(run(tool("args first")), 0);
    EXPECT_EQ(read_file(kLog), "3\n[args]\n[first]\n");
    EXPECT_EQ(run(tool("args")), 0);
    EXPECT_EQ(read_file(kLog), "2\n[args]\n");
    EXPECT_EQ(log_mode(), 0600u);
    EXPECT_EQ(run("/bin/ls /no/such/file"), -1);
    EXPECT_NE(read_file(kLog).find("/no/such/file"), std::string::npos);
}

TEST_F(Runner, WordsAreSplitAtBlanksOnly) {
    EXPECT_EQ(run("   " + tool("args") + "  one\ttwo   three "), 0);
    EXPECT_EQ(read_file(kLog), "4\n[args]\n[one\ttwo]\n[three]\n");
    EXPECT_EQ(run(tool("args " + std::string(500, 'x'))), 0);
    EXPECT_EQ(read_file(kLog), "3\n[args]\n[" + std::string(399, 'x') + "]\n");
    // The command itself is cut after 9,598 bytes, here inside its last word.
    const std::string head = tool("args");
    EXPECT_EQ(run(head + std::string(9598 - head.size() - 3, ' ') + "abcdef"), 0);
    EXPECT_EQ(read_file(kLog), "3\n[args]\n[abc]\n");

    std::string words = "args", expected = "22\n[args]\n";
    for (int i = 3; i <= 22; ++i) {
        words += " w" + std::to_string(i);
        expected += "[w" + std::to_string(i) + "]\n";
    }
    EXPECT_EQ(run(tool(words)), 0);
    EXPECT_EQ(read_file(kLog), expected);
    // From 23 words on nothing is started.
    write_file(kLog, "untouched\n", 0644);
    for (const char *extra : {" w23", " w23 w24 w25"}) {
        EXPECT_EQ(printed(STDOUT_FILENO, [&] { EXPECT_EQ(run(tool(words + extra)), -1); }),
                  "admin_system_call: too many words in the command (23)\n");
        EXPECT_EQ(read_file(kLog), "untouched\n");
    }
}

TEST_F(Runner, ChildFailuresAreReportedOnTheConsole) {
    for (const char *command : {"/no/such/tool a b", "", "    "}) {
        EXPECT_EQ(printed(-1, [&] { EXPECT_EQ(admin_system_call(command), -1); }),
                  "execvp failed errno: 2 errstr:No such file or directory\n")
            << '"' << command << '"';
        EXPECT_EQ(read_file(kLog), "");
        EXPECT_EQ(log_mode(), 0600u);
    }
    // The log cannot be opened where a directory stands in its place.
    unlink(kLog.c_str());
    ASSERT_EQ(mkdir(kLog.c_str(), 0755), 0);
    EXPECT_EQ(printed(-1, [&] { EXPECT_EQ(run(tool("exit 0")), -1); }),
              "Err: cli command \"" + tool("exit 0") + "\" open file " + kLog + " failed\n");
    rmdir(kLog.c_str());
}

TEST_F(Runner, CallerSignalStateAfterwardsDependsOnTheContext) {
    for (int32_t context : {0, 1, 2}) {
        EXPECT_IN_CHILD({
            install_caller_signals();
            setCLIContext(context);
            EXPECT_EQ(getCLIContext(), context);
            EXPECT_EQ(glb_cli_context, context);
            const std::string before = caller_state();
            EXPECT_EQ(run(tool("state")), 0);
            // The tool gets the caller's actions and mask back, SIGCHLD unblocked.
            EXPECT_EQ(read_file(kLog), "INT=dfl QUIT=ign TSTP=dfl USR1=dfl USR2=dfl blocked=USR2\n");
            const std::string after = caller_state();
            if (context != 1) {
                EXPECT_EQ(after, before) << "context " << context;
                return;
            }
            // The command-line context keeps the ignoring actions (no flags, no mask) and SIGCHLD
            // blocked: setting them once more must change nothing.
            struct sigaction ignore {};
            ignore.sa_handler = SIG_IGN;
            for (int sig : kGuarded) sigaction(sig, &ignore, nullptr);
            sigset_t chld;
            sigemptyset(&chld);
            sigaddset(&chld, SIGCHLD);
            sigprocmask(SIG_BLOCK, &chld, nullptr);
            EXPECT_NE(after, before);
            EXPECT_EQ(after, caller_state());
        });
    }
    EXPECT_EQ(getCLIContext(), 0);
    // Under their default actions these would end the caller if they were not ignored while the tool runs.
    EXPECT_IN_CHILD({
        const std::string before = caller_state();
        EXPECT_EQ(run(tool("poke")), 0);
        EXPECT_EQ(caller_state(), before);
    });
}

}  // namespace
