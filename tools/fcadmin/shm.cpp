// fcadmin shm: the shared segment from both sides. create and destroy play the segment's owner; init,
// info, read and write are clients that go through the library's attach and lock helpers.
#include "tools/fcadmin/command.h"
#include "tools/fcadmin/shm_owner.h"

#include "fcadmin.h"

#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

namespace fcadmin_tool {
namespace {

constexpr const char *kName = "shm";

constexpr const char *kUsage =
    "usage: fcadmin shm create [SIZE]\n"
    "       fcadmin shm destroy\n"
    "       fcadmin shm init\n"
    "       fcadmin shm info\n"
    "       fcadmin shm read [--hold MS]\n"
    "       fcadmin shm write [--hold MS] TEXT\n"
    "\n"
    "The shared segment (key 0x778899) and its semaphore set (key 0x778898), whose semaphore 0 is a\n"
    "reader/writer lock between processes: value 9999 when free, one unit per reader, all 9999 for a\n"
    "writer.\n"
    "\n"
    "Owner side:\n"
    "  create [SIZE]  create the segment (SIZE bytes in all, default 4096; the first 16 are the owner's\n"
    "                 header, clients see what follows) and the semaphore set, write the header through\n"
    "                 the owner's own mapping and set the semaphore to 9999. Fails if either exists.\n"
    "  destroy        remove the segment and the semaphore set.\n"
    "\n"
    "Client side (attach read-only through the library, detach before the end):\n"
    "  init           set the semaphore to 9999 (admin_sem_init).\n"
    "  info           show the ids, sizes, the semaphore's value and how many processes wait on it.\n"
    "  read           take the read lock (admin_shm_reader_open), print the data as text, release.\n"
    "  write TEXT     take the write lock (admin_shm_writer_open) and store TEXT, NUL-terminated, at the\n"
    "                 start of the data. A client's attachment is read-only, so the writer stores the\n"
    "                 text through a writable mapping of its own of the same segment, made while it holds\n"
    "                 the write lock and removed before it releases it.\n"
    "  --hold MS      keep the lock MS milliseconds before releasing it (to watch others wait).\n"
    "\n"
    "Exit status: 0 on success, 1 on failure, 2 on a usage error.\n";

int fail(const std::string &what) {
    fprintf(stderr, "fcadmin shm: %s\n", what.c_str());
    return 1;
}

const char *kNotAttached = "cannot attach the shared segment and its semaphore set (has the owner made them? "
                           "see 'fcadmin shm create')";

void hold(int32_t milliseconds) {
    if (milliseconds <= 0) return;
    timespec left = {milliseconds / 1000, (milliseconds % 1000) * 1000000L};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

// Options of read and write: [--hold MS] and the rest as operands.
struct ClientArgs {
    int32_t hold_ms = 0;
    int operands = 0;
    char **operand = nullptr;
};

bool parse_client_args(int argc, char **argv, ClientArgs *args, std::string *error) {
    int i = 2;
    if (i < argc && strcmp(argv[i], "--hold") == 0) {
        if (i + 1 >= argc || !parse_int32(argv[i + 1], &args->hold_ms) || args->hold_ms < 0) {
            *error = "--hold needs a number of milliseconds";
            return false;
        }
        i += 2;
    }
    args->operands = argc - i;
    args->operand = argv + i;
    return true;
}

// Size of the data area that follows the owner's header, from the segment's own record.
size_t data_size(int shmid) {
    shmid_ds stat = {};
    if (shmctl(shmid, IPC_STAT, &stat) != 0 || stat.shm_segsz <= fcadmin_owner::kHeaderSize) return 0;
    return stat.shm_segsz - fcadmin_owner::kHeaderSize;
}

int run_create(int argc, char **argv) {
    if (argc > 3) return usage_error(kName, "create takes at most one operand, the size");
    int32_t size = static_cast<int32_t>(fcadmin_owner::kDefaultSize);
    if (argc == 3 && (!parse_int32(argv[2], &size) || size <= static_cast<int32_t>(fcadmin_owner::kHeaderSize)))
        return usage_error(kName, std::string("bad size '") + argv[2] + "': a number of bytes above 16");
    int shmid = -1, semid = -1;
    std::string error;
    if (!fcadmin_owner::create(static_cast<size_t>(size), &shmid, &semid, &error)) return fail("create: " + error);
    printf("created segment id %d of %d bytes (%d of data), semaphore set id %d, value %d\n", shmid, size,
           size - static_cast<int32_t>(fcadmin_owner::kHeaderSize), semid, fcadmin_owner::kFullValue);
    return 0;
}

int run_destroy(int argc, char **) {
    if (argc != 2) return usage_error(kName, "destroy takes no operand");
    const int removed = fcadmin_owner::destroy();
    if (removed == 0)
        printf("nothing to remove\n");
    else
        printf("removed the segment and the semaphore set (%d object%s)\n", removed, removed == 1 ? "" : "s");
    return 0;
}

int run_init(int argc, char **) {
    if (argc != 2) return usage_error(kName, "init takes no operand");
    if (admin_shm_client_attach() != 0) {
        admin_shm_detach();
        return fail(kNotAttached);
    }
    const int32_t result = admin_sem_init();
    admin_shm_detach();
    if (result != 0) return fail("the semaphore could not be set (" + std::to_string(result) + ")");
    printf("semaphore set to %d\n", fcadmin_owner::kFullValue);
    return 0;
}

int run_info(int argc, char **) {
    if (argc != 2) return usage_error(kName, "info takes no operand");
    if (admin_shm_client_attach() != 0) {
        admin_shm_detach();
        return fail(kNotAttached);
    }
    shmid_ds stat = {};
    shmctl(global_db_shmid, IPC_STAT, &stat);
    fcadmin_owner::Header header = {};
    if (stat.shm_segsz >= sizeof header) memcpy(&header, global_shm_data_ptr, sizeof header);
    const bool ours = memcmp(header.magic, fcadmin_owner::kMagic, sizeof header.magic) == 0;
    printf("segment:   key 0x%x id %d, %zu bytes, %zu of data, %lu attached\n", FCADMIN_SHM_KEY, global_db_shmid,
           static_cast<size_t>(stat.shm_segsz), data_size(global_db_shmid),
           static_cast<unsigned long>(stat.shm_nattch));
    printf("semaphore: key 0x%x id %d, value %d, %d waiting\n", FCADMIN_SEM_KEY, global_db_semid,
           fcadmin_owner::semaphore_value(global_db_semid), fcadmin_owner::semaphore_waiters(global_db_semid));
    printf("header:    %s\n", ours ? "written by fcadmin shm create" : "not one of fcadmin's");
    admin_shm_detach();
    return 0;
}

int run_read(int argc, char **argv) {
    ClientArgs args;
    std::string error;
    if (!parse_client_args(argc, argv, &args, &error)) return usage_error(kName, error);
    if (args.operands != 0) return usage_error(kName, "read takes no operand");
    const char *view = static_cast<const char *>(admin_shm_reader_open());
    if (view == nullptr) {
        const bool attached = global_shm_data_ptr != nullptr && global_db_semid > 0;
        admin_shm_detach();
        return fail(attached ? "the read lock could not be taken" : kNotAttached);
    }
    const size_t size = data_size(global_db_shmid);
    printf("%.*s\n", static_cast<int>(strnlen(view, size)), view);
    fflush(stdout);
    hold(args.hold_ms);
    const int32_t closed = admin_shm_reader_close();
    admin_shm_detach();
    return closed == 0 ? 0 : fail("the read lock could not be released");
}

int run_write(int argc, char **argv) {
    ClientArgs args;
    std::string error;
    if (!parse_client_args(argc, argv, &args, &error)) return usage_error(kName, error);
    if (args.operands != 1) return usage_error(kName, "write takes one operand, the text");
    const char *text = args.operand[0];

    if (admin_shm_client_attach() != 0) {
        admin_shm_detach();
        return fail(kNotAttached);
    }
    const size_t size = data_size(global_db_shmid);
    const size_t length = strlen(text);
    if (length >= size) {
        admin_shm_detach();
        return fail("the text needs " + std::to_string(length + 1) + " bytes; the data area holds " +
                    std::to_string(size));
    }
    if (admin_shm_writer_open() == nullptr) {
        admin_shm_detach();
        return fail("the write lock could not be taken");
    }
    char *mapping = fcadmin_owner::map_writable(global_db_shmid, &error);
    if (mapping != nullptr) {
        memcpy(mapping + fcadmin_owner::kHeaderSize, text, length + 1);
        shmdt(mapping);
        printf("wrote %zu bytes\n", length + 1);
        fflush(stdout);
    }
    hold(args.hold_ms);
    const int32_t closed = admin_shm_writer_close();
    admin_shm_detach();
    if (mapping == nullptr) return fail("no writable mapping: " + error);
    return closed == 0 ? 0 : fail("the write lock could not be released");
}

int run_shm(int argc, char **argv) {
    if (argc < 2) return usage_error(kName, "which action? create, destroy, init, info, read or write");
    admin_trace_init();
    const char *action = argv[1];
    if (strcmp(action, "create") == 0) return run_create(argc, argv);
    if (strcmp(action, "destroy") == 0) return run_destroy(argc, argv);
    if (strcmp(action, "init") == 0) return run_init(argc, argv);
    if (strcmp(action, "info") == 0) return run_info(argc, argv);
    if (strcmp(action, "read") == 0) return run_read(argc, argv);
    if (strcmp(action, "write") == 0) return run_write(argc, argv);
    return usage_error(kName, std::string("unknown action '") + action + "'");
}

}  // namespace

FCADMIN_SUBCOMMAND("shm", "the shared segment: create/destroy as its owner; init, info, read, write as clients",
                   kUsage, run_shm);

}  // namespace fcadmin_tool
