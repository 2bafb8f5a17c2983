// fcadmin copy: exit status, the failure's message and trace line, usage errors.
#include "tests/support/helpers.h"

#include <sys/wait.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

using namespace fcadmin_test;

namespace {

// Runs the tool with standard error joined to standard output; returns the exit status.
int tool(const std::string &args, std::string *out) {
    const int status = run_program({"/bin/sh", "-c", "exec \"$FCADMIN_TOOL\" copy " + args + " 2>&1"}, out);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(ToolCopy, CopiesOrReportsTheFailureWithItsTraceLine) {
    char pattern[] = "/tmp/tool_copy.XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const std::string dir = pattern;
    write_file(dir + "/src", "payload");
    write_file(dir + "/dst", "old");

    std::string out;
    EXPECT_EQ(tool(dir + "/src " + dir + "/dst", &out), 0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(read_file(dir + "/dst"), "payload");

    out.clear();
    EXPECT_EQ(tool(dir + "/missing " + dir + "/dst", &out), 1);
    EXPECT_EQ(out, "Failed to copy the file from remote location.\n"
                   "admin_file_copy: Can't open file: " + dir + "/missing <2> (No such file or directory)\n");
    EXPECT_EQ(read_file(dir + "/dst"), "payload");

    out.clear();
    EXPECT_EQ(tool(dir + "/src", &out), 2);
    EXPECT_EQ(out, "fcadmin copy: expects SRC and DST\nTry 'fcadmin copy --help'.\n");
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
}

}  // namespace
