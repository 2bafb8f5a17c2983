// fcadmin export: option handling, the refusal of "all" without a directory, and the request it builds.
#include "fcadmin.h"
#include "tests/support/fake_platform.h"
#include "tests/support/helpers.h"
#include "tools/fcadmin/command.h"

#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

using namespace fcadmin_test;

namespace {

struct ToolRun {
    int status;
    std::string err;
};

// Runs the tool in this process (so that the fakes see its platform calls) with standard error caught.
ToolRun run_tool(std::vector<std::string> args) {
    args.insert(args.begin(), "fcadmin");
    std::vector<char *> argv;
    for (auto &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const std::string capture = "/tmp/export_tool_stderr";
    fflush(stderr);
    int saved = dup(2);
    int fd = open(capture.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(fd, 2);
    close(fd);
    int status = fcadmin_tool::tool_main(static_cast<int>(argv.size()) - 1, argv.data());
    fflush(stderr);
    dup2(saved, 2);
    close(saved);
    return {status, read_file(capture)};
}

TEST(ExportTool, RefusesAllWithoutDirectory) {
    reset_platform();
    for (auto args : std::vector<std::vector<std::string>>{{"export", "scp://admin@10.0.0.5/x", "--all"},
                                                           {"export", "sftp://admin@10.0.0.5/", "--item", "allx"}}) {
        ToolRun run = run_tool(args);
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(run.err, "A remote directory is required to export all content.\n");
    }
    EXPECT_TRUE(platform_calls().empty());

    // Usage mistakes: status 2 and nothing staged.
    for (auto args : std::vector<std::vector<std::string>>{{"export", "--all", "--dir", "/d"},
                                                           {"export", "scp://a@h/x", "--all", "--item", "i"},
                                                           {"export", "scp://a@h/x", "--item", std::string(24, 'i')},
                                                           {"export", "scp://a@h/x", "--all", "--dir", std::string(80, 'd')}}) {
        EXPECT_EQ(run_tool(args).status, 2) << args.back();
    }
    EXPECT_TRUE(platform_calls().empty());
}

TEST(ExportTool, BuildsTheRequestAndReportsTheResult) {
    reset_platform();
    script_results("stage_export_content", {1});
    script_staged_lists({"/tmp/fcadmin_export/cfg"});
    ToolRun run = run_tool({"export", "scp://admin:pw@10.0.0.5:2200/up/new.cfg", "--item", "config",
                            "--platform-shell"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(platform_calls_of("stage_export_content")[0].args, (std::vector<std::string>{"config", "new.cfg"}));
    auto shell = platform_calls_of("ork_infra_system");
    ASSERT_EQ(shell.size(), 1u);
    EXPECT_EQ(shell[0].args[0], "/usr/bin/scp -q -v -oConnectTimeout=60 -oPort=2200 -oPreferredAuthentications=publickey "
                                "-oStrictHostKeyChecking=no /tmp/fcadmin_export/cfg admin@[10.0.0.5]:/up/");

    // Nothing eligible: the message of -51 and status 1.
    reset_platform();
    run = run_tool({"export", "ftp://admin@10.0.0.5/", "--all", "--dir", "up"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "Nothing was exported: no content eligible for export was found.\n");
    EXPECT_EQ(platform_calls_of("stage_export_content")[0].args, (std::vector<std::string>{"all", "(null)"}));
}

}  // namespace
