// The file copy killed at random moments: a reader never finds a partial destination.
//
// FCADMIN_COPY_CRASH_KILLS sets the number of kills (default 300), FCADMIN_COPY_CRASH_SEED the random
// seed, FCADMIN_COPY_CRASH_DIR the directory to work in (default a fresh one under /tmp).
#include "fcadmin.h"
#include "tests/support/helpers.h"

#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>

using namespace fcadmin_test;

namespace {

unsigned long env_number(const char *name, unsigned long fallback) {
    const char *text = getenv(name);
    char *end = nullptr;
    const unsigned long value = text != nullptr && *text != '\0' ? strtoul(text, &end, 10) : fallback;
    return end == nullptr || *end == '\0' ? value : fallback;
}

// Two contents of different sizes, each recognisable as a whole: a truncated, a mixed or an empty
// file matches neither.
std::string content(char fill, size_t size) {
    std::string s(size, fill);
    s.front() = '<';
    s.back() = '>';
    return s;
}

TEST(FileCopyCrash, AKilledCopyLeavesOneWholeContent) {
    const unsigned long kills = env_number("FCADMIN_COPY_CRASH_KILLS", 300);
    const unsigned long seed = env_number("FCADMIN_COPY_CRASH_SEED", std::random_device{}());
    // A directory on a disk makes every fsync real; the default, under /tmp, is a memory file system.
    const char *base = getenv("FCADMIN_COPY_CRASH_DIR");
    std::string dir = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/copy_crash.XXXXXX";
    ASSERT_NE(mkdtemp(dir.data()), nullptr) << dir;

    const std::string big = content('a', 256 * 1024 + 3), small = content('b', 4096 - 7);
    const std::string a = dir + "/a", b = dir + "/b", dst = dir + "/dst";
    write_file(a, big);
    write_file(b, small);
    write_file(dst, big);

    std::mt19937 random(static_cast<std::mt19937::result_type>(seed));
    // Up to a few whole copy cycles: kills fall at every step of a copy, and between copies.
    std::uniform_int_distribution<long> delay_ns(0, 2'000'000);
    unsigned long partial = 0, was_big = 0, was_small = 0, temporary_left = 0, partial_while_running = 0;
    for (unsigned long kill_count = 0; kill_count < kills; ++kill_count) {
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        fflush(nullptr);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            // Replaces the destination alternately with the two sources for ever, and reports once the
            // first round is done, so that kills land in the loop, not in the start-up.
            close(ready[0]);
            for (bool sent = false;;) {
                if (admin_file_copy(a.c_str(), dst.c_str()) != 0 || admin_file_copy(b.c_str(), dst.c_str()) != 0)
                    _exit(3);
                const char byte = 1;
                if (!sent) sent = write(ready[1], &byte, 1) == 1;
            }
        }
        close(ready[1]);
        char byte = 0;
        const ssize_t got = read(ready[0], &byte, 1);
        close(ready[0]);
        int status = 0;
        if (got != 1) {
            waitpid(child, &status, 0);
            FAIL() << "the copying child ended before its first copy, status " << status;
        }

        // A reader that looks while the copies run sees whole contents too.
        const std::string seen = read_file(dst);
        partial_while_running += seen != big && seen != small;

        const timespec pause{0, delay_ns(random)};
        nanosleep(&pause, nullptr);
        ASSERT_EQ(kill(child, SIGKILL), 0);
        while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
            << "the child ended on its own (status " << status << "): a copy failed";

        const std::string after = read_file(dst);
        was_big += after == big;
        was_small += after == small;
        partial += after != big && after != small;
        temporary_left += file_exists(dst + ".tmp");
    }

    printf("kills %lu (seed %lu): destination whole %lu times (large %lu, small %lu), partial %lu; "
           "partial while running %lu; temporary file left by %lu kills\n",
           kills, seed, was_big + was_small, was_big, was_small, partial, partial_while_running, temporary_left);
    EXPECT_EQ(partial, 0u);
    EXPECT_EQ(partial_while_running, 0u);
    // Kills that always fell at one moment would prove little.
    if (kills >= 100) {
        EXPECT_GT(was_big, 0u);
        EXPECT_GT(was_small, 0u);
    }
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
}

}  // namespace
