// fcadmin copy: exit status, the failure's message and trace line, usage errors.
#include "tests/support/helpers.h"

#include <sys/stat.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <string>

using namespace fcadmin_test;

namespace {

// Runs the tool with standard error joined to standard output; "<status> <output>".
std::string tool(const std::string &args) {
    std::string out;
    const int status = run_program({"/bin/sh", "-c", "exec \"$FCADMIN_TOOL\" copy " + args + " 2>&1"}, &out);
    return std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : -1) + " " + out;
}

TEST(ToolCopy, CopiesOrReportsTheFailureWithItsTraceLine) {
    const std::string dir = "/tmp/tool_copy";
    mkdir(dir.c_str(), 0755);
    write_file(dir + "/src", "payload");
    write_file(dir + "/dst", "old");
    EXPECT_EQ(tool(dir + "/src " + dir + "/dst"), "0 ");
    EXPECT_EQ(read_file(dir + "/dst"), "payload");

    EXPECT_EQ(tool(dir + "/missing " + dir + "/dst"),
              "1 Failed to copy the file from remote location.\n"
              "admin_file_copy: Can't open file: " + dir + "/missing <2> (No such file or directory)\n");
    EXPECT_EQ(read_file(dir + "/dst"), "payload");
    EXPECT_EQ(tool(dir + "/src"), "2 fcadmin copy: expects SRC and DST\nTry 'fcadmin copy --help'.\n");
}

}  // namespace
