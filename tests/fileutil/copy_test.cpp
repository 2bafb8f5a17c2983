// The atomic file copy: its steps in order, every failure with its trace line, modes and names.
#include "fcadmin.h"
#include "tests/support/fake_platform.h"
#include "tests/support/helpers.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

using namespace fcadmin_test;

// ---- System calls interposed on cue ----
//
// The test program's own definitions take precedence over the C library's for the whole process, the
// library's copy included. Each forwards to the real call and, while a watch is set, logs calls on
// the watched files in order ("fsync tmp") and fails the one call it is told to fail.

namespace {

struct Watch {
    bool active = false;
    std::string source, temporary, destination;
    std::string fail_call, fail_label;  // e.g. "fsync", "tmp"
    int fail_errno = 0;
    std::vector<std::string> log;
};

Watch &watch() {
    static Watch w;
    return w;
}

template <typename F>
F real(const char *name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

std::string label_of_path(const std::string &path) {
    const Watch &w = watch();
    if (path == w.source) return "src";
    if (path == w.temporary) return "tmp";
    if (path == w.destination) return "dst";
    return "";
}

std::string label_of_fd(int fd) {
    char link[64];
    char target[4096];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t n = readlink(link, target, sizeof target - 1);
    if (n <= 0) return "";
    return label_of_path(std::string(target, static_cast<size_t>(n)));
}

// Logs "call label" when the label is watched; true when this call is the one to fail.
bool observe(const char *call, const std::string &label, const std::string &extra = "") {
    Watch &w = watch();
    if (!w.active || label.empty()) return false;
    w.log.push_back(std::string(call) + " " + label + extra);
    return w.fail_call == call && w.fail_label == label;
}

}  // namespace

extern "C" {

// Forwarded through fstatat, which the C library's headers map to the same stat layout as this
// definition, whichever symbol they give fstat on a target.
int fstat(int fd, struct stat *buf) noexcept {
    const bool fail = watch().active ? observe("fstat", label_of_fd(fd)) : false;
    if (fail) {
        errno = watch().fail_errno;
        return -1;
    }
    return fstatat(fd, "", buf, AT_EMPTY_PATH);
}

ssize_t read(int fd, void *buf, size_t count) {
    static auto next = real<ssize_t (*)(int, void *, size_t)>("read");
    if (watch().active) observe("read", label_of_fd(fd));
    return next(fd, buf, count);
}

ssize_t write(int fd, const void *buf, size_t count) {
    static auto next = real<ssize_t (*)(int, const void *, size_t)>("write");
    if (watch().active) observe("write", label_of_fd(fd));
    return next(fd, buf, count);
}

int fsync(int fd) {
    static auto next = real<int (*)(int)>("fsync");
    if (watch().active && observe("fsync", label_of_fd(fd))) {
        errno = watch().fail_errno;
        return -1;
    }
    return next(fd);
}

// A failing close still releases the descriptor, as on Linux.
int close(int fd) {
    static auto next = real<int (*)(int)>("close");
    const bool fail = watch().active && observe("close", label_of_fd(fd));
    const int result = next(fd);
    if (!fail) return result;
    errno = watch().fail_errno;
    return -1;
}

int rename(const char *from, const char *to) noexcept {
    static auto next = real<int (*)(const char *, const char *)>("rename");
    if (watch().active && observe("rename", label_of_path(from), " " + label_of_path(to))) {
        errno = watch().fail_errno;
        return -1;
    }
    return next(from, to);
}

// A source of a petabyte must make the allocation fail, under the address sanitizer too.
const char *__asan_default_options() { return "allocator_may_return_null=1"; }

}  // extern "C"

namespace {

class FileCopy : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/copy_test.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = pattern;
        src = dir + "/src";
        dst = dir + "/dst";
        tmp = dst + ".tmp";
        reset_platform();
    }
    void TearDown() override {
        watch() = Watch{};
        std::error_code ignored;
        std::filesystem::remove_all(dir, ignored);
    }

    // Runs the copy with the three paths watched and the given call failing with err.
    int copy(const std::string &fail_call = "", const std::string &fail_label = "", int err = 0) {
        Watch &w = watch();
        w = Watch{};
        w.source = src;
        w.temporary = tmp;
        w.destination = dst;
        w.fail_call = fail_call;
        w.fail_label = fail_label;
        w.fail_errno = err;
        reset_platform();
        open_fds_before = count_open_fds();
        w.active = true;
        const int result = admin_file_copy(src.c_str(), dst.c_str());
        w.active = false;
        open_fds_after = count_open_fds();
        return result;
    }

    static int count_open_fds() {
        int count = 0;
        DIR *d = opendir("/proc/self/fd");
        while (dirent *e = readdir(d)) count += e->d_name[0] != '.';
        closedir(d);
        return count;
    }

    // The lines stored on the general channel, each checked for module 305 and level 2.
    static std::vector<std::string> general_lines() {
        std::vector<std::string> lines;
        for (const auto &call : platform_calls_of("trace_module_store_lvl")) {
            EXPECT_EQ(call.args[1], "305");
            EXPECT_EQ(call.args[2], "2");
            EXPECT_EQ(call.args[3], "5");
            lines.push_back(call.args[4]);
        }
        return lines;
    }

    static std::vector<std::string> one(const std::string &line) { return {line}; }
    static std::string err(int e) { return " <" + std::to_string(e) + ">"; }

    static ino_t inode(const std::string &path) {
        struct stat st {};
        return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
    }
    static mode_t mode(const std::string &path) {
        struct stat st {};
        stat(path.c_str(), &st);
        return st.st_mode & 07777;
    }

    std::string dir, src, dst, tmp;
    int open_fds_before = 0, open_fds_after = 0;
};

const std::vector<std::string> kFullCopy = {"fstat src", "read src",  "close src",    "write tmp",
                                            "fsync tmp", "close tmp", "rename tmp dst"};

TEST_F(FileCopy, ReplacesTheDestinationInOrderAndLeavesNoTemporary) {
    static const char kBinary[] = "binary\0data\nwith all bytes \xff\x01";
    const std::string content(kBinary, sizeof kBinary - 1);
    write_file(src, content);
    write_file(dst, "the old destination, longer than the new one\n");
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(read_file(dst), content);
    EXPECT_FALSE(file_exists(tmp));
    EXPECT_EQ(watch().log, kFullCopy);
    EXPECT_TRUE(general_lines().empty());
    EXPECT_EQ(open_fds_after, open_fds_before);

    // A stale temporary file from an earlier failure is truncated, reused and renamed away.
    write_file(tmp, std::string(4096, 'x'));
    write_file(src, "new");
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(read_file(dst), "new");
    EXPECT_FALSE(file_exists(tmp));

    // An empty source: nothing read or written, but fsync, close and rename still happen.
    write_file(src, "");
    EXPECT_EQ(copy(), 0);
    EXPECT_TRUE(file_exists(dst));
    EXPECT_EQ(read_file(dst), "");
    EXPECT_FALSE(file_exists(tmp));
    EXPECT_EQ(watch().log,
              (std::vector<std::string>{"fstat src", "close src", "fsync tmp", "close tmp", "rename tmp dst"}));

    // Null arguments: the failure code, and nothing traced or touched.
    reset_platform();
    EXPECT_EQ(admin_file_copy(nullptr, dst.c_str()), -9);
    EXPECT_EQ(admin_file_copy(src.c_str(), nullptr), -9);
    EXPECT_EQ(admin_file_copy(nullptr, nullptr), -9);
    EXPECT_TRUE(platform_calls_of("trace_module_store_lvl").empty());
    EXPECT_TRUE(file_exists(dst));
}

TEST_F(FileCopy, ModesComeFromTheSourceLessTheUmaskOrFromAStaleTemporary) {
    const mode_t saved = umask(022);
    write_file(src, "data", 0666);
    write_file(dst, "old", 0600);
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(mode(dst), 0644u) << "the replaced file's own mode is not kept";

    write_file(src, "data", 0600);
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(mode(dst), 0600u);

    umask(077);
    write_file(src, "data", 0755);
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(mode(dst), 0700u);

    // An existing temporary file keeps its mode; nothing changes it afterwards.
    umask(022);
    write_file(tmp, "stale", 0640);
    write_file(src, "data", 0604);
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(mode(dst), 0640u);
    EXPECT_EQ(read_file(dst), "data");
    umask(saved);
}

TEST_F(FileCopy, SourceFailuresLeaveNoTemporaryAndTheDestinationAsItWas) {
    write_file(dst, "old destination");
    const ino_t old_inode = inode(dst);
    auto destination_untouched = [&] {
        EXPECT_EQ(read_file(dst), "old destination");
        EXPECT_EQ(inode(dst), old_inode);
        EXPECT_FALSE(file_exists(tmp));
        EXPECT_EQ(open_fds_after, open_fds_before);
    };

    // A missing source.
    EXPECT_EQ(copy(), -9);
    EXPECT_EQ(general_lines(), one("admin_file_copy: Can't open file: " + src + err(ENOENT)));
    EXPECT_TRUE(watch().log.empty());
    destination_untouched();

    // fstat fails: the source is closed again.
    write_file(src, "data");
    EXPECT_EQ(copy("fstat", "src", EIO), -9);
    EXPECT_EQ(general_lines(), one("admin_file_copy: Can't get fstat file: " + src + err(EIO)));
    EXPECT_EQ(watch().log, (std::vector<std::string>{"fstat src", "close src"}));
    destination_untouched();

    // A short read, here of a directory, whose size is not 0 on any file system: no line at all.
    ASSERT_EQ(unlink(src.c_str()), 0);
    ASSERT_EQ(mkdir(src.c_str(), 0755), 0);
    EXPECT_EQ(copy(), -9);
    EXPECT_TRUE(general_lines().empty());
    EXPECT_EQ(watch().log, (std::vector<std::string>{"fstat src", "read src", "close src"}));
    destination_untouched();
}

TEST_F(FileCopy, AnUnallocatableSourceReportsTheLineOfTheAllocation) {
    if (sizeof(off_t) < 8) GTEST_SKIP() << "a file too large for memory needs a 64-bit file offset";
    write_file(dst, "old destination");
    int fd = open(src.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, static_cast<off_t>(uint64_t{1} << 50)), 0);
    ::close(fd);

    // The number is the line of the copy's source that allocates the block.
    const char *source_dir = getenv("FCADMIN_SOURCE_DIR");
    ASSERT_NE(source_dir, nullptr);
    std::ifstream code(std::string(source_dir) + "/fileutil/copy.cpp");
    std::string text;
    int allocation_line = 0;
    for (int n = 1; std::getline(code, text); ++n)
        if (text.find("allocate_block(size, __LINE__)") != std::string::npos) allocation_line = n;
    ASSERT_GT(allocation_line, 0);

    EXPECT_EQ(copy(), -9);
    EXPECT_EQ(general_lines(), one("admin_file_copy/" + std::to_string(allocation_line) + ": out of memory."));
    EXPECT_EQ(watch().log, (std::vector<std::string>{"fstat src", "close src"}));
    EXPECT_EQ(read_file(dst), "old destination");
    EXPECT_FALSE(file_exists(tmp));
    EXPECT_EQ(open_fds_after, open_fds_before);
}

TEST_F(FileCopy, TemporaryFailuresLeaveTheTemporaryAndTheDestinationAsItWas) {
    const std::string content(3000, 'n');
    write_file(src, content);
    write_file(dst, "old destination");
    const ino_t old_inode = inode(dst);
    auto destination_untouched = [&] {
        EXPECT_EQ(read_file(dst), "old destination");
        EXPECT_EQ(inode(dst), old_inode);
        EXPECT_EQ(open_fds_after, open_fds_before);
    };
    auto expect_log_until = [&](size_t steps) {
        EXPECT_EQ(watch().log, std::vector<std::string>(kFullCopy.begin(), kFullCopy.begin() + steps));
    };

    // The temporary file cannot be opened: it is a directory.
    ASSERT_EQ(mkdir(tmp.c_str(), 0755), 0);
    EXPECT_EQ(copy(), -9);
    EXPECT_EQ(general_lines(), one("admin_file_copy: Can't open file: " + tmp + err(EISDIR)));
    expect_log_until(3);
    destination_untouched();
    ASSERT_EQ(rmdir(tmp.c_str()), 0);

    EXPECT_EQ(copy("fsync", "tmp", EIO), -9);
    EXPECT_EQ(general_lines(), one("admin_file_copy: fsync " + tmp + " failed." + err(EIO)));
    expect_log_until(6);
    EXPECT_EQ(read_file(tmp), content);
    destination_untouched();

    EXPECT_EQ(copy("close", "tmp", EIO), -9);
    EXPECT_EQ(general_lines(), one("admin_file_copy: close " + tmp + " failed." + err(EIO)));
    expect_log_until(6);
    EXPECT_EQ(read_file(tmp), content);
    destination_untouched();

    // The source's close is not checked.
    EXPECT_EQ(copy("close", "src", EIO), 0);
    EXPECT_EQ(read_file(dst), content);
    write_file(dst, "old destination");
    const ino_t renamed_inode = inode(dst);

    EXPECT_EQ(copy("rename", "tmp", EXDEV), -9);
    EXPECT_EQ(general_lines(), one("admin_file_copy: rename " + tmp + " to " + dst + "." + err(EXDEV)));
    EXPECT_EQ(watch().log, kFullCopy);
    EXPECT_EQ(read_file(tmp), content);
    EXPECT_EQ(read_file(dst), "old destination");
    EXPECT_EQ(inode(dst), renamed_inode);
}

TEST_F(FileCopy, AShortWriteLeavesAnIncompleteTemporaryWithoutALine) {
    write_file(src, std::string(10000, 'w'));
    write_file(dst, "old destination");
    EXPECT_EQ(run_in_child([&] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{4096, 4096};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
        EXPECT_EQ(copy(), -9);
        EXPECT_TRUE(general_lines().empty());
        EXPECT_EQ(watch().log, (std::vector<std::string>{"fstat src", "read src", "close src", "write tmp",
                                                         "close tmp"}));
        EXPECT_EQ(open_fds_after, open_fds_before);
    }), 0);
    EXPECT_EQ(read_file(tmp), std::string(4096, 'w'));
    EXPECT_EQ(read_file(dst), "old destination");
}

TEST_F(FileCopy, ALongDestinationGetsACutTemporaryName) {
    // Components stay under the file-name limit; the whole path is 257 characters.
    std::string sub = dir + "/" + std::string(200, 'd');
    ASSERT_EQ(mkdir(sub.c_str(), 0755), 0);
    dst = sub + "/";
    dst += std::string(257 - dst.size(), 'f');
    ASSERT_EQ(dst.size(), 257u);
    tmp = dst + ".tm";  // 260 characters: ".tmp" cut to fit 261 bytes with the terminator
    write_file(src, "long");

    EXPECT_EQ(copy("rename", "tmp", EXDEV), -9);
    EXPECT_EQ(watch().log, kFullCopy) << "the cut name is the one written, synced and renamed";
    EXPECT_EQ(read_file(tmp), "long");
    ASSERT_EQ(general_lines().size(), 1u);
    EXPECT_EQ(general_lines()[0].size(), 127u) << "trace lines are cut at 127 characters";

    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(read_file(dst), "long");
    EXPECT_FALSE(file_exists(tmp));
    EXPECT_FALSE(file_exists(dst + ".tmp"));
}

TEST_F(FileCopy, SetsUpTracingAndEchoesFailuresUnderTheDebugMarker) {
    const std::string out = dir + "/stdout";
    EXPECT_EQ(run_in_child([&] {
        admin_trhdl = -1;
        admin_detail_trhdl = -1;
        write_file(FCADMIN_DEBUG_MARKER, "");
        int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(fd, 0);
        fflush(stdout);
        dup2(fd, STDOUT_FILENO);
        ::close(fd);
        EXPECT_EQ(copy(), -9);
        fflush(stdout);
        unlink(FCADMIN_DEBUG_MARKER);
        EXPECT_EQ(platform_call_names(),
                  (std::vector<std::string>{"trace_module_init", "trace_module_init", "trace_module_store_lvl"}));
        EXPECT_EQ(platform_calls()[0].args[0], "305");
        EXPECT_EQ(platform_calls()[1].args[0], "312");
        EXPECT_EQ(platform_calls()[2].args[0], "7") << "the general channel's handle";
    }), 0);
    EXPECT_EQ(read_file(out), "\nadmin_file_copy: Can't open file: " + src + err(ENOENT) + "\n");
}

}  // namespace
