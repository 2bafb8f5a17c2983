// fcadmin run: exit status and what it shows of a failed command.
#include "fcadmin.h"
#include "tests/support/helpers.h"
#include "tests/tools/tool_run.h"
#include "tools/fcadmin/command.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

using namespace fcadmin_test;

namespace {

FCADMIN_TEST_HELPER(run_tool) {
    printf("out %s\n", argv[1]);
    fflush(stdout);
    fprintf(stderr, "err %s\n", argv[1]);
    return atoi(argv[2]);
}

// "<status> <standard error>" of one run of the tool.
std::string run_tool(std::vector<std::string> args) {
    const ToolRun run = run_tool_in_child(std::move(args));
    return std::to_string(run.status) + " " + run.err;
}

TEST(ToolRun, ReportsFailureWithTheErrorLog) {
    setenv("FCADMIN_TEST_HELPER", "run_tool", 1);
    const std::string log = FCADMIN_TRANSFER_LOG;
    EXPECT_EQ(run_tool({"run", self_exe(), "fine", "0"}), "0 ");
    EXPECT_EQ(read_file(log), "out fine\nerr fine\n");
    EXPECT_EQ(run_tool({"run", self_exe(), "broken", "4"}),
              "1 fcadmin run: the command failed: result -1\n--- " + log + " ---\nout broken\nerr broken\n");

    // Refused before anything started: the previous command's log is not shown as this one's.
    std::vector<std::string> many = {"run", self_exe()};
    many.resize(24, "w");
    EXPECT_EQ(run_tool(many),
              "1 fcadmin run: the command failed: result -1\n"
              "fcadmin run: no error log: the command was not started\n");
    EXPECT_EQ(run_tool({"run"}).substr(0, 2), "2 ");
}

}  // namespace
