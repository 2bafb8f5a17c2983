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
using namespace std::string_literals;

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
const std::string kStagedFile = kStagingDir + "staged.cfg";
const std::string kFiles = kStagingDir + "a.cfg " + kStagingDir + "b.cfg";
const std::string kKey = "publickey", kKbd = "keyboard-interactive -oChallengeResponseAuthentication=yes";

std::string scp(const std::string &port, const std::string &auth) {
    return "/usr/bin/scp -q -v -oConnectTimeout=60 " + port + " -oPreferredAuthentications=" + auth +
           " -oStrictHostKeyChecking=no " + kFiles + " admin@[10.0.0.5]:/backups";
}
std::string sftp(const std::string &auth, const std::string &port) {
    return "/usr/bin/sftp -q -v -oConnectTimeout=60 -oPreferredAuthentications=" + auth + " " + port +
           " -oStrictHostKeyChecking=no -obatchmode=no -b " + kBatchFile + " admin@[10.0.0.5]:/backups";
}
std::string ftp(const std::string &credentials) {
    return "/bin/ncftpput -R -t 60 -V -u admin " + credentials + "10.0.0.5 /backups " + kStagingDir + ".";
}

TransferRequest make_request(const char *protocol, const char *password = "", int32_t port = 2222) {
    TransferRequest r;
    memset(&r, 0, sizeof r);
    strcpy(r.selector, "config");
    strcpy(r.protocol, protocol);
    strcpy(r.user_name, "admin");
    strcpy(r.password, password);
    strcpy(r.host, "10.0.0.5");
    strcpy(r.remote_dir, "/backups");
    r.port = port;
    return r;
}

// Fresh fakes and one file in the staging directory; the provider reports `staged` files.
void fresh(int staged) {
    reset_platform();
    system_commands().clear();
    mkdir(kStagingDir.c_str(), 0755);
    write_file(kStagedFile, "staged\n");
    script_results("stage_export_content", {staged});
    script_staged_lists({kFiles});
}

// The commands that ork_infra_system ran, each checked for the export's options and log redirection.
std::vector<std::string> shell_commands() {
    std::vector<std::string> out;
    for (const auto &call : platform_calls_of("ork_infra_system")) {
        EXPECT_EQ(std::vector<std::string>(call.args.begin() + 1, call.args.end()),
                  (std::vector<std::string>{"48", kLog, kLog, "(null)", "(null)", "(null)"}));
        out.push_back(call.args[0]);
    }
    return out;
}

// The order of provider (S), geps_2env (g), shell runs (r) and prompt reads (q).
std::string call_pattern() {
    std::string out;
    for (const auto &name : platform_call_names()) {
        if (name == "stage_export_content") out += 'S';
        if (name == "geps_2env") out += 'g';
        if (name == "ork_infra_system") out += 'r';
        if (name == "ork_infra_scanf") out += 'q';
    }
    return out;
}

bool cleaned_up() {
    return system_commands() == std::vector<std::string>{"/bin/rm -f " + kStagingDir + "*"} &&
           !file_exists(kStagedFile);
}

TEST(Export, NullRequestAndProviderResultsReturnWithoutCleanUp) {
    fresh(0);
    write_file(kLog, "old output\n");
    EXPECT_EQ(exportFileToRemoteSystem(nullptr, 1), 0);
    EXPECT_TRUE(platform_calls().empty() && system_commands().empty() && file_exists(kStagedFile));
    EXPECT_TRUE(file_exists(kLog));

    // The log goes before anything else; nothing staged is -51, the provider's own codes pass through.
    for (int code : {0, -49, -8, -1}) {
        fresh(code);
        write_file(kLog, "old output\n");
        TransferRequest r = make_request("scp");
        EXPECT_EQ(exportFileToRemoteSystem(&r, 1), code == 0 ? -51 : code) << code;
        EXPECT_FALSE(file_exists(kLog)) << code;
        EXPECT_EQ(platform_call_names(), std::vector<std::string>{"stage_export_content"}) << code;
        EXPECT_TRUE(system_commands().empty() && file_exists(kStagedFile)) << code;
    }
}

TEST(Export, CommandLinesAndExitPaths) {
    struct Case {
        const char *protocol, *password;
        int32_t port;
        unsigned platform_shell;
        std::vector<int> runs;  // results of ork_infra_system in turn, failure afterwards
        const char *typed;      // answer to the prompt, judged right; nullptr: the prompt fails
        int code;
        std::vector<std::string> commands;
        const char *calls;
        bool batch_left;
    };
    const std::string p = "-oPort=2222";
    const std::vector<std::string> scp_all = {scp(p, kKey), scp(p, kKbd), scp(p, "password -oSSHPassword=pw")};
    const std::string ftp_pw = ftp("-p pw ");
    const Case cases[] = {
        // Only the last attempt counts; a given password is never asked for; "scpx" is scp.
        {"scp", "pw", 2222, 1, {1, 1, 0}, nullptr, 0, scp_all, "Sgrgrgr", false},
        {"scpx", "pw", 2222, 1, {1, 1, 1}, nullptr, -50, scp_all, "Sgrgrgr", false},
        // Port 0 leaves an empty argument; a key-based success needs no prompt even without a password.
        {"scp", "", 0, 1, {0}, nullptr, 0, {scp("", kKey)}, "Sgr", false},
        // Both key attempts fail and the prompt gives up.
        {"scp", "", 0, 1, {}, nullptr, -5, {scp("", kKey), scp("", kKbd)}, "Sgrgrqqq", false},
        {"sftp", "", 0, 1, {1, 0}, nullptr, 0, {sftp(kKey, ""), sftp(kKbd, "")}, "Sgrgr", false},
        // A failed prompt deliberately leaves the batch file behind.
        {"sftpx", "", 0, 1, {}, nullptr, -5, {sftp(kKey, ""), sftp(kKbd, "")}, "Sgrgrqqq", true},
        // A password from the prompt goes into the last attempt and stays in the request.
        {"sftp", "", 2222, 1, {}, "typed", -50,
         {sftp(kKey, p), sftp(kKbd, p), sftp("password -oSSHPassword=typed", p)}, "Sgrgrqgr", false},
        // ftp: "", "f" and "ft" are ftp too; always the platform shell, no port, no geps_2env, one try.
        {"ftp", "pw", 2222, 0, {0}, nullptr, 0, {ftp_pw}, "Sr", false},
        {"", "pw", 2222, 0, {0}, nullptr, 0, {ftp_pw}, "Sr", false},
        {"f", "pw", 2222, 1, {0}, nullptr, 0, {ftp_pw}, "Sr", false},
        {"ft", "pw", 2222, 1, {0}, nullptr, 0, {ftp_pw}, "Sr", false},
        {"ftp", "", 2222, 0, {}, nullptr, -50, {ftp("")}, "Sr", false},
        // An unknown protocol runs its empty command line.
        {"usb", "", 2222, 1, {0}, nullptr, 0, {""}, "Sgr", false},
        {"usb", "", 2222, 1, {}, nullptr, -50, {""}, "Sgr", false},
    };
    // Standard input on a fresh pseudo-terminal, so that the password prompt can switch echo off.
    auto run_cases = [&] {
        int master = posix_openpt(O_RDWR | O_NOCTTY);
        ASSERT_TRUE(master >= 0 && grantpt(master) == 0 && unlockpt(master) == 0);
        ASSERT_EQ(dup2(open(ptsname(master), O_RDWR | O_NOCTTY), 0), 0);
        for (const Case &c : cases) {
            SCOPED_TRACE("protocol \""s + c.protocol + "\" password \"" + c.password + "\" code " +
                         std::to_string(c.code));
            fresh(2);
            unlink(kBatchFile.c_str());
            set_default_result("ork_infra_system", 1);
            script_results("ork_infra_system", c.runs);
            if (c.typed != nullptr) {
                script_answers({c.typed});
                script_results("ork_verify_password", {1});
            }
            TransferRequest r = make_request(c.protocol, c.password, c.port);
            EXPECT_EQ(exportFileToRemoteSystem(&r, c.platform_shell), c.code);
            EXPECT_EQ(shell_commands(), c.commands);
            EXPECT_EQ(call_pattern(), c.calls);
            EXPECT_STREQ(r.password, c.typed != nullptr ? c.typed : c.password);
            EXPECT_EQ(file_exists(kBatchFile) ? read_file(kBatchFile) : "(none)",
                      c.batch_left ? "put " + kStagingDir + "* /backups" : "(none)");
            EXPECT_TRUE(cleaned_up());
        }
    };
    EXPECT_EQ(run_in_child(run_cases), 0);

    // No batch file, no attempt.
    fresh(1);
    unlink(kBatchFile.c_str());
    ASSERT_EQ(mkdir(kBatchFile.c_str(), 0755), 0);
    TransferRequest r = make_request("sftp");
    EXPECT_EQ(exportFileToRemoteSystem(&r, 1), -50);
    EXPECT_EQ(call_pattern(), "S");
    EXPECT_TRUE(cleaned_up());
    rmdir(kBatchFile.c_str());
}

TEST(Export, RemoteTargetAndItemName) {
    // The provider's selector and item, and the remote target of the (key-based) scp command.
    auto run = [](const TransferRequest &request) {
        fresh(1);
        TransferRequest r = request;
        EXPECT_EQ(exportFileToRemoteSystem(&r, 1), 0);
        auto staged = platform_calls_of("stage_export_content");
        auto commands = shell_commands();
        std::string target = commands.empty() ? "?" : commands[0].substr(commands[0].find("]:") + 2);
        return std::vector<std::string>{staged[0].args[0], staged[0].args[1], target};
    };
    const std::string deep = std::string("/").append(200, 'p').append("/").append(53, 'n');  // 255 characters
    struct Target {
        std::string selector, remote_dir, remote_path, item, target;
    };
    const Target targets[] = {
        {"allx", "/backups", "ignored", "(null)", "/backups"},
        {"config", "/backups", "dir/new.cfg", "dir/new.cfg", "/backups"},
        {"config", "/backups", "", "(null)", "/backups"},
        // Without a directory the path is split.
        {"config", "", "dir/sub/file", "file", "dir/sub/"},
        {"config", "", "file", "file", "/"},
        {"config", "", "dir/", "", "dir/"},
        {"config", "", "", "", "/"},
        // Whatever the target comes from, it is cut to 79 characters.
        {"config", std::string(sizeof TransferRequest{}.remote_dir - 1, 'd'), "", "(null)", std::string(79, 'd')},
        {"config", "", deep, std::string(53, 'n'), deep.substr(0, 79)},
    };
    for (const Target &t : targets) {
        TransferRequest r = make_request("scp");
        strcpy(r.selector, t.selector.c_str());
        memcpy(r.remote_dir, t.remote_dir.data(), t.remote_dir.size() + 1);
        memcpy(r.remote_path, t.remote_path.data(), t.remote_path.size());
        EXPECT_EQ(run(r), (std::vector<std::string>{t.selector, t.item, t.target})) << t.remote_path;
    }

    // A field that fills its whole array is read up to its end and no further.
    TransferRequest r = make_request("scp");
    memset(r.host, 'h', sizeof r.host);
    memset(r.user_name, 'u', sizeof r.user_name);
    fresh(1);
    EXPECT_EQ(exportFileToRemoteSystem(&r, 1), 0);
    const std::string login = std::string(" ").append(384, 'u').append("@[").append(768, 'h').append("]:/backups");
    EXPECT_NE(shell_commands()[0].find(login), std::string::npos);
}

TEST(GetFileNameFromPath, Splits) {
    // Buffers start filled with 'Z' to show what is written and what is not.
    struct Split {
        const char *path;
        int result;
        std::string dir, name;
    };
    const Split splits[] = {
        {"/file", 1, "/Z", "file\0"s},          // the directory keeps its slash, the name is terminated
        {"a/b", 1, "a/Z", "b\0"s},              // no terminator is written into the directory
        {"dir/", 0, "dir/Z", "ZZ"},             // trailing slash: the name is left as it was
        {"plain", 1, std::string("/").append(79, '\0').append("Z"), "plainZ"},  // "/" padded to 80, name unterminated
    };
    for (const Split &s : splits) {
        char dir[256], name[256];
        memset(dir, 'Z', sizeof dir);
        memset(name, 'Z', sizeof name);
        EXPECT_EQ(get_file_name_from_path(s.path, dir, name), s.result) << s.path;
        EXPECT_EQ(std::string(dir, s.dir.size()), s.dir) << s.path;
        EXPECT_EQ(std::string(name, s.name.size()), s.name) << s.path;
    }
    char buffer[8];
    EXPECT_EQ(get_file_name_from_path(nullptr, buffer, buffer), -8);
    EXPECT_EQ(get_file_name_from_path("a/b", nullptr, buffer), -8);
    EXPECT_EQ(get_file_name_from_path("a/b", buffer, nullptr), -8);
}

}  // namespace
