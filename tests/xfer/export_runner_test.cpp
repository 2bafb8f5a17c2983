// The export through the real command runner, with recording stubs bind-mounted over scp and sftp.
#include "fcadmin.h"
#include "tests/support/fake_platform.h"
#include "tests/support/helpers.h"

#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <sstream>
#include <string>
#include <vector>

using namespace fcadmin_test;

namespace {

const std::string kStubDir = "/tmp/export_stub/";
const std::string kCalls = kStubDir + "calls";      // one line a call: the arguments joined by '|'
const std::string kBatches = kStubDir + "batches";  // one line a call: the batch file as the tool saw it
const std::string kResults = kStubDir + "results";  // the exit status of each call in turn
const std::string kStagingDir = FCADMIN_EXPORT_STAGING_DIR;
const std::string kBatchFile = FCADMIN_EXPORT_BATCH_FILE;

std::vector<std::string> lines(const std::string &text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

// True when the process holds a descriptor open on path.
bool holds_open(pid_t pid, const std::string &path) {
    std::string fd_dir = "/proc/" + std::to_string(pid) + "/fd";
    DIR *dir = opendir(fd_dir.c_str());
    if (dir == nullptr) return false;
    bool found = false;
    while (dirent *entry = readdir(dir)) {
        char target[PATH_MAX] = {};
        std::string link = fd_dir + "/" + entry->d_name;
        if (readlink(link.c_str(), target, sizeof target - 1) > 0 && path == target) found = true;
    }
    closedir(dir);
    return found;
}

}  // namespace

// Stands in for /usr/bin/scp and /usr/bin/sftp: records its arguments and, for a batch upload, what the
// batch file held and whether the export kept it open; exits with the next scripted status.
FCADMIN_TEST_HELPER(export_tool) {
    std::string line;
    std::string batch = "-";
    for (int i = 0; i < argc; ++i) {
        line += (i ? "|" : "") + std::string(argv[i]);
        if (strcmp(argv[i], "-b") == 0 && i + 1 < argc)
            batch = read_file(argv[i + 1]) + (holds_open(getppid(), argv[i + 1]) ? " (open)" : " (closed)");
    }
    size_t call = lines(read_file(kCalls)).size();
    write_file(kCalls, read_file(kCalls) + line + "\n");
    write_file(kBatches, read_file(kBatches) + batch + "\n");
    auto results = lines(read_file(kResults));
    fprintf(stderr, "stub call %zu\n", call);
    return call < results.size() ? atoi(results[call].c_str()) : 1;
}

namespace {

// In a child with its own mounts: the stubs over the tools, the staged files, the scripted statuses.
void prepare(const std::string &results) {
    private_mounts();
    for (const char *tool : {"/usr/bin/scp", "/usr/bin/sftp"}) {
        char resolved[PATH_MAX] = {};
        ASSERT_NE(realpath(tool, resolved), nullptr) << tool;
        bind_mount(self_exe(), resolved);
    }
    setenv("FCADMIN_TEST_HELPER", "export_tool", 1);
    mkdir(kStubDir.c_str(), 0755);
    write_file(kCalls, "");
    write_file(kBatches, "");
    write_file(kResults, results);
    mkdir(kStagingDir.c_str(), 0755);
    write_file(kStagingDir + "a.cfg", "a\n");
    write_file(kStagingDir + "b.cfg", "b\n");
    reset_platform();
    script_results("stage_export_content", {2});
    script_staged_lists({kStagingDir + "a.cfg " + kStagingDir + "b.cfg "});
}

TransferRequest make_request(const char *protocol, const char *password, int32_t port) {
    TransferRequest r;
    memset(&r, 0, sizeof r);
    strcpy(r.selector, "all");
    strcpy(r.protocol, protocol);
    strcpy(r.user_name, "admin");
    strcpy(r.password, password);
    strcpy(r.host, "127.0.0.1");
    strcpy(r.remote_dir, "/backups");
    r.port = port;
    return r;
}

bool staging_empty() { return !file_exists(kStagingDir + "a.cfg") && !file_exists(kStagingDir + "b.cfg"); }

TEST(ExportThroughRunner, ScpAttemptsAsTheToolSeesThem) {
    EXPECT_IN_CHILD({
        prepare("1\n1\n0\n");
        TransferRequest r = make_request("scp", "pw", 0);
        EXPECT_EQ(exportFileToRemoteSystem(&r, 0), 0);
        // The empty port option and the trailing blank of the list vanish at the runner's word split.
        const std::string files = kStagingDir + "a.cfg|" + kStagingDir + "b.cfg|admin@[127.0.0.1]:/backups";
        EXPECT_EQ(lines(read_file(kCalls)),
                  (std::vector<std::string>{
                      "/usr/bin/scp|-q|-v|-oConnectTimeout=60|-oPreferredAuthentications=publickey|"
                      "-oStrictHostKeyChecking=no|" + files,
                      "/usr/bin/scp|-q|-v|-oConnectTimeout=60|-oPreferredAuthentications=keyboard-interactive|"
                      "-oChallengeResponseAuthentication=yes|-oStrictHostKeyChecking=no|" + files,
                      "/usr/bin/scp|-q|-v|-oConnectTimeout=60|-oPreferredAuthentications=password|"
                      "-oSSHPassword=pw|-oStrictHostKeyChecking=no|" + files}));
        // The log holds the last tool's output only.
        EXPECT_EQ(read_file(FCADMIN_TRANSFER_LOG), "stub call 2\n");
        EXPECT_TRUE(staging_empty());
    });
}

TEST(ExportThroughRunner, SftpKeepsTheBatchFileOpenDuringTheAttempts) {
    EXPECT_IN_CHILD({
        prepare("1\n1\n1\n");
        TransferRequest r = make_request("sftp", "pw", 2222);
        EXPECT_EQ(exportFileToRemoteSystem(&r, 0), -50);
        const std::string tail = "-oPort=2222|-oStrictHostKeyChecking=no|-obatchmode=no|-b|" + kBatchFile +
                                 "|admin@[127.0.0.1]:/backups";
        EXPECT_EQ(lines(read_file(kCalls)),
                  (std::vector<std::string>{
                      "/usr/bin/sftp|-q|-v|-oConnectTimeout=60|-oPreferredAuthentications=publickey|" + tail,
                      "/usr/bin/sftp|-q|-v|-oConnectTimeout=60|-oPreferredAuthentications=keyboard-interactive|"
                      "-oChallengeResponseAuthentication=yes|" + tail,
                      "/usr/bin/sftp|-q|-v|-oConnectTimeout=60|-oPreferredAuthentications=password|"
                      "-oSSHPassword=pw|" + tail}));
        const std::string batch = "put " + kStagingDir + "* /backups (open)";
        EXPECT_EQ(lines(read_file(kBatches)), (std::vector<std::string>{batch, batch, batch}));
        EXPECT_FALSE(file_exists(kBatchFile));
        EXPECT_TRUE(staging_empty());
    });
}

}  // namespace
