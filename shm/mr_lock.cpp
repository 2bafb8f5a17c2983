// The thread reader/writer lock: a thin wrapper over the POSIX lock with a mode argument and results of
// 0 or -1. It keeps no state of its own and traces nothing.
#include "fcadmin.h"

#include <pthread.h>

#include <cstring>

namespace {

constexpr int32_t kReadMode = 1;
constexpr int32_t kWriteBit = 2;

int32_t result_of(int error) { return error == 0 ? 0 : -1; }

}  // namespace

extern "C" {

// The storage is cleared in full first, so a lock created over stale bytes (a reused structure, a stack
// slot) starts from a clean object.
int32_t mr_create(pthread_rwlock_t *lock) {
    if (lock == nullptr) return -1;
    memset(static_cast<void *>(lock), 0, sizeof *lock);
    return result_of(pthread_rwlock_init(lock, nullptr));
}

int32_t mr_delete(pthread_rwlock_t *lock) {
    if (lock == nullptr) return -1;
    return result_of(pthread_rwlock_destroy(lock));
}

// Every mode other than read takes the write lock, unlike mr_try_lock; callers rely on both readings.
int32_t mr_lock(pthread_rwlock_t *lock, int32_t mode) {
    if (lock == nullptr) return -1;
    if (mode == kReadMode) return result_of(pthread_rwlock_rdlock(lock));
    return result_of(pthread_rwlock_wrlock(lock));
}

int32_t mr_unlock(pthread_rwlock_t *lock) {
    if (lock == nullptr) return -1;
    return result_of(pthread_rwlock_unlock(lock));
}

// A mode that is neither read nor has the write bit asks for nothing: the call holds no lock and still
// reports success, so the caller must not unlock after it.
int32_t mr_try_lock(pthread_rwlock_t *lock, int32_t mode) {
    if (lock == nullptr) return -1;
    if (mode == kReadMode) return result_of(pthread_rwlock_tryrdlock(lock));
    if ((mode & kWriteBit) != 0) return result_of(pthread_rwlock_trywrlock(lock));
    return 0;
}

}  // extern "C"
