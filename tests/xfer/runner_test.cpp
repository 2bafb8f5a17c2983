// The command runner with real children, the test binary re-run as the tool: results, the error log,
// word splitting, console lines, and the signal state of the tool and of its caller.
#include "tests/support/fake_platform.h"
#include "xfer/runner.h"

#include <signal.h>
#include <sys/time.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace fcadmin_test;

namespace {

const std::string kLog = FCADMIN_TRANSFER_LOG;
const std::string kNoProgram = "execvp failed errno: 2 errstr:No such file or directory\n";

// "INT=handler,R,HUP QUIT=ign ... blocked,USR2": the action (with its restart flag and mask) of each
// signal that the runner guards, SIGCHLD's, and the blocked set.
std::string signal_state() {
    auto names = [](const sigset_t &set, std::string out = "") {
        for (int sig = 1; sig < 32; ++sig) out += sigismember(&set, sig) == 1 ? "," + std::string(sigabbrev_np(sig)) : "";
        return out;
    };
    std::string out;
    for (int sig : {SIGINT, SIGQUIT, SIGTSTP, SIGUSR1, SIGUSR2, SIGCHLD}) {
        struct sigaction a {};
        sigaction(sig, nullptr, &a);
        out += std::string(sigabbrev_np(sig)) + "=" + (a.sa_handler == SIG_IGN ? "ign" : a.sa_handler == SIG_DFL ? "dfl" : "handler") +
               ((a.sa_flags & SA_RESTART) != 0 ? ",R" : "") + names(a.sa_mask) + " ";
    }
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    return out + "blocked" + names(mask);
}

// The tool the runner starts: argv[1] says what it does.
FCADMIN_TEST_HELPER(tool) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "exit") return atoi(argv[2]);
    if (mode == "kill") signal(atoi(argv[2]), SIG_DFL);
    if (mode == "kill") raise(atoi(argv[2]));
    if (mode == "stop") raise(SIGSTOP);
    if (mode == "stop") puts("continued");
    if (mode == "sleep") usleep(300000);
    if (mode == "state") puts(signal_state().c_str());
    if (mode == "args") fprintf(stderr, "%d\n", argc);  // unbuffered: the count comes first in the log
    for (int i = 1; mode == "args" && i < argc; ++i) printf("[%s]\n", argv[i]);
    return 0;
}

std::string tool(const std::string &args) { return self_exe() + " " + args; }

// Every case runs with the default launcher and with the literal fork, kept as the oracle.
const fcadmin::Launcher kLaunchers[] = {fcadmin::Launcher::clone, fcadmin::Launcher::fork};
fcadmin::Launcher launcher = fcadmin::Launcher::clone;
int32_t run(const std::string &command) { return fcadmin::system_call(command.c_str(), launcher); }
const char *name(fcadmin::Launcher l) { return l == fcadmin::Launcher::fork ? "fork" : "clone"; }

mode_t log_mode() {
    struct stat st {};
    return stat(kLog.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

TEST(Runner, ResultLogAndConsoleOfEachCommand) {
    setenv("FCADMIN_TEST_HELPER", "tool", 1);
    std::string words = "args", listed = "22\n[args]\n";
    for (int i = 3; i <= 22; ++i) {
        words += " w" + std::to_string(i);
        listed += "[w" + std::to_string(i) + "]\n";
    }
    const std::string head = tool("args");
    const std::string stale = "stale\n", too_many = "admin_system_call: too many words in the command (23)\n";
    const struct {
        std::string command;
        int32_t result;
        std::string log, console{}, out{};
    } rows[] = {
        {tool("exit 0"), 0, ""},
        {tool("exit 3"), -1, ""},
        // Killed by SIGKILL fails; killed by any other signal counts as success; a stopped tool is woken.
        {tool("kill 9"), -1, ""},
        {tool("kill 15"), 0, ""},
        {tool("stop"), 0, "continued\n"},
        {"true", 0, ""},  // a name without a slash is looked up on the search path
        {"false", -1, ""},
        {"/no/such/tool a b", -1, "", kNoProgram},
        {"", -1, "", kNoProgram},
        {"    ", -1, "", kNoProgram},
        // Blanks split (a run of them counts once); tabs do not. Words are cut at 399 bytes, the whole
        // command after 9,598.
        {"   " + head + "  one\ttwo   three ", 0, "4\n[args]\n[one\ttwo]\n[three]\n"},
        {tool("args " + std::string(500, 'x')), 0, "3\n[args]\n[" + std::string(399, 'x') + "]\n"},
        {head + std::string(9598 - head.size() - 3, ' ') + "abcdef", 0, "3\n[args]\n[abc]\n"},
        {tool(words), 0, listed},
        // From 23 words on nothing is started.
        {tool(words + " w23"), -1, stale, "", too_many},
        {tool(words + " w23 w24 w25"), -1, stale, "", too_many},
    };
    EXPECT_EQ(admin_system_call(nullptr), -1);
    for (const auto each : kLaunchers) {
        launcher = each;
        for (const auto &row : rows) {
            SCOPED_TRACE(std::string(name(each)) + " " + row.command.substr(0, 80));
            write_file(kLog, stale);
            unlink(kConsoleFile);
            EXPECT_EQ(captured(STDOUT_FILENO, [&] { EXPECT_EQ(run(row.command), row.result); }), row.out);
            EXPECT_EQ(read_file(kLog), row.log);
            EXPECT_EQ(log_mode(), row.log == stale ? 0644u : 0600u);
            EXPECT_EQ(read_file(kConsoleFile), row.console);
        }
        // The log cannot be opened where a directory stands in its place.
        unlink(kLog.c_str());
        unlink(kConsoleFile);
        ASSERT_EQ(mkdir(kLog.c_str(), 0755), 0);
        EXPECT_EQ(run(tool("exit 0")), -1);
        EXPECT_EQ(read_file(kConsoleFile), "Err: cli command \"" + tool("exit 0") + "\" open file " + kLog + " failed\n");
        rmdir(kLog.c_str());
    }
}

void note_signal(int) {}

TEST(Runner, ToolGetsTheCallersSignalStateAndTheCallerKeepsItsOwnUnlessInTheShell) {
    setenv("FCADMIN_TEST_HELPER", "tool", 1);
    const std::string ignoring = "INT=ign QUIT=ign TSTP=ign USR1=ign USR2=ign CHLD=dfl blocked,USR2,CHLD";
    for (int i = 0; i < 6; ++i) {
        const int32_t context = i / 2;
        const fcadmin::Launcher each = launcher = kLaunchers[i % 2];
        in_child([&] {
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
            setCLIContext(context);
            EXPECT_EQ(getCLIContext(), context);
            EXPECT_EQ(glb_cli_context, context);
            const std::string before = signal_state();
            EXPECT_EQ(run(tool("state")), 0);
            // After exec the caller's handlers are the defaults; what was ignored or blocked stays so.
            EXPECT_EQ(read_file(kLog), "INT=dfl QUIT=ign TSTP=dfl USR1=dfl USR2=dfl CHLD=dfl blocked,USR2\n");
            // The command-line shell keeps the six ignored (SIGSTOP's request is refused) and SIGCHLD blocked.
            EXPECT_EQ(signal_state(), context == 1 ? ignoring : before) << context << " " << name(each);
        });
    }
    // A wait that the caller's own timer interrupts is repeated, not reported.
    for (const auto each : kLaunchers) {
        launcher = each;
        in_child([&] {
            struct sigaction tick {};
            tick.sa_handler = note_signal;
            sigaction(SIGALRM, &tick, nullptr);
            const itimerval every{{0, 20000}, {0, 20000}};
            setitimer(ITIMER_REAL, &every, nullptr);
            EXPECT_EQ(run(tool("sleep")), 0) << name(each);
        });
    }
}

}  // namespace
