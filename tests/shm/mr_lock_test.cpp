// The thread reader/writer lock: results, the mode readings of mr_lock and mr_try_lock, and real threads
// contending (this program also runs under ThreadSanitizer).
#include "fcadmin.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

namespace {

// What another thread gets from mr_try_lock(lock, mode) now; it lets go of what it got.
int32_t other_thread_tries(pthread_rwlock_t *lock, int32_t mode) {
    int32_t result = 0;
    std::thread([&] {
        result = mr_try_lock(lock, mode);
        if (result == 0) mr_unlock(lock);
    }).join();
    return result;
}

TEST(MrLock, ResultsAndTheModeReadingsOfLockAndTryLock) {
    EXPECT_EQ(mr_create(nullptr) + mr_delete(nullptr) + mr_lock(nullptr, 1) + mr_unlock(nullptr) +
                  mr_try_lock(nullptr, 2),
              -5);
    // The storage is cleared before the init, so stale bytes still give a usable lock.
    pthread_rwlock_t lock;
    memset(static_cast<void *>(&lock), 0xA5, sizeof lock);
    ASSERT_EQ(mr_create(&lock), 0);
    // mr_lock takes every mode but 1 for write; mr_try_lock tries the write lock for modes with the write
    // bit, and for the others but 1 holds nothing and reports success.
    const struct {
        bool try_lock;
        int32_t mode;
        int32_t reader, writer;  // what other threads get meanwhile
    } rows[] = {{false, 0, -1, -1}, {false, 2, -1, -1}, {false, 3, -1, -1}, {false, 4, -1, -1}, {false, -1, -1, -1},
                {true, 2, -1, -1},  {true, 3, -1, -1},  {true, 6, -1, -1},  {true, 0, 0, 0},     {true, 4, 0, 0},
                {true, 5, 0, 0},    {false, 1, 0, -1},  {true, 1, 0, -1}};
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.try_lock ? "try " : "lock ") + std::to_string(row.mode));
        ASSERT_EQ(row.try_lock ? mr_try_lock(&lock, row.mode) : mr_lock(&lock, row.mode), 0);
        EXPECT_EQ(other_thread_tries(&lock, 1), row.reader);
        EXPECT_EQ(other_thread_tries(&lock, 2), row.writer);
        EXPECT_EQ(row.writer == 0 ? 0 : mr_unlock(&lock), 0);  // a lock that holds nothing is not unlocked
    }
    EXPECT_EQ(mr_delete(&lock), 0);
}

// Writers keep two plain fields equal under the lock and readers check them: a lock that failed to
// exclude shows as a torn pair here and as a race to ThreadSanitizer.
TEST(MrLock, ThreadsContendingKeepTheDataConsistent) {
    pthread_rwlock_t lock;
    ASSERT_EQ(mr_create(&lock), 0);
    long a = 0, b = 0;
    std::atomic<int> torn{0}, failures{0};
    constexpr int kRounds = 2000;
    auto work = [&](int32_t mode) {
        for (int i = 0; i < kRounds; ++i) {
            const bool tried = i % 3 == 0;  // a try needs the write bit: mode 0 would hold nothing there
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
    EXPECT_EQ(torn.load() + failures.load(), 0);
    EXPECT_EQ(a, b);
    EXPECT_GE(a, 3 * kRounds * 2 / 3);  // every blocking round wrote
    EXPECT_EQ(mr_delete(&lock), 0);
}

}  // namespace
