// The thread reader/writer lock: results, the mode readings of mr_lock and mr_try_lock, and real
// threads contending (this program also runs under ThreadSanitizer).
#include "fcadmin.h"

#include <gtest/gtest.h>

#include <pthread.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

namespace {

// What another thread gets from mr_try_lock(lock, mode) at this moment; it lets go of what it got.
int32_t other_thread_tries(pthread_rwlock_t *lock, int32_t mode) {
    int32_t result = 0;
    std::thread t([&] {
        result = mr_try_lock(lock, mode);
        if (result == 0) mr_unlock(lock);
    });
    t.join();
    return result;
}

}  // namespace

TEST(MrLock, NullLockAndStaleStorage) {
    EXPECT_EQ(mr_create(nullptr), -1);
    EXPECT_EQ(mr_delete(nullptr), -1);
    EXPECT_EQ(mr_lock(nullptr, 1), -1);
    EXPECT_EQ(mr_unlock(nullptr), -1);
    EXPECT_EQ(mr_try_lock(nullptr, 2), -1);

    // The storage is cleared before the init, so stale bytes still give a usable lock.
    pthread_rwlock_t lock;
    memset(static_cast<void *>(&lock), 0xA5, sizeof lock);
    ASSERT_EQ(mr_create(&lock), 0);
    EXPECT_EQ(mr_lock(&lock, 2), 0);
    EXPECT_EQ(other_thread_tries(&lock, 1), -1);
    EXPECT_EQ(mr_unlock(&lock), 0);
    EXPECT_EQ(mr_delete(&lock), 0);
}

// mr_lock takes every mode but 1 for write; mr_try_lock tries the write lock only for modes with the
// write bit and holds nothing, reporting success, for the other modes but 1.
TEST(MrLock, ModeReadingsOfLockAndTryLock) {
    pthread_rwlock_t lock;
    ASSERT_EQ(mr_create(&lock), 0);
    for (int32_t mode : {0, 2, 3, 4, -1}) {
        SCOPED_TRACE(mode);
        ASSERT_EQ(mr_lock(&lock, mode), 0);
        EXPECT_EQ(other_thread_tries(&lock, 1), -1);
        EXPECT_EQ(mr_unlock(&lock), 0);
    }
    for (int32_t mode : {2, 3, 6}) {
        SCOPED_TRACE(mode);
        ASSERT_EQ(mr_try_lock(&lock, mode), 0);
        EXPECT_EQ(other_thread_tries(&lock, 1), -1);
        EXPECT_EQ(mr_unlock(&lock), 0);
    }
    for (int32_t mode : {0, 4, 5}) {
        SCOPED_TRACE(mode);
        EXPECT_EQ(mr_try_lock(&lock, mode), 0);
        EXPECT_EQ(other_thread_tries(&lock, 2), 0);  // still free
    }
    // Mode 1 shares: a second reader gets in, a writer does not, not even by trying.
    ASSERT_EQ(mr_lock(&lock, 1), 0);
    EXPECT_EQ(other_thread_tries(&lock, 1), 0);
    EXPECT_EQ(other_thread_tries(&lock, 2), -1);
    EXPECT_EQ(mr_unlock(&lock), 0);
    EXPECT_EQ(mr_delete(&lock), 0);
}

// Writers keep two plain fields equal under the lock and readers check them; the fields are ordinary
// memory, so a lock that failed to exclude would show as a torn pair here and as a race to TSan.
TEST(MrLock, ThreadsContendingKeepTheDataConsistent) {
    pthread_rwlock_t lock;
    ASSERT_EQ(mr_create(&lock), 0);
    long a = 0, b = 0;
    std::atomic<int> torn{0}, failures{0};
    constexpr int kRounds = 2000;
    auto work = [&](int32_t mode) {
        for (int i = 0; i < kRounds; ++i) {
            const bool tried = i % 3 == 0;  // mr_try_lock needs the write bit; mode 0 would hold nothing there
            if ((tried ? mr_try_lock(&lock, mode == 1 ? 1 : mode | 2) : mr_lock(&lock, mode)) != 0) {
                failures += !tried;  // only a try may find the lock busy
                continue;
            }
            const long seen = a;
            std::this_thread::yield();
            if (mode == 1) {
                torn += b != seen;
            } else {
                a = seen + 1;
                std::this_thread::yield();
                b = seen + 1;
            }
            failures += mr_unlock(&lock) != 0;
        }
    };
    std::vector<std::thread> threads;
    for (int32_t mode : {2, 0, 3, 1, 1, 1, 1}) threads.emplace_back(work, mode);
    for (auto &t : threads) t.join();
    EXPECT_EQ(torn.load(), 0);
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(a, b);
    EXPECT_GE(a, 3 * kRounds * 2 / 3);  // every blocking round wrote
    EXPECT_EQ(mr_delete(&lock), 0);
}
