// fcadmin export: stage content with the platform's provider and upload it to a remote directory.
#include "fcadmin.h"
#include "tools/fcadmin/command.h"
#include "tools/fcadmin/password.h"
#include "tools/fcadmin/progress.h"
#include "tools/fcadmin/url.h"

#include <cstring>
#include <string>

namespace fcadmin_tool {
namespace {

constexpr int32_t kAllNeedsDirectory = -53;
// The export cuts the remote directory to 79 characters; refuse what it would cut.
constexpr size_t kRemoteDirLimit = 79;

constexpr char kUsage[] =
    "usage: fcadmin export URL (--all | --item NAME) [--dir REMOTE_DIR] [--platform-shell]\n"
    "                      [--password-file FILE] [--quiet]\n"
    "\n"
    "Stages the selected content and uploads it to a remote directory.\n"
    "  URL               PROTO://[USER[:PASSWORD]@]HOST[:PORT]/PATH with PROTO scp, sftp or ftp;\n"
    "                    without --dir, PATH's directory is the remote target and its last\n"
    "                    component the name the item is stored under (empty: the item's own name);\n"
    "                    with --dir, a non-empty PATH names the item's remote file\n"
    "  --all             export every item (needs --dir)\n"
    "  --item NAME       export the one item NAME\n"
    "  --dir REMOTE_DIR  remote directory to upload into (at most 79 characters)\n"
    "  --platform-shell  run scp and sftp through the platform shell service instead of the\n"
    "                    command runner (ftp always uses the platform shell service)\n"
    "  --password-file FILE\n"
    "                    the password is the first line of FILE (refused when its group or others\n"
    "                    may read it); without it and without one in the URL, the value of\n"
    "                    FCADMIN_PASSWORD. ps shows a password in the URL as '*' once it is read;\n"
    "                    the tool never prints a password\n"
    "  --quiet           no progress line (on a terminal, a line on standard error shows the bytes\n"
    "                    staged and the time taken, and is erased at the end)\n"
    "\n"
    "scp sends every staged file in one command, sftp runs a batch file; both try a public-key\n"
    "log-in, then a keyboard-interactive one, then a password log-in, asking for the password at\n"
    "the terminal before that last attempt when the URL carries none. The password log-in needs\n"
    "the device's secure-shell client (a stock OpenSSH client refuses its -oSSHPassword option).\n"
    "ftp runs ncftpput once, with the password given. Tool output goes to\n"
    FCADMIN_TRANSFER_LOG "; exit status 0, or the result's message and status 1 (2 for a bad\n"
    "command line).\n";

int run_export(int argc, char **argv) {
    const char *name = argv[0];
    char *url = nullptr;
    const char *item = nullptr;
    const char *dir = nullptr;
    bool all = false;
    bool platform_shell = false;
    TransferOptions options;
    for (int i = 1; i < argc; ++i) {
        const char *arg = argv[i];
        const int taken = take_transfer_option(argc, argv, &i, &options);
        if (taken < 0) return usage_error(name, "--password-file needs a FILE");
        if (taken > 0) continue;
        if (strcmp(arg, "--all") == 0) {
            all = true;
        } else if (strcmp(arg, "--item") == 0 || strcmp(arg, "--dir") == 0) {
            if (i + 1 >= argc) return usage_error(name, std::string(arg) + " needs a value");
            (arg[2] == 'i' ? item : dir) = argv[++i];
        } else if (strcmp(arg, "--platform-shell") == 0) {
            platform_shell = true;
        } else if (arg[0] == '-' && arg[1] != '\0') {
            return usage_error(name, std::string("unknown option ") + arg);
        } else if (url == nullptr) {
            url = argv[i];
        } else {
            return usage_error(name, std::string("unexpected argument ") + arg);
        }
    }
    if (url == nullptr) return usage_error(name, "a URL is required");
    if (all == (item != nullptr)) return usage_error(name, "give either --all or --item NAME");

    TransferRequest request;
    memset(&request, 0, sizeof request);
    std::string error;
    const bool parsed = parse_transfer_url(url, &request, &error);
    mask_url_password(url);
    if (!parsed || !supply_password(options.password_file, &request, &error)) return usage_error(name, error);

    // The ftp upload puts the credentials into its command line as they stand, split at blanks.
    if (strcmp(request.protocol, "ftp") == 0 &&
        (strchr(request.user_name, ' ') != nullptr || strchr(request.password, ' ') != nullptr))
        return usage_error(name, "ftp credentials for an export cannot contain a blank");

    const char *selector = all ? "all" : item;
    if (*selector == '\0' || strlen(selector) >= sizeof request.selector)
        return usage_error(name, "the item name must have 1 to " + std::to_string(sizeof request.selector - 1) +
                                     " characters");
    strcpy(request.selector, selector);
    if (dir != nullptr) {
        if (strlen(dir) > kRemoteDirLimit)
            return usage_error(name, "the remote directory may have at most 79 characters");
        strcpy(request.remote_dir, dir);
    }
    // Exporting every item needs a remote directory. The export itself does not check it (it would upload
    // into an empty remote target), so it is refused here before anything is staged. The export takes any
    // selector that begins with "all" for every item, so such an --item is held to the same rule.
    if (strncmp(request.selector, "all", 3) == 0 && request.remote_dir[0] == '\0')
        return report_result(kAllNeedsDirectory);

    int32_t result = 0;
    {
        ProgressLine progress("export", ProgressLine::Measure::directory, FCADMIN_EXPORT_STAGING_DIR, !options.quiet);
        hide_in_console(request.password);
        result = exportFileToRemoteSystem(&request, platform_shell ? 1 : 0);
        hide_in_console(nullptr);
    }
    // The request held the password (perhaps one typed at the prompt); it does not outlive the call.
    explicit_bzero(&request, sizeof request);
    return report_result(result);
}

}  // namespace

FCADMIN_SUBCOMMAND("export", "stage content and upload it to a remote directory (scp, sftp, ftp)", kUsage,
                   run_export);

}  // namespace fcadmin_tool
