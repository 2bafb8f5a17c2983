// The segment client, lock and usage helpers on a real segment and set: every System V call and trace line, failures.
#include "fcadmin.h"
#include "tests/support/fake_platform.h"
#include "tools/fcadmin/shm_owner.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <regex>

using namespace fcadmin_test;

// Fills in %P (pid), %T (kernel thread id), %t (pthread_self), %A (attachment), %S (set id), %I (segment id).
std::string expand(std::string text) {
    char at[32];
    snprintf(at, sizeof at, "%p", global_shm_data_ptr);
    const std::string ids[][2] = {{"%P", std::to_string(getpid())}, {"%T", std::to_string(syscall(SYS_gettid))},
                                  {"%t", std::to_string(static_cast<long>(pthread_self()))}, {"%A", at},
                                  {"%S", std::to_string(global_db_semid)}, {"%I", std::to_string(global_db_shmid)}};
    for (const auto &id : ids) text = std::regex_replace(text, std::regex(id[0]), id[1]);
    return text;
}

// The System V calls and trace lines ("general TEXT", "detail TEXT") since the last look; forgets the trace set-up.
std::string taken() {
    std::string out;
    for (const auto &c : std::exchange(calls(), {})) out += c.name == "trace_module_init" ? "" : c.text() + "\n";
    admin_trhdl = admin_detail_trhdl = -1;
    out = std::regex_replace(out, std::regex("trace_module_store_lvl 7 305 2 5 "), "general ");
    return std::regex_replace(out, std::regex("trace_module_store_lvl 8 312 1 5 "), "detail ");
}

// Runs body in a fresh child with the owner's segment and set made afresh, recording from then on.
void with_segment(const std::function<void()> &body) {
    in_child([&] {
        int ids[2];
        std::string error;
        fcadmin_owner::destroy();
        ASSERT_TRUE(fcadmin_owner::create(fcadmin_owner::kDefaultSize, &ids[0], &ids[1], &error)) << error;
        interpose(true);
        body();
    });
}

const std::string kFound = "shmget 7833753 0 0\ngeneral shmget [%I] success for tid [%T]\nshmat %I (nil) 4096\n",
                  kAttached = kFound + "general shmat [%A] success for tid [%T]\n",
                  kAttach = kAttached + "semget 7833752 0 432\n";

const struct Lock { int32_t (*call)(); const char *name, *delta, *operation, *marker, *trying, *success; } kLocks[] = {
    {admin_shm_db_read_lock, "read_lock", "-1", "Read_Lock", "233", "Trying rd lock by", "db rd lock taken by reader"},
    {admin_shm_db_read_unlock, "read_unlock", "1", "Read_Unlock", "254", nullptr, "db rd lock rel by reader"},
    {admin_shm_db_write_lock, "write_lock", "-9999", "Write_Lock", "189", "Trying wr lock by", "db wr lock taken by"},
    {admin_shm_db_write_unlock, "write_unlock", "9999", "Write_Unlock", "210", nullptr, "db wr lock rel by"},
};

// A lock call's lines when its semop fails `failures` times (one that works at the third try fails the call).
std::string lock_lines(const Lock &lock, int failures) {
    const std::string semop = std::string("semop %S {0,") + lock.delta + ",4096} 1\n";
    std::string lines = lock.trying != nullptr ? "detail " + std::string(lock.trying) + " tid=[%T]\n" : "";
    for (int i = 0; i < failures; ++i) lines += semop + "usleep 1\n";
    if (failures < 2) return lines + semop + "detail " + lock.success + " tid=[%T]\n";
    return lines + (failures == 2 ? semop : "") + "detail ERROR in semop [" + lock.operation +
           "]\ndetail [admin_shm_db_" + lock.name + ":" + lock.marker + "]:failed pid=[%P]\n";
}

using Codes = std::vector<long>;  // a braced list runs its calls in order

TEST(SegmentClient, InjectedFailuresAndTheUsagePatternOverAttachLockUnlockAndDetach) {
    const std::string retry = "semget 7833752 0 432\nusleep 1\n", semop = "semop %S {0,5,4096} 1\nusleep 1\n",
                      no_set = "general Error while getting semaphore for pid=[%P].\n";
    struct { const char *key; std::vector<long> results; int32_t (*after)(); int code; std::string lines; } rows[] = {
        {"shmat", {-1}, nullptr, -1, kFound + "general Error attaching to shared memory segment for pid=[%P].\n"},
        {"semget", {-1, -1, -1}, nullptr, -1, kAttached + retry + retry + retry + no_set},
        {"semget", {0}, nullptr, -1, kAttach + no_set},  // a set id of 0 is refused too, without a retry
        // shmat's failure value counts as attached, and the detach fails on it; the set-up works on the stored id.
        {"shmat", {-1}, admin_shm_detach, -1,
         "shmdt %A\ngeneral Error detaching to shared memory region for pid=[%P]\n"},
        {"semget", {-1, -1, -1}, admin_sem_init, -25, "general [admin_sem_init] semaphore init failed pid=[%P]\n"},
        {"semop", {-1, -1, -1}, [] { return admin_semop(5); }, -1,  // any other delta is named a write unlock
         semop + semop + semop + "detail ERROR in semop [Write_Unlock]\n"},
    };
    for (const auto &row : rows)
        with_segment([&] {
            script(row.key, row.results, EINVAL);
            const int32_t attached = admin_shm_client_attach();
            if (row.after != nullptr) taken();  // the call after the attach; else the attach's own result
            EXPECT_EQ(row.after != nullptr ? row.after() : attached, row.code);
            EXPECT_EQ(taken(), expand(row.lines));
        });
    const std::string mutex = "detail Trying shm db attach thread lock by tid=[%t] \n"
                              "detail shm db attach thread lock taken by tid=[%t] \n",
                      release = "detail shm db attach thread lock release by tid=[%t] \n";
    with_segment([&] {
        EXPECT_EQ(admin_shm_writer_open(), nullptr);  // a writer never attaches by itself
        EXPECT_EQ(taken(), expand("general \n [%P : admin_shm_writer_open] shm db data pointer is null.\n\n"));
        char *view = static_cast<char *>(admin_shm_reader_open());
        EXPECT_EQ(view, static_cast<char *>(global_shm_data_ptr) + 16);
        EXPECT_EQ(taken(), expand(mutex + kAttach + release + lock_lines(kLocks[0], 0)));
        // Attached already: no call at all. The slot is filled: only the locks.
        EXPECT_TRUE(admin_shm_client_attach() == 0 && admin_shm_reader_close() == 0 && admin_shm_reader_open() == view
                    && admin_shm_reader_close() == 0 && admin_shm_writer_open() == view && !admin_shm_writer_close());
        EXPECT_EQ(taken(), expand(lock_lines(kLocks[1], 0) + lock_lines(kLocks[0], 0) + lock_lines(kLocks[1], 0) +
                                  lock_lines(kLocks[2], 0) + lock_lines(kLocks[3], 0)));
        for (int failures : {1, 2, 3})  // semop fails: after two tries the kernel holds the lock, yet the call fails
            for (const Lock &lock : kLocks) {
                script("semop", std::vector<long>(static_cast<size_t>(failures), -1), EINTR);
                EXPECT_EQ(lock.call(), failures == 1 ? 0 : -25);
                EXPECT_EQ(taken(), expand(lock_lines(lock, failures)));
            }
        // An unmatched write unlock adds its 9999 without a check; the set-up puts the value back.
        const std::string detached = expand(lock_lines(kLocks[3], 0) + "general [admin_sem_init] semaphore init "
                                            "succeeded pid=[%P]\nshmdt %A\ngeneral shmdt success for pid=[%P]\n");
        EXPECT_EQ((Codes{admin_shm_db_write_unlock(), fcadmin_owner::semaphore_value(global_db_semid), admin_sem_init(),
                         fcadmin_owner::semaphore_value(global_db_semid), admin_shm_detach(), global_db_shmid,
                         global_db_semid, global_shm_data_ptr == nullptr}), Codes({0, 19998, 0, 9999, 0, 0, 0, 1}));
        EXPECT_EQ(taken(), detached);
        // Detached: locks fail without a call, closes with their lines, a detach does nothing.
        EXPECT_EQ((Codes{admin_shm_db_read_lock(), admin_shm_db_write_lock(), admin_shm_detach(),
                         admin_shm_reader_close(), admin_shm_writer_close()}), Codes({-25, -25, 0, -1, -1}));
        EXPECT_EQ(taken(), expand("detail [admin_shm_db_read_lock] semaphore not initiated pid=[%P]\n"
                                  "detail [admin_shm_db_write_lock] semaphore not initiated for pid=[%P]\n"
                                  "detail [admin_shm_db_read_unlock] semaphore not initiated pid=[%P]\n"
                                  "general \n [%P : admin_shm_reader_close] shm db read unlock failed.\n\n"
                                  "detail [admin_shm_db_write_unlock] semaphore not initiated pid=[%P]\n"
                                  "general \n [%P : admin_shm_writer_close] shm db unlock failed.\n\n"));
        // No segment: the attach fails, the mutex is released, no lock is tried; the debug marker echoes general lines.
        script("shmget", {-1}, ENOENT);
        write_file(FCADMIN_DEBUG_MARKER, "");
        const std::string attach = "admin_shm_client_attach:Error while getting shared memory segment for pid=[%P]",
                          failed = "\n [%P : admin_shm_reader_open] shm db attach failed.\n\n";
        EXPECT_EQ(captured(STDOUT_FILENO, [] { EXPECT_EQ(admin_shm_reader_open(), nullptr); }),
                  expand("\n" + attach + "\n\n" + failed));
        EXPECT_EQ(taken(), expand(mutex + "shmget 7833753 0 0\ngeneral " + attach + "\ngeneral " + failed + release));
        EXPECT_NE(admin_shm_reader_open(), nullptr);  // the next one attaches
    });
}
