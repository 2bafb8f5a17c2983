// The atomic file copy: its steps in order, every failure with its trace line, modes and names.
#include "fcadmin.h"
#include "tests/support/fake_platform.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

using namespace fcadmin_test;

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
    // Copies with the three paths watched; steps gets the system calls on them in order, lines the trace
    // lines (each checked for the general channel's handle, module and level).
    int copy() {
        label_paths({{src, "src"}, {tmp, "tmp"}, {dst, "dst"}});
        const size_t fds = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
        interpose(true);
        const int result = admin_file_copy(src.c_str(), dst.c_str());
        interpose(false);
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}), fds) << "a descriptor leaked";
        steps.clear();
        lines.clear();
        for (const auto &call : calls()) {
            if (call.name.rfind("trace_", 0) != 0)
                steps += (steps.empty() ? "" : ", ") + call.text();
            else if (call.text().rfind("trace_module_store_lvl 7 305 2 5 ", 0) == 0)
                lines.push_back(call.args[4]);
        }
        reset_platform();
        return result;
    }
    static mode_t mode(const std::string &path) {
        struct stat st {};
        return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
    }
    std::string dir, src, dst, tmp, steps;
    Lines lines;
};

TEST_F(FileCopy, ReplacesTheDestinationAndTakesModesFromTheSourceOrAStaleTemporary) {
    // A stale temporary file from an earlier failure is truncated, reused and renamed away; it keeps its
    // own mode. A new one gets the source's less the umask. The source's close is not checked.
    const struct {
        std::string content;
        mode_t umask, source, stale_temporary, expected;
        std::string failing, steps;
    } rows[] = {
        {std::string("binary\0data\xff\n", 13), 022, 0666, 0, 0644, "", kFullCopy},
        {"", 022, 0600, 0, 0600, "", "fstat src, close src, fsync tmp, close tmp, rename tmp dst"},
        {"x", 077, 0755, 0, 0700, "close src", kFullCopy},
        {"data", 022, 0604, 0640, 0640, "", kFullCopy},
    };
    for (const auto &row : rows) {
        umask(row.umask);
        write_file(src, row.content, static_cast<int>(row.source));
        write_file(dst, "the old destination, longer than the new one", 0600);
        if (row.stale_temporary != 0) write_file(tmp, std::string(4096, 'x'), static_cast<int>(row.stale_temporary));
        script(row.failing, {-1}, EIO);
        EXPECT_EQ(copy(), 0);
        EXPECT_EQ(steps, row.steps);
        EXPECT_TRUE(read_file(dst) == row.content);
        EXPECT_EQ(mode(dst), row.expected);
        EXPECT_FALSE(file_exists(tmp));
        EXPECT_EQ(lines, Lines{});
    }
    umask(022);
    EXPECT_EQ(admin_file_copy(nullptr, dst.c_str()) + admin_file_copy(src.c_str(), nullptr), -18);
}

// The line of the copy's source that allocates the block, which the out-of-memory message carries.
std::string allocation_line() {
    std::ifstream code(std::string(getenv("FCADMIN_SOURCE_DIR")) + "/fileutil/copy.cpp");
    std::string text;
    int found = 0;
    for (int n = 1; std::getline(code, text); ++n)
        if (text.find("allocate_block(size, __LINE__)") != std::string::npos) found = n;
    return std::to_string(found);
}

TEST_F(FileCopy, EveryFailureTracesItsLineAndLeavesTheDestinationAsItWas) {
    enum Source { none, file, directory, huge };  // a directory's size is not 0, and reading it fails
    enum Temporary { absent, a_directory, partial, whole };
    const std::string opened = "fstat src, read src, close src", synced = opened + ", write tmp, fsync tmp, close tmp";
    auto err = [](int e) { return " <" + std::to_string(e) + ">"; };
    const struct {
        Source source;
        std::string failing;
        int err;
        std::string line, steps;  // no line at all when empty
        Temporary temporary;
    } rows[] = {
        {none, "", 0, "admin_file_copy: Can't open file: " + src + err(ENOENT), "", absent},
        {file, "fstat src", EIO, "admin_file_copy: Can't get fstat file: " + src + err(EIO), "fstat src, close src", absent},
        {huge, "", 0, "admin_file_copy/" + allocation_line() + ": out of memory.", "fstat src, close src", absent},
        {directory, "", 0, "", opened, absent},
        {file, "", 0, "admin_file_copy: Can't open file: " + tmp + err(EISDIR), opened, a_directory},
        {file, "", 0, "", opened + ", write tmp, close tmp", partial},
        {file, "fsync tmp", EIO, "admin_file_copy: fsync " + tmp + " failed." + err(EIO), synced, whole},
        {file, "close tmp", EIO, "admin_file_copy: close " + tmp + " failed." + err(EIO), synced, whole},
        {file, "rename tmp dst", EXDEV, "admin_file_copy: rename " + tmp + " to " + dst + "." + err(EXDEV), kFullCopy,
         whole},
    };
    const std::string content(10000, 'w');
    write_file(dst, "old destination");
    for (const auto &row : rows) {
        SCOPED_TRACE(row.line + " / " + row.steps);
        if (row.source == huge && sizeof(off_t) < 8) continue;  // a sparse source far larger than memory
        std::filesystem::remove_all(src);
        std::filesystem::remove_all(tmp);
        // In a child: the short write's file size limit must not outlive its row. The copy sets up its
        // trace itself, and echoes its line under the debug marker.
        in_child([&] {
            admin_trhdl = admin_detail_trhdl = -1;
            write_file(FCADMIN_DEBUG_MARKER, "");
            if (row.source == file) write_file(src, content);
            if (row.source == directory) mkdir(src.c_str(), 0755);
            if (row.source == huge) {
                write_file(src, "");
                EXPECT_EQ(truncate(src.c_str(), off_t{1} << (sizeof(off_t) < 8 ? 30 : 50)), 0);
            }
            if (row.temporary == a_directory) mkdir(tmp.c_str(), 0755);
            if (row.temporary == partial) {
                signal(SIGXFSZ, SIG_IGN);
                const rlimit limit{4096, 4096};
                ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
            }
            script(row.failing, {-1}, row.err);
            EXPECT_EQ(captured(STDOUT_FILENO, [&] { EXPECT_EQ(copy(), -9); }), row.line.empty() ? "" : "\n" + row.line + "\n");
            EXPECT_EQ(lines, row.line.empty() ? Lines{} : Lines{row.line});
            EXPECT_EQ(steps, row.steps);
            EXPECT_EQ(read_file(dst), "old destination");
            const std::string left = row.temporary == a_directory ? "(directory)" : read_file(tmp);
            EXPECT_TRUE(left == (row.temporary == absent        ? ""
                                 : row.temporary == a_directory ? "(directory)"
                                 : row.temporary == partial     ? content.substr(0, 4096)
                                                                : content));
            EXPECT_EQ(file_exists(tmp), row.temporary != absent);
        });
    }
}

TEST_F(FileCopy, ALongDestinationGetsACutTemporaryName) {
    // Components stay under the file-name limit; the whole path is 257 characters.
    const std::string sub = dir + "/" + std::string(200, 'd');
    ASSERT_EQ(mkdir(sub.c_str(), 0755), 0);
    dst = sub + "/" + std::string(257 - sub.size() - 1, 'f');
    tmp = dst + ".tm";  // 260 characters: ".tmp" cut to fit 261 bytes with the terminator
    write_file(src, "long");
    script("rename tmp dst", {-1}, EXDEV);
    EXPECT_EQ(copy(), -9);
    EXPECT_EQ(steps, kFullCopy) << "the cut name is the one written, synced and renamed";
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].size(), 127u) << "trace lines are cut at 127 characters";
    EXPECT_EQ(copy(), 0);
    EXPECT_EQ(read_file(dst), "long");
    EXPECT_FALSE(file_exists(tmp) || file_exists(dst + ".tmp"));
}

}  // namespace
