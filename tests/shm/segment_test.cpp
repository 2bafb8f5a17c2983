// The segment client and the semaphore lock, one process at a time: every System V call, sleep and trace
// line, with the System V calls interposed here so that they fail on cue and otherwise reach the real
// ones (a real segment and set under the fixed keys, in the sandbox's IPC namespace). Each case runs
// in a forked child, since all the state is process-wide.
#include "fcadmin.h"
#include "tests/support/fake_platform.h"
#include "tests/support/helpers.h"
#include "tools/fcadmin/shm_owner.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <deque>
#include <map>
#include <string>
#include <vector>

using namespace fcadmin_test;
using Lines = std::vector<std::string>;

namespace {

// One scripted outcome of an interposed call: a result and errno, or the real call.
struct Outcome {
    bool real;
    long result;
    int error;
};
const Outcome kReal = {true, 0, 0};
Outcome fails(int error) { return {false, -1, error}; }
Outcome returns(long value) { return {false, value, 0}; }

struct Interposer {
    bool recording = false;
    std::vector<std::string> calls;
    std::map<std::string, std::deque<Outcome>> scripts;
};
Interposer &interposer() {
    static Interposer state;
    return state;
}

void record(const std::string &call) {
    if (interposer().recording) interposer().calls.push_back(call);
}

Outcome next_outcome(const char *name) {
    auto &queue = interposer().scripts[name];
    if (queue.empty()) return kReal;
    Outcome o = queue.front();
    queue.pop_front();
    return o;
}

template <typename Fn>
Fn real(const char *name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

std::string pointer_text(const void *p) {
    char text[32];
    snprintf(text, sizeof text, "%p", p);
    return text;
}

}  // namespace

extern "C" {

int shmget(key_t key, size_t size, int flags) noexcept {
    record("shmget(" + std::to_string(key) + "," + std::to_string(size) + "," + std::to_string(flags) + ")");
    Outcome o = next_outcome("shmget");
    if (!o.real) return errno = o.error, static_cast<int>(o.result);
    return real<int (*)(key_t, size_t, int)>("shmget")(key, size, flags);
}

void *shmat(int id, const void *address, int flags) noexcept {
    record("shmat(" + std::to_string(id) + "," + pointer_text(address) + "," + std::to_string(flags) + ")");
    Outcome o = next_outcome("shmat");
    if (!o.real) return errno = o.error, reinterpret_cast<void *>(o.result);
    return real<void *(*)(int, const void *, int)>("shmat")(id, address, flags);
}

int shmdt(const void *address) noexcept {
    record("shmdt(" + pointer_text(address) + ")");
    Outcome o = next_outcome("shmdt");
    if (!o.real) return errno = o.error, static_cast<int>(o.result);
    return real<int (*)(const void *)>("shmdt")(address);
}

int semget(key_t key, int count, int flags) noexcept {
    record("semget(" + std::to_string(key) + "," + std::to_string(count) + "," + std::to_string(flags) + ")");
    Outcome o = next_outcome("semget");
    if (!o.real) return errno = o.error, static_cast<int>(o.result);
    return real<int (*)(key_t, int, int)>("semget")(key, count, flags);
}

int semop(int id, struct sembuf *operations, size_t count) noexcept {
    std::string text = "semop(" + std::to_string(id);
    for (size_t i = 0; i < count; ++i)
        text += ",{" + std::to_string(operations[i].sem_num) + "," + std::to_string(operations[i].sem_op) + "," +
                std::to_string(operations[i].sem_flg) + "}";
    record(text + "," + std::to_string(count) + ")");
    Outcome o = next_outcome("semop");
    if (!o.real) return errno = o.error, static_cast<int>(o.result);
    return real<int (*)(int, struct sembuf *, size_t)>("semop")(id, operations, count);
}

int semctl(int id, int number, int command, ...) noexcept {
    va_list args;
    va_start(args, command);
    fcadmin_owner::semun argument = {};
    if (command == SETVAL || command == IPC_STAT || command == IPC_SET || command == GETALL || command == SETALL)
        argument = va_arg(args, fcadmin_owner::semun);
    va_end(args);
    record("semctl(" + std::to_string(id) + "," + std::to_string(number) + "," + std::to_string(command) +
           (command == SETVAL ? "," + std::to_string(argument.val) : std::string()) + ")");
    Outcome o = next_outcome("semctl");
    if (!o.real) return errno = o.error, static_cast<int>(o.result);
    return real<int (*)(int, int, int, ...)>("semctl")(id, number, command, argument);
}

int usleep(useconds_t microseconds) {
    record("usleep(" + std::to_string(microseconds) + ")");
    return real<int (*)(useconds_t)>("usleep")(microseconds);
}

}  // extern "C"

namespace {

const std::string kShmget = "shmget(7833753,0,0)";
const std::string kSemget = "semget(7833752,0,432)";
const std::string kPause = "usleep(1)";

std::string semop_call(int id, int delta) {
    return "semop(" + std::to_string(id) + ",{0," + std::to_string(delta) + ",4096},1)";
}

// The owner's segment and set, made before the child starts recording and removed when it ends.
struct OwnedSegment {
    int shmid = -1;
    int semid = -1;
    OwnedSegment() {
        std::string error;
        fcadmin_owner::destroy();
        EXPECT_TRUE(fcadmin_owner::create(fcadmin_owner::kDefaultSize, &shmid, &semid, &error)) << error;
        EXPECT_GT(semid, 0);
    }
    ~OwnedSegment() { fcadmin_owner::destroy(); }
    // The semaphore's value, read without recording the look.
    int value() const {
        const bool was = interposer().recording;
        interposer().recording = false;
        const int v = fcadmin_owner::semaphore_value(semid);
        interposer().recording = was;
        return v;
    }
};

// Starts recording System V calls and platform calls from a clean slate, the trace set up.
void start_recording() {
    reset_platform();
    admin_trace_init();
    reset_platform();
    interposer().calls.clear();
    interposer().recording = true;
}

Lines sys_calls() {
    Lines out = interposer().calls;
    interposer().calls.clear();
    return out;
}

// Stored trace lines as "CHANNEL LEVEL text", with the channel by module id; cleared after reading.
Lines trace_lines() {
    Lines out;
    for (const auto &call : platform_calls_of("trace_module_store_lvl")) {
        const std::string channel = call.args[1] == "305" ? "general" : call.args[1] == "312" ? "detail" : "?";
        EXPECT_EQ(call.args[3], "5");
        EXPECT_EQ(call.args[0], channel == "general" ? "7" : "8");
        out.push_back(channel + " " + call.args[2] + " " + call.args[4]);
    }
    reset_platform();
    return out;
}

std::string pid() { return std::to_string(getpid()); }
std::string tid() { return std::to_string(syscall(SYS_gettid)); }

}  // namespace

TEST(SegmentClient, AttachLockUnlockDetach) {
    EXPECT_EQ(run_in_child([&] {
        OwnedSegment owner;
        start_recording();
        ASSERT_EQ(admin_shm_client_attach(), 0);
        const std::string at = pointer_text(global_shm_data_ptr);
        EXPECT_EQ(sys_calls(), (Lines{kShmget, "shmat(" + std::to_string(owner.shmid) + ",(nil),4096)", kSemget}));
        EXPECT_EQ(trace_lines(), (Lines{"general 2 shmget [" + std::to_string(owner.shmid) + "] success for tid [" + tid() + "]",
                                        "general 2 shmat [" + at + "] success for tid [" + tid() + "]"}));
        EXPECT_EQ(global_db_shmid, owner.shmid);
        EXPECT_EQ(global_db_semid, owner.semid);

        // Attached already: nothing is called.
        EXPECT_EQ(admin_shm_client_attach(), 0);
        EXPECT_TRUE(sys_calls().empty());

        const int id = owner.semid;
        EXPECT_EQ(admin_shm_db_read_lock(), 0);
        EXPECT_EQ(owner.value(), 9998);
        EXPECT_EQ(admin_shm_db_read_lock(), 0);  // counts per process
        EXPECT_EQ(owner.value(), 9997);
        EXPECT_EQ(admin_shm_db_read_unlock(), 0);
        EXPECT_EQ(admin_shm_db_read_unlock(), 0);
        EXPECT_EQ(owner.value(), 9999);
        EXPECT_EQ(admin_shm_db_write_lock(), 0);
        EXPECT_EQ(owner.value(), 0);
        EXPECT_EQ(admin_shm_db_write_unlock(), 0);
        EXPECT_EQ(owner.value(), 9999);
        EXPECT_EQ(sys_calls(), (Lines{semop_call(id, -1), semop_call(id, -1), semop_call(id, 1), semop_call(id, 1),
                                      semop_call(id, -9999), semop_call(id, 9999)}));
        const std::string t = tid();
        EXPECT_EQ(trace_lines(), (Lines{"detail 1 Trying rd lock by tid=[" + t + "]",
                                        "detail 1 db rd lock taken by reader tid=[" + t + "]",
                                        "detail 1 Trying rd lock by tid=[" + t + "]",
                                        "detail 1 db rd lock taken by reader tid=[" + t + "]",
                                        "detail 1 db rd lock rel by reader tid=[" + t + "]",
                                        "detail 1 db rd lock rel by reader tid=[" + t + "]",
                                        "detail 1 Trying wr lock by tid=[" + t + "]",
                                        "detail 1 db wr lock taken by tid=[" + t + "]",
                                        "detail 1 db wr lock rel by tid=[" + t + "]"}));

        // An unmatched write unlock adds its 9999 without a check.
        EXPECT_EQ(admin_shm_db_write_unlock(), 0);
        EXPECT_EQ(owner.value(), 19998);
        EXPECT_EQ(admin_sem_init(), 0);
        EXPECT_EQ(owner.value(), 9999);
        sys_calls();
        trace_lines();

        const std::string where = pointer_text(global_shm_data_ptr);
        EXPECT_EQ(admin_shm_detach(), 0);
        EXPECT_EQ(sys_calls(), (Lines{"shmdt(" + where + ")"}));
        EXPECT_EQ(trace_lines(), (Lines{"general 2 shmdt success for pid=[" + pid() + "]"}));
        EXPECT_EQ(global_shm_data_ptr, nullptr);
        EXPECT_EQ(global_db_shmid, 0);
        EXPECT_EQ(global_db_semid, 0);

        // Detached: the lock calls fail at once, without a system call.
        EXPECT_EQ(admin_shm_db_write_lock(), -25);
        EXPECT_EQ(admin_shm_db_write_unlock(), -25);
        EXPECT_EQ(admin_shm_db_read_lock(), -25);
        EXPECT_EQ(admin_shm_db_read_unlock(), -25);
        EXPECT_EQ(admin_shm_detach(), 0);
        EXPECT_TRUE(sys_calls().empty());
        const std::string p = pid();
        EXPECT_EQ(trace_lines(), (Lines{"detail 1 [admin_shm_db_write_lock] semaphore not initiated for pid=[" + p + "]",
                                        "detail 1 [admin_shm_db_write_unlock] semaphore not initiated pid=[" + p + "]",
                                        "detail 1 [admin_shm_db_read_lock] semaphore not initiated pid=[" + p + "]",
                                        "detail 1 [admin_shm_db_read_unlock] semaphore not initiated pid=[" + p + "]"}));
    }), 0);
}

TEST(SegmentClient, SemgetFailingThreeTimes) {
    EXPECT_EQ(run_in_child([&] {
        OwnedSegment owner;
        start_recording();
        interposer().scripts["semget"] = {fails(ENOENT), fails(ENOENT), fails(ENOENT)};
        EXPECT_EQ(admin_shm_client_attach(), -1);
        Lines calls = sys_calls();
        ASSERT_EQ(calls.size(), 8u);
        EXPECT_EQ(Lines(calls.begin() + 2, calls.end()), (Lines{kSemget, kPause, kSemget, kPause, kSemget, kPause}));
        Lines lines = trace_lines();
        ASSERT_EQ(lines.size(), 3u);
        EXPECT_EQ(lines[2], "general 2 Error while getting semaphore for pid=[" + pid() + "].");
        EXPECT_NE(global_shm_data_ptr, nullptr);
        EXPECT_EQ(global_db_semid, -1);

        // Still attached: the next attach returns at once.
        EXPECT_EQ(admin_shm_client_attach(), 0);
        EXPECT_TRUE(sys_calls().empty());

        // Every lock call goes to semop with id -1, three times, and fails.
        const std::string p = pid();
        const std::string t = tid();
        struct Case {
            int32_t (*call)();
            int delta;
            const char *trying;
            const char *operation;
            const char *name;
            int marker;
        } cases[] = {
            {admin_shm_db_write_lock, -9999, "wr", "Write_Lock", "admin_shm_db_write_lock", 189},
            {admin_shm_db_write_unlock, 9999, nullptr, "Write_Unlock", "admin_shm_db_write_unlock", 210},
            {admin_shm_db_read_lock, -1, "rd", "Read_Lock", "admin_shm_db_read_lock", 233},
            {admin_shm_db_read_unlock, 1, nullptr, "Read_Unlock", "admin_shm_db_read_unlock", 254},
        };
        for (const auto &c : cases) {
            SCOPED_TRACE(c.name);
            EXPECT_EQ(c.call(), -25);
            const std::string op = semop_call(-1, c.delta);
            EXPECT_EQ(sys_calls(), (Lines{op, kPause, op, kPause, op, kPause}));
            Lines expected;
            if (c.trying != nullptr) expected.push_back(std::string("detail 1 Trying ") + c.trying + " lock by tid=[" + t + "]");
            expected.push_back(std::string("detail 1 ERROR in semop [") + c.operation + "]");
            expected.push_back("detail 1 [" + std::string(c.name) + ":" + std::to_string(c.marker) + "]:failed pid=[" + p + "]");
            EXPECT_EQ(trace_lines(), expected);
        }
        // Any other delta that fails is named as a write unlock.
        EXPECT_EQ(admin_semop(5), -1);
        EXPECT_EQ(admin_semop(-2), -1);
        EXPECT_EQ(trace_lines(), (Lines{"detail 1 ERROR in semop [Write_Unlock]", "detail 1 ERROR in semop [Write_Unlock]"}));
        EXPECT_EQ(owner.value(), 9999);
    }), 0);
}

TEST(SegmentClient, SemaphoreIdZeroIsAFailure) {
    EXPECT_EQ(run_in_child([&] {
        OwnedSegment owner;
        start_recording();
        interposer().scripts["semget"] = {returns(0)};
        EXPECT_EQ(admin_shm_client_attach(), -1);
        EXPECT_EQ(sys_calls().back(), kSemget);  // no retry after a result of 0
        EXPECT_EQ(trace_lines().back(), "general 2 Error while getting semaphore for pid=[" + pid() + "].");
        EXPECT_EQ(global_db_semid, 0);
        EXPECT_EQ(admin_shm_db_read_lock(), -25);
        EXPECT_TRUE(sys_calls().empty());
    }), 0);
}

TEST(SegmentClient, SemopRetries) {
    EXPECT_EQ(run_in_child([&] {
        OwnedSegment owner;
        ASSERT_EQ(admin_shm_client_attach(), 0);
        start_recording();
        const int id = owner.semid;

        // One interruption, then the lock: success.
        interposer().scripts["semop"] = {fails(EINTR)};
        EXPECT_EQ(admin_shm_db_read_lock(), 0);
        EXPECT_EQ(sys_calls(), (Lines{semop_call(id, -1), kPause, semop_call(id, -1)}));
        EXPECT_EQ(owner.value(), 9998);
        EXPECT_EQ(admin_shm_db_read_unlock(), 0);
        sys_calls();
        trace_lines();

        // Two failures, then the kernel takes the lock on the third attempt: reported as a failure
        // while the lock is held, and no pause after the attempt that went through.
        interposer().scripts["semop"] = {fails(EINTR), fails(EIDRM)};
        EXPECT_EQ(admin_shm_db_write_lock(), -25);
        EXPECT_EQ(sys_calls(), (Lines{semop_call(id, -9999), kPause, semop_call(id, -9999), kPause, semop_call(id, -9999)}));
        EXPECT_EQ(owner.value(), 0);
        const std::string t = tid();
        EXPECT_EQ(trace_lines(), (Lines{"detail 1 Trying wr lock by tid=[" + t + "]", "detail 1 ERROR in semop [Write_Lock]",
                                        "detail 1 [admin_shm_db_write_lock:189]:failed pid=[" + pid() + "]"}));
        interposer().scripts["semop"] = {fails(EINTR), fails(EINTR)};
        EXPECT_EQ(admin_semop(9999), -1);
        EXPECT_EQ(owner.value(), 9999);
        EXPECT_EQ(trace_lines(), (Lines{"detail 1 ERROR in semop [Write_Unlock]"}));
    }), 0);
}

TEST(SegmentClient, SegmentMissingOrShmatFailing) {
    EXPECT_EQ(run_in_child([&] {
        fcadmin_owner::destroy();
        start_recording();
        EXPECT_EQ(admin_shm_client_attach(), -1);
        EXPECT_EQ(sys_calls(), (Lines{kShmget}));
        EXPECT_EQ(trace_lines(), (Lines{"general 2 admin_shm_client_attach:Error while getting shared memory segment for pid=[" + pid() + "]"}));
        EXPECT_EQ(global_db_shmid, -1);
        EXPECT_EQ(global_shm_data_ptr, nullptr);
    }), 0);
    EXPECT_EQ(run_in_child([&] {
        OwnedSegment owner;
        start_recording();
        interposer().scripts["shmat"] = {fails(EACCES)};
        EXPECT_EQ(admin_shm_client_attach(), -1);
        EXPECT_EQ(sys_calls().size(), 2u);
        EXPECT_EQ(trace_lines().back(), "general 2 Error attaching to shared memory segment for pid=[" + pid() + "].");
        void *const failure = reinterpret_cast<void *>(-1);
        EXPECT_EQ(global_shm_data_ptr, failure);

        // The failure value counts as attached from now on, and it cannot be detached.
        EXPECT_EQ(admin_shm_client_attach(), 0);
        EXPECT_TRUE(sys_calls().empty());
        EXPECT_EQ(admin_shm_detach(), -1);
        EXPECT_EQ(sys_calls(), (Lines{"shmdt(" + pointer_text(failure) + ")"}));
        EXPECT_EQ(trace_lines(), (Lines{"general 2 Error detaching to shared memory region for pid=[" + pid() + "]"}));
        EXPECT_EQ(global_shm_data_ptr, failure);
        EXPECT_EQ(global_db_shmid, owner.shmid);
        // No semaphore was looked up, so the usage helpers hand out nothing.
        EXPECT_EQ(admin_shm_reader_open(), nullptr);
        EXPECT_EQ(admin_shm_writer_open(), nullptr);
    }), 0);
}

TEST(SegmentClient, SemInitResults) {
    EXPECT_EQ(run_in_child([&] {
        OwnedSegment owner;
        ASSERT_EQ(admin_shm_client_attach(), 0);
        ASSERT_EQ(fcadmin_owner::set_value(owner.semid, 17), 0);
        start_recording();
        EXPECT_EQ(admin_sem_init(), 0);
        EXPECT_EQ(owner.value(), 9999);
        EXPECT_EQ(sys_calls().front(), "semctl(" + std::to_string(owner.semid) + ",0,16,9999)");
        EXPECT_EQ(trace_lines(), (Lines{"general 2 [admin_sem_init] semaphore init succeeded pid=[" + pid() + "]"}));
        interposer().scripts["semctl"] = {fails(EPERM)};
        EXPECT_EQ(admin_sem_init(), -25);
        EXPECT_EQ(trace_lines(), (Lines{"general 2 [admin_sem_init] semaphore init failed pid=[" + pid() + "]"}));
    }), 0);
}

TEST(UsageHelpers, ReaderAndWriterFollowThePattern) {
    EXPECT_EQ(run_in_child([&] {
        OwnedSegment owner;
        start_recording();
        const std::string self = std::to_string(static_cast<long>(pthread_self()));
        const std::string p = pid();

        // A writer never attaches by itself.
        EXPECT_EQ(admin_shm_writer_open(), nullptr);
        EXPECT_EQ(trace_lines(), (Lines{"general 2 \n [" + p + " : admin_shm_writer_open] shm db data pointer is null.\n"}));
        EXPECT_TRUE(sys_calls().empty());

        char *view = static_cast<char *>(admin_shm_reader_open());
        ASSERT_NE(view, nullptr);
        EXPECT_EQ(view, static_cast<char *>(global_shm_data_ptr) + 16);
        EXPECT_EQ(memcmp(global_shm_data_ptr, "FCADMSHM", 8), 0);
        EXPECT_EQ(owner.value(), 9998);
        Lines lines = trace_lines();
        ASSERT_EQ(lines.size(), 7u);
        EXPECT_EQ(lines[0], "detail 1 Trying shm db attach thread lock by tid=[" + self + "] ");
        EXPECT_EQ(lines[1], "detail 1 shm db attach thread lock taken by tid=[" + self + "] ");
        EXPECT_EQ(lines[4], "detail 1 shm db attach thread lock release by tid=[" + self + "] ");
        EXPECT_EQ(lines[5], "detail 1 Trying rd lock by tid=[" + tid() + "]");
        EXPECT_EQ(admin_shm_reader_close(), 0);
        EXPECT_EQ(owner.value(), 9999);

        // The slot is filled: the next open only locks.
        sys_calls();
        trace_lines();
        EXPECT_EQ(admin_shm_reader_open(), view);
        EXPECT_EQ(sys_calls(), (Lines{semop_call(owner.semid, -1)}));
        EXPECT_EQ(admin_shm_reader_close(), 0);

        EXPECT_EQ(admin_shm_writer_open(), view);
        EXPECT_EQ(owner.value(), 0);
        EXPECT_EQ(admin_shm_writer_close(), 0);
        EXPECT_EQ(owner.value(), 9999);
        trace_lines();

        // After a detach the closes fail with their lines, and a reader open attaches again.
        ASSERT_EQ(admin_shm_detach(), 0);
        EXPECT_EQ(admin_shm_reader_close(), -1);
        EXPECT_EQ(admin_shm_writer_close(), -1);
        lines = trace_lines();
        ASSERT_EQ(lines.size(), 5u);
        EXPECT_EQ(lines[2], "general 2 \n [" + p + " : admin_shm_reader_close] shm db read unlock failed.\n");
        EXPECT_EQ(lines[4], "general 2 \n [" + p + " : admin_shm_writer_close] shm db unlock failed.\n");
        EXPECT_NE(admin_shm_reader_open(), nullptr);
        EXPECT_EQ(owner.value(), 9998);
        EXPECT_EQ(admin_shm_reader_close(), 0);
    }), 0);
    EXPECT_EQ(run_in_child([&] {
        // The attach fails: the mutex is released with its line and no lock is tried.
        fcadmin_owner::destroy();
        start_recording();
        EXPECT_EQ(admin_shm_reader_open(), nullptr);
        const std::string self = std::to_string(static_cast<long>(pthread_self()));
        const std::string p = pid();
        EXPECT_EQ(trace_lines(), (Lines{"detail 1 Trying shm db attach thread lock by tid=[" + self + "] ",
                                        "detail 1 shm db attach thread lock taken by tid=[" + self + "] ",
                                        "general 2 admin_shm_client_attach:Error while getting shared memory segment for pid=[" + p + "]",
                                        "general 2 \n [" + p + " : admin_shm_reader_open] shm db attach failed.\n",
                                        "detail 1 shm db attach thread lock release by tid=[" + self + "] "}));
        EXPECT_EQ(sys_calls(), (Lines{kShmget}));
    }), 0);
}

TEST(UsageHelpers, GeneralLinesEchoUnderTheDebugMarker) {
    EXPECT_EQ(run_in_child([&] {
        fcadmin_owner::destroy();
        start_recording();
        write_file(FCADMIN_DEBUG_MARKER, "");
        fflush(stdout);
        const int saved = dup(1);
        const int fd = open("/tmp/echo", O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fd, 1);
        close(fd);
        EXPECT_EQ(admin_shm_reader_open(), nullptr);
        fflush(stdout);
        dup2(saved, 1);
        unlink(FCADMIN_DEBUG_MARKER);
        const std::string p = pid();
        // The detail lines are not echoed; the general ones are, each between two newlines.
        EXPECT_EQ(read_file("/tmp/echo"), "\nadmin_shm_client_attach:Error while getting shared memory segment for pid=[" + p +
                                              "]\n\n\n [" + p + " : admin_shm_reader_open] shm db attach failed.\n\n");
    }), 0);
}
