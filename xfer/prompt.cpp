// The password prompt of the secure-shell transfers: three tries at the terminal, echo off while typing.
#include "fcadmin.h"
#include "fcadmin_platform.h"

#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace fcadmin {
namespace {

constexpr char kPrompt[] = "Password";
constexpr char kTtyFailure[] = "Failed to set tty info\n";
constexpr char kAnonymous[] = "anonymous";
constexpr int kTries = 3;
constexpr int32_t kPasswordSize = sizeof(TransferRequest{}.password);
constexpr int32_t kAccepted = 1;

// A terminal that cannot be read or set leaves no safe way to ask for a secret: the whole process
// ends, and its caller never sees a result. Echo may then stay off; that is the terminal's state.
[[noreturn]] void tty_failure() {
    fputs(kTtyFailure, stderr);
    exit(1);
}

void set_echo(bool on) {
    termios settings{};
    if (tcgetattr(STDIN_FILENO, &settings) != 0) tty_failure();
    if (on)
        settings.c_lflag |= ECHO;
    else
        settings.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    if (tcsetattr(STDIN_FILENO, TCSANOW, &settings) != 0) tty_failure();
}

int32_t query_password(const char *user, char *password) {
    if (password[0] != '\0') return 0;
    // Bounded by the user name's own length, so every prefix of "anonymous" (anon, a, the empty name)
    // counts as an anonymous log-in; callers rely on that.
    if (strncmp(user, kAnonymous, strlen(user)) == 0) return 0;

    int32_t verdict = 0;
    for (int attempt = 1; attempt <= kTries; ++attempt) {
        set_echo(false);
        int32_t read_result = ork_infra_scanf(kPrompt, password, kPasswordSize);
        set_echo(true);
        // A failed read keeps the verdict of the attempt before it.
        if (read_result == 0) verdict = ork_verify_password(password);
        if (verdict == kAccepted) return 0;
    }
    return -1;
}

}  // namespace
}  // namespace fcadmin

extern "C" {

int32_t QueryPassword(const char *user, char *password) {
    if (user == nullptr || password == nullptr) return -1;
    return fcadmin::query_password(user, password);
}

}  // extern "C"
