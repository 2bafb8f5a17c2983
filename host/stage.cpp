// The export's content provider on a host: every regular file of the export source directory is one
// item; staging copies items into the export staging directory and lists their staged paths.
#include "fcadmin.h"
#include "fcadmin_platform.h"

#include "common/format.h"
#include "common/unique_fd.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int32_t kNothingEligible = 0;
constexpr int32_t kNoSuchItem = -1;
constexpr int32_t kInvalidInput = -8;
constexpr int32_t kStagingInaccessible = -49;
constexpr mode_t kStagingDirMode = 0755;
constexpr mode_t kStagedFileMode = 0644;
constexpr size_t kListSize = FCADMIN_EXPORT_LIST_SIZE;
constexpr size_t kPathSize = 4096;

// A name that can be staged and listed: the list is split at blanks by the command runner, so a
// blank or control character in a name would split or corrupt the upload command; "/", "." and ".."
// would leave the staging directory.
bool listable_name(const char *name) {
    if (name[0] == '\0' || strcmp(name, ".") == 0 || strcmp(name, "..") == 0) return false;
    for (const char *p = name; *p != '\0'; ++p) {
        const unsigned char c = static_cast<unsigned char>(*p);
        if (c == '/' || c == ' ' || c < 0x20 || c == 0x7f) return false;
    }
    return true;
}

// The staging directory path without its trailing "/": O_NOFOLLOW only guards the last component,
// and a trailing slash would make the kernel follow a symbolic link planted there.
void staging_dir_path(char (&path)[kPathSize]) {
    size_t n = fcadmin::bounded_copy(path, FCADMIN_EXPORT_STAGING_DIR);
    while (n > 1 && path[n - 1] == '/') path[--n] = '\0';
}

// Creates the staging directory when missing and opens it. The directory sits in a world-writable
// place, so one that is a symbolic link or belongs to another user is refused, not used.
fcadmin::unique_fd open_staging_dir() {
    char path[kPathSize];
    staging_dir_path(path);
    if (mkdir(path, kStagingDirMode) != 0 && errno != EEXIST) return fcadmin::unique_fd();
    fcadmin::unique_fd dir(open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat st = {};
    if (!dir.valid() || fstat(dir.get(), &st) != 0 || st.st_uid != geteuid()) return fcadmin::unique_fd();
    // The transfer tools may run under another identity; the umask must not hide the files from them.
    if (fchmod(dir.get(), kStagingDirMode) != 0) return fcadmin::unique_fd();
    return dir;
}

// Empties the staging directory of files. The sftp and ftp uploads send the whole directory, so a
// file left by an export that was interrupted would otherwise travel with this one.
void clear_staging_dir(int dir_fd) {
    int scan_fd = fcntl(dir_fd, F_DUPFD_CLOEXEC, 0);
    if (scan_fd < 0) return;
    DIR *dir = fdopendir(scan_fd);
    if (dir == nullptr) {
        close(scan_fd);
        return;
    }
    while (const struct dirent *entry = readdir(dir)) {
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
        unlinkat(dir_fd, entry->d_name, 0);  // subdirectories fail here and stay: they are not staged
    }
    closedir(dir);
}

bool write_all(int fd, const char *data, size_t length) {
    while (length > 0) {
        ssize_t n = fcadmin::retry_eintr([&] { return write(fd, data, length); });
        if (n <= 0) return false;
        data += n;
        length -= static_cast<size_t>(n);
    }
    return true;
}

// Copies source_dir/name into staging_dir/staged_name, readable by everyone.
bool stage_file(int source_dir, const char *name, int staging_dir, const char *staged_name) {
    fcadmin::unique_fd in(openat(source_dir, name, O_RDONLY | O_CLOEXEC | O_NOCTTY));
    struct stat st = {};
    if (!in.valid() || fstat(in.get(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
    fcadmin::unique_fd out(openat(staging_dir, staged_name, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC,
                                  kStagedFileMode));
    if (!out.valid() || fchmod(out.get(), kStagedFileMode) != 0) return false;
    char buffer[16384];
    for (;;) {
        ssize_t n = fcadmin::retry_eintr([&] { return read(in.get(), buffer, sizeof buffer); });
        if (n < 0) return false;
        if (n == 0) break;
        if (!write_all(out.get(), buffer, static_cast<size_t>(n))) return false;
    }
    return out.reset() == 0;
}

// Appends the staged path of name to the list, blank-separated. False, with the list unchanged, when
// it would not fit with its terminator.
bool append_to_list(char *list, const char *name) {
    const size_t used = strnlen(list, kListSize - 1);
    const char *separator = used > 0 ? " " : "";
    const size_t needed = strlen(separator) + strlen(FCADMIN_EXPORT_STAGING_DIR) + strlen(name);
    if (used + needed >= kListSize) return false;
    fcadmin::bounded_format(list + used, kListSize - used, "%s%s%s", separator, FCADMIN_EXPORT_STAGING_DIR, name);
    return true;
}

bool is_regular(int dir_fd, const char *name) {
    struct stat st = {};
    return fstatat(dir_fd, name, &st, 0) == 0 && S_ISREG(st.st_mode);
}

int32_t stage_one(int source_dir, const char *name, const char *staged_name, char *list) {
    if (!is_regular(source_dir, name)) return kNoSuchItem;
    fcadmin::unique_fd staging = open_staging_dir();
    if (!staging.valid()) return kStagingInaccessible;
    clear_staging_dir(staging.get());
    if (!append_to_list(list, staged_name) || !stage_file(source_dir, name, staging.get(), staged_name)) {
        clear_staging_dir(staging.get());
        list[0] = '\0';
        return kStagingInaccessible;
    }
    return 1;
}

// Items are staged in name order. Those whose paths no longer fit the list are left out, so that the
// list and the staging directory always hold the same files.
int32_t stage_all(int source_dir, char *list) {
    struct dirent **names = nullptr;
    int total = scandirat(source_dir, ".", &names, nullptr, alphasort);
    if (total < 0) return kNothingEligible;
    // The eligible entries are packed to the front and the others freed at once; kept counts the
    // entries still owned.
    int kept = total;
    fcadmin::scope_exit free_names([&] {
        for (int i = 0; i < kept; ++i) free(names[i]);
        free(names);
    });
    int eligible = 0;
    for (int i = 0; i < total; ++i) {
        if (listable_name(names[i]->d_name) && is_regular(source_dir, names[i]->d_name)) {
            names[eligible++] = names[i];
        } else {
            free(names[i]);
        }
    }
    kept = eligible;
    if (eligible == 0) return kNothingEligible;

    fcadmin::unique_fd staging = open_staging_dir();
    if (!staging.valid()) return kStagingInaccessible;
    clear_staging_dir(staging.get());
    int32_t staged = 0;
    for (int i = 0; i < eligible; ++i) {
        const char *name = names[i]->d_name;
        if (!append_to_list(list, name)) break;
        if (!stage_file(source_dir, name, staging.get(), name)) {
            clear_staging_dir(staging.get());
            memset(list, 0, kListSize);
            return kStagingInaccessible;
        }
        ++staged;
    }
    return staged;
}

}  // namespace

// "all" (the first three characters) stages every item; another selector names one item, staged under
// the file name of item when that is non-empty, else under its own name. Returns the count staged, 0 when nothing is
// eligible, -8 for an unusable selector or item name, -1 when the named item does not exist, -49
// when the staging directory cannot be created, opened or written.
extern "C" FCADMIN_PLATFORM_API int32_t stage_export_content(const char *selector, const char *item,
                                                             char list[FCADMIN_EXPORT_LIST_SIZE]) {
    if (list == nullptr) return kInvalidInput;
    memset(list, 0, kListSize);
    if (selector == nullptr || selector[0] == '\0' || strchr(selector, '/') != nullptr) return kInvalidInput;
    const bool all = strncmp(selector, "all", 3) == 0;
    // The export hands over the request's remote path as the item when a remote directory is given,
    // so the item may be a path: its file name is the staged name.
    const char *item_name = item != nullptr ? strrchr(item, '/') : nullptr;
    item_name = item_name != nullptr ? item_name + 1 : item;
    const char *staged_name = item_name != nullptr && item_name[0] != '\0' ? item_name : selector;
    if (!all && (!listable_name(selector) || !listable_name(staged_name))) return kInvalidInput;

    fcadmin::unique_fd source(open(FCADMIN_EXPORT_SOURCE_DIR, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!source.valid()) return all ? kNothingEligible : kNoSuchItem;
    return all ? stage_all(source.get(), list) : stage_one(source.get(), selector, staged_name, list);
}
