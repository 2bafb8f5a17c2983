// The password of a transfer: masked in the argument list, taken from a file or the environment, and
// kept out of the console lines.
#include "tools/fcadmin/password.h"

#include "common/format.h"
#include "common/unique_fd.h"
#include "tools/fcadmin/url.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

namespace fcadmin_tool {
namespace {

constexpr const char kPasswordVariable[] = "FCADMIN_PASSWORD";
constexpr size_t kPasswordLimit = sizeof(TransferRequest::password) - 1;

const char *hidden_password = nullptr;

// Wipes a copy of the password whatever way the function that holds it returns.
struct WipedBuffer {
    char text[kPasswordLimit + 2] = {};
    ~WipedBuffer() { explicit_bzero(text, sizeof text); }
};

// The first line of the file (a pipe such as <(pass show switch) will do), at most one byte over the
// limit so that an over-long password is seen as such.
bool read_password_file(const char *path, WipedBuffer *password, std::string *error) {
    fcadmin::unique_fd fd(fcadmin::retry_eintr([&] { return open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY); }));
    struct stat st {};
    if (!fd.valid() || fstat(fd.get(), &st) != 0) {
        *error = std::string("cannot read the password file ") + path + ": " + strerror(errno);
        return false;
    }
    if ((st.st_mode & (S_IRGRP | S_IROTH)) != 0) {
        *error = std::string("refusing the password file ") + path + ": its group or others may read it (chmod go-r " +
                 path + ")";
        return false;
    }
    size_t length = 0;
    while (length < sizeof password->text - 1) {
        const ssize_t n = fcadmin::retry_eintr([&] { return read(fd.get(), password->text + length, 1); });
        if (n <= 0 || password->text[length] == '\n') break;
        ++length;
    }
    password->text[length] = '\0';
    if (length == 0) *error = std::string("the password file ") + path + " holds no password on its first line";
    return length > 0;
}

}  // namespace

void mask_url_password(char *url) {
    char *authority = strstr(url, "://");
    if (authority == nullptr) return;
    authority += 3;
    const std::string_view rest(authority, strcspn(authority, "/"));
    const size_t at = rest.rfind('@');
    const size_t colon = rest.substr(0, at == std::string_view::npos ? 0 : at).find(':');
    if (at == std::string_view::npos || colon == std::string_view::npos) return;
    memset(authority + colon + 1, '*', at - colon - 1);
}

bool supply_password(const char *file, TransferRequest *request, std::string *error) {
    const bool in_url = request->password[0] != '\0';
    if (in_url && file != nullptr) {
        *error = "the URL carries a password already: give it there or in --password-file, not both";
        return false;
    }
    WipedBuffer password;
    if (file != nullptr) {
        if (!read_password_file(file, &password, error)) return false;
    } else if (const char *variable = getenv(kPasswordVariable); variable != nullptr) {
        fcadmin::bounded_copy(password.text, variable);
        unsetenv(kPasswordVariable);
    }
    if (in_url || password.text[0] == '\0' || strcmp(request->protocol, "usb") == 0) return true;
    if (strlen(password.text) > kPasswordLimit) {
        *error = "the password is longer than " + std::to_string(kPasswordLimit) + " bytes";
        return false;
    }
    if (!credential_acceptable(password.text, "password", strcmp(request->protocol, "ftp") == 0, error)) return false;
    memcpy(request->password, password.text, strlen(password.text) + 1);
    return true;
}

void hide_in_console(const char *secret) { hidden_password = secret; }

void mask_hidden_password(char *text) {
    if (hidden_password == nullptr || *hidden_password == '\0') return;
    const size_t length = strlen(hidden_password);
    for (char *p = strstr(text, hidden_password); p != nullptr; p = strstr(p + length, hidden_password))
        memset(p, '*', length);
}

}  // namespace fcadmin_tool
