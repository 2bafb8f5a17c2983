// The platform prompt service on a host: shows a prompt and reads one line from standard input.
#include "fcadmin_platform.h"

#include "common/unique_fd.h"
#include "host/prompt_observer.h"

#include <termios.h>
#include <unistd.h>

#include <cstdio>

namespace fcadmin::host {
namespace {

PromptObserver prompt_observer = nullptr;

}  // namespace

void set_prompt_observer(PromptObserver observer) { prompt_observer = observer; }

}  // namespace fcadmin::host

namespace {

enum class ReadResult { byte, end, error };

ReadResult read_byte(char *c) {
    ssize_t n = fcadmin::retry_eintr([&] { return read(STDIN_FILENO, c, 1); });
    if (n == 1) return ReadResult::byte;
    return n == 0 ? ReadResult::end : ReadResult::error;
}

// A terminal that does not echo (the caller turned echo off for a password) does not show the Enter
// that ends the answer either.
bool terminal_without_echo() {
    struct termios settings {};
    return tcgetattr(STDIN_FILENO, &settings) == 0 && (settings.c_lflag & ECHO) == 0;
}

// Reads standard input one byte at a time, straight from the descriptor: a buffered read would take
// bytes beyond the newline away from the programs that the transfer starts next on the same input.
// An over-long line is cut at limit - 1 bytes and the rest of it is read and dropped, so that it
// does not become the next answer. A last line without a newline still counts as a line.
int32_t read_answer(char *answer, int32_t limit) {
    const size_t capacity = static_cast<size_t>(limit) - 1;
    size_t length = 0;
    bool any = false;
    char c = 0;
    for (;;) {
        ReadResult r = read_byte(&c);
        if (r == ReadResult::error) {
            answer[length] = '\0';
            return -1;
        }
        if (r == ReadResult::end) break;
        any = true;
        if (c == '\n') break;
        if (length < capacity) answer[length++] = c;
    }
    answer[length] = '\0';
    return any ? 0 : -1;
}

}  // namespace

// Without echo, the line is ended here, as getpass, ssh and sudo do, so that what the caller prints
// next does not follow the prompt on the same line.
extern "C" FCADMIN_PLATFORM_API int32_t ork_infra_scanf(const char *prompt, char *answer, int32_t limit) {
    if (answer == nullptr || limit <= 0) return -1;
    answer[0] = '\0';
    const fcadmin::host::PromptObserver observer = fcadmin::host::prompt_observer;
    if (observer != nullptr) observer(true);
    if (prompt != nullptr) fputs(prompt, stdout);
    fputs(": ", stdout);
    fflush(stdout);

    const bool unechoed = terminal_without_echo();
    const int32_t result = read_answer(answer, limit);
    if (unechoed) {
        fputc('\n', stdout);
        fflush(stdout);
    }
    if (observer != nullptr) observer(false);
    return result;
}
