// The command runner: one external program started from one command line without a shell, its output
// sent to the transfer error log; and the process-wide command-line context flag.
#include "xfer/runner.h"

#include "common/format.h"
#include "common/unique_fd.h"
#include "fcadmin.h"
#include "fcadmin_platform.h"

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" {
int32_t glb_cli_context = 0;
}

namespace fcadmin {
namespace {

constexpr int32_t kSuccess = 0;
constexpr int32_t kFailure = -1;

// The work copy is a blank followed by at most 9,598 bytes of the command; longer commands are cut.
constexpr size_t kWorkCopySize = 1 + kCommandBytes + 1;
constexpr char kWordDelimiter = ' ';

constexpr int kOpenFailedExit = 255;  // -1 as an exit status
constexpr int kExecFailedExit = 127;
constexpr mode_t kLogMode = 0600;
constexpr int kWaitOptions = WUNTRACED | WCONTINUED;
constexpr int32_t kCommandLineContext = 1;

// The signals a terminal or a management daemon may send while a tool runs. SIGSTOP cannot be
// ignored; the system refuses that one request, which is harmless and kept.
constexpr int kGuardedSignals[] = {SIGINT, SIGQUIT, SIGTSTP, SIGSTOP, SIGUSR1, SIGUSR2};
constexpr int kGuardedCount = sizeof kGuardedSignals / sizeof kGuardedSignals[0];

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

    const struct sigaction &action(int i) const { return actions_[i]; }
    const sigset_t &mask() const { return mask_; }

private:
    struct sigaction actions_[kGuardedCount] {};
    sigset_t mask_{};
    bool armed_ = false;
};

// The console lines of a child that could not run the tool; for a clone child the parent prints them.
void report_log_open_failed(const char *command) {
    console_printf("Err: cli command \"%s\" open file %s failed\n", command, FCADMIN_TRANSFER_LOG);
}

void report_exec_failed(int error) { console_printf("execvp failed errno: %d errstr:%s\n", error, strerror(error)); }

// Removes the last command's log (an absent log is the usual case) and opens a fresh one on standard
// output and standard error. False when the log cannot be opened.
bool redirect_to_log() {
    unlink(FCADMIN_TRANSFER_LOG);
    const int log = open(FCADMIN_TRANSFER_LOG, O_WRONLY | O_CREAT | O_APPEND, kLogMode);
    if (log < 0) return false;
    dup2(log, STDOUT_FILENO);
    dup2(log, STDERR_FILENO);
    // A caller that runs with standard output or error closed gets the log on that very descriptor.
    if (log > STDERR_FILENO) close(log);
    return true;
}

// Returns only when the exec failed, with its errno. An empty or all-blank command names no program;
// it fails as a missing one would.
int exec_words(const CommandWords &words) {
    if (words.argv[0] != nullptr)
        execvp(words.argv[0], words.argv);
    else
        errno = ENOENT;
    return errno;
}

// Runs in the forked child. Until exec only async-signal-safe calls, except the two prescribed
// failure lines on the console; _exit, never exit, so that the caller's stdio buffers and exit
// handlers are not run twice.
[[noreturn]] void run_forked_child(const char *command, const CommandWords &words, SavedSignals &signals) {
    if (!redirect_to_log()) {
        report_log_open_failed(command);
        _exit(kOpenFailedExit);
    }
    signals.restore();
    report_exec_failed(exec_words(words));
    _exit(kExecFailedExit);
}

// What a clone child is given, in the memory it shares with its parent, and what it reports back.
struct CloneChild {
    const CommandWords *words;
    const SavedSignals *signals;
    int report;  // write end of the report pipe, closed by a successful exec
};

// A child that could not run the tool writes one of these into the report pipe before _exit. A pipe
// rather than the shared memory: an emulator that runs the clone as a plain fork (qemu's user mode
// does) shares nothing, and the parent must still print the line.
struct ChildFailure {
    enum Step : int { log_open, exec } step;
    int error;
};

// The action a clone child may hold until exec: a handler of the caller would run on the caller's
// memory, so it becomes the default action, which exec makes of it anyway; an ignored signal stays so.
struct sigaction as_exec_leaves_it(struct sigaction action) {
    if (action.sa_handler != SIG_IGN && action.sa_handler != SIG_DFL) {
        action.sa_handler = SIG_DFL;
        action.sa_flags = 0;
    }
    return action;
}

// Runs in the clone child, on a stack of its own in the caller's memory, every signal blocked and the
// caller suspended until exec or _exit: async-signal-safe calls only, no console, no allocation. The
// failure and its errno go back to the parent through the report pipe, and the parent prints the line. The steps are the forked
// child's, in the same order. Not instrumented by AddressSanitizer: its stack is none that the
// sanitizer knows, and the sanitizer's warning about that would land in the tool's log.
__attribute__((no_sanitize("address"))) int run_clone_child(void *argument) {
    auto &child = *static_cast<CloneChild *>(argument);
    // No handler of the caller may remain once signals are unblocked. The signals that the C library
    // keeps for itself refuse the call; it directs them at its own threads only, never at this child.
    for (int sig = 1; sig < NSIG; ++sig) {
        struct sigaction current {};
        if (sig == SIGKILL || sig == SIGSTOP || sigaction(sig, nullptr, &current) != 0) continue;
        if (current.sa_handler == SIG_IGN || current.sa_handler == SIG_DFL) continue;
        const struct sigaction reset = as_exec_leaves_it(current);
        sigaction(sig, &reset, nullptr);
    }
    if (!redirect_to_log()) {
        const ChildFailure failure{ChildFailure::log_open, 0};
        (void)!write(child.report, &failure, sizeof failure);
        _exit(kOpenFailedExit);
    }
    for (int i = 0; i < kGuardedCount; ++i) {
        const struct sigaction restored = as_exec_leaves_it(child.signals->action(i));
        sigaction(kGuardedSignals[i], &restored, nullptr);
    }
    sigprocmask(SIG_SETMASK, &child.signals->mask(), nullptr);
    const ChildFailure failure{ChildFailure::exec, exec_words(*child.words)};
    (void)!write(child.report, &failure, sizeof failure);
    _exit(kExecFailedExit);
}

// The report pipe, close-on-exec, both ends above standard error: a caller that runs with standard
// output or error closed must find the log on that descriptor, not the pipe.
class ReportPipe {
public:
    ReportPipe() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) return;
        read_.reset(above_standard_error(ends[0]));
        write_.reset(above_standard_error(ends[1]));
    }
    bool valid() const { return read_.valid() && write_.valid(); }
    int write_end() const { return write_.get(); }

    // After the clone: the child has exec'd (the pipe reads as empty) or written its failure.
    bool child_failed(ChildFailure &failure) {
        write_.reset();
        const ssize_t got = retry_eintr([&] { return read(read_.get(), &failure, sizeof failure); });
        return got == static_cast<ssize_t>(sizeof failure);
    }

private:
    static int above_standard_error(int fd) {
        if (fd > STDERR_FILENO) return fd;
        const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        close(fd);
        return moved;
    }
    unique_fd read_, write_;
};

// The clone child's stack: execvp builds each candidate path on it, so it grows with PATH. A guard page
// at its end stops an overflow before it reaches the caller's memory.
class ChildStack {
public:
    ChildStack() {
        const char *path = getenv("PATH");
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t wanted = kStackBytes + (path != nullptr ? strlen(path) : 0);
        size_ = (wanted + page - 1) / page * page + page;
        void *area = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
        if (area == MAP_FAILED) return;
        base_ = static_cast<char *>(area);
        mprotect(base_, page, PROT_NONE);
    }
    ChildStack(const ChildStack &) = delete;
    ChildStack &operator=(const ChildStack &) = delete;
    ~ChildStack() {
        if (base_ != nullptr) munmap(base_, size_);
    }
    bool valid() const { return base_ != nullptr; }
    void *top() const { return base_ + size_; }  // the stack grows down on every target

private:
    static constexpr size_t kStackBytes = 64 * 1024;
    char *base_ = nullptr;
    size_t size_ = 0;
};

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

// The literal way: fork, then both processes set their signals up.
int32_t fork_and_wait(const char *command, const CommandWords &words) {
    const pid_t child = fork();
    if (child < 0) return kFailure;

    SavedSignals signals;
    signals.ignore_and_block();
    errno = 0;
    if (child == 0) run_forked_child(command, words, signals);

    const int32_t result = wait_for_child(child);
    // The command-line shell keeps its terminal signals ignored and SIGCHLD blocked between tools.
    if (getCLIContext() == kCommandLineContext) signals.keep();
    return result;
}

// The child borrows the caller's memory until it execs: no copy of the address space, so the cost does
// not grow with the caller's size, and no commit charge that a system without overcommit could refuse.
// The caller sets its signals up first, for the child to inherit, and is suspended until the exec.
int32_t clone_and_wait(const char *command, const CommandWords &words) {
    ChildStack stack;
    ReportPipe report;
    if (!stack.valid() || !report.valid()) return kFailure;

    SavedSignals signals;
    signals.ignore_and_block();
    sigset_t all, guarded;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &guarded);
    CloneChild state{&words, &signals, report.write_end()};
    const pid_t child = clone(run_clone_child, stack.top(), CLONE_VM | CLONE_VFORK | SIGCHLD, &state);
    pthread_sigmask(SIG_SETMASK, &guarded, nullptr);
    if (child < 0) return kFailure;  // the signals go back as they were: nothing changed
    ChildFailure failure{};
    const bool failed = report.child_failed(failure);
    errno = 0;

    const int32_t result = wait_for_child(child);
    if (failed && failure.step == ChildFailure::log_open) report_log_open_failed(command);
    if (failed && failure.step == ChildFailure::exec) report_exec_failed(failure.error);
    if (getCLIContext() == kCommandLineContext) signals.keep();
    return result;
}

}  // namespace

bool split_words(const char *text, CommandWords &words) {
    words.count = 0;
    const char *p = text;
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

int32_t system_call(const char *command, Launcher launcher) {
    if (command == nullptr) return kFailure;
    char work[kWorkCopySize];
    work[0] = kWordDelimiter;
    bounded_copy(work + 1, kWorkCopySize - 1, command);

    CommandWords words;
    if (!split_words(work, words)) {
        printf("admin_system_call: too many words in the command (%d)\n", kTooManyWords);
        fflush(stdout);
        return kFailure;
    }
    return launcher == Launcher::fork ? fork_and_wait(command, words) : clone_and_wait(command, words);
}

}  // namespace fcadmin

extern "C" {

int32_t admin_system_call(const char *command) { return fcadmin::system_call(command, fcadmin::Launcher::clone); }

int32_t getCLIContext(void) { return glb_cli_context; }

void setCLIContext(int32_t value) { glb_cli_context = value; }

}  // extern "C"
