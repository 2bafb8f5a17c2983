// The export with the recording platform fakes: command lines, exit paths, the clean-up and the batch
// file, the remote target and item name, and the path split.
#include "fcadmin.h"
#include "tests/support/fake_platform.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

using namespace fcadmin_test;

namespace {

const std::string kStaging = FCADMIN_EXPORT_STAGING_DIR, kBatch = FCADMIN_EXPORT_BATCH_FILE;
const std::string kLog = FCADMIN_TRANSFER_LOG, kStaged = kStaging + "staged.cfg";
const std::string kFiles = kStaging + "a.cfg " + kStaging + "b.cfg";
const std::string kKey = "publickey", kKbd = "keyboard-interactive -oChallengeResponseAuthentication=yes";
const std::string kLetters =
    "S=stage_export_content g=geps_2env r=ork_infra_system q=ork_infra_scanf v=ork_verify_password c=system";

std::string scp(const std::string &port, const std::string &auth) {
    return "/usr/bin/scp -q -v -oConnectTimeout=60 " + port + " -oPreferredAuthentications=" + auth +
           " -oStrictHostKeyChecking=no " + kFiles + " admin@[10.0.0.5]:/backups";
}
std::string sftp(const std::string &auth, const std::string &port) {
    return "/usr/bin/sftp -q -v -oConnectTimeout=60 -oPreferredAuthentications=" + auth + " " + port +
           " -oStrictHostKeyChecking=no -obatchmode=no -b " + kBatch + " admin@[10.0.0.5]:/backups";
}
std::string ftp(const std::string &credentials) {
    return "/bin/ncftpput -R -t 60 -V -u admin " + credentials + "10.0.0.5 /backups " + kStaging + ".";
}

TransferRequest request(const char *protocol, const char *password = "", int32_t port = 2222) {
    TransferRequest r = transfer_request(protocol, "admin", password, "10.0.0.5", "", port);
    strcpy(r.selector, "config");
    strcpy(r.remote_dir, "/backups");
    return r;
}

// Fresh fakes, one file in the staging directory, and a provider that reports `staged` files; the
// clean-up's system() is recorded (and run).
void fresh(long staged) {
    reset_platform();
    interpose(true);
    mkdir(kStaging.c_str(), 0755);
    write_file(kStaged, "staged\n");
    script("stage_export_content", {staged});
    script_lists({kFiles});
}

bool cleaned_up() { return args_of("system", 0) == Lines{"/bin/rm -f " + kStaging + "*"} && !file_exists(kStaged); }

// The batch file's content, and whether this process holds it open, as a command sees it.
std::string batch_state() {
    bool open = false;
    for (const auto &fd : std::filesystem::directory_iterator("/proc/self/fd")) open |= read_symlink(fd.path()) == kBatch;
    return file_exists(kBatch) ? read_file(kBatch) + (open ? " (open)" : " (closed)") : "-";
}

TEST(Export, NullRequestAndProviderResultsReturnWithoutCleanUp) {
    fresh(0);
    write_file(kLog, "old output\n");
    EXPECT_EQ(exportFileToRemoteSystem(nullptr, 1), 0);
    EXPECT_TRUE(calls().empty() && file_exists(kStaged) && file_exists(kLog));
    for (long code : {0, -49, -8, -1}) {  // the log goes first; nothing staged is -51, the provider's codes pass
        fresh(code);
        write_file(kLog, "old output\n");
        TransferRequest r = request("scp");
        EXPECT_EQ(exportFileToRemoteSystem(&r, 1), code == 0 ? -51 : code);
        EXPECT_EQ(call_letters(kLetters) + (file_exists(kLog) ? " log" : "") + (file_exists(kStaged) ? " staged" : ""), "S staged");
    }
}

TEST(Export, CommandLinesAndExitPaths) {
    const std::string p = "-oPort=2222", put = "put " + kStaging + "* /backups (open)";
    const Lines scp_all = {scp(p, kKey), scp(p, kKbd), scp(p, "password -oSSHPassword=pw")};
    const struct {
        const char *protocol, *password;
        int32_t port;
        unsigned platform_shell;
        std::vector<long> runs;  // results of ork_infra_system in turn, then 1
        const char *typed;       // an answer to the prompt, accepted; else the prompt fails
        int code;
        Lines commands;
        std::string calls, batch_during, batch_after;
    } rows[] = {
        // Only the last attempt counts; a given password is never asked for; "scpx" is scp.
        {"scp", "pw", 2222, 1, {1, 1, 0}, nullptr, 0, scp_all, "Sgrgrgrc", "-", "-"},
        {"scpx", "pw", 2222, 1, {1, 1, 1}, nullptr, -50, scp_all, "Sgrgrgrc", "-", "-"},
        // Port 0 leaves an empty argument; a key-based success needs no prompt even without a password.
        {"scp", "", 0, 1, {0}, nullptr, 0, {scp("", kKey)}, "Sgrc", "-", "-"},
        {"scp", "", 0, 1, {1, 0}, nullptr, 0, {scp("", kKey), scp("", kKbd)}, "Sgrgrc", "-", "-"},
        {"scp", "", 0, 1, {}, nullptr, -5, {scp("", kKey), scp("", kKbd)}, "Sgrgrqvqvqvc", "-", "-"},
        {"sftp", "", 0, 1, {1, 0}, nullptr, 0, {sftp(kKey, ""), sftp(kKbd, "")}, "Sgrgrc", put, "-"},
        // A failed prompt deliberately leaves the batch file behind.
        {"sftpx", "", 0, 1, {}, nullptr, -5, {sftp(kKey, ""), sftp(kKbd, "")}, "Sgrgrqvqvqvc", put,
         "put " + kStaging + "* /backups (closed)"},
        // A password from the prompt goes into the last attempt and stays in the request.
        {"sftp", "", 2222, 1, {}, "typed", -50, {sftp(kKey, p), sftp(kKbd, p), sftp("password -oSSHPassword=typed", p)},
         "Sgrgrqvgrc", put, "-"},
        // ftp: "", "f" and "ft" too; always the platform shell, no port, no geps_2env, one try.
        {"ftp", "pw", 2222, 0, {0}, nullptr, 0, {ftp("-p pw ")}, "Src", "-", "-"},
        {"", "pw", 2222, 0, {0}, nullptr, 0, {ftp("-p pw ")}, "Src", "-", "-"},
        {"f", "pw", 2222, 1, {0}, nullptr, 0, {ftp("-p pw ")}, "Src", "-", "-"},
        {"ft", "", 2222, 1, {}, nullptr, -50, {ftp("")}, "Src", "-", "-"},
        // An unknown protocol runs its empty command line.
        {"usb", "", 2222, 1, {0}, nullptr, 0, {""}, "Sgrc", "-", "-"},
        {"usb", "", 2222, 1, {}, nullptr, -50, {""}, "Sgrc", "-", "-"},
    };
    in_child([&] {
        terminal_on_stdin();  // the prompt switches echo off on it
        for (const auto &row : rows) {
            SCOPED_TRACE(std::string("protocol '") + row.protocol + "' code " + std::to_string(row.code));
            fresh(2);
            unlink(kBatch.c_str());
            set_default("ork_infra_system", 1);
            script("ork_infra_system", row.runs);
            script_answers(row.typed != nullptr ? Lines{row.typed} : Lines{});
            script("ork_verify_password", {row.typed != nullptr ? 1 : 0});
            Lines during;
            on_call("ork_infra_system", [&] { during.push_back(batch_state()); });
            TransferRequest r = request(row.protocol, row.password, row.port);
            EXPECT_EQ(exportFileToRemoteSystem(&r, row.platform_shell), row.code);
            EXPECT_EQ(args_of("ork_infra_system", 0), row.commands);
            for (const auto &call : calls())  // the options and the redirection list of every run
                EXPECT_TRUE(call.name != "ork_infra_system" || call.text().ends_with(" 48 " + kLog + " " + kLog + " (null) (null) (null)"));
            EXPECT_EQ(call_letters(kLetters), row.calls);
            EXPECT_EQ(during, Lines(row.commands.size(), row.batch_during));
            EXPECT_EQ(batch_state(), row.batch_after);
            EXPECT_STREQ(r.password, row.typed != nullptr ? row.typed : row.password);
            EXPECT_TRUE(cleaned_up());
        }
        // No batch file, no attempt.
        fresh(1);
        ASSERT_EQ(mkdir(kBatch.c_str(), 0755), 0);
        TransferRequest r = request("sftp");
        EXPECT_EQ(exportFileToRemoteSystem(&r, 1), -50);
        EXPECT_EQ(call_letters(kLetters), "Sc");
        EXPECT_TRUE(cleaned_up());
    });
}

TEST(Export, RemoteTargetAndItemName) {
    const std::string deep = std::string(1, '/') + std::string(200, 'p') + '/' + std::string(53, 'n');  // 255 characters
    const struct {
        std::string selector, remote_dir, remote_path, item, target;
    } rows[] = {
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
    for (const auto &row : rows) {
        fresh(1);
        TransferRequest r = request("scp");
        strcpy(r.selector, row.selector.c_str());
        memcpy(r.remote_dir, row.remote_dir.data(), row.remote_dir.size() + 1);
        memcpy(r.remote_path, row.remote_path.data(), row.remote_path.size());
        EXPECT_EQ(exportFileToRemoteSystem(&r, 1), 0);
        const std::string command = args_of("ork_infra_system", 0).at(0), target = command.substr(command.find("]:") + 2);
        EXPECT_EQ(calls().at(0).text() + " " + target, "stage_export_content " + row.selector + " " + row.item + " " + row.target);
    }
    TransferRequest r = request("scp");  // fields that fill their arrays are read to their ends and no further
    memset(r.host, 'h', sizeof r.host);
    memset(r.user_name, 'u', sizeof r.user_name);
    fresh(1);
    EXPECT_EQ(exportFileToRemoteSystem(&r, 1), 0);
    EXPECT_TRUE(args_of("ork_infra_system", 0)[0].ends_with(std::string(1, ' ') + std::string(384, 'u') + "@[" +
                                                            std::string(768, 'h') + "]:/backups"));
}

TEST(Export, PathSplit) {
    using namespace std::string_literals;
    // Buffers start filled with 'Z' to show what is written and what is not.
    const struct {
        const char *path;
        int result;
        std::string dir, name;
    } rows[] = {
        {"/file", 1, "/Z", "file\0"s},  // the directory keeps its slash, the name is terminated
        {"a/b", 1, "a/Z", "b\0"s},      // no terminator is written into the directory
        {"dir/", 0, "dir/Z", "ZZ"},     // trailing slash: the name is left as it was
        {"plain", 1, std::string(1, '/') + std::string(79, '\0') + 'Z', "plainZ"},  // "/" padded to 80, name unterminated
    };
    for (const auto &row : rows) {
        char dir[256], name[256];
        memset(dir, 'Z', sizeof dir);
        memset(name, 'Z', sizeof name);
        EXPECT_EQ(get_file_name_from_path(row.path, dir, name), row.result) << row.path;
        EXPECT_EQ(std::string(dir, row.dir.size()) + "|" + std::string(name, row.name.size()), row.dir + "|" + row.name);
    }
    char buffer[8];
    EXPECT_EQ(get_file_name_from_path(nullptr, buffer, buffer), -8);
    EXPECT_EQ(get_file_name_from_path("a/b", nullptr, buffer), -8);
}

}  // namespace
