// The atomic file copy: its steps in order, every failure with its trace line, modes and names.
// This file defines read, write and others in front of the C library's; the inline wrappers of the same
// names that _FORTIFY_SOURCE brings into the C library's headers would clash with them.
#undef _FORTIFY_SOURCE
#include "fcadmin.h"
#include "tests/support/fake_platform.h"
#include "tests/support/helpers.h"

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
#include <filesystem>
#include <fstream>
#include <iterator>
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
    std::string log;  // "fstat src, close src"
};

// A function-local static: the C library may call fstat or close before this file's globals exist.
Watch &watch() {
    static Watch w;
    return w;
}

std::string label_of_path(const std::string &path) {
    const Watch &w = watch();
    return path == w.source ? "src" : path == w.temporary ? "tmp" : path == w.destination ? "dst" : "";
}

std::string label_of_fd(int fd) {
    if (!watch().active) return "";
    char link[64], target[4096];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t n = readlink(link, target, sizeof target - 1);
    return n <= 0 ? "" : label_of_path(std::string(target, static_cast<size_t>(n)));
}

// Logs "call label" when the label is watched; true when this call is the one to fail.
bool observe(const char *call, const std::string &label, const std::string &extra = "") {
    Watch &w = watch();
    if (!w.active || label.empty()) return false;
    w.log += (w.log.empty() ? "" : ", ") + std::string(call) + " " + label + extra;
    return w.fail_call == call && w.fail_label == label;
}

int fail() {
    errno = watch().fail_errno;
    return -1;
}

}  // namespace

extern "C" {

// Forwarded through fstatat, which the C library's headers map to the same stat layout as this
// definition, whichever symbol they give fstat on a target.
int fstat(int fd, struct stat *buf) noexcept {
    return observe("fstat", label_of_fd(fd)) ? fail() : fstatat(fd, "", buf, AT_EMPTY_PATH);
}

ssize_t read(int fd, void *buf, size_t count) {
    static auto next = reinterpret_cast<ssize_t (*)(int, void *, size_t)>(dlsym(RTLD_NEXT, "read"));
    observe("read", label_of_fd(fd));
    return next(fd, buf, count);
}

ssize_t write(int fd, const void *buf, size_t count) {
    static auto next = reinterpret_cast<ssize_t (*)(int, const void *, size_t)>(dlsym(RTLD_NEXT, "write"));
    observe("write", label_of_fd(fd));
    return next(fd, buf, count);
}

int fsync(int fd) {
    static auto next = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "fsync"));
    return observe("fsync", label_of_fd(fd)) ? fail() : next(fd);
}

// A failing close still releases the descriptor, as on Linux.
int close(int fd) {
    static auto next = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "close"));
    const bool failing = observe("close", label_of_fd(fd));
    const int result = next(fd);
    return failing ? fail() : result;
}

int rename(const char *from, const char *to) noexcept {
    static auto next = reinterpret_cast<int (*)(const char *, const char *)>(dlsym(RTLD_NEXT, "rename"));
    return observe("rename", label_of_path(from), " " + label_of_path(to)) ? fail() : next(from, to);
}

// A source of a petabyte must make the allocation fail, under the address sanitizer too.
const char *__asan_default_options() { return "allocator_may_return_null=1"; }

}  // extern "C"

namespace {

const std::string kFullCopy = "fstat src, read src, close src, write tmp, fsync tmp, close tmp, rename tmp dst";

class FileCopy : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/copy_test.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = pattern;
        src = dir + "/src";
        dst = dir + "/dst";
        tmp = dst + ".tmp";
    }

    // Runs the copy with the three paths watched and the given call failing with err.
    int copy(const std::string &fail_call = "", const std::string &fail_label = "", int err = 0) {
        watch() = Watch{false, src, tmp, dst, fail_call, fail_label, err, ""};
        reset_platform();
        fds_before = count_open_fds();
        watch().active = true;
        const int result = admin_file_copy(src.c_str(), dst.c_str());
        watch().active = false;
        fds_after = count_open_fds();
        return result;
    }

    static long count_open_fds() {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    }


    // The lines stored on the general channel, each checked for its handle, module 305 and level 2.
    static std::vector<std::string> general_lines() {
        std::vector<std::string> lines;
        for (const auto &call : platform_calls_of("trace_module_store_lvl")) {
            EXPECT_EQ(call.args[0] + " " + call.args[1] + " " + call.args[2] + " " + call.args[3], "7 305 2 5");
            lines.push_back(call.args[4]);
        }
        return lines;
    }

    static std::string err(int e) { return " <" + std::to_string(e) + ">"; }
    static struct stat status(const std::string &path) {
        struct stat st {};
        stat(path.c_str(), &st);
        return st;
    }
    static mode_t mode(const std::string &path) { return status(path).st_mode & 07777; }

    std::string dir, src, dst, tmp;
    long fds_before = 0, fds_after = 0;
};

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
    EXPECT_EQ(fds_after, fds_before);

    // An empty source: nothing read or written, but fsync, close and rename still happen.
    write_file(src, "");
    EXPECT_EQ(copy(), 0);
    EXPECT_TRUE(file_exists(dst));
    EXPECT_EQ(read_file(dst), "");
    EXPECT_FALSE(file_exists(tmp));
    EXPECT_EQ(watch().log, "fstat src, close src, fsync tmp, close tmp, rename tmp dst");

    // The source's close is not checked.
    write_file(src, "closed badly");
    EXPECT_EQ(copy("close", "src", EIO), 0);
    EXPECT_EQ(read_file(dst), "closed badly");

    // Null arguments: the failure code, and nothing traced or touched.
    reset_platform();
    EXPECT_EQ(admin_file_copy(nullptr, dst.c_str()), -9);
    EXPECT_EQ(admin_file_copy(src.c_str(), nullptr), -9);
    EXPECT_TRUE(platform_calls_of("trace_module_store_lvl").empty());
    EXPECT_EQ(read_file(dst), "closed badly");
}

TEST_F(FileCopy, ModesComeFromTheSourceLessTheUmaskOrFromAStaleTemporary) {
    // A stale temporary file from an earlier failure is truncated, reused and renamed away; it keeps
    // its own mode, and nothing changes it afterwards.
    struct Case {
        mode_t umask, source, stale_temporary, expected;
    } cases[] = {{022, 0666, 0, 0644}, {022, 0600, 0, 0600}, {077, 0755, 0, 0700}, {022, 0604, 0640, 0640}};
    const mode_t saved = umask(022);
    for (const Case &c : cases) {
        umask(c.umask);
        write_file(src, "data", static_cast<int>(c.source));
        write_file(dst, "old", 0600);
        if (c.stale_temporary != 0) write_file(tmp, std::string(4096, 'x'), static_cast<int>(c.stale_temporary));
        EXPECT_EQ(copy(), 0);
        EXPECT_EQ(mode(dst), c.expected) << std::oct << c.source << " under umask " << c.umask;
        EXPECT_EQ(read_file(dst), "data");
        EXPECT_FALSE(file_exists(tmp));
    }
    umask(saved);
}

// The line of the copy's source that allocates the block, which the out-of-memory message carries.
int allocation_line() {
    const char *source_dir = getenv("FCADMIN_SOURCE_DIR");
    std::ifstream code(std::string(source_dir != nullptr ? source_dir : ".") + "/fileutil/copy.cpp");
    std::string text;
    int found = 0;
    for (int n = 1; std::getline(code, text); ++n)
        if (text.find("allocate_block(size, __LINE__)") != std::string::npos) found = n;
    return found;
}

TEST_F(FileCopy, EveryFailureTracesItsLineAndLeavesTheDestinationAsItWas) {
    // What stands at the source and at the temporary path before the copy, and at the temporary after.
    enum Source { no_source, file, directory, huge };  // a directory's size is not 0, and reading it fails
    enum Temporary { absent, a_directory, partial, whole };
    const struct Row {
        Source source;
        const char *fail_call, *fail_label;
        int err;
        std::string line, steps;  // no line at all when empty
        Temporary temporary;
    } rows[] = {
        {no_source, "", "", 0, "admin_file_copy: Can't open file: " + src + err(ENOENT), "", absent},
        {file, "fstat", "src", EIO, "admin_file_copy: Can't get fstat file: " + src + err(EIO),
         "fstat src, close src", absent},
        {huge, "", "", 0, "admin_file_copy/" + std::to_string(allocation_line()) + ": out of memory.",
         "fstat src, close src", absent},
        {directory, "", "", 0, "", "fstat src, read src, close src", absent},
        {file, "", "", 0, "admin_file_copy: Can't open file: " + tmp + err(EISDIR), "fstat src, read src, close src",
         a_directory},
        {file, "", "", 0, "", "fstat src, read src, close src, write tmp, close tmp", partial},
        {file, "fsync", "tmp", EIO, "admin_file_copy: fsync " + tmp + " failed." + err(EIO),
         "fstat src, read src, close src, write tmp, fsync tmp, close tmp", whole},
        {file, "close", "tmp", EIO, "admin_file_copy: close " + tmp + " failed." + err(EIO),
         "fstat src, read src, close src, write tmp, fsync tmp, close tmp", whole},
        {file, "rename", "tmp", EXDEV, "admin_file_copy: rename " + tmp + " to " + dst + "." + err(EXDEV), kFullCopy,
         whole},
    };

    const std::string content(10000, 'w');
    const std::string echo = dir + "/stdout";
    write_file(dst, "old destination");
    const ino_t old_inode = status(dst).st_ino;
    for (const Row &row : rows) {
        SCOPED_TRACE(row.line + " / " + row.steps);
        // Needs a 64-bit file offset for a sparse source far larger than memory.
        if (row.source == huge && sizeof(off_t) < 8) continue;
        std::filesystem::remove_all(src);
        std::filesystem::remove_all(tmp);
        // In a child: the short write's file size limit must not outlive its row. The copy sets up
        // tracing itself, and echoes its line under the debug marker.
        EXPECT_EQ(run_in_child([&] {
            admin_trhdl = admin_detail_trhdl = -1;
            write_file(FCADMIN_DEBUG_MARKER, "");
            fflush(stdout);
            ASSERT_TRUE(freopen(echo.c_str(), "w", stdout));
            switch (row.source) {
            case no_source: break;
            case file: write_file(src, content); break;
            case directory: ASSERT_EQ(mkdir(src.c_str(), 0755), 0); break;
            case huge:
                write_file(src, "");
                ASSERT_EQ(truncate(src.c_str(), static_cast<off_t>(uint64_t{1} << (sizeof(off_t) < 8 ? 30 : 50))), 0);
            }
            const rlimit limit{4096, 4096};
            switch (row.temporary) {
            case a_directory: ASSERT_EQ(mkdir(tmp.c_str(), 0755), 0); break;
            case partial:
                signal(SIGXFSZ, SIG_IGN);
                ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
                break;
            default: break;
            }
            EXPECT_EQ(copy(row.fail_call, row.fail_label, row.err), -9);
            fflush(stdout);
            EXPECT_EQ(read_file(echo), row.line.empty() ? "" : "\n" + row.line + "\n");
            EXPECT_EQ(general_lines(), row.line.empty() ? std::vector<std::string>{} : std::vector{row.line});
            EXPECT_EQ(watch().log, row.steps);
            EXPECT_EQ(fds_after, fds_before);
            EXPECT_EQ(read_file(dst), "old destination");
            EXPECT_EQ(status(dst).st_ino, old_inode);
            switch (row.temporary) {
            case absent: EXPECT_FALSE(file_exists(tmp)); break;
            case a_directory: EXPECT_TRUE(S_ISDIR(status(tmp).st_mode)); break;
            case partial: EXPECT_EQ(read_file(tmp), content.substr(0, 4096)); break;
            case whole: EXPECT_EQ(read_file(tmp), content);
            }
        }), 0);
    }
    unlink(FCADMIN_DEBUG_MARKER);
}

TEST_F(FileCopy, ALongDestinationGetsACutTemporaryName) {
    // Components stay under the file-name limit; the whole path is 257 characters.
    std::string sub = dir + "/" + std::string(200, 'd');
    ASSERT_EQ(mkdir(sub.c_str(), 0755), 0);
    dst = sub + "/";
    dst += std::string(257 - dst.size(), 'f');
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

}  // namespace
