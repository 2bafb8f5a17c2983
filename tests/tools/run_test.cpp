// fcadmin run: exit status and what it shows of a failed command.
#include "fcadmin.h"
#include "tests/support/helpers.h"
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

struct ToolRun {
    int status;
    std::string err;
};

// Runs the tool in a forked child with standard error in a file.
ToolRun run_tool(std::vector<std::string> args) {
    const char *err_path = "/tmp/run_test_stderr";
    const int status = run_in_child([&] {
        const int file = open(err_path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(file, STDERR_FILENO);
        close(file);
        std::vector<char *> argv;
        args.insert(args.begin(), "fcadmin");
        for (auto &a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        const int code = fcadmin_tool::tool_main(static_cast<int>(args.size()), argv.data());
        fflush(nullptr);
        _exit(code);
    });
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file(err_path)};
}

TEST(ToolRun, ReportsFailureWithTheErrorLog) {
    setenv("FCADMIN_TEST_HELPER", "run_tool", 1);
    const std::string log = FCADMIN_TRANSFER_LOG;

    ToolRun ok = run_tool({"run", self_exe(), "fine", "0"});
    EXPECT_EQ(ok.status, 0);
    EXPECT_EQ(ok.err, "");
    EXPECT_EQ(read_file(log), "out fine\nerr fine\n");

    ToolRun failed = run_tool({"run", self_exe(), "broken", "4"});
    EXPECT_EQ(failed.status, 1);
    EXPECT_EQ(failed.err, "fcadmin run: the command failed: result -1\n--- " + log +
                              " ---\nout broken\nerr broken\n");

    // Refused before anything started: the previous command's log is not shown as this one's.
    std::vector<std::string> many = {"run", self_exe()};
    for (int i = 0; i < 22; ++i) many.push_back("w");
    ToolRun refused = run_tool(many);
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err,
              "fcadmin run: the command failed: result -1\n"
              "fcadmin run: no error log: the command was not started\n");

    EXPECT_EQ(run_tool({"run"}).status, 2);
}

}  // namespace
