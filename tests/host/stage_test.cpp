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

mode_t mode_of(const std::string &path) {
    struct stat st = {};
    stat(path.c_str(), &st);
    return st.st_mode & 07777;
}

struct List {
    char text[FCADMIN_EXPORT_LIST_SIZE];
    List() { memset(text, 'x', sizeof text); }
};

}  // namespace

TEST(HostStage, BadArgumentsAndMissingItems) {
    fresh_dirs();
    write_file(kSource + "/config", "c");
    List list;
    EXPECT_EQ(stage_export_content("config", nullptr, nullptr), -8);
    EXPECT_EQ(stage_export_content(nullptr, nullptr, list.text), -8);
    EXPECT_EQ(list.text[0], '\0');
    EXPECT_EQ(stage_export_content("", nullptr, list.text), -8);
    EXPECT_EQ(stage_export_content("../etc/passwd", nullptr, list.text), -8);
    EXPECT_EQ(stage_export_content("all/", nullptr, list.text), -8);
    // The staged name must stay inside the staging directory and survive the blank-separated list.
    EXPECT_EQ(stage_export_content("config", "..", list.text), -8);
    EXPECT_EQ(stage_export_content("config", "two words", list.text), -8);
    EXPECT_EQ(stage_export_content("config", "tab\tname", list.text), -8);

    EXPECT_EQ(stage_export_content("missing", nullptr, list.text), -1);
    EXPECT_EQ(stage_export_content("..", nullptr, list.text), -8);
    fs::create_directory(kSource + "/subdir");
    EXPECT_EQ(stage_export_content("subdir", nullptr, list.text), -1);
    EXPECT_EQ(list.text[0], '\0');
    EXPECT_FALSE(file_exists(kStaging)) << "nothing staged, nothing created";

    fs::remove_all(kSource);
    EXPECT_EQ(stage_export_content("all", nullptr, list.text), 0);
    EXPECT_EQ(stage_export_content("config", nullptr, list.text), -1);
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
    List list;
    EXPECT_EQ(stage_export_content("all", "ignored", list.text), 4);
    EXPECT_EQ(std::string(list.text), kStaging + "alpha.log " + kStaging + "beta.lnk " + kStaging + "outside-link " +
                                          kStaging + "zone.cfg");
    EXPECT_EQ(staged_names(), (std::set<std::string>{"alpha.log", "beta.lnk", "outside-link", "zone.cfg"}));
    EXPECT_EQ(read_file(kStaging + "zone.cfg"), "zones\n");
    EXPECT_EQ(read_file(kStaging + "beta.lnk"), "alpha\n");
    EXPECT_FALSE(fs::is_symlink(kStaging + "beta.lnk"));
    // Readable by the transfer tools whatever the umask.
    EXPECT_EQ(mode_of(kStaging + "zone.cfg"), 0644u);
    EXPECT_EQ(mode_of(kStaging), 0755u);
    umask(022);

    List again;
    EXPECT_EQ(stage_export_content("allx", nullptr, again.text), 4);
    EXPECT_STREQ(again.text, list.text);
}

TEST(HostStage, OneItemUnderItsOwnOrTheGivenName) {
    fresh_dirs();
    write_file(kSource + "/config", "running config\n");
    List list;
    EXPECT_EQ(stage_export_content("config", nullptr, list.text), 1);
    EXPECT_EQ(std::string(list.text), kStaging + "config");
    EXPECT_EQ(stage_export_content("config", "", list.text), 1);
    EXPECT_EQ(std::string(list.text), kStaging + "config");
    EXPECT_EQ(stage_export_content("config", "switch1.cfg", list.text), 1);
    EXPECT_EQ(std::string(list.text), kStaging + "switch1.cfg");
    EXPECT_EQ(staged_names(), (std::set<std::string>{"switch1.cfg"}));
    EXPECT_EQ(read_file(kStaging + "switch1.cfg"), "running config\n");
    // An item given as a path is staged under its file name; one ending in "/" names no file.
    EXPECT_EQ(stage_export_content("config", "/backups/sw1/today.cfg", list.text), 1);
    EXPECT_EQ(std::string(list.text), kStaging + "today.cfg");
    EXPECT_EQ(stage_export_content("config", "backups/", list.text), 1);
    EXPECT_EQ(std::string(list.text), kStaging + "config");
    EXPECT_EQ(stage_export_content("config", "/backups/..", list.text), -8);
}

TEST(HostStage, StagingDirectoryThatCannotBeUsed) {
    fresh_dirs();
    write_file(kSource + "/config", "c");
    std::string staging = kStaging;
    staging.pop_back();
    List list;
    write_file(staging, "a file where the directory belongs");
    EXPECT_EQ(stage_export_content("config", nullptr, list.text), -49);
    EXPECT_EQ(stage_export_content("all", nullptr, list.text), -49);
    fs::remove(staging);
    // A link planted in the world-writable parent would send the copies elsewhere.
    fs::create_directories("/tmp/elsewhere");
    fs::create_directory_symlink("/tmp/elsewhere", staging);
    EXPECT_EQ(stage_export_content("config", nullptr, list.text), -49);
    EXPECT_FALSE(file_exists("/tmp/elsewhere/config"));
    EXPECT_EQ(list.text[0], '\0');
    fs::remove(staging);
    fs::create_directory(staging);
    chown(staging.c_str(), 12345, 12345);
    EXPECT_EQ(stage_export_content("config", nullptr, list.text), -49);
}

TEST(HostStage, ListNeverOverflowsAndMatchesTheStagingDirectory) {
    fresh_dirs();
    for (int i = 0; i < 100; ++i) {
        char name[64];
        snprintf(name, sizeof name, "item-%03d-%s", i, std::string(30, 'n').c_str());
        write_file(kSource + "/" + name, name);
    }
    List list;
    int staged = stage_export_content("all", nullptr, list.text);
    const std::string text(list.text, strnlen(list.text, sizeof list.text));
    ASSERT_LT(text.size(), sizeof list.text);
    const size_t per_item = kStaging.size() + 39;
    EXPECT_EQ(staged, static_cast<int>((sizeof list.text) / (per_item + 1)));
    EXPECT_EQ(staged_names().size(), static_cast<size_t>(staged));
    EXPECT_TRUE(text.ends_with(kStaging + "item-0" + std::to_string(staged - 1) + "-" + std::string(30, 'n')))
        << text;
}
