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

#include <deque>
#include <map>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

using namespace fcadmin_test;
using Lines = std::vector<std::string>;

namespace {

Lines calls;
// Results that the next calls of a function return (errno EINVAL), one per call; then the real call.
std::map<std::string, std::deque<long>> scripts;

template <typename T>
std::string text(T v) {
    if constexpr (std::is_pointer_v<T>) {
        char t[32];
        snprintf(t, sizeof t, "%p", static_cast<const void *>(v));
        return t;
    } else {
        return std::to_string(v);
    }
}

// Records "name(args)" and returns the scripted outcome, else the real call's result.
template <typename R, typename... A>
R pass(const char *name, const std::string &args, A... a) {
    calls.push_back(std::string(name) + "(" + args + ")");
    auto &queue = scripts[name];
    if (queue.empty()) return reinterpret_cast<R (*)(A...)>(dlsym(RTLD_NEXT, name))(a...);
    const long result = queue.front();
    queue.pop_front();
    errno = EINVAL;
    if constexpr (std::is_pointer_v<R>) return reinterpret_cast<R>(result);
    else return static_cast<R>(result);
}

}  // namespace

extern "C" {

int shmget(key_t key, size_t size, int flags) noexcept {
    return pass<int>("shmget", text(key) + "," + text(size) + "," + text(flags), key, size, flags);
}
void *shmat(int id, const void *address, int flags) noexcept {
    return pass<void *>("shmat", text(id) + "," + text(address) + "," + text(flags), id, address, flags);
}
int shmdt(const void *address) noexcept { return pass<int>("shmdt", text(address), address); }
int semget(key_t key, int count, int flags) noexcept {
    return pass<int>("semget", text(key) + "," + text(count) + "," + text(flags), key, count, flags);
}
int semop(int id, struct sembuf *ops, size_t count) noexcept {
    std::string args = text(id);
    for (size_t i = 0; i < count; ++i)
        args += ",{" + text(ops[i].sem_num) + "," + text(ops[i].sem_op) + "," + text(ops[i].sem_flg) + "}";
    return pass<int>("semop", args + "," + text(count), id, ops, count);
}
int usleep(useconds_t microseconds) { return pass<int>("usleep", text(microseconds), microseconds); }

}  // extern "C"

namespace {

const std::string kShmget = "shmget(7833753,0,0)";
const std::string kSemget = "semget(7833752,0,432)";
const std::string kPause = "usleep(1)";

std::string semop_call(int id, int delta) { return "semop(" + text(id) + ",{0," + text(delta) + ",4096},1)"; }

// The owner's segment and set, made afresh before the child starts recording.
struct OwnedSegment {
    int shmid = -1, semid = -1;
    OwnedSegment() {
        std::string error;
        fcadmin_owner::destroy();
        EXPECT_TRUE(fcadmin_owner::create(fcadmin_owner::kDefaultSize, &shmid, &semid, &error)) << error;
    }
    int value() const { return fcadmin_owner::semaphore_value(semid); }
};

// Starts recording System V and platform calls from a clean slate, the trace set up.
void start_recording() {
    admin_trace_init();
    reset_platform();
    calls.clear();
}

Lines sys_calls() { return std::exchange(calls, {}); }

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

void forget() {
    sys_calls();
    trace_lines();
}

std::string pid() { return text(getpid()); }
std::string tid() { return text(syscall(SYS_gettid)); }
std::string self() { return text(static_cast<long>(pthread_self())); }

void in_child(const std::function<void()> &body) { EXPECT_EQ(run_in_child(body), 0); }

}  // namespace

TEST(SegmentClient, AttachLockUnlockDetach) {
    in_child([&] {
        OwnedSegment owner;
        start_recording();
        ASSERT_EQ(admin_shm_client_attach(), 0);
        const std::string at = text(global_shm_data_ptr), t = tid(), p = pid(), id = text(owner.shmid);
        EXPECT_EQ(sys_calls(), (Lines{kShmget, "shmat(" + id + ",(nil),4096)", kSemget}));
        EXPECT_EQ(trace_lines(), (Lines{"general 2 shmget [" + id + "] success for tid [" + t + "]",
                                        "general 2 shmat [" + at + "] success for tid [" + t + "]"}));
        EXPECT_EQ(global_db_shmid, owner.shmid);
        EXPECT_EQ(global_db_semid, owner.semid);
        EXPECT_EQ(admin_shm_client_attach(), 0);  // attached already: no call
        EXPECT_TRUE(sys_calls().empty());

        const int s = owner.semid;
        EXPECT_EQ(admin_shm_db_read_lock(), 0);
        EXPECT_EQ(owner.value(), 9998);
        EXPECT_EQ(admin_shm_db_read_unlock(), 0);
        EXPECT_EQ(admin_shm_db_write_lock(), 0);
        EXPECT_EQ(owner.value(), 0);
        EXPECT_EQ(admin_shm_db_write_unlock(), 0);
        EXPECT_EQ(owner.value(), 9999);
        EXPECT_EQ(sys_calls(), (Lines{semop_call(s, -1), semop_call(s, 1), semop_call(s, -9999), semop_call(s, 9999)}));
        EXPECT_EQ(trace_lines(), (Lines{"detail 1 Trying rd lock by tid=[" + t + "]",
                                        "detail 1 db rd lock taken by reader tid=[" + t + "]",
                                        "detail 1 db rd lock rel by reader tid=[" + t + "]",
                                        "detail 1 Trying wr lock by tid=[" + t + "]",
                                        "detail 1 db wr lock taken by tid=[" + t + "]",
                                        "detail 1 db wr lock rel by tid=[" + t + "]"}));

        // An unmatched write unlock adds its 9999 without a check; the set-up puts the value back.
        EXPECT_EQ(admin_shm_db_write_unlock(), 0);
        EXPECT_EQ(owner.value(), 19998);
        forget();
        EXPECT_EQ(admin_sem_init(), 0);
        EXPECT_EQ(owner.value(), 9999);
        EXPECT_EQ(trace_lines(), (Lines{"general 2 [admin_sem_init] semaphore init succeeded pid=[" + p + "]"}));

        EXPECT_EQ(admin_shm_detach(), 0);
        EXPECT_EQ(sys_calls(), (Lines{"shmdt(" + at + ")"}));
        EXPECT_EQ(trace_lines(), (Lines{"general 2 shmdt success for pid=[" + p + "]"}));
        EXPECT_EQ(global_shm_data_ptr, nullptr);
        EXPECT_EQ(global_db_shmid, 0);
        EXPECT_EQ(global_db_semid, 0);

        // Detached: the lock calls fail at once, without a system call.
        for (auto call : {admin_shm_db_write_lock, admin_shm_db_write_unlock, admin_shm_db_read_lock,
                          admin_shm_db_read_unlock})
            EXPECT_EQ(call(), -25);
        EXPECT_EQ(admin_shm_detach(), 0);
        EXPECT_TRUE(sys_calls().empty());
        EXPECT_EQ(trace_lines(), (Lines{"detail 1 [admin_shm_db_write_lock] semaphore not initiated for pid=[" + p + "]",
                                        "detail 1 [admin_shm_db_write_unlock] semaphore not initiated pid=[" + p + "]",
                                        "detail 1 [admin_shm_db_read_lock] semaphore not initiated pid=[" + p + "]",
                                        "detail 1 [admin_shm_db_read_unlock] semaphore not initiated pid=[" + p + "]"}));
    });
}

TEST(SegmentClient, SemgetFailures) {
    in_child([&] {
        OwnedSegment owner;
        start_recording();
        scripts["semget"] = {-1, -1, -1};
        EXPECT_EQ(admin_shm_client_attach(), -1);
        const Lines attach = sys_calls();
        ASSERT_EQ(attach.size(), 8u);
        EXPECT_EQ(Lines(attach.begin() + 2, attach.end()), (Lines{kSemget, kPause, kSemget, kPause, kSemget, kPause}));
        EXPECT_EQ(trace_lines().back(), "general 2 Error while getting semaphore for pid=[" + pid() + "].");
        EXPECT_NE(global_shm_data_ptr, nullptr);
        EXPECT_EQ(global_db_semid, -1);
        EXPECT_EQ(admin_shm_client_attach(), 0);  // still attached: returns at once
        EXPECT_TRUE(sys_calls().empty());

        // Every lock call goes to semop with id -1, three times, and fails.
        const struct {
            int32_t (*call)();
            int delta;
            const char *trying, *operation, *name;
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
            if (c.trying) expected.push_back(std::string("detail 1 Trying ") + c.trying + " lock by tid=[" + tid() + "]");
            expected.push_back(std::string("detail 1 ERROR in semop [") + c.operation + "]");
            expected.push_back("detail 1 [" + std::string(c.name) + ":" + text(c.marker) + "]:failed pid=[" + pid() + "]");
            EXPECT_EQ(trace_lines(), expected);
        }
        // Any other delta that fails is named as a write unlock.
        EXPECT_EQ(admin_semop(5), -1);
        EXPECT_EQ(admin_semop(-2), -1);
        EXPECT_EQ(trace_lines(), (Lines{"detail 1 ERROR in semop [Write_Unlock]", "detail 1 ERROR in semop [Write_Unlock]"}));
        // The set-up uses the id as it stands, and fails on -1.
        EXPECT_EQ(admin_sem_init(), -25);
        EXPECT_EQ(trace_lines(), (Lines{"general 2 [admin_sem_init] semaphore init failed pid=[" + pid() + "]"}));
        EXPECT_EQ(owner.value(), 9999);
    });
    // A set id of 0 is a failure too, without a retry, and the lock calls then make no system call.
    in_child([&] {
        OwnedSegment owner;
        start_recording();
        scripts["semget"] = {0};
        EXPECT_EQ(admin_shm_client_attach(), -1);
        EXPECT_EQ(sys_calls().back(), kSemget);
        EXPECT_EQ(trace_lines().back(), "general 2 Error while getting semaphore for pid=[" + pid() + "].");
        EXPECT_EQ(admin_shm_db_read_lock(), -25);
        EXPECT_TRUE(sys_calls().empty());
    });
}

TEST(SegmentClient, SemopRetries) {
    in_child([&] {
        OwnedSegment owner;
        ASSERT_EQ(admin_shm_client_attach(), 0);
        start_recording();
        const int s = owner.semid;
        scripts["semop"] = {-1};
        EXPECT_EQ(admin_shm_db_read_lock(), 0);
        EXPECT_EQ(sys_calls(), (Lines{semop_call(s, -1), kPause, semop_call(s, -1)}));
        EXPECT_EQ(owner.value(), 9998);
        EXPECT_EQ(admin_shm_db_read_unlock(), 0);
        forget();

        // The kernel takes the lock on the third attempt: reported as a failure while the lock is held,
        // and no pause after the attempt that went through.
        scripts["semop"] = {-1, -1};
        EXPECT_EQ(admin_shm_db_write_lock(), -25);
        EXPECT_EQ(sys_calls(), (Lines{semop_call(s, -9999), kPause, semop_call(s, -9999), kPause, semop_call(s, -9999)}));
        EXPECT_EQ(owner.value(), 0);
        EXPECT_EQ(trace_lines(), (Lines{"detail 1 Trying wr lock by tid=[" + tid() + "]", "detail 1 ERROR in semop [Write_Lock]",
                                        "detail 1 [admin_shm_db_write_lock:189]:failed pid=[" + pid() + "]"}));
        scripts["semop"] = {-1, -1};
        EXPECT_EQ(admin_semop(9999), -1);
        EXPECT_EQ(owner.value(), 9999);
    });
}

TEST(SegmentClient, ShmatFailureCountsAsAttached) {
    in_child([&] {
        OwnedSegment owner;
        start_recording();
        scripts["shmat"] = {-1};
        EXPECT_EQ(admin_shm_client_attach(), -1);
        EXPECT_EQ(sys_calls().size(), 2u);
        EXPECT_EQ(trace_lines().back(), "general 2 Error attaching to shared memory segment for pid=[" + pid() + "].");
        void *const failure = reinterpret_cast<void *>(-1);
        EXPECT_EQ(global_shm_data_ptr, failure);

        EXPECT_EQ(admin_shm_client_attach(), 0);
        EXPECT_TRUE(sys_calls().empty());
        EXPECT_EQ(admin_shm_detach(), -1);
        EXPECT_EQ(sys_calls(), (Lines{"shmdt(" + text(failure) + ")"}));
        EXPECT_EQ(trace_lines(), (Lines{"general 2 Error detaching to shared memory region for pid=[" + pid() + "]"}));
        EXPECT_EQ(global_shm_data_ptr, failure);
        EXPECT_EQ(global_db_shmid, owner.shmid);
        // No semaphore was looked up, so the usage helpers hand out nothing.
        EXPECT_EQ(admin_shm_reader_open(), nullptr);
        EXPECT_EQ(admin_shm_writer_open(), nullptr);
    });
}

TEST(UsageHelpers, ReaderAndWriterFollowThePattern) {
    in_child([&] {
        OwnedSegment owner;
        start_recording();
        const std::string p = pid();
        EXPECT_EQ(admin_shm_writer_open(), nullptr);  // a writer never attaches by itself
        EXPECT_EQ(trace_lines(), (Lines{"general 2 \n [" + p + " : admin_shm_writer_open] shm db data pointer is null.\n"}));
        EXPECT_TRUE(sys_calls().empty());

        char *view = static_cast<char *>(admin_shm_reader_open());
        ASSERT_NE(view, nullptr);
        EXPECT_EQ(view, static_cast<char *>(global_shm_data_ptr) + 16);
        EXPECT_EQ(owner.value(), 9998);
        EXPECT_EQ(trace_lines().size(), 7u);  // the mutex's three, the attach's two, the lock's two
        EXPECT_EQ(admin_shm_reader_close(), 0);
        forget();
        EXPECT_EQ(admin_shm_reader_open(), view);  // the slot is filled: only the lock
        EXPECT_EQ(sys_calls(), (Lines{semop_call(owner.semid, -1)}));
        EXPECT_EQ(admin_shm_reader_close(), 0);
        EXPECT_EQ(admin_shm_writer_open(), view);
        EXPECT_EQ(owner.value(), 0);
        EXPECT_EQ(admin_shm_writer_close(), 0);
        EXPECT_EQ(owner.value(), 9999);

        // After a detach the closes fail with their lines, and a reader open attaches again.
        ASSERT_EQ(admin_shm_detach(), 0);
        forget();
        EXPECT_EQ(admin_shm_reader_close(), -1);
        EXPECT_EQ(admin_shm_writer_close(), -1);
        const Lines lines = trace_lines();
        ASSERT_EQ(lines.size(), 4u);
        EXPECT_EQ(lines[1], "general 2 \n [" + p + " : admin_shm_reader_close] shm db read unlock failed.\n");
        EXPECT_EQ(lines[3], "general 2 \n [" + p + " : admin_shm_writer_close] shm db unlock failed.\n");
        EXPECT_NE(admin_shm_reader_open(), nullptr);
        EXPECT_EQ(owner.value(), 9998);
    });
    // No segment: the attach fails, the mutex is released with its line and no lock is tried. Under the
    // debug marker the general lines are echoed, each between two newlines; the detail lines are not.
    in_child([&] {
        fcadmin_owner::destroy();
        start_recording();
        write_file(FCADMIN_DEBUG_MARKER, "");
        fflush(stdout);
        const int saved = dup(1), fd = open("/tmp/echo", O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fd, 1);
        EXPECT_EQ(admin_shm_reader_open(), nullptr);
        fflush(stdout);
        dup2(saved, 1);
        unlink(FCADMIN_DEBUG_MARKER);
        const std::string p = pid();
        const std::string attach = "admin_shm_client_attach:Error while getting shared memory segment for pid=[" + p + "]";
        const std::string failed = "\n [" + p + " : admin_shm_reader_open] shm db attach failed.\n";
        EXPECT_EQ(read_file("/tmp/echo"), "\n" + attach + "\n\n" + failed + "\n");
        EXPECT_EQ(trace_lines(), (Lines{"detail 1 Trying shm db attach thread lock by tid=[" + self() + "] ",
                                        "detail 1 shm db attach thread lock taken by tid=[" + self() + "] ",
                                        "general 2 " + attach, "general 2 " + failed,
                                        "detail 1 shm db attach thread lock release by tid=[" + self() + "] "}));
        EXPECT_EQ(sys_calls(), (Lines{kShmget}));
        EXPECT_EQ(global_db_shmid, -1);
        EXPECT_EQ(global_shm_data_ptr, nullptr);
    });
}
