// Client side of the shared segment: attach and detach, and the cross-process reader/writer lock built on
// semaphore 0 of the owner's set.
#include "fcadmin.h"
#include "shm/trace.h"

#include <pthread.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

using fcadmin::TraceChannel;
using fcadmin::trace_general_echo;
using fcadmin::trace_line;

constexpr key_t kSegmentKey = FCADMIN_SHM_KEY;
constexpr key_t kSemaphoreKey = FCADMIN_SEM_KEY;
constexpr int kSemaphorePermissions = 0660;
constexpr int32_t kFullSemaphoreValue = 9999;
constexpr int32_t kLockFailed = -25;
constexpr int kAttempts = 3;
constexpr useconds_t kRetryPause = 1;

constexpr int32_t kReadLockDelta = -1;
constexpr int32_t kReadUnlockDelta = 1;
constexpr int32_t kWriteLockDelta = -kFullSemaphoreValue;
constexpr int32_t kWriteUnlockDelta = kFullSemaphoreValue;

// Source-line markers printed in the failure line of each lock call. Operators match on them, so they
// are fixed numbers, not __LINE__.
constexpr int kWriteLockMarker = 189;
constexpr int kWriteUnlockMarker = 210;
constexpr int kReadLockMarker = 233;
constexpr int kReadUnlockMarker = 254;

void *const kShmatFailed = reinterpret_cast<void *>(-1);

// semctl reads its fourth argument as this union; on the 32-bit PowerPC ABI a union is passed
// differently from an int, so a bare int would hand the kernel garbage there.
union semun {
    int val;
    struct semid_ds *buf;
    unsigned short *array;
};

// The calling thread's kernel id, asked of the kernel once per thread: a system call on every line cost
// as much as the lock's own semop. A forked child's thread has an id of its own, so the fork handler
// forgets the id there. (A child made without the C library's fork handlers, by _Fork or a raw clone,
// would keep the parent's id; such a child may not call into the library before exec anyway.)
thread_local long cached_thread_id = 0;

void forget_thread_id() { cached_thread_id = 0; }

// The kernel's thread id, not pthread_self(): it is what the platform's tools show for a thread.
long thread_id() {
    static const int forget_in_children = pthread_atfork(nullptr, nullptr, forget_thread_id);
    (void)forget_in_children;
    if (cached_thread_id == 0) cached_thread_id = syscall(SYS_gettid);
    return cached_thread_id;
}

const char *operation_name(int32_t delta) {
    switch (delta) {
    case kReadLockDelta: return "Read_Lock";
    case kReadUnlockDelta: return "Read_Unlock";
    case kWriteLockDelta: return "Write_Lock";
    default: return "Write_Unlock";  // every other delta, +9999 and mistakes alike
    }
}

// An id of 0 is what the globals hold before an attach and after a detach; to the lock calls it means
// that there is no semaphore to use, and they fail without a system call.
bool semaphore_known(const char *function, bool write_lock_wording) {
    if (global_db_semid != 0) return true;
    if (write_lock_wording)
        trace_line(TraceChannel::detail, "[%s] semaphore not initiated for pid=[%d]", function, getpid());
    else
        trace_line(TraceChannel::detail, "[%s] semaphore not initiated pid=[%d]", function, getpid());
    return false;
}

int32_t lock_call_failed(const char *function, int marker) {
    trace_line(TraceChannel::detail, "[%s:%d]:failed pid=[%d]", function, marker, getpid());
    return kLockFailed;
}

}  // namespace

extern "C" {

int32_t global_db_shmid = 0;
int32_t global_db_semid = 0;
void *global_shm_data_ptr = nullptr;

// Any non-null pointer counts as attached, the failure value of an earlier shmat included: such a
// process is never retried and its detach fails. Callers rely on that; keep it.
int32_t admin_shm_client_attach(void) {
    admin_trace_init();
    if (global_shm_data_ptr != nullptr) return 0;

    global_db_shmid = shmget(kSegmentKey, 0, 0);
    if (global_db_shmid == -1) {
        trace_general_echo("%s:Error while getting shared memory segment for pid=[%d]", __func__, getpid());
        return -1;
    }
    trace_general_echo("shmget [%d] success for tid [%ld]", global_db_shmid, thread_id());

    global_shm_data_ptr = shmat(global_db_shmid, nullptr, SHM_RDONLY);
    if (global_shm_data_ptr == kShmatFailed) {
        trace_general_echo("Error attaching to shared memory segment for pid=[%d].", getpid());
        return -1;
    }
    trace_general_echo("shmat [%p] success for tid [%ld]", global_shm_data_ptr, thread_id());

    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        global_db_semid = semget(kSemaphoreKey, 0, kSemaphorePermissions);
        if (global_db_semid >= 0) break;
        usleep(kRetryPause);
    }
    // A set id of 0 is refused too: the lock calls could not tell it from "not initiated".
    if (global_db_semid < 1) {
        trace_general_echo("Error while getting semaphore for pid=[%d].", getpid());
        return -1;
    }
    return 0;
}

int32_t admin_shm_detach(void) {
    admin_trace_init();
    if (global_shm_data_ptr == nullptr) return 0;
    if (shmdt(global_shm_data_ptr) != 0) {
        trace_general_echo("Error detaching to shared memory region for pid=[%d]", getpid());
        return -1;
    }
    trace_general_echo("shmdt success for pid=[%d]", getpid());
    global_shm_data_ptr = nullptr;
    global_db_shmid = 0;
    global_db_semid = 0;
    return 0;
}

// Every attempt blocks (no IPC_NOWAIT); a failed one is an interruption or a vanished set, retried
// after a pause without looking at errno. An attempt that succeeds on the third try is reported as a
// failure although the kernel applied it: callers rely on that; keep it.
int32_t admin_semop(int32_t delta) {
    admin_trace_init();
    struct sembuf operation = {};
    operation.sem_num = 0;
    operation.sem_op = static_cast<short>(delta);
    operation.sem_flg = SEM_UNDO;
    for (int attempt = 1; attempt <= kAttempts; ++attempt) {
        if (semop(global_db_semid, &operation, 1) == 0) {
            if (attempt < kAttempts) return 0;
            break;
        }
        usleep(kRetryPause);
    }
    trace_line(TraceChannel::detail, "ERROR in semop [%s]", operation_name(delta));
    return -1;
}

// Works on whatever id the attach stored, found or not; a bad id shows as a failed semctl.
int32_t admin_sem_init(void) {
    admin_trace_init();
    union semun argument = {};
    argument.val = kFullSemaphoreValue;
    const int result = semctl(global_db_semid, 0, SETVAL, argument);
    trace_general_echo("[%s] semaphore init %s pid=[%d]", __func__, result < 0 ? "failed" : "succeeded",
                       getpid());
    return result < 0 ? kLockFailed : 0;
}

int32_t admin_shm_db_write_lock(void) {
    admin_trace_init();
    if (!semaphore_known(__func__, true)) return kLockFailed;
    trace_line(TraceChannel::detail, "Trying wr lock by tid=[%ld]", thread_id());
    if (admin_semop(kWriteLockDelta) != 0) return lock_call_failed(__func__, kWriteLockMarker);
    trace_line(TraceChannel::detail, "db wr lock taken by tid=[%ld]", thread_id());
    return 0;
}

// No check that a write lock is held: an unmatched unlock raises the value past 9999 and from then on
// writers no longer exclude each other.
int32_t admin_shm_db_write_unlock(void) {
    admin_trace_init();
    if (!semaphore_known(__func__, false)) return kLockFailed;
    if (admin_semop(kWriteUnlockDelta) != 0) return lock_call_failed(__func__, kWriteUnlockMarker);
    trace_line(TraceChannel::detail, "db wr lock rel by tid=[%ld]", thread_id());
    return 0;
}

int32_t admin_shm_db_read_lock(void) {
    admin_trace_init();
    if (!semaphore_known(__func__, false)) return kLockFailed;
    trace_line(TraceChannel::detail, "Trying rd lock by tid=[%ld]", thread_id());
    if (admin_semop(kReadLockDelta) != 0) return lock_call_failed(__func__, kReadLockMarker);
    trace_line(TraceChannel::detail, "db rd lock taken by reader tid=[%ld]", thread_id());
    return 0;
}

int32_t admin_shm_db_read_unlock(void) {
    admin_trace_init();
    if (!semaphore_known(__func__, false)) return kLockFailed;
    if (admin_semop(kReadUnlockDelta) != 0) return lock_call_failed(__func__, kReadUnlockMarker);
    trace_line(TraceChannel::detail, "db rd lock rel by reader tid=[%ld]", thread_id());
    return 0;
}

}  // extern "C"
