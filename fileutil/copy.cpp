// The atomic file copy: the whole source goes into a temporary file beside the destination, is forced
// to disk, and is renamed over the destination, so a reader sees the old file or the whole new one.
#include "common/format.h"
#include "common/unique_fd.h"
#include "fcadmin.h"
#include "shm/trace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <memory>

namespace {

// Every failure, reported or not, is this one code; callers tell the causes apart only in the trace.
constexpr int32_t kCopyFailed = -9;
// The messages name the exported entry, whatever internal function writes them.
constexpr const char *kFunctionName = "admin_file_copy";
// The destination plus ".tmp", cut to fit; a cut name still works, it just no longer ends in ".tmp".
constexpr size_t kTemporaryPathSize = 261;
// Exactly these flags: the temporary file is reused, not exclusive, and no descriptor flag is added.
constexpr int kSourceOpenFlags = O_RDONLY;
constexpr int kTemporaryOpenFlags = O_WRONLY | O_CREAT | O_TRUNC;

struct FreeBlock {
    void operator()(char *block) const { free(block); }
};
using Block = std::unique_ptr<char, FreeBlock>;

// One block of the source's size, or null with the out-of-memory line; line is the caller's
// allocation site, which is what the message reports. A size that no single read can return (past
// SSIZE_MAX, or past size_t on a 32-bit target) cannot be held and counts as out of memory.
Block allocate_block(off_t size, int line) {
    char *block = nullptr;
    if (static_cast<uintmax_t>(size) <= static_cast<uintmax_t>(SSIZE_MAX))
        block = static_cast<char *>(malloc(static_cast<size_t>(size)));
    if (block == nullptr) fcadmin::trace_general_echo("%s/%d: out of memory.", kFunctionName, line);
    return Block(block);
}

}  // namespace

namespace fcadmin {

// The order of the steps is part of the behaviour: the source is closed before the temporary file is
// opened, the block is freed before fsync, and on a failure nothing is undone beyond closing and
// freeing. The temporary file is never removed (the next copy truncates and reuses it), and the
// destination is touched only by the final rename.
static int32_t copy_file(const char *source, const char *destination) {
    unique_fd source_fd(retry_eintr([&] { return ::open(source, kSourceOpenFlags); }));
    if (!source_fd.valid()) {
        trace_general_echo("%s: Can't open file: %s <%d>", kFunctionName, source, errno);
        return kCopyFailed;
    }

    struct stat status;
    if (::fstat(source_fd.get(), &status) != 0) {
        trace_general_echo("%s: Can't get fstat file: %s <%d>", kFunctionName, source, errno);
        return kCopyFailed;
    }
    const off_t size = status.st_size;

    // Declared after the source so that a short read frees the block before closing the source.
    Block block;
    if (size > 0) {
        block = allocate_block(size, __LINE__);
        if (!block) return kCopyFailed;
        const auto want = static_cast<size_t>(size);
        const ssize_t got = retry_eintr([&] { return ::read(source_fd.get(), block.get(), want); });
        if (got < 0 || static_cast<size_t>(got) != want) return kCopyFailed;
    }
    source_fd.reset();  // nothing was written through it; its close result says nothing useful

    char temporary[kTemporaryPathSize];
    bounded_format(temporary, sizeof temporary, "%s.tmp", destination);

    // The source's whole st_mode is the creation mode: a new temporary file takes its permission bits
    // less the umask, an existing one keeps its own mode. No chmod follows, by design.
    unique_fd temporary_fd(
        retry_eintr([&] { return ::open(temporary, kTemporaryOpenFlags, static_cast<mode_t>(status.st_mode)); }));
    if (!temporary_fd.valid()) {
        trace_general_echo("%s: Can't open file: %s <%d>", kFunctionName, temporary, errno);
        return kCopyFailed;
    }

    if (size > 0) {
        const auto want = static_cast<size_t>(size);
        const ssize_t put = retry_eintr([&] { return ::write(temporary_fd.get(), block.get(), want); });
        if (put < 0 || static_cast<size_t>(put) != want) return kCopyFailed;
        block.reset();
    }

    if (retry_eintr([&] { return ::fsync(temporary_fd.get()); }) != 0) {
        trace_general_echo("%s: fsync %s failed. <%d>", kFunctionName, temporary, errno);
        return kCopyFailed;
    }

    // A failed close may mean the data never reached the file (a deferred write error): no rename.
    if (temporary_fd.reset() != 0) {
        trace_general_echo("%s: close %s failed. <%d>", kFunctionName, temporary, errno);
        return kCopyFailed;
    }

    // The directory is not synchronised after the rename.
    if (::rename(temporary, destination) != 0) {
        trace_general_echo("%s: rename %s to %s. <%d>", kFunctionName, temporary, destination, errno);
        return kCopyFailed;
    }
    return 0;
}

}  // namespace fcadmin

extern "C" int32_t admin_file_copy(const char *source, const char *destination) {
    if (source == nullptr || destination == nullptr) return kCopyFailed;
    admin_trace_init();
    return fcadmin::copy_file(source, destination);
}
