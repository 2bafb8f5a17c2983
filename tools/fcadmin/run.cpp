// fcadmin run: runs one command through the library's command runner and shows its error log.
#include "fcadmin.h"
#include "tools/fcadmin/command.h"

#include <unistd.h>

#include <cstdio>
#include <string>

namespace fcadmin_tool {
namespace {

constexpr const char *kRunUsage =
    "usage: fcadmin run PROGRAM [ARG...]\n"
    "\n"
    "Runs PROGRAM the way the transfers run their tools: without a shell, the words joined by blanks\n"
    "and split again at blanks only (no quoting; at most 22 words, each cut at 399 bytes), PROGRAM\n"
    "looked up on the search path when it has no slash, standard output and standard error sent to\n"
    "the transfer error log " FCADMIN_TRANSFER_LOG ".\n"
    "Exit status 0 when the command succeeded; otherwise the error log and the result go to standard\n"
    "error and the exit status is 1. A command killed by a signal other than SIGKILL counts as\n"
    "succeeded, as it does for the transfers.\n";

void print_error_log() {
    FILE *log = fopen(FCADMIN_TRANSFER_LOG, "r");
    if (log == nullptr) {
        fprintf(stderr, "fcadmin run: no error log: the command was not started\n");
        return;
    }
    fprintf(stderr, "--- %s ---\n", FCADMIN_TRANSFER_LOG);
    char buf[4096];
    size_t n = 0;
    int last = '\n';
    while ((n = fread(buf, 1, sizeof buf, log)) > 0) {
        fwrite(buf, 1, n, stderr);
        last = buf[n - 1];
    }
    if (last != '\n') fputc('\n', stderr);
    fclose(log);
}

int run_command(int argc, char **argv) {
    if (argc < 2) return usage_error("run", "expects a program to run");
    std::string command = argv[1];
    for (int i = 2; i < argc; ++i) command.append(" ").append(argv[i]);

    // The runner re-creates the log only when it starts a child; without this, a command refused
    // before it started would show the previous command's output as its own.
    unlink(FCADMIN_TRANSFER_LOG);
    const int32_t result = admin_system_call(command.c_str());
    if (result == 0) return 0;
    fflush(stdout);
    fprintf(stderr, "fcadmin run: the command failed: result %d\n", result);
    print_error_log();
    return 1;
}

FCADMIN_SUBCOMMAND("run", "run one command through the transfer command runner", kRunUsage, run_command);

}  // namespace
}  // namespace fcadmin_tool
