// The host platform services: the shell service, the prompt, the password check, the console, MD5 and
// the export's content provider.
#include "fcadmin.h"
#include "fcadmin_platform.h"
#include "tests/support/helpers.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

using namespace fcadmin_test;
namespace fs = std::filesystem;

namespace {

// Prints each argument in brackets on standard output, then "err" on standard error; exits with the
// status named by the first argument, or is killed by SIGTERM when that is "kill".
FCADMIN_TEST_HELPER(print_args) {
    for (int i = 1; i < argc; ++i) printf("[%s]\n", argv[i]);
    fflush(stdout);
    fputs("err\n", stderr);
    if (argc > 1 && std::string(argv[1]) == "kill") raise(SIGTERM);
    return argc > 1 ? atoi(argv[1]) : 0;
}

int run(const std::string &command, const char *out, const char *err = nullptr) {
    const char *redirect[5] = {out, err, nullptr, nullptr, nullptr};
    return ork_infra_system(command.c_str(), 0x30, redirect);
}

TEST(HostSystem, OneProgramNoShellOutputToTheNamedFiles) {
    setenv("FCADMIN_TEST_HELPER", "print_args", 1);
    const std::string tool = self_exe(), log = "/tmp/system.log";
    // Every byte but the blank reaches the program literally: nothing starts a second command. One
    // descriptor for both streams keeps the order of the writes, appended to what was there.
    write_file(log, "earlier attempt\n");
    EXPECT_EQ(run(tool + "  0   two;three $(x) `y` 'q a\tb |touch${IFS}/tmp/hit && >/tmp/hit ", log.c_str(), log.c_str()), 0);
    EXPECT_EQ(read_file(log), "earlier attempt\n[0]\n[two;three]\n[$(x)]\n[`y`]\n['q]\n[a\tb]\n[|touch${IFS}/tmp/hit]\n"
                              "[&&]\n[>/tmp/hit]\nerr\n");
    EXPECT_FALSE(file_exists("/tmp/hit"));
    EXPECT_EQ(run(tool + " 3", "/tmp/system.out", "/tmp/system.err"), 3);
    EXPECT_EQ(read_file("/tmp/system.out") + read_file("/tmp/system.err"), "[3]\nerr\n");
    EXPECT_EQ(run(tool + " kill", "/dev/null", "/dev/null"), 128 + SIGTERM);
    EXPECT_EQ(captured(STDERR_FILENO, [&] { EXPECT_EQ(run(tool, "/dev/null"), 0); }), "err\n");  // null: left as is
    unsetenv("FCADMIN_TEST_HELPER");
    // A file that cannot be opened stops the command before it starts; a command of 8,192 bytes or more is
    // refused, not cut.
    for (const char *bad : {"/nonexistent/dir/log", "/tmp/ok"})
        EXPECT_NE(run("/usr/bin/touch /tmp/ran", bad, bad[1] == 'n' ? "/tmp/ok" : "/nonexistent/dir/log"), 0);
    EXPECT_FALSE(file_exists("/tmp/ran"));
    for (size_t length : {8191, 8192})
        EXPECT_EQ(run("/bin/true " + std::string(length - 10, 'x'), nullptr) == 0, length == 8191) << length;
    EXPECT_EQ(ork_infra_system(nullptr, 0, nullptr) + ork_infra_system("    ", 0, nullptr), -2);
}

TEST(HostPrompt, OneLinePerCallFromTheDescriptorItself) {
    in_child([] {
        write_file("/tmp/answers", "first\nsecond-and-longer\n\nlast\nfor the next program\n");
        dup2(open("/tmp/answers", O_RDONLY), STDIN_FILENO);
        char answer[16] = "xxxxxxxxxxxxxxx";
        std::string seen;
        const std::string prompts = captured(STDOUT_FILENO, [&] {
            for (int limit : {16, 7, 16, 16}) {  // an over-long line is cut at limit - 1 and the rest dropped
                EXPECT_EQ(ork_infra_scanf(limit == 7 ? nullptr : "Password", answer, limit), 0);
                seen += std::string(answer) + "|";
            }
        });
        EXPECT_EQ(seen, "first|second||last|");
        EXPECT_EQ(prompts, "Password: : Password: Password: ");
        char rest[64] = {};
        EXPECT_EQ(read(STDIN_FILENO, rest, sizeof rest), 21);  // unbuffered: what follows is left unread
        EXPECT_EQ(ork_infra_scanf("P", answer, 16), -1);      // end of input
        EXPECT_STREQ(answer, "");
        EXPECT_EQ(ork_infra_scanf("P", nullptr, 16) + ork_infra_scanf("P", answer, 0), -2);
    });
}

TEST(HostServices, PasswordCheckConsoleAndDigest) {
    const std::pair<std::string, int32_t> passwords[] = {
        {"with blank and !\"#$%&'()*+,-./:;<=>?@[\\]^_`{|}~", 1}, {"p\xc3\xa4sswort", 1}, {std::string(383, 'a'), 1},
        {std::string(384, 'a'), 0}, {"", 0}, {"tab\there", 0}, {"escape\x1b[0m", 0}, {"del\x7f", 0}, {"line\n", 0}};
    for (const auto &[password, verdict] : passwords) EXPECT_EQ(ork_verify_password(password.c_str()), verdict) << password;
    EXPECT_EQ(ork_verify_password(nullptr), 0);

    std::string out;
    const std::string err = captured(STDERR_FILENO, [&] {
        out = captured(STDOUT_FILENO, [] { EXPECT_EQ(console_printf("Err: %s <%d>\n", "/bin/x", 42), 17); });
    });
    EXPECT_EQ(out + "|" + err, "|Err: /bin/x <42>\n");
    EXPECT_EQ(console_printf(nullptr), -1);
    EXPECT_EQ(geps_2env(), 0);  // a host prepares nothing before a transfer tool runs

    const std::pair<std::string, std::string> digests[] = {{"", "d41d8cd98f00b204e9800998ecf8427e"},
                                                            {"123456789", "25f9e794323b453885f5181f1b624d0b"},
                                                            {std::string(1, '\0'), "93b885adfe0da089cdf634904fd59f71"}};
    for (const auto &[data, hex] : digests) {
        unsigned char digest[16];
        MD5_hash_compute(digest, reinterpret_cast<const unsigned char *>(data.data()), static_cast<uint32_t>(data.size()));
        char text[33] = {};
        for (int i = 0; i < 16; ++i) snprintf(text + 2 * i, 3, "%02x", digest[i]);
        EXPECT_EQ(text, hex);
    }
    MD5_hash_compute(nullptr, reinterpret_cast<const unsigned char *>("abc"), 3);  // no digest buffer: ignored
}

const std::string kSource = FCADMIN_EXPORT_SOURCE_DIR, kStaging = FCADMIN_EXPORT_STAGING_DIR;

// Stages into a list full of garbage; gives "<count> <list>".
std::string stage(const char *selector, const char *item) {
    char list[FCADMIN_EXPORT_LIST_SIZE];
    memset(list, 'x', sizeof list);
    const int count = stage_export_content(selector, item, list);
    return std::to_string(count) + " " + std::string(list, strnlen(list, sizeof list));
}

TEST(HostStage, ItemsOfTheSourceDirectoryStagedForTheExport) {
    fs::create_directories(kSource + "/subdir");
    write_file(kSource + "/config", "running config\n");
    // The staged name must stay inside the staging directory and survive the blank-separated list.
    const char *refused[][2] = {{"", nullptr}, {"../etc/passwd", nullptr}, {"config", ".."}, {"config", "a/.."},
                                {"config", "two words"}, {nullptr, nullptr}};
    for (const auto &r : refused) EXPECT_EQ(stage(r[0], r[1]), "-8 ") << (r[1] ? r[1] : "");
    EXPECT_EQ(stage("missing", nullptr) + stage("subdir", nullptr), "-1 -1 ");
    EXPECT_EQ(stage_export_content("config", nullptr, nullptr), -8);
    EXPECT_FALSE(file_exists(kStaging)) << "nothing staged, nothing created";
    // An item given as a path is staged under its file name; one ending in "/" names no file.
    EXPECT_EQ(stage("config", "backups/"), "1 " + kStaging + "config");
    EXPECT_EQ(stage("config", "/backups/sw1/today.cfg"), "1 " + kStaging + "today.cfg");
    EXPECT_EQ(read_file(kStaging + "today.cfg"), "running config\n");
    // "all": every regular file in name order, readable by the tools whatever the umask, links copied as
    // files, what an interrupted export left cleared first; names beyond what the list holds left out.
    write_file(kSource + "/alpha", "alpha\n", 0600);
    write_file(kSource + "/with blank", "skipped\n");
    fs::create_symlink("alpha", kSource + "/beta");
    umask(077);
    EXPECT_EQ(stage("allx", "ignored"), "3 " + kStaging + "alpha " + kStaging + "beta " + kStaging + "config");
    umask(022);
    EXPECT_EQ(fs::status(kStaging + "alpha").permissions(), fs::perms(0644));
    EXPECT_EQ(fs::status(kStaging).permissions(), fs::perms(0755));
    EXPECT_FALSE(file_exists(kStaging + "today.cfg") || fs::is_symlink(kStaging + "beta"));
    for (int i = 0; i < 100; ++i) write_file(kSource + "/item-" + std::to_string(100 + i) + std::string(30, 'n'), "i");
    const std::string all = stage("all", nullptr);
    EXPECT_LT(all.size(), size_t{FCADMIN_EXPORT_LIST_SIZE} + 3);
    EXPECT_EQ(std::distance(fs::directory_iterator(kStaging), {}), atoi(all.c_str()));
    // A staging directory that is a file, a link planted in the world-writable parent, or not ours.
    const std::string staging = kStaging.substr(0, kStaging.size() - 1);
    fs::create_directories("/tmp/elsewhere");
    for (int kind = 0; kind < 3; ++kind) {
        fs::remove_all(staging);
        if (kind == 0) write_file(staging, "a file where the directory belongs");
        if (kind == 1) fs::create_directory_symlink("/tmp/elsewhere", staging);
        if (kind == 2) fs::create_directory(staging);
        const int foreign = kind == 2 ? chown(staging.c_str(), 12345, 12345) : 0;
        EXPECT_EQ(stage("config", nullptr) + stage("all", nullptr) + std::to_string(foreign), "-49 -49 0") << kind;
    }
    EXPECT_FALSE(file_exists("/tmp/elsewhere/config"));
    fs::remove_all(kSource);
    EXPECT_EQ(stage("all", nullptr) + stage("config", nullptr), "0 -1 ");
}

}  // namespace
