// The command runner, the test binary re-run as the tool: results, error log, words, console, signal states.
#include "tests/support/fake_platform.h"
#include "xfer/runner.h"

#include <signal.h>
#include <sys/time.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

using namespace fcadmin_test;

const std::string kLog = FCADMIN_TRANSFER_LOG;
const std::string kNoProgram = "execvp failed errno: 2 errstr:No such file or directory\n";

// "INT=handler,R,HUP QUIT=ign ... blocked,USR2": the action (with its restart flag and mask) of each
// signal that the runner guards, SIGCHLD's, and the blocked set.
static std::string signal_state() {
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
    if (mode == "kill") signal(atoi(argv[2]), SIG_DFL), raise(atoi(argv[2]));
    if (mode == "stop") raise(SIGSTOP), puts("continued");
    if (mode == "state") puts(signal_state().c_str()), fflush(stdout), usleep(100000);  // outlasts a few ticks
    if (mode == "args") fprintf(stderr, "%d\n", argc);  // unbuffered: the count comes first in the log
    for (int i = 1; mode == "args" && i < argc; ++i) printf("[%s]\n", argv[i]);
    return 0;
}

static std::string tool(const std::string &args) { return self_exe() + " " + args; }

// Every case runs with the default launcher and with the literal fork, kept as the oracle.
const char *const kLaunchers[] = {"clone", "fork"};
fcadmin::Launcher launcher = fcadmin::Launcher::clone;
static void use(const char *name) { launcher = name[0] == 'f' ? fcadmin::Launcher::fork : fcadmin::Launcher::clone; }
static int32_t run(const std::string &command) { return fcadmin::system_call(command.c_str(), launcher); }

TEST(Runner, ResultLogAndConsoleOfEachCommand) {
    setenv("FCADMIN_TEST_HELPER", "tool", 1);
    std::string words = "args", listed = "22\n[args]\n";
    for (int i = 3; i <= 22; ++i) words += " w" + std::to_string(i), listed += "[w" + std::to_string(i) + "]\n";
    const std::string head = tool("args");
    const std::string stale = "stale\n", too_many = "admin_system_call: too many words in the command (23)\n";
    const struct {
        std::string command;
        int32_t result;
        std::string log, console{}, out{};
    } rows[] = {
        {tool("exit 0"), 0, ""}, {tool("exit 3"), -1, ""},
        // Killed by SIGKILL fails; killed by any other signal counts as success; a stopped tool is woken.
        {tool("kill 9"), -1, ""}, {tool("kill 15"), 0, ""}, {tool("stop"), 0, "continued\n"},
        {"true", 0, ""}, {"false", -1, ""},  // a name without a slash is looked up on the search path
        {"/no/such/tool a b", -1, "", kNoProgram}, {"", -1, "", kNoProgram}, {"    ", -1, "", kNoProgram},
        // Blanks split (a run of them counts once); tabs do not. Words are cut at 399 bytes, the whole
        // command after 9,598.
        {"   " + head + "  one\ttwo   three ", 0, "4\n[args]\n[one\ttwo]\n[three]\n"},
        {tool("args " + std::string(500, 'x')), 0, "3\n[args]\n[" + std::string(399, 'x') + "]\n"},
        {head + std::string(9598 - head.size() - 3, ' ') + "abcdef", 0, "3\n[args]\n[abc]\n"},
        {tool(words), 0, listed},
        // From 23 words on nothing is started.
        {tool(words + " w23"), -1, stale, "", too_many}, {tool(words + " w23 w24 w25"), -1, stale, "", too_many},
    };
    for (const char *each : kLaunchers) {
        use(each);
        for (const auto &row : rows) {
            SCOPED_TRACE(each + (" " + row.command.substr(0, 80)));
            write_file(kLog, stale);
            unlink(kConsoleFile);
            const std::string out = captured(STDOUT_FILENO, [&] { EXPECT_EQ(run(row.command), row.result); });
            const auto mode = int(std::filesystem::status(kLog).permissions());  // "out|log|mode|console"
            EXPECT_EQ(out + "|" + read_file(kLog) + "|" + std::to_string(mode) + "|" + read_file(kConsoleFile),
                      row.out + "|" + row.log + "|" + (row.log == stale ? "420|" : "384|") + row.console);
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

static void note_signal(int) {}
static void handle(int sig, int flags) {  // with SIGHUP in the handler's mask
    struct sigaction a {};
    a.sa_handler = note_signal, a.sa_flags = flags, sigaddset(&a.sa_mask, SIGHUP), sigaction(sig, &a, nullptr);
}

TEST(Runner, ToolGetsTheCallersSignalStateAndTheCallerKeepsItsOwnUnlessInTheShell) {
    setenv("FCADMIN_TEST_HELPER", "tool", 1);
    const std::string ignoring = "INT=ign QUIT=ign TSTP=ign USR1=ign USR2=ign CHLD=dfl blocked,USR2,CHLD";
    for (int i = 0; i < 6; ++i) {
        const int32_t context = i / 2;
        use(kLaunchers[i % 2]);
        in_child([&] {
            handle(SIGINT, SA_RESTART), handle(SIGUSR1, SA_RESTART), signal(SIGQUIT, SIG_IGN);
            handle(SIGALRM, 0);  // the caller's own timer interrupts the wait, which is repeated, not reported
            sigset_t usr2;
            sigemptyset(&usr2), sigaddset(&usr2, SIGUSR2), sigprocmask(SIG_BLOCK, &usr2, nullptr);
            setCLIContext(context);
            EXPECT_EQ(std::to_string(getCLIContext()) + std::to_string(glb_cli_context), std::string(2, char('0' + context)));
            const std::string before = signal_state();
            const itimerval every{{0, 20000}, {0, 20000}}, off{};
            setitimer(ITIMER_REAL, &every, nullptr);
            EXPECT_EQ(run(tool("state")), 0);
            setitimer(ITIMER_REAL, &off, nullptr);
            // After exec the caller's handlers are the defaults; what was ignored or blocked stays so.
            EXPECT_EQ(read_file(kLog), "INT=dfl QUIT=ign TSTP=dfl USR1=dfl USR2=dfl CHLD=dfl blocked,USR2\n");
            // The command-line shell keeps the six ignored (SIGSTOP's request is refused) and SIGCHLD blocked.
            EXPECT_EQ(signal_state(), context == 1 ? ignoring : before) << context << " " << kLaunchers[i % 2];
        });
    }
}
