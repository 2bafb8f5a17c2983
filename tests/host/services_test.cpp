// The host platform services: shell, prompt, password check, console, MD5 and the export's content provider.
#include "fcadmin_platform.h"
#include "tests/support/helpers.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <regex>

using namespace fcadmin_test;
namespace fs = std::filesystem;

int run(const std::string &command, const char *out, const char *err = nullptr) {
    const char *redirect[5] = {out, err, nullptr, nullptr, nullptr};
    return ork_infra_system(command.c_str(), 0x30, redirect);
}

const std::string kSource = FCADMIN_EXPORT_SOURCE_DIR, kStaging = FCADMIN_EXPORT_STAGING_DIR;

// Stages into a list full of garbage; gives "<count> <list>", the staging directory shown as "@".
std::string stage(const char *selector, const char *item = nullptr) {
    std::string list(FCADMIN_EXPORT_LIST_SIZE, 'x');
    const std::string text = std::to_string(stage_export_content(selector, item, list.data())) + " " + list.c_str();
    return std::regex_replace(text, std::regex(kStaging), "@");
}

TEST(HostServices, ShellPromptPasswordCheckConsoleDigestAndTheExportStaging) {
    write_file("/tmp/s", "printf '[%s]\\n' \"$@\"; echo err >&2; [ \"$1\" != k ] || kill $$; exit $1\n");
    // Only the blank separates words; output is appended, through one descriptor when both streams name one file.
    const char *out = "/tmp/system.out", *err = "/tmp/system.err";
    EXPECT_EQ(run("/bin/sh  /tmp/s 0   two;three $(x) `y` 'q a\tb |touch${IFS}/tmp/hit && >/tmp/hit ", out, out), 0);
    EXPECT_EQ(run("/bin/sh /tmp/s 3", out, err), 3);
    EXPECT_EQ(read_file(out) + "|" + read_file(err), "[0]\n[two;three]\n[$(x)]\n[`y`]\n['q]\n[a\tb]\n"
                                                    "[|touch${IFS}/tmp/hit]\n[&&]\n[>/tmp/hit]\nerr\n[3]\n|err\n");
    EXPECT_EQ(fs::status(err).permissions(), fs::perms(0600)) << "tool output may name hosts and users";
    EXPECT_EQ(captured(STDERR_FILENO, [] { EXPECT_EQ(run("/bin/sh /tmp/s k", "/dev/null"), 128 + SIGTERM); }), "err\n");
    // A file that cannot be opened stops the command before it starts; 8,192 bytes or more are refused, not cut.
    EXPECT_TRUE(run("/bin/true", "/no/log", err) != 0 && run("/bin/true", out, "/no/log") != 0);
    for (size_t n : {8191, 8192}) EXPECT_EQ(run("/bin/true " + std::string(n - 10, 'x'), nullptr), n == 8191 ? 0 : -1);
    in_child([] {  // the prompt reads one line a call from the descriptor itself; the last needs no newline
        write_file("/tmp/a", "first\nsecond-and-longer\n\nlast\nnext"), dup2(open("/tmp/a", O_RDONLY), STDIN_FILENO);
        char answer[16] = "xxxxxxxxxxxxxxx";  // an over-long line is cut at limit - 1 and the rest dropped
        EXPECT_EQ(captured(STDOUT_FILENO, [&] { for (int limit : {16, 7, 16, 16})
                      dprintf(1, "%d%s|", ork_infra_scanf(limit == 7 ? nullptr : "Password", answer, limit), answer);
                  }), "Password: 0first|: 0second|Password: 0|Password: 0last|");
        EXPECT_TRUE(lseek(STDIN_FILENO, 0, SEEK_CUR) == 30 && ork_infra_scanf("P", answer, 16) == 0 &&
                    answer == std::string("next") && ork_infra_scanf("P", answer, 16) == -1 && answer[0] == '\0');
        EXPECT_EQ(ork_infra_scanf("P", nullptr, 16) + ork_infra_scanf("P", answer, 0), -2);
    });
    const std::pair<std::string, int32_t> passwords[] = {{"with blank and !\"#$%&'()*+,-./:;<=>?@[\\]^_`{|}~", 1},
        {"\xc3\xa4", 1}, {std::string(383, 'a'), 1}, {std::string(384, 'a'), 0}, {"", 0}, {"tab\there", 0}, {"del\x7f", 0}};
    for (const auto &[password, verdict] : passwords) EXPECT_EQ(ork_verify_password(password.c_str()), verdict);
    // Null or blank arguments refused (0, -1, -8, -1, -1); a host prepares nothing before a transfer tool runs (0).
    EXPECT_EQ(ork_verify_password(nullptr) + console_printf(nullptr) + stage_export_content("x", nullptr, nullptr) +
              ork_infra_system(nullptr, 0, nullptr) + ork_infra_system("    ", 0, nullptr) + geps_2env(), -11);
    EXPECT_EQ(captured(STDERR_FILENO, [] { EXPECT_EQ(console_printf("%s <%d>\n", "x", 42), 7); }), "x <42>\n");
    unsigned char digest[16];  // no data: the digest of nothing; no digest buffer: ignored (data: the tool's tests)
    MD5_hash_compute(nullptr, reinterpret_cast<const unsigned char *>("abc"), 3), MD5_hash_compute(digest, nullptr, 3);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(digest), 4), "\xd4\x1d\x8c\xd9");
    umask(077);  // staged files and the staging directory are readable by the tools all the same
    fs::create_directories(kSource + "/subdir"), write_file(kSource + "/config", "running config\n");
    // Staged names stay in the staging directory, blank-free; a path item gives its file name, "dir/" none.
    const char *rows[][3] = {{"", nullptr, "-8 "}, {"config", "..", "-8 "}, {"../etc/passwd", nullptr, "-8 "},
        {".", nullptr, "-8 "}, {"config", "a/..", "-8 "}, {"config", "x y", "-8 "}, {nullptr, nullptr, "-8 "},
        {"missing", nullptr, "-1 "}, {"subdir", nullptr, "-1 "}, {"config", "backups/", "1 @config"},
        {"config", "/sw1/today.cfg", "1 @today.cfg"}};
    for (const auto &row : rows) EXPECT_EQ(stage(row[0], row[1]), row[2]) << (row[1] ? row[1] : "");
    for (const char *name : {"/alpha", "/with blank"}) write_file(kSource + name, "x\n", 0600);
    fs::create_symlink("alpha", kSource + "/beta");  // "all": regular files by name, links too, leftovers cleared first
    EXPECT_EQ(stage("allx", "ignored"), "3 @alpha @beta @config");
    EXPECT_TRUE(fs::status(kStaging + "alpha").permissions() == fs::perms(0644) &&
                fs::status(kStaging).permissions() == fs::perms(0755));
    for (int i = 0; i < 100; ++i) write_file(kSource + "/item-" + std::to_string(100 + i) + std::string(30, 'n'), "i");
    const std::string all = stage("all");  // names beyond what the list holds are left out, of the directory too
    const long staged = std::distance(fs::directory_iterator(kStaging), {});
    EXPECT_TRUE(std::count(all.begin(), all.end(), ' ') == staged && atoi(all.c_str()) == staged && staged < 103) << all;
    // A staging directory that is a file, a link planted in /tmp or not ours, or a file that cannot be staged.
    for (const std::string staging = kStaging.substr(0, kStaging.size() - 1); int kind : {0, 1, 2, 3}) {
        if (fs::remove_all(staging); kind == 0) write_file(staging, "a file where the directory belongs");
        if (kind == 1) fs::create_directory_symlink("/tmp", staging);
        if (kind >= 2) fs::create_directories(kind == 2 ? staging : kStaging + "config");
        ASSERT_EQ(kind == 2 ? chown(staging.c_str(), 12345, 12345) : 0, 0);
        EXPECT_EQ((Lines{stage("config"), stage("all")}), (Lines{"-49 ", "-49 "})) << kind;
    }
    fs::remove_all(kSource);
    EXPECT_EQ((Lines{stage("all"), stage("config")}), (Lines{"0 ", "-1 "}));
}
