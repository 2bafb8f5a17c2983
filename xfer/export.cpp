// Remote export: stages the selected content, uploads it with scp, sftp or ftp, and empties the staging
// directory on every exit after staging.
#include "common/format.h"
#include "common/unique_fd.h"
#include "fcadmin.h"
#include "fcadmin_platform.h"
#include "xfer/protocol.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace fcadmin {
namespace {

constexpr int32_t kPromptFailed = -5;
constexpr int32_t kInvalidInput = -8;
constexpr int32_t kExportFailed = -50;
constexpr int32_t kNothingStaged = -51;

// The remote target is cut to 79 characters whatever it was taken from.
constexpr size_t kRemoteTargetLimit = 80;
constexpr size_t kPortOptionSize = 31;
constexpr size_t kLocalSourceSize = 80;
// scp and sftp commands are cut at 2048 bytes, the ftp command at 2049; callers have seen both, keep them.
constexpr size_t kCommandSize = 2049;
constexpr size_t kSecureShellCommandBound = 2048;
constexpr size_t kFtpCommandBound = 2049;
constexpr size_t kCleanupCommandSize = 128;
// One option bit more than the fetch's 0x10.
constexpr int32_t kExportShellOptions = 0x30;

// A split of remote_path may put the whole path into the directory part or into the name, so both are
// sized for the longest remote_path with its terminator (and the directory part is never below the 80
// bytes that get_file_name_from_path pads "/" to).
constexpr size_t kPathTextSize = sizeof(TransferRequest::remote_path) + 1;
static_assert(kPathTextSize >= kRemoteTargetLimit);

constexpr char kFtpBase[] = "/bin/ncftpput -R -t 60 -V";
constexpr char kFtpWithPassword[] = "%s -u %s -p %s %s %s %s";
constexpr char kFtpWithoutPassword[] = "%s -u %s %s %s %s";

constexpr char kSshOptions[] = "-oStrictHostKeyChecking=no -obatchmode=no";
constexpr char kSftpBatchCommand[] = "put %s %s";
constexpr char kSftpPublicKey[] =
    "/usr/bin/sftp -q -v -oConnectTimeout=60 -oPreferredAuthentications=publickey %s %s -b %s %s@[%s]:%s";
constexpr char kSftpKeyboardInteractive[] =
    "/usr/bin/sftp -q -v -oConnectTimeout=60 -oPreferredAuthentications=keyboard-interactive "
    "-oChallengeResponseAuthentication=yes %s %s -b %s %s@[%s]:%s";
constexpr char kSftpPassword[] =
    "/usr/bin/sftp -q -v -oConnectTimeout=60 -oPreferredAuthentications=password -oSSHPassword=%s %s %s "
    "-b %s %s@[%s]:%s";

constexpr char kScpPublicKey[] =
    "/usr/bin/scp -q -v -oConnectTimeout=60 %s -oPreferredAuthentications=publickey "
    "-oStrictHostKeyChecking=no %s %s@[%s]:%s";
constexpr char kScpKeyboardInteractive[] =
    "/usr/bin/scp -q -v -oConnectTimeout=60 %s -oPreferredAuthentications=keyboard-interactive "
    "-oChallengeResponseAuthentication=yes -oStrictHostKeyChecking=no %s %s@[%s]:%s";
constexpr char kScpPassword[] =
    "/usr/bin/scp -q -v -oConnectTimeout=60 %s -oPreferredAuthentications=password -oSSHPassword=%s "
    "-oStrictHostKeyChecking=no %s %s@[%s]:%s";

constexpr char kCleanupTemplate[] = "/bin/rm -f %s*";

// The request's text fields, each with a terminator of its own: a caller's field that fills its whole
// array must not lead the formatting past it. The password is taken again after a prompt.
struct RequestText {
    char selector[sizeof(TransferRequest::selector) + 1];
    char remote_path[sizeof(TransferRequest::remote_path) + 1];
    char protocol[sizeof(TransferRequest::protocol) + 1];
    char user_name[sizeof(TransferRequest::user_name) + 1];
    char password[sizeof(TransferRequest::password) + 1];
    char host[sizeof(TransferRequest::host) + 1];

    explicit RequestText(const TransferRequest &request) {
        bounded_copy(selector, request.selector);
        bounded_copy(remote_path, request.remote_path);
        bounded_copy(protocol, request.protocol);
        bounded_copy(user_name, request.user_name);
        bounded_copy(password, request.password);
        bounded_copy(host, request.host);
    }
};

// What every upload needs: the request (its password may be filled by the prompt), the service that runs
// the commands, and the parts that all command lines share.
struct Upload {
    TransferRequest &request;
    RequestText &text;
    bool platform_shell;
    const char *port_option;
    const char *remote_target;
    const char *staged_list;
};

// Runs a command through the service the caller chose; only 0 is success. The tools' output goes to the
// transfer error log either way.
int32_t run_command(const char *command, bool platform_shell) {
    if (!platform_shell) return admin_system_call(command);
    const char *redirect[5] = {FCADMIN_TRANSFER_LOG, FCADMIN_TRANSFER_LOG, nullptr, nullptr, nullptr};
    return ork_infra_system(command, kExportShellOptions, redirect);
}

int32_t run_prepared(const char *command, bool platform_shell) {
    geps_2env();
    return run_command(command, platform_shell);
}

// The password attempt needs a password; the prompt is asked only when the request carries none. A
// password obtained here stays in the caller's request.
bool obtain_password(Upload &upload) {
    if (QueryPassword(upload.text.user_name, upload.request.password) != 0) return false;
    bounded_copy(upload.text.password, upload.request.password);
    return true;
}

// The sftp batch file holds one "put" without a newline and stays open while the attempts run. It is
// removed after the last attempt, but kept after a failed prompt (the next sftp export overwrites it).
class BatchFile {
public:
    BatchFile() = default;
    BatchFile(const BatchFile &) = delete;
    BatchFile &operator=(const BatchFile &) = delete;
    ~BatchFile() {
        if (stream_ == nullptr) return;
        fclose(stream_);
        if (remove_) unlink(FCADMIN_EXPORT_BATCH_FILE);
    }

    bool create(const char *local_source, const char *remote_target) {
        stream_ = fopen(FCADMIN_EXPORT_BATCH_FILE, "we");
        if (stream_ == nullptr) return false;
        fprintf(stream_, kSftpBatchCommand, local_source, remote_target);
        fflush(stream_);
        return true;
    }
    void keep() { remove_ = false; }

private:
    FILE *stream_ = nullptr;
    bool remove_ = true;
};

int32_t upload_ftp(Upload &upload) {
    char local_source[kLocalSourceSize] = {};
    char command[kCommandSize] = {};
    bounded_format(local_source, sizeof local_source, "%s.", FCADMIN_EXPORT_STAGING_DIR);
    const RequestText &t = upload.text;
    if (t.password[0] != '\0')
        bounded_format(command, kFtpCommandBound, kFtpWithPassword, kFtpBase, t.user_name, t.password, t.host,
                       upload.remote_target, local_source);
    else
        bounded_format(command, kFtpCommandBound, kFtpWithoutPassword, kFtpBase, t.user_name, t.host,
                       upload.remote_target, local_source);
    // ftp always goes through the platform shell service, whatever the caller chose, and never prompts.
    return run_command(command, true) == 0 ? 0 : kExportFailed;
}

int32_t upload_sftp(Upload &upload) {
    char local_source[kLocalSourceSize] = {};
    char command[kCommandSize] = {};
    bounded_format(local_source, sizeof local_source, "%s*", FCADMIN_EXPORT_STAGING_DIR);

    BatchFile batch;
    if (!batch.create(local_source, upload.remote_target)) return kExportFailed;

    const RequestText &t = upload.text;
    bounded_format(command, kSecureShellCommandBound, kSftpPublicKey, upload.port_option, kSshOptions,
                   FCADMIN_EXPORT_BATCH_FILE, t.user_name, t.host, upload.remote_target);
    if (run_prepared(command, upload.platform_shell) == 0) return 0;

    bounded_format(command, kSecureShellCommandBound, kSftpKeyboardInteractive, upload.port_option,
                   kSshOptions, FCADMIN_EXPORT_BATCH_FILE, t.user_name, t.host, upload.remote_target);
    if (run_prepared(command, upload.platform_shell) == 0) return 0;

    if (t.password[0] == '\0' && !obtain_password(upload)) {
        batch.keep();
        return kPromptFailed;
    }
    bounded_format(command, kSecureShellCommandBound, kSftpPassword, t.password, upload.port_option,
                   kSshOptions, FCADMIN_EXPORT_BATCH_FILE, t.user_name, t.host, upload.remote_target);
    return run_prepared(command, upload.platform_shell) == 0 ? 0 : kExportFailed;
}

// One command carries every staged file: the staged list is the local operand as it stands.
int32_t upload_scp(Upload &upload) {
    char command[kCommandSize] = {};
    const RequestText &t = upload.text;
    bounded_format(command, kSecureShellCommandBound, kScpPublicKey, upload.port_option, upload.staged_list,
                   t.user_name, t.host, upload.remote_target);
    if (run_prepared(command, upload.platform_shell) == 0) return 0;

    bounded_format(command, kSecureShellCommandBound, kScpKeyboardInteractive, upload.port_option,
                   upload.staged_list, t.user_name, t.host, upload.remote_target);
    if (run_prepared(command, upload.platform_shell) == 0) return 0;

    if (t.password[0] == '\0' && !obtain_password(upload)) return kPromptFailed;
    bounded_format(command, kSecureShellCommandBound, kScpPassword, upload.port_option, t.password,
                   upload.staged_list, t.user_name, t.host, upload.remote_target);
    return run_prepared(command, upload.platform_shell) == 0 ? 0 : kExportFailed;
}

// Chooses the remote target and the name the provider stages a single item under; returns that name,
// or null when the provider picks it (every item, or the selector's own name).
const char *choose_target(const TransferRequest &request, const RequestText &text,
                          char (&remote_target)[kPathTextSize], char (&item_name)[kPathTextSize]) {
    const char *item = nullptr;
    if (strncmp(text.selector, "all", 3) == 0) {
        bounded_copy(remote_target, kRemoteTargetLimit, request.remote_dir);
    } else if (request.remote_dir[0] != '\0') {
        bounded_copy(remote_target, kRemoteTargetLimit, request.remote_dir);
        if (text.remote_path[0] != '\0') item = text.remote_path;
    } else {
        get_file_name_from_path(text.remote_path, remote_target, item_name);
        item = item_name;
    }
    remote_target[kRemoteTargetLimit - 1] = '\0';
    return item;
}

int32_t export_to_remote(TransferRequest &request, bool platform_shell) {
    // The log is to hold only this export's tool output.
    if (access(FCADMIN_TRANSFER_LOG, F_OK) == 0) unlink(FCADMIN_TRANSFER_LOG);

    RequestText text(request);
    char remote_target[kPathTextSize] = {};
    char item_name[kPathTextSize] = {};
    char staged_list[FCADMIN_EXPORT_LIST_SIZE] = {};
    const char *item = choose_target(request, text, remote_target, item_name);

    int32_t staged = stage_export_content(text.selector, item, staged_list);
    staged_list[sizeof staged_list - 1] = '\0';
    if (staged < 0) return staged;
    if (staged == 0) return kNothingStaged;

    // From here on every exit empties the staging directory, whatever the upload did.
    scope_exit cleanup([] { admin_cleanup_after_export(); });

    char port_option[kPortOptionSize] = {};
    if (request.port != 0) bounded_format(port_option, sizeof port_option, "-oPort=%d", request.port);

    Upload upload{request, text, platform_shell, port_option, remote_target, staged_list};
    // ftp by the shared rule ("", "f" and "ft" are ftp too), but sftp and scp over their whole words only,
    // so "sftpx" is sftp and "s" matches none; callers rely on both.
    if (protocol_matches(text.protocol, kProtocolFtp)) return upload_ftp(upload);
    if (strncmp(text.protocol, kProtocolSftp, 4) == 0) return upload_sftp(upload);
    if (strncmp(text.protocol, kProtocolScp, 3) == 0) return upload_scp(upload);

    // An unknown protocol still runs its (empty) command line; its failure is the export's.
    char command[kCommandSize] = {};
    return run_prepared(command, platform_shell) == 0 ? 0 : kExportFailed;
}

}  // namespace
}  // namespace fcadmin

extern "C" {

int32_t exportFileToRemoteSystem(TransferRequest *request, uint32_t use_platform_shell) {
    if (request == nullptr) return 0;
    return fcadmin::export_to_remote(*request, use_platform_shell != 0);
}

// Goes through the shell on purpose: the staging directory is emptied by a glob.
int32_t admin_cleanup_after_export(void) {
    char command[fcadmin::kCleanupCommandSize] = {};
    fcadmin::bounded_format(command, sizeof command, fcadmin::kCleanupTemplate, FCADMIN_EXPORT_STAGING_DIR);
    return system(command);
}

// Splits path into its directory part (with the slash) and its last component. Neither copy into dir
// writes a terminator and "/" is padded to 80 bytes: the caller passes cleared buffers of at least 80
// bytes and at least as long as the path.
int32_t get_file_name_from_path(const char *path, char *dir, char *name) {
    if (path == nullptr || dir == nullptr || name == nullptr) return fcadmin::kInvalidInput;
    size_t length = strlen(path);
    if (length > 0 && path[length - 1] == '/') {
        memcpy(dir, path, length);
        return 0;
    }
    for (size_t i = length; i-- > 0;) {
        if (path[i] != '/') continue;
        memcpy(dir, path, i + 1);
        memcpy(name, path + i + 1, length - i);  // the rest with its terminator
        return 1;
    }
    strncpy(dir, "/", fcadmin::kRemoteTargetLimit);
    memcpy(name, path, length);
    return 1;
}

}  // extern "C"
