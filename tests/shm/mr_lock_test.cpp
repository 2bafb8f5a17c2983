// The thread reader/writer lock: results, mode readings and threads contending (also run under ThreadSanitizer).
#include "fcadmin.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

TEST(MrLock, ResultsModeReadingsAndThreadsContending) {
    pthread_rwlock_t lock;
    memset(static_cast<void *>(&lock), 0xA5, sizeof lock);  // stale bytes: cleared before the init
    ASSERT_EQ(mr_create(&lock), 0);
    // mr_lock writes for every mode but 1; mr_try_lock writes with the write bit, else (bar 1) holds nothing yet works.
    const struct { int try_lock, mode, reader, writer; } rows[] = {{0, 0, -1, -1}, {0, 2, -1, -1}, {0, 3, -1, -1},
        {0, 4, -1, -1}, {0, -1, -1, -1}, {1, 2, -1, -1}, {1, 3, -1, -1}, {1, 6, -1, -1}, {1, 0, 0, 0}, {1, 4, 0, 0},
        {1, 5, 0, 0}, {0, 1, 0, -1}, {1, 1, 0, -1}};
    for (int32_t got[3]; const auto &[try_lock, mode, reader, writer] : rows) {
        ASSERT_EQ(try_lock ? mr_try_lock(&lock, mode) : mr_lock(&lock, mode), 0) << mode;
        std::thread([&] { for (int m : {1, 2}) if ((got[m] = mr_try_lock(&lock, m)) == 0) mr_unlock(&lock); }).join();
        EXPECT_EQ(std::make_pair(got[1], got[2]), std::make_pair(reader, writer)) << try_lock << " " << mode;
        EXPECT_EQ(writer == 0 ? 0 : mr_unlock(&lock), 0);  // a lock that holds nothing is not unlocked
    }
    // Writers keep two plain fields equal, readers check them; every third round tries, with the write bit for writers.
    long a = 0, b = 0;
    std::atomic<int> torn{0}, failures{0};
    std::vector<std::thread> threads;
    for (int32_t mode : {2, 0, 3, 1, 1, 1, 1}) threads.emplace_back([&, mode] {
        for (int i = 0; i < 2000; ++i) {
            const int32_t got = i % 3 == 0 ? mr_try_lock(&lock, mode == 1 ? 1 : mode | 2) : mr_lock(&lock, mode);
            if (got != 0) { failures += i % 3 != 0; continue; }  // only a try may find the lock busy
            const long seen = a;
            std::this_thread::yield();
            torn += mode == 1 && b != seen;
            if (mode != 1) a = b = seen + 1;
            failures += mr_unlock(&lock) != 0;
        }
    });
    for (auto &t : threads) t.join();
    EXPECT_TRUE(torn == 0 && failures == 0 && a == b && a >= 3 * 1333 && !mr_delete(&lock)) << torn << failures;
}
