// The export against the recording platform fakes: command lines, exit paths, clean-up and batch file.
#include "fcadmin.h"
#include "tests/support/fake_platform.h"
#include "tests/support/helpers.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using namespace fcadmin_test;

namespace {

std::vector<std::string> &system_commands() {
    static std::vector<std::string> commands;
    return commands;
}

}  // namespace

// The clean-up runs through the C library's system(); record each command and run it for real, so that
// both the command line and its effect on the staging directory can be checked.
extern "C" int system(const char *command) {
    system_commands().push_back(command == nullptr ? "(null)" : command);
    using SystemFn = int (*)(const char *);
    static SystemFn real = reinterpret_cast<SystemFn>(dlsym(RTLD_NEXT, "system"));
    return real(command);
}

namespace {

const std::string kStagingDir = FCADMIN_EXPORT_STAGING_DIR;
const std::string kBatchFile = FCADMIN_EXPORT_BATCH_FILE;
const std::string kLog = FCADMIN_TRANSFER_LOG;
const std::string kCleanup = "/bin/rm -f " + kStagingDir + "*";
const std::string kStagedFile = kStagingDir + "staged.cfg";

TransferRequest make_request(const char *protocol, const char *password = "") {
    TransferRequest r;
    memset(&r, 0, sizeof r);
    strcpy(r.selector, "config");
    strcpy(r.protocol, protocol);
    strcpy(r.user_name, "admin");
    strcpy(r.password, password);
    strcpy(r.host, "10.0.0.5");
    strcpy(r.remote_dir, "/backups");
    r.port = 2222;
    return r;
}

// The commands that ork_infra_system ran, with a check that each came with the export's options and
// the error-log redirection list.
std::vector<std::string> shell_commands() {
    std::vector<std::string> out;
    for (const auto &call : platform_calls_of("ork_infra_system")) {
        EXPECT_EQ(call.args[1], "48");
        EXPECT_EQ(std::vector<std::string>(call.args.begin() + 2, call.args.end()),
                  (std::vector<std::string>{kLog, kLog, "(null)", "(null)", "(null)"}));
        out.push_back(call.args[0]);
    }
    return out;
}

// Standard input on a fresh pseudo-terminal, so that the password prompt can switch echo off.
void stdin_on_terminal() {
    int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(grantpt(master), 0);
    ASSERT_EQ(unlockpt(master), 0);
    int slave = open(ptsname(master), O_RDWR | O_NOCTTY);
    ASSERT_GE(slave, 0);
    ASSERT_EQ(dup2(slave, 0), 0);
}

class Export : public ::testing::Test {
protected:
    void SetUp() override {
        reset_platform();
        system_commands().clear();
        mkdir(kStagingDir.c_str(), 0755);
        write_file(kStagedFile, "staged\n");
        unlink(kBatchFile.c_str());
        rmdir(kBatchFile.c_str());
        unlink(kLog.c_str());
    }

    // The provider stages two files (the fake writes the list only).
    static void stage_two() {
        script_results("stage_export_content", {2});
        script_staged_lists({kStagingDir + "a.cfg " + kStagingDir + "b.cfg"});
    }

    static bool cleaned_up() {
        return system_commands() == std::vector<std::string>{kCleanup} && !file_exists(kStagedFile);
    }
    static bool untouched() { return system_commands().empty() && file_exists(kStagedFile); }
};

TEST_F(Export, NullRequestAndProviderResultsReturnWithoutCleanUp) {
    write_file(kLog, "old output\n");
    EXPECT_EQ(exportFileToRemoteSystem(nullptr, 1), 0);
    EXPECT_TRUE(platform_calls().empty());
    EXPECT_TRUE(file_exists(kLog));
    EXPECT_TRUE(untouched());

    // The log goes before anything else; nothing staged is -51, the provider's own codes pass through.
    for (int code : {0, -49, -8, -1}) {
        reset_platform();
        write_file(kLog, "old output\n");
        script_results("stage_export_content", {code});
        TransferRequest r = make_request("scp");
        EXPECT_EQ(exportFileToRemoteSystem(&r, 1), code == 0 ? -51 : code) << code;
        EXPECT_FALSE(file_exists(kLog)) << code;
        EXPECT_EQ(platform_call_names(), std::vector<std::string>{"stage_export_content"}) << code;
        EXPECT_TRUE(untouched()) << code;
    }
}

TEST_F(Export, ScpTriesEveryMethodWithOneCommandForAllFiles) {
    stage_two();
    script_results("ork_infra_system", {1, 1, 0});
    TransferRequest r = make_request("scp", "pw");
    EXPECT_EQ(exportFileToRemoteSystem(&r, 1), 0);
    const std::string files = kStagingDir + "a.cfg " + kStagingDir + "b.cfg";
    EXPECT_EQ(shell_commands(),
              (std::vector<std::string>{
                  "/usr/bin/scp -q -v -oConnectTimeout=60 -oPort=2222 -oPreferredAuthentications=publickey "
                  "-oStrictHostKeyChecking=no " + files + " admin@[10.0.0.5]:/backups",
                  "/usr/bin/scp -q -v -oConnectTimeout=60 -oPort=2222 "
                  "-oPreferredAuthentications=keyboard-interactive -oChallengeResponseAuthentication=yes "
                  "-oStrictHostKeyChecking=no " + files + " admin@[10.0.0.5]:/backups",
                  "/usr/bin/scp -q -v -oConnectTimeout=60 -oPort=2222 -oPreferredAuthentications=password "
                  "-oSSHPassword=pw -oStrictHostKeyChecking=no " + files + " admin@[10.0.0.5]:/backups"}));
    // A given password is never asked for again; geps_2env comes before each attempt.
    EXPECT_EQ(platform_call_names(),
              (std::vector<std::string>{"stage_export_content", "geps_2env", "ork_infra_system", "geps_2env",
                                        "ork_infra_system", "geps_2env", "ork_infra_system"}));
    EXPECT_EQ(platform_calls_of("stage_export_content")[0].args, (std::vector<std::string>{"config", "(null)"}));
    EXPECT_TRUE(cleaned_up());

    // Only the last attempt counts.
    reset_platform();
    system_commands().clear();
    write_file(kStagedFile, "staged\n");
    stage_two();
    set_default_result("ork_infra_system", 1);
    r = make_request("scpx", "pw");
    EXPECT_EQ(exportFileToRemoteSystem(&r, 1), -50);
    EXPECT_EQ(shell_commands().size(), 3u);
    EXPECT_TRUE(cleaned_up());
}

TEST_F(Export, ScpWithoutPortOrPassword) {
    // Port 0 leaves an empty argument; a key-based success needs no prompt even without a password.
    stage_two();
    TransferRequest r = make_request("scp");
    r.port = 0;
    EXPECT_EQ(exportFileToRemoteSystem(&r, 1), 0);
    EXPECT_EQ(shell_commands(), std::vector<std::string>{
        "/usr/bin/scp -q -v -oConnectTimeout=60  -oPreferredAuthentications=publickey "
        "-oStrictHostKeyChecking=no " + kStagingDir + "a.cfg " + kStagingDir + "b.cfg admin@[10.0.0.5]:/backups"});
    EXPECT_TRUE(platform_calls_of("ork_infra_scanf").empty());
    EXPECT_TRUE(cleaned_up());

    // Both key attempts fail and the prompt gives up: -5, staging emptied all the same.
    EXPECT_IN_CHILD({
        stdin_on_terminal();
        reset_platform();
        system_commands().clear();
        write_file(kStagedFile, "staged\n");
        stage_two();
        set_default_result("ork_infra_system", 1);
        TransferRequest q = make_request("scp");
        EXPECT_EQ(exportFileToRemoteSystem(&q, 1), -5);
        EXPECT_EQ(shell_commands().size(), 2u);
        EXPECT_EQ(platform_calls_of("ork_infra_scanf").size(), 3u);
        EXPECT_TRUE(cleaned_up());
    });
}

TEST_F(Export, SftpBatchFileAndAttempts) {
    script_results("stage_export_content", {1});
    script_results("ork_infra_system", {1, 0});
    TransferRequest r = make_request("sftp");
    r.port = 0;
    EXPECT_EQ(exportFileToRemoteSystem(&r, 1), 0);
    const std::string tail = " -oStrictHostKeyChecking=no -obatchmode=no -b " + kBatchFile + " admin@[10.0.0.5]:/backups";
    EXPECT_EQ(shell_commands(),
              (std::vector<std::string>{
                  "/usr/bin/sftp -q -v -oConnectTimeout=60 -oPreferredAuthentications=publickey " + tail,
                  "/usr/bin/sftp -q -v -oConnectTimeout=60 -oPreferredAuthentications=keyboard-interactive "
                  "-oChallengeResponseAuthentication=yes " + tail}));
    EXPECT_FALSE(file_exists(kBatchFile));
    EXPECT_TRUE(cleaned_up());

    // A failed prompt leaves the batch file behind, exactly one put without a newline.
    EXPECT_IN_CHILD({
        stdin_on_terminal();
        reset_platform();
        system_commands().clear();
        write_file(kStagedFile, "staged\n");
        script_results("stage_export_content", {1});
        set_default_result("ork_infra_system", 1);
        TransferRequest q = make_request("sftpx");
        EXPECT_EQ(exportFileToRemoteSystem(&q, 1), -5);
        EXPECT_EQ(read_file(kBatchFile), "put " + kStagingDir + "* /backups");
        EXPECT_EQ(shell_commands().size(), 2u);
        EXPECT_TRUE(cleaned_up());
    });

    // A password from the prompt goes into the last attempt and stays in the request.
    EXPECT_IN_CHILD({
        stdin_on_terminal();
        reset_platform();
        system_commands().clear();
        write_file(kStagedFile, "staged\n");
        script_results("stage_export_content", {1});
        script_results("ork_infra_system", {1, 1, 1});
        script_answers({"typed"});
        script_results("ork_verify_password", {1});
        TransferRequest q = make_request("sftp");
        EXPECT_EQ(exportFileToRemoteSystem(&q, 1), -50);
        EXPECT_STREQ(q.password, "typed");
        auto commands = shell_commands();
        ASSERT_EQ(commands.size(), 3u);
        EXPECT_EQ(commands[2], "/usr/bin/sftp -q -v -oConnectTimeout=60 -oPreferredAuthentications=password "
                               "-oSSHPassword=typed -oPort=2222 -oStrictHostKeyChecking=no -obatchmode=no -b " +
                                   kBatchFile + " admin@[10.0.0.5]:/backups");
        EXPECT_FALSE(file_exists(kBatchFile));
        EXPECT_TRUE(cleaned_up());
    });

    // No batch file, no attempt.
    reset_platform();
    system_commands().clear();
    write_file(kStagedFile, "staged\n");
    ASSERT_EQ(mkdir(kBatchFile.c_str(), 0755), 0);
    script_results("stage_export_content", {1});
    r = make_request("sftp");
    EXPECT_EQ(exportFileToRemoteSystem(&r, 1), -50);
    EXPECT_TRUE(shell_commands().empty());
    EXPECT_TRUE(cleaned_up());
}

TEST_F(Export, FtpAlwaysThroughThePlatformShell) {
    // "", "f" and "ft" are ftp; the port is ignored; no geps_2env, no prompt, no second try.
    for (const char *protocol : {"ftp", "", "f", "ft"}) {
        reset_platform();
        system_commands().clear();
        write_file(kStagedFile, "staged\n");
        script_results("stage_export_content", {1});
        TransferRequest r = make_request(protocol, "pw");
        EXPECT_EQ(exportFileToRemoteSystem(&r, 0), 0) << protocol;
        EXPECT_EQ(shell_commands(), std::vector<std::string>{"/bin/ncftpput -R -t 60 -V -u admin -p pw 10.0.0.5 "
                                                             "/backups " + kStagingDir + "."})
            << protocol;
        EXPECT_EQ(platform_call_names(), (std::vector<std::string>{"stage_export_content", "ork_infra_system"}));
        EXPECT_TRUE(cleaned_up()) << protocol;
    }

    reset_platform();
    system_commands().clear();
    write_file(kStagedFile, "staged\n");
    script_results("stage_export_content", {1});
    script_results("ork_infra_system", {1});
    TransferRequest r = make_request("ftp");
    EXPECT_EQ(exportFileToRemoteSystem(&r, 1), -50);
    EXPECT_EQ(shell_commands(),
              std::vector<std::string>{"/bin/ncftpput -R -t 60 -V -u admin 10.0.0.5 /backups " + kStagingDir + "."});
    EXPECT_TRUE(cleaned_up());
}

TEST_F(Export, UnknownProtocolRunsAnEmptyCommand) {
    for (int service_result : {1, 0}) {
        reset_platform();
        system_commands().clear();
        write_file(kStagedFile, "staged\n");
        script_results("stage_export_content", {1});
        script_results("ork_infra_system", {service_result});
        TransferRequest r = make_request("usb");
        EXPECT_EQ(exportFileToRemoteSystem(&r, 1), service_result == 0 ? 0 : -50);
        EXPECT_EQ(platform_call_names(),
                  (std::vector<std::string>{"stage_export_content", "geps_2env", "ork_infra_system"}));
        EXPECT_EQ(shell_commands(), std::vector<std::string>{""});
        EXPECT_TRUE(cleaned_up());
    }
}

TEST_F(Export, RemoteTargetAndItemName) {
    // Returns the provider's selector and item, and the remote target of the (key-based) scp command.
    auto run = [](TransferRequest r) {
        reset_platform();
        script_results("stage_export_content", {1});
        script_staged_lists({"/f"});
        EXPECT_EQ(exportFileToRemoteSystem(&r, 1), 0);
        auto staged = platform_calls_of("stage_export_content");
        auto commands = shell_commands();
        std::string target = commands.empty() ? "?" : commands[0].substr(commands[0].find("]:") + 2);
        return std::vector<std::string>{staged[0].args[0], staged[0].args[1], target};
    };
    TransferRequest r = make_request("scp");
    strcpy(r.selector, "allx");
    strcpy(r.remote_path, "ignored");
    EXPECT_EQ(run(r), (std::vector<std::string>{"allx", "(null)", "/backups"}));

    r = make_request("scp");
    strcpy(r.remote_path, "dir/new.cfg");
    EXPECT_EQ(run(r), (std::vector<std::string>{"config", "dir/new.cfg", "/backups"}));

    struct Split {
        const char *remote_path, *target, *item;
    };
    for (const Split &s : {Split{"dir/sub/file", "dir/sub/", "file"}, Split{"file", "/", "file"},
                           Split{"dir/", "dir/", ""}, Split{"", "/", ""}}) {
        r = make_request("scp");
        r.remote_dir[0] = '\0';
        strcpy(r.remote_path, s.remote_path);
        EXPECT_EQ(run(r), (std::vector<std::string>{"config", s.item, s.target})) << s.remote_path;
    }

    // Whatever the target comes from, it is cut to 79 characters.
    r = make_request("scp");
    memset(r.remote_dir, 'd', sizeof r.remote_dir - 1);
    EXPECT_EQ(run(r)[2], std::string(79, 'd'));

    std::string deep = "/" + std::string(200, 'p') + "/" + std::string(53, 'n');
    r = make_request("scp");
    r.remote_dir[0] = '\0';
    memcpy(r.remote_path, deep.data(), deep.size());  // 255 characters
    EXPECT_EQ(run(r), (std::vector<std::string>{"config", std::string(53, 'n'), deep.substr(0, 79)}));

    // A field that fills its whole array is read up to its end and no further.
    r = make_request("scp");
    memset(r.host, 'h', sizeof r.host);
    memset(r.user_name, 'u', sizeof r.user_name);
    reset_platform();
    script_results("stage_export_content", {1});
    EXPECT_EQ(exportFileToRemoteSystem(&r, 1), 0);
    EXPECT_NE(shell_commands()[0].find(" " + std::string(384, 'u') + "@[" + std::string(768, 'h') + "]:/backups"),
              std::string::npos);
}

TEST(GetFileNameFromPath, Splits) {
    char dir[256];
    char name[256];
    auto split = [&](const char *path) {
        memset(dir, 0, sizeof dir);
        memset(name, 0, sizeof name);
        return get_file_name_from_path(path, dir, name);
    };
    // The directory keeps its slash; the name gets the terminator.
    EXPECT_EQ(split("/file"), 1);
    EXPECT_STREQ(dir, "/");
    EXPECT_STREQ(name, "file");

    // A trailing slash: the whole path is the directory and the name is left as it was.
    memset(dir, 0, sizeof dir);
    strcpy(name, "keep");
    EXPECT_EQ(get_file_name_from_path("dir/", dir, name), 0);
    EXPECT_STREQ(dir, "dir/");
    EXPECT_STREQ(name, "keep");

    // No terminator is written into dir; "/" is padded with zeros to 80 bytes.
    memset(dir, 'Z', sizeof dir);
    memset(name, 0, sizeof name);
    EXPECT_EQ(get_file_name_from_path("a/b", dir, name), 1);
    EXPECT_EQ(std::string(dir, 3), "a/Z");
    memset(dir, 'Z', sizeof dir);
    EXPECT_EQ(get_file_name_from_path("plain", dir, name), 1);
    EXPECT_EQ(std::string(dir, 81), "/" + std::string(79, '\0') + "Z");

    EXPECT_EQ(get_file_name_from_path(nullptr, dir, name), -8);
    EXPECT_EQ(get_file_name_from_path("a/b", nullptr, name), -8);
    EXPECT_EQ(get_file_name_from_path("a/b", dir, nullptr), -8);
}

}  // namespace
