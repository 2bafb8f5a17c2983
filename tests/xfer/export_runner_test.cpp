// The export through the real command runner, with recording stubs bind-mounted over scp and sftp.
#include "fcadmin.h"
#include "tests/support/fake_platform.h"
#include "tests/support/helpers.h"

#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

using namespace fcadmin_test;

namespace {

const std::string kCalls = "/tmp/export_stub_calls";  // one line a call: the arguments joined by '|'
const std::string kStagingDir = FCADMIN_EXPORT_STAGING_DIR;
const std::string kBatchFile = FCADMIN_EXPORT_BATCH_FILE;

std::vector<std::string> lines(const std::string &text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

}  // namespace

// Stands in for /usr/bin/scp and /usr/bin/sftp: records its arguments and, for a batch upload, what the
// batch file held and whether the export (its parent) kept it open; exits with the next scripted status.
FCADMIN_TEST_HELPER(export_tool) {
    std::string line, batch;
    for (int i = 0; i < argc; ++i) {
        if (i > 0) line += '|';
        line += argv[i];
        if (strcmp(argv[i], "-b") == 0 && i + 1 < argc) {
            bool open = false;
            std::error_code ec;
            for (const auto &fd : std::filesystem::directory_iterator("/proc/" + std::to_string(getppid()) + "/fd", ec))
                open = open || std::filesystem::read_symlink(fd.path(), ec) == argv[i + 1];
            batch = " [" + read_file(argv[i + 1]) + (open ? " (open)]" : " (closed)]");
        }
    }
    line += batch;
    size_t call = lines(read_file(kCalls)).size();
    write_file(kCalls, read_file(kCalls) + line + "\n");
    fprintf(stderr, "stub call %zu\n", call);
    const char *results = getenv("EXPORT_STUB_RESULTS");  // one digit a call, failure afterwards
    return results != nullptr && call < strlen(results) ? results[call] - '0' : 1;
}

namespace {

TEST(ExportThroughRunner, ToolsSeeEachAttemptAsItsOwnArguments) {
    EXPECT_IN_CHILD({
        private_mounts();
        for (const char *tool : {"/usr/bin/scp", "/usr/bin/sftp"}) {
            char resolved[PATH_MAX] = {};
            ASSERT_NE(realpath(tool, resolved), nullptr) << tool;
            bind_mount(self_exe(), resolved);
        }
        setenv("FCADMIN_TEST_HELPER", "export_tool", 1);
        mkdir(kStagingDir.c_str(), 0755);
        // Stages two files and exports them through the command runner; the stubs exit with `results`.
        auto run = [](const char *protocol, int32_t port, const char *results) {
            write_file(kCalls, "");
            setenv("EXPORT_STUB_RESULTS", results, 1);
            write_file(kStagingDir + "a.cfg", "a\n");
            write_file(kStagingDir + "b.cfg", "b\n");
            reset_platform();
            script_results("stage_export_content", {2});
            script_staged_lists({kStagingDir + "a.cfg " + kStagingDir + "b.cfg "});
            TransferRequest r;
            memset(&r, 0, sizeof r);
            strcpy(r.selector, "all");
            strcpy(r.protocol, protocol);
            strcpy(r.user_name, "admin");
            strcpy(r.password, "pw");
            strcpy(r.host, "127.0.0.1");
            strcpy(r.remote_dir, "/backups");
            r.port = port;
            int result = exportFileToRemoteSystem(&r, 0);
            EXPECT_FALSE(file_exists(kStagingDir + "a.cfg") || file_exists(kStagingDir + "b.cfg"));
            return result;
        };
        const std::string head = "|-q|-v|-oConnectTimeout=60|-oPreferredAuthentications=";
        const std::string kbd = "keyboard-interactive|-oChallengeResponseAuthentication=yes|";

        // The empty port option and the trailing blank of the list vanish at the runner's word split.
        EXPECT_EQ(run("scp", 0, "110"), 0);
        const std::string scp_tail = "-oStrictHostKeyChecking=no|" + kStagingDir + "a.cfg|" + kStagingDir +
                                     "b.cfg|admin@[127.0.0.1]:/backups";
        EXPECT_EQ(lines(read_file(kCalls)),
                  (std::vector<std::string>{"/usr/bin/scp" + head + "publickey|" + scp_tail,
                                            "/usr/bin/scp" + head + kbd + scp_tail,
                                            "/usr/bin/scp" + head + "password|-oSSHPassword=pw|" + scp_tail}));
        // The log holds the last tool's output only.
        EXPECT_EQ(read_file(FCADMIN_TRANSFER_LOG), "stub call 2\n");

        // sftp keeps its batch file open during every attempt and removes it afterwards.
        EXPECT_EQ(run("sftp", 2222, ""), -50);
        const std::string sftp_tail = "-oPort=2222|-oStrictHostKeyChecking=no|-obatchmode=no|-b|" + kBatchFile +
                                      "|admin@[127.0.0.1]:/backups [put " + kStagingDir + "* /backups (open)]";
        EXPECT_EQ(lines(read_file(kCalls)),
                  (std::vector<std::string>{"/usr/bin/sftp" + head + "publickey|" + sftp_tail,
                                            "/usr/bin/sftp" + head + kbd + sftp_tail,
                                            "/usr/bin/sftp" + head + "password|-oSSHPassword=pw|" + sftp_tail}));
        EXPECT_FALSE(file_exists(kBatchFile));
    });
}

}  // namespace
