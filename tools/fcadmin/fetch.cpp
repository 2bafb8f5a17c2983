// fcadmin fetch: brings one file onto this system over scp, sftp or ftp, or from a USB drive.
#include "fcadmin.h"
#include "tools/fcadmin/command.h"
#include "tools/fcadmin/password.h"
#include "tools/fcadmin/progress.h"
#include "tools/fcadmin/url.h"

#include <cstdio>
#include <cstring>
#include <string>

namespace fcadmin_tool {
namespace {

constexpr const char *kFetchUsage =
    "usage: fcadmin fetch URL LOCAL_PATH [--platform-runner] [--password-file FILE] [--quiet]\n"
    "\n"
    "URL is PROTO://[USER[:PASSWORD]@]HOST[:PORT]/PATH with PROTO scp, sftp or ftp, HOST in square\n"
    "brackets for an IPv6 address, %XX escapes in USER and PASSWORD; or usb:///PATH for a file on a\n"
    "mounted USB drive. For scp and sftp PATH is absolute (/~/x is x in the home directory) and PORT\n"
    "defaults to 22; for ftp PATH is relative to the login directory.\n"
    "\n"
    "scp and sftp try a public-key log-in, then a keyboard-interactive one, then a password log-in;\n"
    "without a PASSWORD in the URL the password is asked for at the terminal (three tries) before\n"
    "that last attempt. The password log-in needs the device's secure-shell client: a stock OpenSSH\n"
    "client refuses its -oSSHPassword option, so there only the key-based log-ins can succeed.\n"
    "ftp runs wget with the user name and password percent-encoded into the URL.\n"
    "usb copies PATH to " FCADMIN_USB_TMP_FILE "; LOCAL_PATH is not used then.\n"
    "\n"
    "The password is the URL's, or the first line of FILE (--password-file; refused when its group or\n"
    "others may read it), or else the value of FCADMIN_PASSWORD. Once the URL is read, ps and\n"
    "/proc/PID/cmdline show its password as '*'; the tool never prints a password.\n"
    "On a terminal, a line on standard error shows the bytes fetched so far and the average rate, and\n"
    "is erased at the end; --quiet hides it.\n"
    "\n"
    "The tools run through the library's command runner (their output in " FCADMIN_TRANSFER_LOG "),\n"
    "or with --platform-runner through the platform's shell service (their output discarded).\n"
    "Exit status 0 when the file was fetched; otherwise the result's message on standard error and\n"
    "status 1 (2 for a bad command line).\n";

constexpr const char kPlatformRunnerFlag[] = "--platform-runner";

int run_fetch(int argc, char **argv) {
    char *positional[2] = {};
    int count = 0;
    bool platform_runner = false;
    TransferOptions options;
    for (int i = 1; i < argc; ++i) {
        const int taken = take_transfer_option(argc, argv, &i, &options);
        if (taken < 0) return usage_error("fetch", "--password-file needs a FILE");
        if (taken > 0) continue;
        if (strcmp(argv[i], kPlatformRunnerFlag) == 0) {
            platform_runner = true;
        } else if (argv[i][0] == '-' && argv[i][1] == '-') {
            return usage_error("fetch", std::string("unknown option ") + argv[i]);
        } else if (count < 2) {
            positional[count++] = argv[i];
        } else {
            return usage_error("fetch", "expects one URL and one LOCAL_PATH");
        }
    }
    if (count != 2) return usage_error("fetch", "expects URL and LOCAL_PATH");

    TransferRequest request{};
    std::string error;
    const bool parsed = parse_transfer_url(positional[0], &request, &error);
    mask_url_password(positional[0]);
    if (!parsed || !supply_password(options.password_file, &request, &error)) return usage_error("fetch", error);
    const bool usb = strcmp(request.protocol, "usb") == 0;
    int32_t result = 0;
    {
        ProgressLine progress("fetch", ProgressLine::Measure::file, usb ? FCADMIN_USB_TMP_FILE : positional[1],
                              !options.quiet);
        hide_in_console(request.password);
        result = copyRemoteFileToLocalSystem(&request, positional[1], platform_runner ? 1 : 0);
        hide_in_console(nullptr);
    }
    // The request held the password; it does not outlive the call.
    explicit_bzero(&request, sizeof request);
    return report_result(result);
}

FCADMIN_SUBCOMMAND("fetch", "fetch one file over scp, sftp or ftp, or from a USB drive", kFetchUsage, run_fetch);

}  // namespace
}  // namespace fcadmin_tool
