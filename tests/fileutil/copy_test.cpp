// The atomic file copy: its steps in order, every failure with its trace line, modes and names.
#include "fcadmin.h"
#include "tests/support/fake_platform.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

using namespace fcadmin_test;
namespace fs = std::filesystem;

const std::string kSrc = "/tmp/src", kDst = "/tmp/dst", kTmp = "/tmp/dst.tmp";
const std::string kFullCopy = "fstat src, read src, close src, write tmp, fsync tmp, close tmp, rename tmp dst";

// Copies kSrc to dst with the three paths watched: "<result>: <the system calls on them>", then " | <line>" for
// each trace line (those with the general channel's handle, module and level). No descriptor may leak.
std::string copy(const std::string &dst = kDst, const std::string &tmp = kTmp) {
    label_paths({{kSrc, "src"}, {tmp, "tmp"}, {dst, "dst"}});
    const auto fds = std::distance(fs::directory_iterator("/proc/self/fd"), {});
    interpose(true);
    std::string out = std::to_string(admin_file_copy(kSrc.c_str(), dst.c_str())) + ": ", lines;
    interpose(false);
    EXPECT_EQ(std::distance(fs::directory_iterator("/proc/self/fd"), {}), fds) << "a descriptor leaked";
    for (const auto &call : calls())
        if (call.name.rfind("trace_", 0) != 0) out += (out.back() == ' ' ? "" : ", ") + call.text();
        else if (call.text().rfind("trace_module_store_lvl 7 305 2 5 ", 0) == 0) lines += " | " + call.args[4];
    reset_platform();
    return out + lines;
}

TEST(FileCopy, ModesFromTheSourceOrAStaleTemporaryEveryFailureWithItsLineAndACutTemporaryName) {
    // A stale temporary file from an earlier failure is truncated, reused and renamed away; it keeps its
    // own mode. A new one gets the source's less the umask. The source's close is not checked.
    const struct { std::string content; mode_t umask, source, stale, expected; std::string failing, steps; } rows[] = {
        {std::string("binary\0data\xff\n", 13), 022, 0666, 0, 0644, "", kFullCopy},
        {"", 022, 0600, 0, 0600, "", "fstat src, close src, fsync tmp, close tmp, rename tmp dst"},
        {"x", 077, 0755, 0, 0700, "close src", kFullCopy},
        {"data", 022, 0604, 0640, 0640, "", kFullCopy}};
    for (const auto &row : rows) {
        umask(row.umask);
        write_file(kSrc, row.content, static_cast<int>(row.source));
        write_file(kDst, "the old destination, longer than the new one", 0600);
        if (row.stale != 0) write_file(kTmp, std::string(4096, 'x'), static_cast<int>(row.stale));
        script(row.failing, {-1}, EIO);
        EXPECT_EQ(copy(), "0: " + row.steps);
        EXPECT_TRUE(read_file(kDst) == row.content && !file_exists(kTmp));
        EXPECT_EQ(fs::status(kDst).permissions(), fs::perms(row.expected));
    }
    umask(022);
    enum Source { none, file, directory, huge };  // a directory's size is not 0, and reading it fails
    // The out-of-memory line names the line of the copy's source that allocates the block.
    const std::string code = read_file(std::string(getenv("FCADMIN_SOURCE_DIR")) + "/fileutil/copy.cpp");
    const auto oom = std::count(code.begin(), code.begin() + code.find("allocate_block(size, __LINE__)"), '\n') + 1;
    const std::string c = " | admin_file_copy: ", opened = "fstat src, read src, close src",
                      synced = opened + ", write tmp, fsync tmp, close tmp";
    auto err = [](int e) { return " <" + std::to_string(e) + ">"; };
    // failing: a short read or write of 4096 bytes, or a failure with err; line: none at all when empty.
    const struct { Source source; bool tmp_is_dir; std::string failing; int err; std::string line, steps; } fails[] = {
        {none, false, "", 0, c + "Can't open file: " + kSrc + err(ENOENT), ""},
        {file, false, "fstat src", EIO, c + "Can't get fstat file: " + kSrc + err(EIO), "fstat src, close src"},
        {huge, false, "", 0, " | admin_file_copy/" + std::to_string(oom) + ": out of memory.", "fstat src, close src"},
        {directory, false, "", 0, "", opened},
        {file, false, "read src", 0, "", opened},
        {file, true, "", 0, c + "Can't open file: " + kTmp + err(EISDIR), opened},
        {file, false, "write tmp", 0, "", opened + ", write tmp, close tmp"},
        {file, false, "fsync tmp", EIO, c + "fsync " + kTmp + " failed." + err(EIO), synced},
        {file, false, "close tmp", EIO, c + "close " + kTmp + " failed." + err(EIO), synced},
        {file, false, "rename tmp dst", EXDEV, c + "rename " + kTmp + " to " + kDst + "." + err(EXDEV), kFullCopy}};
    write_file(kDst, "old destination");
    for (const auto &row : fails) {
        if (row.source == huge && sizeof(off_t) < 8) continue;  // a sparse source far larger than memory
        for (const auto &path : {kSrc, kTmp}) fs::remove_all(path);
        if (row.source == file || row.source == huge) write_file(kSrc, std::string(10000, 'w'));
        EXPECT_EQ(row.source == huge ? truncate(kSrc.c_str(), off_t{1} << (sizeof(off_t) < 8 ? 30 : 50)) : 0, 0);
        if (row.source == directory || row.tmp_is_dir) mkdir((row.tmp_is_dir ? kTmp : kSrc).c_str(), 0755);
        script(row.failing, {row.err == 0 ? 4096 : -1}, row.err);
        admin_trhdl = admin_detail_trhdl = -1;  // the copy sets up its trace itself
        EXPECT_EQ(copy(), "-9: " + row.steps + row.line);
        EXPECT_EQ(read_file(kDst), "old destination");
    }
    // A destination of 257 characters (its components under the file-name limit): the cut temporary name is the one
    // written, synced and renamed; trace lines are cut at 127 characters.
    const std::string sub = "/tmp/" + std::string(200, 'd'), dst = sub + "/" + std::string(257 - sub.size() - 1, 'f');
    const std::string tmp = dst + ".tm";  // 260 characters: ".tmp" cut to fit 261 bytes with the terminator
    ASSERT_EQ(mkdir(sub.c_str(), 0755), 0);
    write_file(kSrc, "long");
    script("rename tmp dst", {-1}, EXDEV);
    EXPECT_EQ(copy(dst, tmp), "-9: " + kFullCopy + (c + "rename " + tmp + " to " + dst + ".").substr(0, 130));
    EXPECT_EQ(copy(dst, tmp), "0: " + kFullCopy);
    EXPECT_TRUE(read_file(dst) == "long" && !file_exists(tmp) && !file_exists(dst + ".tmp"));
}
