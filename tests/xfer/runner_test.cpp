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
#include <cstring>
#include <string>

using namespace fcadmin_test;

namespace {

const std::string kLog = FCADMIN_TRANSFER_LOG;
constexpr int kGuarded[] = {SIGINT, SIGQUIT, SIGTSTP, SIGUSR1, SIGUSR2};

std::string names_of(const sigset_t &set) {
    std::string out;
    for (int sig = 1; sig < 32; ++sig) {
        if (sigismember(&set, sig) != 1) continue;
        if (!out.empty()) out += ',';
        out += sigabbrev_np(sig);
    }
    return out;
}

// The dispositions a tool inherits: handlers do not survive exec, so a handled signal shows as dfl.
std::string inherited_state() {
    std::string out;
    for (int sig : kGuarded) {
        struct sigaction action {};
        sigaction(sig, nullptr, &action);
        out += std::string(sigabbrev_np(sig)) + (action.sa_handler == SIG_IGN ? "=ign " : "=dfl ");
    }
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    return out + "blocked=" + names_of(mask) + "\n";
}

// Everything of the caller's signal state that the runner may touch, for comparing before and after.
std::string caller_state() {
    std::string out;
    for (int sig : {SIGINT, SIGQUIT, SIGTSTP, SIGSTOP, SIGUSR1, SIGUSR2, SIGCHLD}) {
        struct sigaction action {};
        sigaction(sig, nullptr, &action);
        char line[160];
        snprintf(line, sizeof line, "%s handler=%p flags=%#x mask=%s\n", sigabbrev_np(sig),
                 reinterpret_cast<void *>(action.sa_handler), static_cast<unsigned>(action.sa_flags),
                 names_of(action.sa_mask).c_str());
        out += line;
    }
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    return out + "blocked=" + names_of(mask);
}

// The tool the runner starts in these tests: argv[1] says what it does.
FCADMIN_TEST_HELPER(runner_tool) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "exit") return atoi(argv[2]);
    if (mode == "kill") {
        const int sig = atoi(argv[2]);
        signal(sig, SIG_DFL);
        raise(sig);
        return 100;
    }
    if (mode == "stop") {
        raise(SIGSTOP);
        puts("continued");
        return 0;
    }
    if (mode == "say") {
        printf("%s\n", argv[2]);
        fflush(stdout);
        fprintf(stderr, "err %s\n", argv[2]);
        return 0;
    }
    if (mode == "args") {
        printf("%d\n", argc);
        for (int i = 1; i < argc; ++i) printf("[%s]\n", argv[i]);
        return 0;
    }
    if (mode == "state") {
        fputs(inherited_state().c_str(), stdout);
        return 0;
    }
    if (mode == "poke") {
        // The caller sets its ignoring actions after the fork, so this tool may start first: wait
        // (bounded) until the caller's ignored set shows them before signalling it.
        const unsigned long long wanted = (1ull << (SIGINT - 1)) | (1ull << (SIGQUIT - 1)) |
                                          (1ull << (SIGUSR1 - 1)) | (1ull << (SIGUSR2 - 1));
        const std::string status_path = "/proc/" + std::to_string(getppid()) + "/status";
        for (int tries = 0; tries < 5000; ++tries) {
            const std::string status = read_file(status_path);
            const size_t at = status.find("SigIgn:");
            if (at != std::string::npos &&
                (std::stoull(status.substr(at + 7), nullptr, 16) & wanted) == wanted)
                break;
            usleep(1000);
        }
        for (int sig : {SIGINT, SIGQUIT, SIGUSR1, SIGUSR2}) kill(getppid(), sig);
        return 0;
    }
    return 99;
}

std::string tool(const std::string &args) { return self_exe() + " " + args; }

// Collects what console_printf prints, in this process or in a forked child of it.
class ConsoleCapture {
public:
    ConsoleCapture() {
        if (pipe2(fds_, O_CLOEXEC | O_NONBLOCK) != 0) ADD_FAILURE() << "pipe2: " << strerror(errno);
        echo_console_to(fds_[1]);
    }
    ~ConsoleCapture() {
        echo_console_to(-1);
        close(fds_[0]);
        close(fds_[1]);
    }
    std::string take() {
        std::string out;
        char buf[4096];
        ssize_t n;
        while ((n = read(fds_[0], buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
        return out;
    }

private:
    int fds_[2] = {-1, -1};
};

// Runs fn with standard output sent to a file; returns what it printed there.
template <typename F>
std::string capture_stdout(F fn) {
    fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    const int file = open("/tmp/runner_stdout", O_RDWR | O_CREAT | O_TRUNC, 0600);
    dup2(file, STDOUT_FILENO);
    close(file);
    fn();
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    return read_file("/tmp/runner_stdout");
}

mode_t log_mode() {
    struct stat st {};
    if (stat(kLog.c_str(), &st) != 0) return 0;
    return st.st_mode & 07777;
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
    sigemptyset(&handled.sa_mask);
    sigaddset(&handled.sa_mask, SIGHUP);
    handled.sa_flags = SA_RESTART;
    sigaction(SIGINT, &handled, nullptr);
    sigaction(SIGUSR1, &handled, nullptr);
    signal(SIGQUIT, SIG_IGN);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR2);
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
}

TEST_F(Runner, ExitStatusAndSignalDecideTheResult) {
    EXPECT_EQ(admin_system_call(tool("exit 0").c_str()), 0);
    EXPECT_EQ(admin_system_call(tool("exit 1").c_str()), -1);
    EXPECT_EQ(admin_system_call(tool("exit 3").c_str()), -1);
    // Killed by SIGKILL fails; killed by any other signal counts as success.
    EXPECT_EQ(admin_system_call(tool("kill 9").c_str()), -1);
    EXPECT_EQ(admin_system_call(tool("kill 15").c_str()), 0);
    EXPECT_EQ(admin_system_call(tool("kill 10").c_str()), 0);
    // A name without a slash is looked up on the search path.
    EXPECT_EQ(admin_system_call("true"), 0);
    EXPECT_EQ(admin_system_call("false"), -1);
    EXPECT_EQ(admin_system_call(nullptr), -1);
    EXPECT_TRUE(platform_calls_of("console_printf").empty());
}

TEST_F(Runner, StoppedToolIsContinued) {
    EXPECT_IN_CHILD({
        alarm(60);  // a tool left stopped would hang the runner; end this child instead
        EXPECT_EQ(admin_system_call(tool("stop").c_str()), 0);
        EXPECT_EQ(read_file(kLog), "continued\n");
    });
}

TEST_F(Runner, ErrorLogHoldsTheLastCommandsOutputOnly) {
    write_file(kLog, "stale\n", 0644);
    EXPECT_EQ(admin_system_call(tool("say first").c_str()), 0);
    EXPECT_EQ(read_file(kLog), "first\nerr first\n");
    EXPECT_EQ(admin_system_call(tool("say second").c_str()), 0);
    EXPECT_EQ(read_file(kLog), "second\nerr second\n");
    EXPECT_EQ(log_mode(), 0600u);

    // A failing tool's output is kept for the caller to show.
    EXPECT_EQ(admin_system_call("/bin/ls /no/such/file"), -1);
    EXPECT_NE(read_file(kLog).find("/no/such/file"), std::string::npos);
}

TEST_F(Runner, WordsAreSplitAtBlanksOnly) {
    EXPECT_EQ(admin_system_call(("   " + tool("args") + "  one\ttwo   three ").c_str()), 0);
    EXPECT_EQ(read_file(kLog), "4\n[args]\n[one\ttwo]\n[three]\n");

    const std::string long_word(500, 'x');
    EXPECT_EQ(admin_system_call(tool("args " + long_word).c_str()), 0);
    EXPECT_EQ(read_file(kLog), "3\n[args]\n[" + std::string(399, 'x') + "]\n");

    // The command itself is cut after 9,598 bytes, here inside its last word.
    std::string head = tool("args");
    std::string cut_command = head + std::string(9598 - head.size() - 3, ' ') + "abcdef";
    EXPECT_EQ(admin_system_call(cut_command.c_str()), 0);
    EXPECT_EQ(read_file(kLog), "3\n[args]\n[abc]\n");
}

TEST_F(Runner, TwentyTwoWordsRunTwentyThreeFailBeforeAnyChild) {
    std::string words = "args";
    for (int i = 3; i <= 22; ++i) words += " w" + std::to_string(i);
    EXPECT_EQ(admin_system_call(tool(words).c_str()), 0);
    std::string expected = "22\n[args]\n";
    for (int i = 3; i <= 22; ++i) expected += "[w" + std::to_string(i) + "]\n";
    EXPECT_EQ(read_file(kLog), expected);

    write_file(kLog, "untouched\n", 0644);
    for (const std::string &extra : {std::string(" w23"), std::string(" w23 w24 w25")}) {
        int32_t result = 0;
        std::string printed = capture_stdout([&] { result = admin_system_call(tool(words + extra).c_str()); });
        EXPECT_EQ(result, -1);
        EXPECT_EQ(printed, "admin_system_call: too many words in the command (23)\n");
        EXPECT_EQ(read_file(kLog), "untouched\n");
    }
}

TEST_F(Runner, ChildFailuresAreReportedOnTheConsole) {
    const std::string exec_failed = "execvp failed errno: 2 errstr:No such file or directory\n";
    for (const char *command : {"/no/such/tool a b", "", "    "}) {
        ConsoleCapture console;
        EXPECT_EQ(admin_system_call(command), -1) << '"' << command << '"';
        EXPECT_EQ(console.take(), exec_failed) << '"' << command << '"';
        EXPECT_EQ(read_file(kLog), "");
        EXPECT_EQ(log_mode(), 0600u);
    }

    // The log cannot be opened where a directory stands in its place.
    unlink(kLog.c_str());
    ASSERT_EQ(mkdir(kLog.c_str(), 0755), 0);
    ConsoleCapture console;
    const std::string command = tool("exit 0");
    EXPECT_EQ(admin_system_call(command.c_str()), -1);
    EXPECT_EQ(console.take(), "Err: cli command \"" + command + "\" open file " + kLog + " failed\n");
    rmdir(kLog.c_str());
}

TEST_F(Runner, CallerSignalStateIsRestoredOutsideTheCommandLineContext) {
    for (int32_t context : {0, 2}) {
        EXPECT_IN_CHILD({
            install_caller_signals();
            setCLIContext(context);
            const std::string before = caller_state();
            EXPECT_EQ(admin_system_call(tool("state").c_str()), 0);
            EXPECT_EQ(caller_state(), before) << "context " << context;
            // The tool gets the caller's actions and mask back, SIGCHLD unblocked.
            EXPECT_EQ(read_file(kLog), "INT=dfl QUIT=ign TSTP=dfl USR1=dfl USR2=dfl blocked=USR2\n");
        });
    }
}

TEST_F(Runner, CallerIgnoresTerminalSignalsWhileTheToolRuns) {
    // Each of these would end the caller under its default action.
    EXPECT_IN_CHILD({
        const std::string before = caller_state();
        EXPECT_EQ(admin_system_call(tool("poke").c_str()), 0);
        EXPECT_EQ(caller_state(), before);
    });
}

TEST_F(Runner, CommandLineContextKeepsSignalsIgnoredAndChildBlocked) {
    EXPECT_IN_CHILD({
        install_caller_signals();
        setCLIContext(1);
        EXPECT_EQ(getCLIContext(), 1);
        EXPECT_EQ(glb_cli_context, 1);
        struct sigaction stop_before {};
        sigaction(SIGSTOP, nullptr, &stop_before);

        // The flags the system reports for an action set with none (some add their own).
        struct sigaction plain {};
        plain.sa_handler = SIG_IGN;
        sigaction(SIGURG, &plain, nullptr);
        sigaction(SIGURG, nullptr, &plain);

        EXPECT_EQ(admin_system_call(tool("state").c_str()), 0);
        EXPECT_EQ(read_file(kLog), "INT=dfl QUIT=ign TSTP=dfl USR1=dfl USR2=dfl blocked=USR2\n");
        for (int sig : kGuarded) {
            struct sigaction action {};
            sigaction(sig, nullptr, &action);
            EXPECT_EQ(action.sa_handler, SIG_IGN) << sigabbrev_np(sig);
            EXPECT_EQ(action.sa_flags, plain.sa_flags) << sigabbrev_np(sig);
        }
        struct sigaction stop_after {};
        sigaction(SIGSTOP, nullptr, &stop_after);
        EXPECT_EQ(stop_after.sa_handler, stop_before.sa_handler);
        sigset_t mask;
        sigprocmask(SIG_SETMASK, nullptr, &mask);
        EXPECT_EQ(names_of(mask), "USR2,CHLD");
    });
    EXPECT_EQ(getCLIContext(), 0);
}

}  // namespace
