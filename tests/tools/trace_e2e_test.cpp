// Subcommand trace over the host platform: runs a command in-process and dumps the lines it stored.
#include "fcadmin.h"
#include "shm/trace.h"
#include "tests/support/helpers.h"
#include "tests/tools/tool_run.h"
#include "tools/fcadmin/command.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

using namespace fcadmin_test;

namespace {

// Behaves like a library entry point: sets up the channels, then writes one line on each.
int run_probe(int argc, char **argv) {
    admin_trace_init();
    printf("probe ran %s\n", argc > 1 ? argv[1] : "-");
    fcadmin::trace_line(fcadmin::TraceChannel::general, "probe general %s", argc > 1 ? argv[1] : "-");
    fcadmin::trace_line(fcadmin::TraceChannel::detail, "probe detail");
    return 3;
}

FCADMIN_SUBCOMMAND("trace-probe", "test: stores two trace lines", "usage: fcadmin trace-probe [WORD]\n", run_probe);

const std::string kProbeLines = R"(\S+Z 305 2 probe general x\n\S+Z 312 1 probe detail\n)";

}  // namespace

TEST(TraceCommand, RunsTheCommandAndDumpsWhatItTraced) {
    unsetenv("FCADMIN_TRACE_FILE");
    ToolRun run = run_tool_in_child({"trace", "trace-probe", "x"});
    EXPECT_EQ(run.status, 3);
    EXPECT_TRUE(std::regex_match(run.out, std::regex("probe ran x\n" + kProbeLines))) << run.out;
    // Without the trace command the lines are stored all the same, but nobody shows them.
    run = run_tool_in_child({"trace-probe", "x"});
    EXPECT_EQ(run.status, 3);
    EXPECT_EQ(run.out, "probe ran x\n");
    // An unknown command keeps its own status and message.
    run = run_tool_in_child({"trace", "no-such-command"});
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find("unknown command 'no-such-command'"), std::string::npos) << run.err;

    // The built tool, with nothing traced and no trace file, says so.
    std::string out;
    const int status = run_program({"/bin/sh", "-c", "exec \"$FCADMIN_TOOL\" trace 2>&1"}, &out);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_NE(out.find("the trace ring is empty"), std::string::npos) << out;
}

TEST(TraceCommand, TraceFileCollectsEveryRunAndIsDumpedWithoutACommand) {
    const std::string file = "/tmp/fcadmin.trace";
    unlink(file.c_str());
    setenv("FCADMIN_TRACE_FILE", file.c_str(), 1);
    EXPECT_EQ(run_tool_in_child({"trace", "trace-probe", "x"}).status, 3);
    EXPECT_EQ(run_tool_in_child({"trace-probe", "x"}).status, 3);
    const ToolRun dump = run_tool_in_child({"trace"});
    unsetenv("FCADMIN_TRACE_FILE");
    EXPECT_EQ(dump.status, 0);
    EXPECT_EQ(dump.out, read_file(file));
    EXPECT_TRUE(std::regex_match(dump.out, std::regex(kProbeLines + kProbeLines))) << dump.out;
}
