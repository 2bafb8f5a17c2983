// fcadmin copy: replaces a file atomically with a copy of another.
#include "fcadmin.h"
#include "tools/fcadmin/command.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace fcadmin_tool {
namespace {

constexpr const char *kCopyUsage =
    "usage: fcadmin copy SRC DST\n"
    "\n"
    "Copies SRC over DST so that a reader of DST sees either its old content or the whole copy:\n"
    "the data go to DST.tmp, are forced to disk, and DST.tmp is renamed over DST. A new DST.tmp\n"
    "takes the mode of SRC less the umask; an existing one is reused with its own mode. On a\n"
    "failure DST is left as it was and DST.tmp may remain. SRC is read into memory whole.\n";

// The errno that a trace line carries at its end as "<N>", or 0 when it carries none.
int traced_errno(const char *line) {
    const char *open = strrchr(line, '<');
    if (open == nullptr) return 0;
    char *end = nullptr;
    const long value = strtol(open + 1, &end, 10);
    return *end == '>' && value > 0 && value < 4096 ? static_cast<int>(value) : 0;
}

// The library reports the cause only in its trace line, which is still in the general channel's
// buffer after the call (none is written for a short read or write): show it with the message, and
// the text of the errno it carries.
int run_copy(int argc, char **argv) {
    if (argc != 3) return usage_error("copy", "expects SRC and DST");
    const int32_t result = admin_file_copy(argv[1], argv[2]);
    if (result == 0) return 0;
    const int status = report_result(result);
    char line[sizeof admin_msg_buff + 1] = {};
    memcpy(line, admin_msg_buff, sizeof admin_msg_buff);
    if (line[0] == '\0') return status;
    const int error = traced_errno(line);
    if (error != 0)
        fprintf(stderr, "%s (%s)\n", line, strerror(error));
    else
        fprintf(stderr, "%s\n", line);
    return status;
}

FCADMIN_SUBCOMMAND("copy", "replace a file atomically with a copy of another", kCopyUsage, run_copy);

}  // namespace
}  // namespace fcadmin_tool
