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

// Runs fn on another thread and returns its result.
template <typename F>
int32_t on_other_thread(F fn) {
    int32_t result = 0;
    std::thread t([&] { result = fn(); });
    t.join();
    return result;
}

}  // namespace

TEST(MrLock, NullLockFailsEverywhere) {
    EXPECT_EQ(mr_create(nullptr), -1);
    EXPECT_EQ(mr_delete(nullptr), -1);
    EXPECT_EQ(mr_lock(nullptr, 1), -1);
    EXPECT_EQ(mr_lock(nullptr, 2), -1);
    EXPECT_EQ(mr_unlock(nullptr), -1);
    EXPECT_EQ(mr_try_lock(nullptr, 1), -1);
    EXPECT_EQ(mr_try_lock(nullptr, 2), -1);
}

TEST(MrLock, CreateOverStaleBytesGivesAUsableLock) {
    pthread_rwlock_t lock;
    memset(static_cast<void *>(&lock), 0xA5, sizeof lock);
    ASSERT_EQ(mr_create(&lock), 0);
    EXPECT_EQ(mr_lock(&lock, 2), 0);
    EXPECT_EQ(on_other_thread([&] { return mr_try_lock(&lock, 1); }), -1);
    EXPECT_EQ(mr_unlock(&lock), 0);
    EXPECT_EQ(mr_try_lock(&lock, 1), 0);
    EXPECT_EQ(mr_unlock(&lock), 0);
    EXPECT_EQ(mr_delete(&lock), 0);
}

TEST(MrLock, EveryModeButReadLocksForWriting) {
    pthread_rwlock_t lock;
    ASSERT_EQ(mr_create(&lock), 0);
    for (int32_t mode : {0, 2, 3, 4, -1}) {
        SCOPED_TRACE(mode);
        ASSERT_EQ(mr_lock(&lock, mode), 0);
        EXPECT_EQ(on_other_thread([&] { return mr_try_lock(&lock, 1); }), -1);
        EXPECT_EQ(mr_unlock(&lock), 0);
    }
    // Mode 1 shares: a second reader gets in, a writer does not.
    ASSERT_EQ(mr_lock(&lock, 1), 0);
    EXPECT_EQ(on_other_thread([&] {
                  const int32_t r = mr_try_lock(&lock, 1);
                  if (r == 0) mr_unlock(&lock);
                  return r;
              }),
              0);
    EXPECT_EQ(on_other_thread([&] { return mr_try_lock(&lock, 2); }), -1);
    EXPECT_EQ(mr_unlock(&lock), 0);
    EXPECT_EQ(mr_delete(&lock), 0);
}

TEST(MrLock, TryLockWithoutTheWriteBitHoldsNothing) {
    pthread_rwlock_t lock;
    ASSERT_EQ(mr_create(&lock), 0);
    for (int32_t mode : {0, 4, 5, 8}) {
        SCOPED_TRACE(mode);
        EXPECT_EQ(mr_try_lock(&lock, mode), 0);
        // Still free: another thread takes the write lock at once.
        EXPECT_EQ(on_other_thread([&] {
                      const int32_t r = mr_try_lock(&lock, 2);
                      if (r == 0) mr_unlock(&lock);
                      return r;
                  }),
                  0);
    }
    for (int32_t mode : {2, 3, 6}) {
        SCOPED_TRACE(mode);
        ASSERT_EQ(mr_try_lock(&lock, mode), 0);
        EXPECT_EQ(on_other_thread([&] { return mr_try_lock(&lock, 1); }), -1);
        EXPECT_EQ(mr_try_lock(&lock, 2), -1);  // busy, even for the holder
        EXPECT_EQ(mr_unlock(&lock), 0);
    }
    EXPECT_EQ(mr_delete(&lock), 0);
}

// Writers keep two plain fields equal under the lock and readers check them; the fields are ordinary
// memory, so a lock that failed to exclude would show as a torn pair here and as a race to TSan.
TEST(MrLock, ThreadsContendingKeepTheDataConsistent) {
    pthread_rwlock_t lock;
    ASSERT_EQ(mr_create(&lock), 0);
    struct {
        long a = 0;
        long b = 0;
    } shared;
    std::atomic<int> torn{0};
    std::atomic<int> failures{0};
    std::atomic<long> reads{0};
    constexpr int kWriters = 3;
    constexpr int kReaders = 4;
    constexpr int kRounds = 2000;
    const int32_t writer_modes[kWriters] = {2, 0, 3};

    std::vector<std::thread> threads;
    for (int w = 0; w < kWriters; ++w) {
        threads.emplace_back([&, mode = writer_modes[w]] {
            for (int i = 0; i < kRounds; ++i) {
                const bool tried = i % 3 == 0;
                // mr_try_lock needs the write bit in its mode; mode 0 would hold nothing there.
                int32_t r = tried ? mr_try_lock(&lock, mode | 2) : mr_lock(&lock, mode);
                if (tried && r != 0) continue;  // busy
                if (r != 0) {
                    ++failures;
                    continue;
                }
                ++shared.a;
                std::this_thread::yield();
                ++shared.b;
                if (mr_unlock(&lock) != 0) ++failures;
            }
        });
    }
    for (int rd = 0; rd < kReaders; ++rd) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                const bool tried = i % 2 == 0;
                int32_t r = tried ? mr_try_lock(&lock, 1) : mr_lock(&lock, 1);
                if (tried && r != 0) continue;
                if (r != 0) {
                    ++failures;
                    continue;
                }
                const long a = shared.a;
                std::this_thread::yield();
                if (shared.b != a) ++torn;
                ++reads;
                if (mr_unlock(&lock) != 0) ++failures;
            }
        });
    }
    for (auto &t : threads) t.join();
    EXPECT_EQ(torn.load(), 0);
    EXPECT_EQ(failures.load(), 0);
    EXPECT_GT(reads.load(), 0);
    EXPECT_EQ(shared.a, shared.b);
    EXPECT_GE(shared.a, kWriters * kRounds * 2 / 3);  // every blocking round wrote
    EXPECT_EQ(mr_delete(&lock), 0);
}
