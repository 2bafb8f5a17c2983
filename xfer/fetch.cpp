// The fetch: one file from a remote host (scp, sftp, ftp) or a USB drive onto this system.
#include "common/format.h"
#include "common/unique_fd.h"
#include "fcadmin.h"
#include "fcadmin_platform.h"
#include "xfer/protocol.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstring>

namespace fcadmin {
namespace {

constexpr size_t kCommandSize = 2048;
// ork_infra_system's options word for the transfer tools; what it selects is the platform's business.
constexpr int32_t kPlatformRunnerMode = 16;
constexpr const char kDevNull[] = "/dev/null";

constexpr int32_t kPasswordRejected = -5;
constexpr int32_t kTransferFailed = -9;
constexpr int32_t kEncodingFailed = -12;
constexpr int32_t kFetchDirUnusable = -17;
constexpr int32_t kFetchDirNotCreated = -18;
constexpr int32_t kBadArguments = -8;

constexpr const char kUsbCopyTemplate[] = "/bin/cp %s %s";
constexpr const char kFtpTemplate[] = "/bin/wget -q -T 60 -t 1 -O %s ftp://%s:%s@%s/%s";
constexpr const char kFtpIpv6Template[] = "/bin/wget -q -T 60 -t 1 -O %s ftp://%s:%s@[%s]/%s";

// The log-in methods of a secure-shell fetch, tried in this order. Placeholders: port, [password,]
// user, host, remote path, local path. The scp templates put the port option after the method in the
// first two and before it in the third; the device's tools are driven by these exact lines, keep them.
// -oSSHPassword is an option of the device's secure-shell client; a stock OpenSSH client refuses it.
struct SecureShellTemplates {
    const char *public_key;
    const char *keyboard_interactive;
    const char *password;
};

constexpr SecureShellTemplates kSftpTemplates = {
    "/usr/bin/sftp -q -v -oConnectTimeout=60 -oPort=%d -oPreferredAuthentications=publickey "
    "-oStrictHostKeyChecking=no %s@[%s]:%s %s",
    "/usr/bin/sftp -q -v -oConnectTimeout=60 -oPort=%d -oPreferredAuthentications=keyboard-interactive "
    "-oChallengeResponseAuthentication=yes -oStrictHostKeyChecking=no %s@[%s]:%s %s",
    "/usr/bin/sftp -q -v -oConnectTimeout=60 -oPort=%d -oPreferredAuthentications=password "
    "-oSSHPassword=%s -oStrictHostKeyChecking=no %s@[%s]:%s %s",
};

constexpr SecureShellTemplates kScpTemplates = {
    "/usr/bin/scp -q -v -oConnectTimeout=60 -oPreferredAuthentications=publickey -oPort=%d "
    "-oStrictHostKeyChecking=no %s@[%s]:%s %s",
    "/usr/bin/scp -q -v -oConnectTimeout=60 -oPreferredAuthentications=keyboard-interactive "
    "-oChallengeResponseAuthentication=yes -oPort=%d -oStrictHostKeyChecking=no %s@[%s]:%s %s",
    "/usr/bin/scp -q -v -oConnectTimeout=60 -oPort=%d -oPreferredAuthentications=password "
    "-oSSHPassword=%s -oStrictHostKeyChecking=no %s@[%s]:%s %s",
};

// A request's text field as a terminated string: callers fill the fixed arrays themselves, and one
// that fills a field to the brim must not make a command read past it.
template <size_t N>
struct FieldText {
    explicit FieldText(const char (&field)[N]) {
        size_t n = strnlen(field, N);
        memcpy(text, field, n);
        text[n] = '\0';
    }
    char text[N + 1];
};

// Runs the transfer tools either through the platform's shell service or the library's own runner;
// only 0 counts as success for both.
class Runner {
public:
    explicit Runner(bool use_platform) : use_platform_(use_platform) {}
    bool run(const char *command) {
        if (use_platform_) return ork_infra_system(command, kPlatformRunnerMode, redirect_) == 0;
        return admin_system_call(command) == 0;
    }

private:
    bool use_platform_;
    // Standard output and standard error of the tool are discarded.
    const char *redirect_[5] = {kDevNull, kDevNull, nullptr, nullptr, nullptr};
};

int32_t create_fetch_directory() {
    // The dump file only has to exist; whether it could be made does not concern the fetch.
    unique_fd dump(retry_eintr([] { return open(FCADMIN_DUMP_FILE, O_RDWR | O_CREAT | O_CLOEXEC, 0644); }));

    struct stat st {};
    if (stat(FCADMIN_FETCH_DIR, &st) != 0) return mkdir(FCADMIN_FETCH_DIR, 0755) == 0 ? 0 : kFetchDirNotCreated;
    DIR *dir = opendir(FCADMIN_FETCH_DIR);
    if (dir == nullptr) return kFetchDirUnusable;
    closedir(dir);
    return 0;
}

// Inline content goes into a file that must already exist, without truncating it: a longer old file
// keeps its tail beyond the new text. Callers that want a fresh file create it empty first.
int32_t write_inline_content(const char *content, const char *local_path) {
    unique_fd fd(retry_eintr([&] { return open(local_path, O_WRONLY | O_CLOEXEC); }));
    if (!fd.valid()) return kTransferFailed;
    size_t length = strlen(content);
    ssize_t written = retry_eintr([&] { return write(fd.get(), content, length); });
    return written == static_cast<ssize_t>(length) ? 0 : kTransferFailed;
}

// The templates are picked at run time, so the compiler cannot check their arguments against them
// (clang says so with -Wformat-nonliteral); the tests pin every command line byte for byte instead.
void format_command(char *command, const char *command_template, ...) {
    va_list args;
    va_start(args, command_template);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    bounded_vformat(command, kCommandSize, command_template, args);
#pragma GCC diagnostic pop
    va_end(args);
}

// The last step of every fetch that runs a tool: the platform prepares the tool's environment first.
int32_t run_transfer(Runner &runner, const char *command) {
    geps_2env();
    return runner.run(command) ? 0 : kTransferFailed;
}

// Public key, then keyboard-interactive, then a password (asked for at the terminal when the request
// carries none). A failed key-based attempt is no error; only the password attempt's outcome counts.
int32_t fetch_secure_shell(const SecureShellTemplates &templates, TransferRequest &request,
                           const char *local_path, Runner &runner, char *command) {
    FieldText user(request.user_name);
    FieldText host(request.host);
    FieldText remote_path(request.remote_path);

    format_command(command, templates.public_key, request.port, user.text, host.text, remote_path.text,
                   local_path);
    geps_2env();
    if (runner.run(command)) return 0;

    format_command(command, templates.keyboard_interactive, request.port, user.text, host.text,
                   remote_path.text, local_path);
    if (runner.run(command)) return 0;

    if (request.password[0] == '\0' && QueryPassword(user.text, request.password) != 0)
        return kPasswordRejected;
    FieldText password(request.password);
    format_command(command, templates.password, request.port, password.text, user.text, host.text,
                   remote_path.text, local_path);
    return run_transfer(runner, command);
}

int32_t fetch(TransferRequest &request, const char *local_path, bool use_platform_runner) {
    char command[kCommandSize] = {};
    Runner runner(use_platform_runner);

    if (int32_t r = create_fetch_directory(); r != 0) return r;
    if (request.content != nullptr) {
        if (local_path == nullptr) return kBadArguments;
        return write_inline_content(request.content, local_path);
    }
    if (admin_convert_username_and_password(&request) != 0) return kEncodingFailed;

    // The first word that matches wins, so an empty protocol field is a usb copy.
    const char *protocol = request.protocol;
    if (protocol_matches(protocol, kProtocolUsb)) {
        FieldText source(request.remote_path);
        format_command(command, kUsbCopyTemplate, source.text, FCADMIN_USB_TMP_FILE);
    } else if (protocol_matches(protocol, kProtocolFtp)) {
        if (local_path == nullptr) return kBadArguments;
        FieldText user(request.user_name);
        FieldText password(request.password);
        FieldText host(request.host);
        FieldText remote_path(request.remote_path);
        format_command(command, request.addr_type == ADDR_TYPE_IPV6 ? kFtpIpv6Template : kFtpTemplate,
                       local_path, user.text, password.text, host.text, remote_path.text);
    } else if (protocol_matches(protocol, kProtocolSftp)) {
        if (local_path == nullptr) return kBadArguments;
        return fetch_secure_shell(kSftpTemplates, request, local_path, runner, command);
    } else if (protocol_matches(protocol, kProtocolScp)) {
        if (local_path == nullptr) return kBadArguments;
        return fetch_secure_shell(kScpTemplates, request, local_path, runner, command);
    }
    // An unknown protocol runs the still empty command, which the library's runner refuses (-9).
    return run_transfer(runner, command);
}

}  // namespace
}  // namespace fcadmin

extern "C" {

int32_t copyRemoteFileToLocalSystem(TransferRequest *request, const char *local_path,
                                    int32_t use_platform_runner) {
    if (request == nullptr) return fcadmin::kBadArguments;
    return fcadmin::fetch(*request, local_path, use_platform_runner != 0);
}

int32_t admin_lib_create_directory(void) { return fcadmin::create_fetch_directory(); }

// Writes no terminator: callers pass a zero-filled buffer. A path ending in "/" gives an empty name.
char *admin_lib_extract_file_name(const char *path, char *name) {
    if (path == nullptr || name == nullptr) return name;
    const char *slash = strrchr(path, '/');
    const char *base = slash == nullptr ? path : slash + 1;
    memcpy(name, base, strlen(base));
    return name;
}

}  // extern "C"
