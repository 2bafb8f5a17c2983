// Subcommand trace over the host platform: runs a command in-process and dumps the lines it stored.
#include "fcadmin.h"
#include "shm/trace.h"
#include "tests/support/helpers.h"
#include "tools/fcadmin/command.h"

#include <fcntl.h>
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

// Runs the tool in-process in a forked child with standard output and error in files; returns the
// exit status, or -1 when the child did not exit.
int run_tool(std::vector<std::string> args, const std::string &out, const std::string &err = "/dev/null") {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(o, STDOUT_FILENO);
        dup2(e, STDERR_FILENO);
        std::vector<char *> argv;
        for (auto &a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        int status = fcadmin_tool::tool_main(static_cast<int>(args.size()), argv.data());
        fflush(nullptr);
        _exit(status);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

const std::regex kProbeRun(
    "probe ran x\n"
    R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z 305 2 probe general x\n)"
    R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z 312 1 probe detail\n)");

}  // namespace

TEST(TraceCommand, RunsTheCommandAndDumpsWhatItTraced) {
    unsetenv("FCADMIN_TRACE_FILE");
    EXPECT_EQ(run_tool({"fcadmin", "trace", "trace-probe", "x"}, "/tmp/trace.out"), 3);
    const std::string out = read_file("/tmp/trace.out");
    EXPECT_TRUE(std::regex_match(out, kProbeRun)) << out;

    // Without the trace command the lines are stored all the same, but nobody shows them.
    EXPECT_EQ(run_tool({"fcadmin", "trace-probe", "x"}, "/tmp/trace.out"), 3);
    EXPECT_EQ(read_file("/tmp/trace.out"), "probe ran x\n");

    // An unknown command keeps its own status and message.
    EXPECT_EQ(run_tool({"fcadmin", "trace", "no-such-command"}, "/tmp/trace.out", "/tmp/trace.err"), 2);
    EXPECT_NE(read_file("/tmp/trace.err").find("unknown command 'no-such-command'"), std::string::npos);
}

TEST(TraceCommand, TraceFileCollectsEveryRunAndIsDumpedWithoutACommand) {
    const std::string file = "/tmp/fcadmin.trace";
    unlink(file.c_str());
    setenv("FCADMIN_TRACE_FILE", file.c_str(), 1);
    EXPECT_EQ(run_tool({"fcadmin", "trace", "trace-probe", "x"}, "/tmp/trace.out"), 3);
    EXPECT_EQ(run_tool({"fcadmin", "trace-probe", "x"}, "/tmp/trace.out"), 3);
    EXPECT_EQ(run_tool({"fcadmin", "trace"}, "/tmp/trace.out"), 0);
    const std::string dumped = read_file("/tmp/trace.out");
    EXPECT_EQ(dumped, read_file(file));
    const std::regex four_lines(R"((\S+Z 305 2 probe general x\n\S+Z 312 1 probe detail\n){2})");
    EXPECT_TRUE(std::regex_match(dumped, four_lines)) << dumped;
    unsetenv("FCADMIN_TRACE_FILE");
}

TEST(TraceCommand, BuiltToolWithoutACommandExplainsTheEmptyRing) {
    const char *tool = getenv("FCADMIN_TOOL");
    ASSERT_NE(tool, nullptr);
    std::string out;
    int status = run_program({"/bin/sh", "-c", std::string("unset FCADMIN_TRACE_FILE; ") + tool + " trace 2>&1"}, &out);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_NE(out.find("the trace ring is empty"), std::string::npos) << out;
}
