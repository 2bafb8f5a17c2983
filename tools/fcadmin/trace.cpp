// Subcommand trace: dumps the host trace ring, or runs another subcommand and dumps what it traced.
#include "tools/fcadmin/command.h"

#include "fcadmin.h"
#include "host/trace_ring.h"

#include <cstdio>
#include <cstdlib>

// The ring belongs to libfcadmin_host. A tool linked over another platform's services has none, and
// these references then stay null instead of failing the link.
namespace fcadmin::host {
size_t trace_ring_dump(FILE *out) __attribute__((weak));
}

namespace fcadmin_tool {
namespace {

constexpr const char *kTraceFileVariable = "FCADMIN_TRACE_FILE";

int copy_to_stdout(const char *path) {
    FILE *in = fopen(path, "re");
    if (in == nullptr) {
        fprintf(stderr, "fcadmin trace: nothing traced into %s yet\n", path);
        return 0;
    }
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, in)) > 0) fwrite(buffer, 1, n, stdout);
    fclose(in);
    return 0;
}

int run_trace(int argc, char **argv) {
    if (fcadmin::host::trace_ring_dump == nullptr) {
        fputs("fcadmin trace: this tool's platform services keep no trace ring\n", stderr);
        return argc > 1 ? tool_main(argc, argv) : 1;
    }
    if (argc < 2) {
        // A fresh process has traced nothing: the trail of earlier runs is in the trace file, if any.
        const char *file = getenv(kTraceFileVariable);
        if (file != nullptr && *file != '\0') return copy_to_stdout(file);
        if (fcadmin::host::trace_ring_dump(stdout) == 0)
            fputs("fcadmin trace: the trace ring is empty (it holds the lines of this run only: give a "
                  "command to trace, or set FCADMIN_TRACE_FILE)\n",
                  stderr);
        return 0;
    }
    // Channels set up before the command runs, so that its first lines are stored, not dropped.
    admin_trace_init();
    // argv[0] ("trace") stands in for the program name: argv[1] is the command to run.
    const int status = tool_main(argc, argv);
    fflush(stdout);
    fflush(stderr);
    fcadmin::host::trace_ring_dump(stdout);
    return status;
}

}  // namespace

FCADMIN_SUBCOMMAND("trace", "dump the trace lines of a command run (host trace ring)",
                   "usage: fcadmin trace [COMMAND [ARGS...]]\n"
                   "\n"
                   "With a command: runs 'fcadmin COMMAND ARGS...' and then prints the trace lines that the\n"
                   "run stored, oldest first, one a line: UTC time, module id, level, text. The exit status\n"
                   "is the command's.\n"
                   "Without a command: prints the file named by FCADMIN_TRACE_FILE when that is set (every\n"
                   "run appends its lines there), else the trace ring of this run, which is empty.\n"
                   "\n"
                   "The ring keeps the newest 512 lines; older ones are counted as dropped. With\n"
                   "FCADMIN_TRACE=syslog every line also goes to the system log, as fcadmin (journalctl -t\n"
                   "fcadmin): the general channel at priority info, the detail channel at debug.\n",
                   run_trace);

}  // namespace fcadmin_tool
