// Runs the fcadmin tool in-process in a forked child, so that each run starts from the library's
// initial state, with its standard output and error collected.
#pragma once

#include "tests/support/helpers.h"
#include "tools/fcadmin/command.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

namespace fcadmin_test {

struct ToolRun {
    int status;  // the exit status, or -1 when the run did not exit
    std::string out, err;
};

inline ToolRun run_tool_in_child(std::vector<std::string> args) {
    const std::string out_path = "/tmp/tool_run.out", err_path = "/tmp/tool_run.err";
    const int status = run_in_child([&] {
        dup2(open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
        dup2(open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
        args.insert(args.begin(), "fcadmin");
        std::vector<char *> argv;
        for (auto &a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        const int code = fcadmin_tool::tool_main(static_cast<int>(args.size()), argv.data());
        fflush(nullptr);
        _exit(code);
    });
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file(out_path), read_file(err_path)};
}

}  // namespace fcadmin_test
