// The file copy killed at random moments: a reader never finds a partial destination.
// FCADMIN_COPY_CRASH_KILLS sets the number of kills (default 300); a directory on a disk, given as
// FCADMIN_COPY_CRASH_DIR, makes every fsync real (the default, under /tmp, is a memory file system).
#include "fcadmin.h"
#include "tests/support/helpers.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>

using namespace fcadmin_test;

namespace {

// Two contents of different sizes, each recognisable as a whole.
std::string content(char fill, size_t size) { return "<" + std::string(size - 2, fill) + ">"; }

TEST(FileCopyCrash, AKilledCopyLeavesOneWholeContent) {
    const char *kills_text = getenv("FCADMIN_COPY_CRASH_KILLS"), *base = getenv("FCADMIN_COPY_CRASH_DIR");
    const unsigned long kills = kills_text != nullptr ? strtoul(kills_text, nullptr, 10) : 300;
    std::string dir = std::string(base != nullptr ? base : "/tmp") + "/copy_crash.XXXXXX";
    ASSERT_NE(mkdtemp(dir.data()), nullptr) << dir;
    const std::string big = content('a', 256 * 1024 + 3), small = content('b', 4096 - 7);
    const std::string a = dir + "/a", b = dir + "/b", dst = dir + "/dst";
    write_file(a, big);
    write_file(b, small);
    write_file(dst, big);

    std::mt19937 random(std::random_device{}());
    std::uniform_int_distribution<long> delay_ns(0, 2'000'000);  // up to a few copies: kills fall everywhere
    unsigned long was_big = 0, was_small = 0, partial = 0;
    for (unsigned long n = 0; n < kills; ++n) {
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        const pid_t child = fork();
        if (child == 0) {
            // Replaces the destination alternately with the two sources for ever, and reports once the
            // first round is done, so that kills land in the loop, not in the start-up.
            for (bool sent = false;;) {
                if (admin_file_copy(a.c_str(), dst.c_str()) != 0 || admin_file_copy(b.c_str(), dst.c_str()) != 0) _exit(3);
                sent = sent || write(ready[1], "x", 1) == 1;
            }
        }
        close(ready[1]);
        char byte = 0;
        const bool started = read(ready[0], &byte, 1) == 1;
        close(ready[0]);
        const std::string seen = read_file(dst);  // a reader that looks while the copies run
        partial += seen != big && seen != small;
        const timespec pause{0, delay_ns(random)};
        nanosleep(&pause, nullptr);
        kill(child, SIGKILL);
        int status = 0;
        waitpid(child, &status, 0);
        ASSERT_TRUE(started && WIFSIGNALED(status)) << "the copying child ended on its own: a copy failed";
        const std::string after = read_file(dst);
        was_big += after == big;
        was_small += after == small;
        partial += after != big && after != small;
    }
    printf("%lu kills: destination whole %lu times (large %lu, small %lu), partial %lu\n", kills,
           was_big + was_small, was_big, was_small, partial);
    EXPECT_EQ(partial, 0u);
    EXPECT_TRUE(kills < 100 || (was_big > 0 && was_small > 0)) << "kills that always fell at one moment prove little";
}

}  // namespace
