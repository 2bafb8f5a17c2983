// The host content provider: items of the export source directory staged for the export.
#include "fcadmin.h"
#include "fcadmin_platform.h"
#include "tests/support/helpers.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <set>
#include <string>

using namespace fcadmin_test;
namespace fs = std::filesystem;

namespace {

const std::string kSource = FCADMIN_EXPORT_SOURCE_DIR;
const std::string kStaging = FCADMIN_EXPORT_STAGING_DIR;

void fresh_dirs() {
    fs::remove_all(kSource);
    fs::remove_all(kStaging);
    fs::create_directories(kSource);
}

std::set<std::string> staged_names() {
    std::set<std::string> names;
    for (const auto &entry : fs::directory_iterator(kStaging)) names.insert(entry.path().filename());
    return names;
}

// Stages and returns "<count> <list>"; the list buffer starts full of garbage.
std::string stage(const char *selector, const char *item) {
    char list[FCADMIN_EXPORT_LIST_SIZE];
    memset(list, 'x', sizeof list);
    const int count = stage_export_content(selector, item, list);
    return std::to_string(count) + " " + std::string(list, strnlen(list, sizeof list));
}

}  // namespace

TEST(HostStage, OneItemUnderItsOwnOrTheGivenNameAndRefusals) {
    fresh_dirs();
    write_file(kSource + "/config", "running config\n");
    fs::create_directory(kSource + "/subdir");
    // The staged name must stay inside the staging directory and survive the blank-separated list.
    const char *refused[][2] = {{"", nullptr},       {"../etc/passwd", nullptr}, {"..", nullptr},
                                {"config", ".."},    {"config", "/backups/.."},  {"config", "two words"}};
    for (const auto &r : refused) EXPECT_EQ(stage(r[0], r[1]), "-8 ") << r[0] << " " << (r[1] ? r[1] : "");
    EXPECT_EQ(stage("missing", nullptr), "-1 ");
    EXPECT_EQ(stage("subdir", nullptr), "-1 ");
    EXPECT_EQ(stage(nullptr, nullptr), "-8 ");
    EXPECT_EQ(stage_export_content("config", nullptr, nullptr), -8);
    EXPECT_FALSE(file_exists(kStaging)) << "nothing staged, nothing created";

    // An item given as a path is staged under its file name; one ending in "/" names no file.
    const char *named[][2] = {{nullptr, "config"}, {"", "config"}, {"/backups/sw1/today.cfg", "today.cfg"},
                              {"backups/", "config"}, {"switch1.cfg", "switch1.cfg"}};
    for (const auto &n : named) EXPECT_EQ(stage("config", n[0]), "1 " + kStaging + n[1]);
    EXPECT_EQ(staged_names(), (std::set<std::string>{"switch1.cfg"}));
    EXPECT_EQ(read_file(kStaging + "switch1.cfg"), "running config\n");

    fs::remove_all(kSource);
    EXPECT_EQ(stage("all", nullptr), "0 ");
    EXPECT_EQ(stage("config", nullptr), "-1 ");
}

TEST(HostStage, AllStagesEveryRegularFileInNameOrder) {
    fresh_dirs();
    write_file(kSource + "/zone.cfg", "zones\n", 0600);
    write_file(kSource + "/alpha.log", "alpha\n", 0600);
    write_file(kSource + "/with blank", "skipped\n");
    fs::create_directory(kSource + "/subdir");
    fs::create_symlink("/etc/hostname", kSource + "/outside-link");
    fs::create_symlink("alpha.log", kSource + "/beta.lnk");
    // A file left by an interrupted export must not travel with this one.
    fs::create_directories(kStaging);
    write_file(kStaging + "stale", "old");

    umask(077);
    const std::string expected = "4 " + kStaging + "alpha.log " + kStaging + "beta.lnk " + kStaging +
                                 "outside-link " + kStaging + "zone.cfg";
    EXPECT_EQ(stage("all", "ignored"), expected);
    EXPECT_EQ(staged_names(), (std::set<std::string>{"alpha.log", "beta.lnk", "outside-link", "zone.cfg"}));
    EXPECT_EQ(read_file(kStaging + "beta.lnk"), "alpha\n");
    EXPECT_FALSE(fs::is_symlink(kStaging + "beta.lnk"));
    // Readable by the transfer tools whatever the umask.
    EXPECT_EQ(fs::status(kStaging + "zone.cfg").permissions(), fs::perms(0644));
    EXPECT_EQ(fs::status(kStaging).permissions(), fs::perms(0755));
    umask(022);
    EXPECT_EQ(stage("allx", nullptr), expected);
}

TEST(HostStage, StagingDirectoryThatCannotBeUsed) {
    fresh_dirs();
    write_file(kSource + "/config", "c");
    std::string staging = kStaging;
    staging.pop_back();
    write_file(staging, "a file where the directory belongs");
    EXPECT_EQ(stage("config", nullptr), "-49 ");
    EXPECT_EQ(stage("all", nullptr), "-49 ");
    fs::remove(staging);
    // A link planted in the world-writable parent would send the copies elsewhere.
    fs::create_directories("/tmp/elsewhere");
    fs::create_directory_symlink("/tmp/elsewhere", staging);
    EXPECT_EQ(stage("config", nullptr), "-49 ");
    EXPECT_FALSE(file_exists("/tmp/elsewhere/config"));
    fs::remove(staging);
    fs::create_directory(staging);
    ASSERT_EQ(chown(staging.c_str(), 12345, 12345), 0);
    EXPECT_EQ(stage("config", nullptr), "-49 ");
}

TEST(HostStage, ListNeverOverflowsAndMatchesTheStagingDirectory) {
    fresh_dirs();
    for (int i = 0; i < 100; ++i) {
        char name[64];
        snprintf(name, sizeof name, "item-%03d-%s", i, std::string(30, 'n').c_str());
        write_file(kSource + "/" + name, name);
    }
    char list[FCADMIN_EXPORT_LIST_SIZE];
    memset(list, 'x', sizeof list);
    const int staged = stage_export_content("all", nullptr, list);
    const std::string text(list, strnlen(list, sizeof list));
    ASSERT_LT(text.size(), sizeof list);
    EXPECT_EQ(staged, static_cast<int>(sizeof list / (kStaging.size() + 39 + 1)));
    EXPECT_EQ(staged_names().size(), static_cast<size_t>(staged));
    EXPECT_TRUE(text.ends_with(kStaging + "item-0" + std::to_string(staged - 1) + "-" + std::string(30, 'n'))) << text;
}
