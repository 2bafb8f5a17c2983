// The segment client, the semaphore lock and the usage helpers on a real segment and set under the fixed
// keys (the sandbox's own IPC namespace): every System V call and trace line in order, and failures
// injected into the System V calls. Each case runs in a forked child: all the state is process-wide.
#include "fcadmin.h"
#include "tests/support/fake_platform.h"
#include "tools/fcadmin/shm_owner.h"

#include <sys/syscall.h>
#include <unistd.h>

using namespace fcadmin_test;

namespace {

int semaphore() {
    interpose(false);
    const int value = fcadmin_owner::semaphore_value(fcadmin_owner::find_semaphores());
    interpose(true);
    return value;
}

// Each line with %P (pid), %T (kernel thread id), %t (pthread_self), %S (set id), %I (segment id) and %A
// (attachment) filled in.
Lines expand(Lines lines) {
    char at[32];
    snprintf(at, sizeof at, "%p", global_shm_data_ptr);
    const std::pair<std::string, std::string> ids[] = {
        {"%P", std::to_string(getpid())}, {"%T", std::to_string(syscall(SYS_gettid))},
        {"%t", std::to_string(static_cast<long>(pthread_self()))}, {"%A", at},
        {"%S", std::to_string(global_db_semid)}, {"%I", std::to_string(global_db_shmid)}};
    for (auto &line : lines)
        for (const auto &[name, value] : ids)
            for (size_t i; (i = line.find(name)) != std::string::npos;) line.replace(i, name.size(), value);
    return lines;
}

// The System V calls and trace lines ("general TEXT", "detail TEXT") since the last look.
Lines taken() {
    Lines out;
    for (const auto &call : calls()) {
        std::string line = call.text();
        if (line.rfind("trace_module_store_lvl 7 305 2 5 ", 0) == 0) line = "general " + line.substr(33);
        if (line.rfind("trace_module_store_lvl 8 312 1 5 ", 0) == 0) line = "detail " + line.substr(33);
        out.push_back(line);
    }
    reset_platform();
    return out;
}

// Runs body in a fresh child with the owner's segment and set made afresh, recording from then on.
void with_segment(const std::function<void()> &body) {
    in_child([&] {
        std::string error;
        int shmid = -1, semid = -1;
        fcadmin_owner::destroy();
        ASSERT_TRUE(fcadmin_owner::create(fcadmin_owner::kDefaultSize, &shmid, &semid, &error)) << error;
        admin_trace_init();
        reset_platform();
        interpose(true);
        body();
    });
}

Lines operator+(Lines a, const Lines &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

const Lines kAttach = {"shmget 7833753 0 0", "general shmget [%I] success for tid [%T]", "shmat %I (nil) 4096",
                       "general shmat [%A] success for tid [%T]", "semget 7833752 0 432"};
const std::string kPause = "usleep 1";

// The lock calls, their deltas and lines.
const struct Lock {
    int32_t (*call)();
    const char *name, *delta, *trying, *operation, *marker, *success, *uninitiated;
} kLocks[] = {
    {admin_shm_db_read_lock, "admin_shm_db_read_lock", "-1", "detail Trying rd lock by tid=[%T]", "Read_Lock", "233",
     "detail db rd lock taken by reader tid=[%T]", " pid"},
    {admin_shm_db_read_unlock, "admin_shm_db_read_unlock", "1", nullptr, "Read_Unlock", "254",
     "detail db rd lock rel by reader tid=[%T]", " pid"},
    {admin_shm_db_write_lock, "admin_shm_db_write_lock", "-9999", "detail Trying wr lock by tid=[%T]", "Write_Lock",
     "189", "detail db wr lock taken by tid=[%T]", " for pid"},
    {admin_shm_db_write_unlock, "admin_shm_db_write_unlock", "9999", nullptr, "Write_Unlock", "210",
     "detail db wr lock rel by tid=[%T]", " pid"},
};

// A lock call's lines when its semop fails `failures` times (3: the call fails).
Lines lock_lines(const Lock &lock, int failures) {
    Lines lines = lock.trying != nullptr ? Lines{lock.trying} : Lines{};
    const std::string semop = std::string("semop %S {0,") + lock.delta + ",4096} 1";
    for (int i = 0; i < failures; ++i) lines = lines + Lines{semop, kPause};
    if (failures == 2) lines.push_back(semop);  // taken on the third attempt, and no pause after it
    if (failures < 2) return lines + Lines{semop, lock.success};
    return lines + Lines{std::string("detail ERROR in semop [") + lock.operation + "]",
                         std::string("detail [") + lock.name + ":" + lock.marker + "]:failed pid=[%P]"};
}

TEST(SegmentClient, AttachLockUnlockDetach) {
    with_segment([] {
        ASSERT_EQ(admin_shm_client_attach(), 0);
        EXPECT_EQ(taken(), expand(kAttach));
        EXPECT_EQ(admin_shm_client_attach(), 0);  // attached already: no call at all
        EXPECT_EQ(taken(), Lines{});
        for (const auto &[lock, value] : {std::pair{kLocks[0], 9998}, {kLocks[1], 9999}, {kLocks[2], 0}, {kLocks[3], 9999}}) {
            EXPECT_EQ(lock.call(), 0);
            EXPECT_EQ(semaphore(), value);
            EXPECT_EQ(taken(), expand(lock_lines(lock, 0)));
        }
        // An unmatched write unlock adds its 9999 without a check; the set-up puts the value back.
        EXPECT_EQ(admin_shm_db_write_unlock(), 0);
        EXPECT_EQ(semaphore(), 19998);
        taken();
        EXPECT_EQ(admin_sem_init(), 0);
        EXPECT_EQ(semaphore(), 9999);
        EXPECT_EQ(taken(), expand({"general [admin_sem_init] semaphore init succeeded pid=[%P]"}));
        const Lines detached = expand({"shmdt %A", "general shmdt success for pid=[%P]"});
        EXPECT_EQ(admin_shm_detach(), 0);
        EXPECT_EQ(taken(), detached);
        EXPECT_TRUE(global_shm_data_ptr == nullptr && global_db_shmid == 0 && global_db_semid == 0);
        // Detached: the lock calls fail at once, without a system call; a detach does nothing.
        for (const Lock &lock : kLocks) {
            EXPECT_EQ(lock.call(), -25);
            EXPECT_EQ(taken(), expand({std::string("detail [") + lock.name + "] semaphore not initiated" +
                                       lock.uninitiated + "=[%P]"}));
        }
        EXPECT_EQ(admin_shm_detach(), 0);
        EXPECT_EQ(taken(), Lines{});
    });
}

TEST(SegmentClient, InjectedFailures) {
    const Lines semget = {"semget 7833752 0 432"}, no_set = {"general Error while getting semaphore for pid=[%P]."};
    const Lines found(kAttach.begin(), kAttach.begin() + 3), attached(kAttach.begin(), kAttach.end() - 1);
    const struct {
        const char *key;
        std::vector<long> results;
        Lines lines;
    } attaches[] = {
        {"shmget", {-1}, {"shmget 7833753 0 0", "general admin_shm_client_attach:Error while getting shared memory segment for pid=[%P]"}},
        {"shmat", {-1}, found + Lines{"general Error attaching to shared memory segment for pid=[%P]."}},
        {"semget", {-1, -1, -1}, attached + semget + Lines{kPause} + semget + Lines{kPause} + semget + Lines{kPause} + no_set},
        {"semget", {0}, attached + semget + no_set},  // a set id of 0 is refused too, without a retry
    };
    for (const auto &row : attaches) {
        with_segment([&] {
            script(row.key, row.results, EINVAL);
            EXPECT_EQ(admin_shm_client_attach(), -1);
            EXPECT_EQ(taken(), expand(row.lines));
        });
    }
    // semop fails once, twice (the kernel then holds the lock while the caller hears of a failure), or
    // on every attempt.
    for (const Lock &lock : kLocks) {
        for (int failures : {1, 2, 3}) {
            with_segment([&] {
                ASSERT_EQ(admin_shm_client_attach(), 0);
                taken();
                script("semop", std::vector<long>(static_cast<size_t>(failures), -1), EINTR);
                EXPECT_EQ(lock.call(), failures == 1 ? 0 : -25);
                EXPECT_EQ(taken(), expand(lock_lines(lock, failures)));
                EXPECT_EQ(semaphore(), failures < 3 ? 9999 + std::stoi(lock.delta) : 9999);
            });
        }
    }
    with_segment([] {
        ASSERT_EQ(admin_shm_client_attach(), 0);
        script("semop", {-1, -1, -1});
        EXPECT_EQ(admin_semop(5), -1);  // any other delta is named a write unlock
        EXPECT_EQ(taken().back(), "detail ERROR in semop [Write_Unlock]");
    });
    // After a failed shmat the failure value counts as attached: no retry, and the detach fails on it.
    with_segment([] {
        script("shmat", {-1});
        EXPECT_EQ(admin_shm_client_attach(), -1);
        taken();
        EXPECT_EQ(admin_shm_client_attach(), 0);
        EXPECT_EQ(admin_shm_detach(), -1);
        EXPECT_EQ(taken(), expand({"shmdt %A", "general Error detaching to shared memory region for pid=[%P]"}));
        EXPECT_EQ(global_shm_data_ptr, reinterpret_cast<void *>(-1));
        EXPECT_EQ(admin_shm_reader_open(), nullptr);  // no semaphore was looked up: nothing to hand out
    });
    // After semget fails the lock calls go to semop with id -1; the set-up works on that id and fails.
    with_segment([] {
        script("semget", {-1, -1, -1});
        EXPECT_EQ(admin_shm_client_attach(), -1);
        taken();
        EXPECT_EQ(admin_shm_db_read_lock(), -25);
        EXPECT_EQ(taken().at(1), "semop -1 {0,-1,4096} 1");
        EXPECT_EQ(admin_sem_init(), -25);
        EXPECT_EQ(taken(), expand({"general [admin_sem_init] semaphore init failed pid=[%P]"}));
    });
}

TEST(SegmentClient, EveryEntrySetsUpTheTraceFirst) {
    const std::function<void()> entries[] = {
        [] { admin_shm_client_attach(); }, [] { admin_shm_detach(); },      [] { admin_semop(1); },
        [] { admin_sem_init(); },          [] { admin_shm_db_read_lock(); }, [] { admin_shm_db_read_unlock(); },
        [] { admin_shm_db_write_lock(); }, [] { admin_shm_db_write_unlock(); }, [] { admin_shm_reader_open(); },
        [] { admin_shm_reader_close(); },  [] { admin_shm_writer_open(); }, [] { admin_shm_writer_close(); }};
    for (const auto &entry : entries) {
        in_child([&] {
            entry();
            EXPECT_EQ(args_of("trace_module_init", 0), (Lines{"305", "312"}));
        });
    }
}

TEST(UsageHelpers, ReaderAndWriterFollowThePattern) {
    const Lines mutex = {"detail Trying shm db attach thread lock by tid=[%t] ", "detail shm db attach thread lock taken by tid=[%t] "};
    const Lines release = {"detail shm db attach thread lock release by tid=[%t] "};
    with_segment([&] {
        EXPECT_EQ(admin_shm_writer_open(), nullptr);  // a writer never attaches by itself
        EXPECT_EQ(taken(), expand({"general \n [%P : admin_shm_writer_open] shm db data pointer is null.\n"}));
        char *view = static_cast<char *>(admin_shm_reader_open());
        EXPECT_EQ(view, static_cast<char *>(global_shm_data_ptr) + 16);
        EXPECT_EQ(taken(), expand(mutex + kAttach + release + lock_lines(kLocks[0], 0)));
        EXPECT_EQ(admin_shm_reader_close(), 0);
        EXPECT_EQ(admin_shm_reader_open(), view);  // the slot is filled: only the lock
        EXPECT_EQ(admin_shm_reader_close(), 0);
        EXPECT_EQ(admin_shm_writer_open(), view);
        EXPECT_EQ(semaphore(), 0);
        EXPECT_EQ(admin_shm_writer_close(), 0);
        EXPECT_EQ(semaphore(), 9999);
        // After a detach the closes fail with their lines, and a reader open attaches again.
        ASSERT_EQ(admin_shm_detach(), 0);
        taken();
        EXPECT_EQ(admin_shm_reader_close(), -1);
        EXPECT_EQ(admin_shm_writer_close(), -1);
        const Lines lines = taken();
        EXPECT_EQ(lines.at(1) + lines.at(3), expand({"general \n [%P : admin_shm_reader_close] shm db read unlock failed.\n"
                                                     "general \n [%P : admin_shm_writer_close] shm db unlock failed.\n"})[0]);
        EXPECT_NE(admin_shm_reader_open(), nullptr);
        EXPECT_EQ(semaphore(), 9998);
    });
    // No segment: the mutex is released with its line and no lock is tried. Under the debug marker the
    // general lines are echoed, each between two newlines; the detail lines are not.
    with_segment([&] {
        interpose(false);
        fcadmin_owner::destroy();
        interpose(true);
        write_file(FCADMIN_DEBUG_MARKER, "");
        const std::string attach = "admin_shm_client_attach:Error while getting shared memory segment for pid=[",
                          failed = " : admin_shm_reader_open] shm db attach failed.\n", pid = std::to_string(getpid());
        EXPECT_EQ(captured(STDOUT_FILENO, [] { EXPECT_EQ(admin_shm_reader_open(), nullptr); }),
                  "\n" + attach + pid + "]\n\n\n [" + pid + failed + "\n");
        EXPECT_EQ(taken(), expand(mutex + Lines{"shmget 7833753 0 0", "general " + attach + "%P]", "general \n [%P" + failed} + release));
    });
}

}  // namespace
