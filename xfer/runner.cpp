// The command runner: one external program started from one command line without a shell, its output
// sent to the transfer error log; and the process-wide command-line context flag.
#include "common/format.h"
#include "common/unique_fd.h"
#include "fcadmin.h"
#include "fcadmin_platform.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

extern "C" {
int32_t glb_cli_context = 0;
}

namespace fcadmin {
namespace {

constexpr int32_t kSuccess = 0;
constexpr int32_t kFailure = -1;

// The work copy is a blank followed by at most 9,598 bytes of the command; longer commands are cut.
constexpr size_t kCommandBytes = 9598;
constexpr size_t kWorkCopySize = 1 + kCommandBytes + 1;
constexpr char kWordDelimiter = ' ';
constexpr size_t kWordBytes = 399;
constexpr size_t kWordSlotSize = kWordBytes + 1;
constexpr int kWordSlots = 24;
// Reading the 23rd word fails the whole command, even when nothing follows it.
constexpr int kTooManyWords = 23;
static_assert(kTooManyWords < kWordSlots, "the argument vector needs room for its null entry");

constexpr int kOpenFailedExit = 255;  // -1 as an exit status
constexpr int kExecFailedExit = 127;
constexpr mode_t kLogMode = 0600;
constexpr int kWaitOptions = WUNTRACED | WCONTINUED;
constexpr int32_t kCommandLineContext = 1;

// The signals a terminal or a management daemon may send while a tool runs. SIGSTOP cannot be
// ignored; the system refuses that one request, which is harmless and kept.
constexpr int kGuardedSignals[] = {SIGINT, SIGQUIT, SIGTSTP, SIGSTOP, SIGUSR1, SIGUSR2};
constexpr int kGuardedCount = sizeof kGuardedSignals / sizeof kGuardedSignals[0];

struct CommandWords {
    char slots[kWordSlots][kWordSlotSize];
    char *argv[kWordSlots];
    int count;
};

// Splits at blanks only: tabs and other white space stay inside a word, and nothing is quoted or
// escaped. Returns false when the command holds too many words.
bool split_words(const char *work, CommandWords &words) {
    words.count = 0;
    const char *p = work;
    for (;;) {
        while (*p == kWordDelimiter) ++p;
        if (*p == '\0') break;
        const char *end = strchrnul(p, kWordDelimiter);
        if (words.count + 1 == kTooManyWords) return false;
        char *slot = words.slots[words.count];
        const size_t length = std::min(static_cast<size_t>(end - p), kWordBytes);
        memcpy(slot, p, length);
        slot[length] = '\0';
        words.argv[words.count++] = slot;
        p = end;
    }
    words.argv[words.count] = nullptr;
    return true;
}

// The six guarded signals' actions and the signal mask as they were before a tool ran. Restores them
// when it goes out of scope, unless the caller keeps the changed state.
class SavedSignals {
public:
    SavedSignals() = default;
    SavedSignals(const SavedSignals &) = delete;
    SavedSignals &operator=(const SavedSignals &) = delete;
    ~SavedSignals() {
        if (armed_) restore();
    }

    // Ignores the guarded signals and blocks SIGCHLD, so that no handler of the caller reaps the child
    // before the runner's own wait does.
    void ignore_and_block() {
        struct sigaction ignore {};
        ignore.sa_handler = SIG_IGN;
        sigemptyset(&ignore.sa_mask);
        ignore.sa_flags = 0;
        for (int i = 0; i < kGuardedCount; ++i) sigaction(kGuardedSignals[i], &ignore, &actions_[i]);
        sigset_t child;
        sigemptyset(&child);
        sigaddset(&child, SIGCHLD);
        sigprocmask(SIG_BLOCK, &child, &mask_);
        armed_ = true;
    }

    void restore() {
        for (int i = 0; i < kGuardedCount; ++i) sigaction(kGuardedSignals[i], &actions_[i], nullptr);
        sigprocmask(SIG_SETMASK, &mask_, nullptr);
        armed_ = false;
    }

    void keep() { armed_ = false; }

private:
    struct sigaction actions_[kGuardedCount] {};
    sigset_t mask_{};
    bool armed_ = false;
};

// Runs in the forked child. Until exec only async-signal-safe calls, except the two prescribed
// failure lines on the console; _exit, never exit, so that the caller's stdio buffers and exit
// handlers are not run twice.
[[noreturn]] void run_child(const char *command, CommandWords &words, SavedSignals &signals) {
    // The log holds the last command's output only; an absent log is the usual case.
    unlink(FCADMIN_TRANSFER_LOG);
    const int log = open(FCADMIN_TRANSFER_LOG, O_WRONLY | O_CREAT | O_APPEND, kLogMode);
    if (log < 0) {
        console_printf("Err: cli command \"%s\" open file %s failed\n", command, FCADMIN_TRANSFER_LOG);
        _exit(kOpenFailedExit);
    }
    dup2(log, STDOUT_FILENO);
    dup2(log, STDERR_FILENO);
    // A caller that runs with standard output or error closed gets the log on that very descriptor.
    if (log > STDERR_FILENO) close(log);

    signals.restore();
    // An empty or all-blank command names no program; it fails as a missing one would.
    if (words.argv[0] != nullptr)
        execvp(words.argv[0], words.argv);
    else
        errno = ENOENT;
    const int error = errno;
    console_printf("execvp failed errno: %d errstr:%s\n", error, strerror(error));
    _exit(kExecFailedExit);
}

void continue_process_group() { killpg(getpgrp(), SIGCONT); }

// The wait status decides the result. A child killed by a signal other than SIGKILL is waited for
// again, and that wait ends in ECHILD, which counts as success: callers have always seen such a
// tool as having succeeded, so it stays that way. A wait interrupted by one of the caller's own
// handlers is repeated rather than reported: the tool is still running and must be reaped here.
int32_t wait_for_child(pid_t child) {
    int status = 0;
    for (;;) {
        if (retry_eintr([&] { return waitpid(child, &status, kWaitOptions); }) < 0)
            return errno == ECHILD ? kSuccess : kFailure;
        if (WIFEXITED(status)) return WEXITSTATUS(status) == 0 ? kSuccess : kFailure;
        if (WIFSIGNALED(status)) {
            const int killed_by = WTERMSIG(status);
            if (killed_by == SIGKILL) return kFailure;
            if (killed_by == SIGSTOP || killed_by == SIGTSTP) continue_process_group();
            continue;
        }
        // A stopped tool would hold the transfer forever: wake it (and the rest of the caller's group).
        if (WIFSTOPPED(status)) continue_process_group();
    }
}

int32_t system_call(const char *command) {
    char work[kWorkCopySize];
    work[0] = kWordDelimiter;
    bounded_copy(work + 1, kWorkCopySize - 1, command);

    CommandWords words;
    if (!split_words(work, words)) {
        printf("admin_system_call: too many words in the command (%d)\n", kTooManyWords);
        fflush(stdout);
        return kFailure;
    }

    const pid_t child = fork();
    if (child < 0) return kFailure;

    SavedSignals signals;
    signals.ignore_and_block();
    errno = 0;
    if (child == 0) run_child(command, words, signals);

    const int32_t result = wait_for_child(child);
    // The command-line shell keeps its terminal signals ignored and SIGCHLD blocked between tools.
    if (getCLIContext() == kCommandLineContext) signals.keep();
    return result;
}

}  // namespace
}  // namespace fcadmin

extern "C" {

int32_t admin_system_call(const char *command) {
    if (command == nullptr) return fcadmin::kFailure;
    return fcadmin::system_call(command);
}

int32_t getCLIContext(void) { return glb_cli_context; }

void setCLIContext(int32_t value) { glb_cli_context = value; }

}  // extern "C"
