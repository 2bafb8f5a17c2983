// The platform shell service on a host: runs one command line as one program, with no shell.
#include "fcadmin_platform.h"

#include "common/unique_fd.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

extern char **environ;

namespace {

// Longer command lines are refused rather than cut: running the front part of a transfer command
// would copy to or from the wrong place. The library's own commands stay under 2,100 bytes.
constexpr size_t kMaxCommandLength = 8192;
constexpr size_t kMaxWords = kMaxCommandLength / 2 + 1;
constexpr int kRedirectEntries = 5;
constexpr int kFailed = -1;
constexpr int kSignalBase = 128;

// Splits in place at blanks, as the library's command runner does: only the blank separates, runs of
// blanks count as one, and nothing quotes or escapes. Every other byte, ";", "|", "$(", "`" and tabs
// included, stays inside its word and reaches the program literally. Returns the word count.
size_t split_words(char *text, char *words[], size_t capacity) {
    size_t count = 0;
    char *p = text;
    while (*p != '\0' && count + 1 < capacity) {
        while (*p == ' ') *p++ = '\0';
        if (*p == '\0') break;
        words[count++] = p;
        while (*p != '\0' && *p != ' ') ++p;
    }
    words[count] = nullptr;
    return count;
}

// Output files are opened for appending, created with mode 0600 (tool output may carry host names
// and user names). Appending is what the export needs: it removes the transfer error log once and
// then runs up to three attempts, each of whose output must stay readable afterwards.
int open_output(const char *path) {
    return fcadmin::retry_eintr(
        [&] { return open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, 0600); });
}

int exit_code(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return kSignalBase + WTERMSIG(status);
    return kFailed;
}

}  // namespace

// Runs the command line: standard output to redirect[0], standard error to redirect[1] (a null list or
// null entry leaves the stream as the caller has it; the other three entries have no use on a host).
// The options word selects platform behaviour that a host has no counterpart for; it is ignored.
// Returns 0 when the program exited with status 0; otherwise its exit status, 128 + the signal that
// ended it, or -1 when it could not be started or waited for (also when the caller has SIGCHLD set
// to be ignored, so that the child's status is lost).
extern "C" FCADMIN_PLATFORM_API int32_t ork_infra_system(const char *command, int32_t /*options*/,
                                                         const char *redirect[kRedirectEntries]) {
    if (command == nullptr) return kFailed;
    const size_t length = strnlen(command, kMaxCommandLength);
    if (length >= kMaxCommandLength) return kFailed;
    char text[kMaxCommandLength];
    memcpy(text, command, length + 1);
    char *words[kMaxWords];
    if (split_words(text, words, kMaxWords) == 0) return kFailed;

    const char *out_path = redirect != nullptr ? redirect[0] : nullptr;
    const char *err_path = redirect != nullptr ? redirect[1] : nullptr;
    fcadmin::unique_fd out_fd, err_fd;
    if (out_path != nullptr) {
        out_fd.reset(open_output(out_path));
        if (!out_fd.valid()) return kFailed;
    }
    // One descriptor for both streams when they name the same file, so that their lines interleave
    // in the order the program wrote them.
    const bool shared = err_path != nullptr && out_path != nullptr && strcmp(err_path, out_path) == 0;
    if (err_path != nullptr && !shared) {
        err_fd.reset(open_output(err_path));
        if (!err_fd.valid()) return kFailed;
    }

    posix_spawn_file_actions_t actions;
    if (posix_spawn_file_actions_init(&actions) != 0) return kFailed;
    fcadmin::scope_exit destroy_actions([&] { posix_spawn_file_actions_destroy(&actions); });
    if (out_fd.valid() && posix_spawn_file_actions_adddup2(&actions, out_fd.get(), STDOUT_FILENO) != 0)
        return kFailed;
    const int err_source = shared ? out_fd.get() : err_fd.get();
    if (err_source >= 0 && posix_spawn_file_actions_adddup2(&actions, err_source, STDERR_FILENO) != 0)
        return kFailed;

    pid_t pid = -1;
    if (posix_spawnp(&pid, words[0], &actions, nullptr, words, environ) != 0) return kFailed;
    int status = 0;
    if (fcadmin::retry_eintr([&] { return waitpid(pid, &status, 0); }) != pid) return kFailed;
    return exit_code(status);
}
