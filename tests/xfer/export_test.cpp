// The export with the recording fakes: command lines, exit paths, clean-up, batch file, target and item, path split.
#include "fcadmin.h"
#include "tests/support/fake_platform.h"

#include <filesystem>

using namespace fcadmin_test;

const std::string kStaging = FCADMIN_EXPORT_STAGING_DIR, kBatch = FCADMIN_EXPORT_BATCH_FILE;
const std::string kLog = FCADMIN_TRANSFER_LOG, kStaged = kStaging + "staged.cfg";
const std::string kList = kStaging + "a " + kStaging + "b", kRun = " 48 " + kLog + " " + kLog + " (null) (null) (null)";
const std::string kKey = "publickey", kKbd = "keyboard-interactive -oChallengeResponseAuthentication=yes";
const std::string kLetters =
    "S=stage_export_content g=geps_2env r=ork_infra_system q=ork_infra_scanf v=ork_verify_password c=system";

static std::string scp(const std::string &port, const std::string &auth) {
    return "/usr/bin/scp -q -v -oConnectTimeout=60 " + port + " -oPreferredAuthentications=" + auth +
           " -oStrictHostKeyChecking=no " + kList + " admin@[10.0.0.5]:/backups";
}
static std::string sftp(const std::string &auth, const std::string &port) {
    return "/usr/bin/sftp -q -v -oConnectTimeout=60 -oPreferredAuthentications=" + auth + " " + port +
           " -oStrictHostKeyChecking=no -obatchmode=no -b " + kBatch + " admin@[10.0.0.5]:/backups";
}

static TransferRequest request(const char *protocol, const char *password = "", int32_t port = 2222) {
    TransferRequest r = transfer_request(protocol, "admin", password, "10.0.0.5", "", port);
    return strcpy(r.selector, "config"), strcpy(r.remote_dir, "/backups"), r;
}

// Fresh fakes, an old log and a file staged before, no batch file, `staged` files reported; system() also runs.
static void fresh(long staged) {
    reset_platform(), interpose(true), mkdir(kStaging.c_str(), 0755), unlink(kBatch.c_str());
    write_file(kStaged, "staged\n"), write_file(kLog, "old output\n");
    script("stage_export_content", {staged}), script_lists({kList});
}

static bool cleaned_up() { return args_of("system", 0) == Lines{"/bin/rm -f " + kStaging + "*"} && !file_exists(kStaged); }

static std::string batch() {  // the batch file's content, and whether this process holds it open
    bool open = false;
    for (const auto &f : std::filesystem::directory_iterator("/proc/self/fd")) open |= read_symlink(f.path()) == kBatch;
    return file_exists(kBatch) ? read_file(kBatch) + (open ? " (open)" : " (closed)") : "-";
}

// Rows: protocol, password, port, platform shell, runs' results, an accepted answer (else the prompt fails),
// result, commands, batch file at each run ("?": without kRun), "calls|batch file|password" after ("!": kept).
TEST(Export, CommandLinesAndExitPaths) {
    const std::string p = "-oPort=2222", put = "put " + kStaging + "* /backups (open)";
    const std::string ftp = "/bin/ncftpput -R -t 60 -V -u admin ", to = "10.0.0.5 /backups " + kStaging + ".";
    Lines seen, scp_all = {scp(p, kKey), scp(p, kKbd), scp(p, "password -oSSHPassword=pw")};
    using Row = std::tuple<const char *, const char *, int32_t, unsigned, std::vector<long>, const char *, int, Lines,
                           std::string, std::string>;
    const Row rows[] = {
        {"scp", "pw", 2222, 1, {1, 1, 0}, nullptr, 0, scp_all, "-", "Sgrgrgrc|-|pw"},  // the last attempt counts
        {"scpx", "pw", 2222, 1, {1, 1, 1}, nullptr, -50, scp_all, "-", "Sgrgrgrc|-|pw"},  // "scpx" is scp
        {"scp", "", 0, 1, {0}, nullptr, 0, {scp("", kKey)}, "-", "Sgrc|-|"},  // port 0: empty argument, no prompt
        {"scp", "", 0, 1, {1, 0}, nullptr, 0, {scp("", kKey), scp("", kKbd)}, "-", "Sgrgrc|-|"},
        {"scp", "", 0, 1, {1, 1}, nullptr, -5, {scp("", kKey), scp("", kKbd)}, "-", "Sgrgrqvqvqvc|-|"},
        {"sftp", "", 0, 1, {1, 0}, nullptr, 0, {sftp(kKey, ""), sftp(kKbd, "")}, put, "Sgrgrc|-|"},
        {"sftpx", "", 0, 1, {1, 1}, nullptr, -5, {sftp(kKey, ""), sftp(kKbd, "")}, put,  // a failed prompt keeps it
         "Sgrgrqvqvqvc|put " + kStaging + "* /backups (closed)|"},
        {"sftp", "", 2222, 1, {1, 1, 1}, "t", -50, {sftp(kKey, p), sftp(kKbd, p), sftp("password -oSSHPassword=t", p)},
         put, "Sgrgrqvgrc|-|t"},  // a typed password goes into the last attempt and stays in the request
        // ftp ("ft" and "" too): always the platform shell, no port, no geps_2env, one try.
        {"ftp", "pw", 2222, 0, {0}, nullptr, 0, {ftp + "-p pw " + to}, "-", "Src|-|pw"},
        {"ft", "", 2222, 1, {1}, nullptr, -50, {ftp + to}, "-", "Src|-|"},
    };
    in_child([&] {
        terminal_on_stdin();  // the prompt switches echo off on it
        const auto see = [&seen] { seen.push_back(batch() + (calls().back().text().ends_with(kRun) ? "" : "?")); };
        for (const auto &[protocol, password, port, shell, runs, typed, code, commands, each, after] : rows) {
            fresh(2), seen.clear(), on_call("ork_infra_system", see), script("ork_infra_system", runs);
            script_answers({typed != nullptr ? typed : ""}), script("ork_verify_password", {typed != nullptr});
            TransferRequest r = request(protocol, password, port);
            EXPECT_EQ(exportFileToRemoteSystem(&r, shell), code) << protocol;
            EXPECT_EQ(args_of("ork_infra_system", 0), commands);
            EXPECT_EQ(seen, Lines(commands.size(), each));
            EXPECT_EQ(call_letters(kLetters) + "|" + batch() + "|" + r.password + (cleaned_up() ? "" : "!"), after);
        }
        fresh(1), mkdir(kBatch.c_str(), 0755);  // no batch file, no attempt
        TransferRequest r = request("sftp");
        EXPECT_TRUE(exportFileToRemoteSystem(&r, 1) == -50 && call_letters(kLetters) == "Sc" && cleaned_up());
    });
}

// The provider's result (nothing staged is -51, its own codes pass) comes after the log is removed and before
// any clean-up; the remote target and the item name passed to the provider: "result|staging call|target".
TEST(Export, ProviderResultsRemoteTargetAndItemName) {
    const std::string deep = "/" + std::string(200, 'p') + "/" + std::string(53, 'n');  // 255 characters
    const std::tuple<long, std::string, std::string, std::string, std::string> rows[] = {
        {0, "config", "/backups", "", "-51|config (null)| staged"}, {-1, "allx", "", "", "-1|allx (null)| staged"},
        {-49, "config", "", "a/b", "-49|config b| staged"}, {1, "allx", "/backups", "any", "0|allx (null)|/backups"},
        {1, "config", "/backups", "dir/new.cfg", "0|config dir/new.cfg|/backups"},
        {1, "config", "/backups", "", "0|config (null)|/backups"},  // below: without a directory the path is split
        {1, "config", "", "dir/sub/file", "0|config file|dir/sub/"}, {1, "config", "", "file", "0|config file|/"},
        {1, "config", "", "dir/", "0|config |dir/"}, {1, "config", "", "", "0|config |/"},
        {1, "config", "", deep, "0|config " + std::string(53, 'n') + "|" + deep.substr(0, 79)},  // cut to 79
    };
    for (const auto &[staged, selector, remote_dir, remote_path, want] : rows) {
        TransferRequest r = transfer_request("scp", "admin", "", "10.0.0.5", remote_path.c_str(), 2222);
        strcpy(r.selector, selector.c_str()), strcpy(r.remote_dir, remote_dir.c_str()), fresh(staged);
        const int32_t result = exportFileToRemoteSystem(&r, 1);
        const Lines runs = args_of("ork_infra_system", 0), staging = args_of("stage_export_content", 1);
        const std::string target = runs.empty() ? "" : runs[0].substr(runs[0].find("]:") + 2);
        EXPECT_EQ(std::to_string(result) + "|" + args_of("stage_export_content", 0).at(0) + " " + staging.at(0) + "|" +
                      target + (file_exists(kLog) ? " log" : "") + (file_exists(kStaged) ? " staged" : ""), want);
    }
}

// A name after a slash is terminated; a trailing slash leaves it as it was; a plain one stays unterminated.
TEST(Export, PathSplit) {  // buffers full of 'Z'; the directory keeps its slash, unterminated ("/" padded to 80)
    const std::tuple<const char *, int, std::string, std::string> rows[] = {
        {"/file", 1, "/Z", {"file", 5}}, {"a/b", 1, "a/Z", {"b", 2}}, {"dir/", 0, "dir/Z", "ZZ"},
        {"plain", 1, "/" + std::string(79, '\0') + "Z", "plainZ"},
    };
    for (const auto &[path, result, dir_want, name_want] : rows) {
        std::string dir(256, 'Z'), name(256, 'Z');
        EXPECT_EQ(get_file_name_from_path(path, dir.data(), name.data()), result) << path;
        EXPECT_EQ(dir.substr(0, dir_want.size()) + "|" + name.substr(0, name_want.size()), dir_want + "|" + name_want);
    }
}
