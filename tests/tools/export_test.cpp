// fcadmin export: the refusal of "all" without a directory, a usage error, and what reaches the export.
#include "fcadmin.h"
#include "tests/support/fake_platform.h"
#include "tests/support/helpers.h"
#include "tools/fcadmin/command.h"

#include <string>
#include <vector>

using namespace fcadmin_test;

namespace {

// Runs the tool in this process (so that the fakes see its platform calls); returns status and stderr.
std::pair<int, std::string> run_tool(std::vector<std::string> args) {
    args.insert(args.begin(), "fcadmin");
    std::vector<char *> argv;
    for (auto &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    testing::internal::CaptureStderr();
    int status = fcadmin_tool::tool_main(static_cast<int>(args.size()), argv.data());
    fflush(stderr);
    return {status, testing::internal::GetCapturedStderr()};
}

TEST(ExportTool, RefusesAllWithoutDirectoryAndReportsTheResult) {
    // "all" without a remote directory, also when the item name merely begins with it, never reaches the
    // export; neither does a usage mistake (status 2).
    reset_platform();
    const std::string refusal = "A remote directory is required to export all content.\n";
    EXPECT_EQ(run_tool({"export", "scp://admin@10.0.0.5/x", "--all"}), std::make_pair(1, refusal));
    EXPECT_EQ(run_tool({"export", "sftp://admin@10.0.0.5/", "--item", "allx"}), std::make_pair(1, refusal));
    EXPECT_EQ(run_tool({"export", "scp://a@h/x", "--all", "--item", "i"}).first, 2);
    // ncftpput gets the credentials as they stand, so a blank that the URL may carry for ftp is refused.
    EXPECT_EQ(run_tool({"export", "ftp://j.doe:p%20w@h/", "--all", "--dir", "up"}).first, 2);
    EXPECT_TRUE(platform_calls().empty());

    // The URL's path splits into remote target and item name; a failed export reports its message.
    script_results("stage_export_content", {1, 0});
    script_staged_lists({"/tmp/fcadmin_export/cfg"});
    EXPECT_EQ(run_tool({"export", "scp://admin:pw@10.0.0.5:2200/up/new.cfg", "--item", "config", "--platform-shell"}),
              std::make_pair(0, std::string()));
    EXPECT_EQ(platform_calls_of("stage_export_content")[0].args, (std::vector<std::string>{"config", "new.cfg"}));
    EXPECT_EQ(platform_calls_of("ork_infra_system")[0].args[0],
              "/usr/bin/scp -q -v -oConnectTimeout=60 -oPort=2200 -oPreferredAuthentications=publickey "
              "-oStrictHostKeyChecking=no /tmp/fcadmin_export/cfg admin@[10.0.0.5]:/up/");
    EXPECT_EQ(run_tool({"export", "ftp://admin@10.0.0.5/", "--all", "--dir", "up"}),
              std::make_pair(1, std::string("Nothing was exported: no content eligible for export was found.\n")));
}

}  // namespace
