// The file copy killed at random moments: a reader never finds a partial destination. FCADMIN_COPY_CRASH_KILLS
// sets the number of kills (300); a directory on a disk as FCADMIN_COPY_CRASH_DIR makes every fsync real.
#include "fcadmin.h"
#include "tests/support/helpers.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

using fcadmin_test::read_file, fcadmin_test::write_file;

TEST(FileCopyCrash, AKilledCopyLeavesOneWholeContent) {
    const char *kills_text = getenv("FCADMIN_COPY_CRASH_KILLS"), *base = getenv("FCADMIN_COPY_CRASH_DIR");
    const unsigned long kills = kills_text != nullptr ? strtoul(kills_text, nullptr, 10) : 300;
    std::string dir = std::string(base != nullptr ? base : "/tmp") + "/copy_crash.XXXXXX";
    ASSERT_NE(mkdtemp(dir.data()), nullptr) << dir;
    const std::string big(256 * 1024, 'a'), small(4000, 'b'), a = dir + "/a", b = dir + "/b", dst = dir + "/dst";
    for (const auto &[path, content] : {std::pair{a, big}, {b, small}, {dst, big}}) write_file(path, content);
    auto kind = [&](const std::string &content) { return content == big ? 0 : content == small ? 1 : 2; };
    unsigned long found[3] = {};  // after a kill, the destination was the large content, the small one, neither
    int ready[2], status = 0;  // status also takes the child's one byte of news
    for (unsigned long n = 0; n < kills; ++n) {
        // The child copies a and b over dst in turn for ever, reporting after its first round: kills land in the loop.
        ASSERT_EQ(pipe(ready), 0);
        const pid_t child = fork();
        if (child == 0)
            for (bool sent = false;; sent = sent || write(ready[1], "x", 1) == 1)
                if (admin_file_copy(a.c_str(), dst.c_str()) != 0 || admin_file_copy(b.c_str(), dst.c_str()) != 0) _exit(3);
        const bool started = close(ready[1]) == 0 && read(ready[0], &status, 1) == 1 && close(ready[0]) == 0;
        found[2] += kind(read_file(dst)) == 2;  // a reader that looks while the copies run
        usleep(static_cast<useconds_t>(rand() % 2001));  // up to a few copies
        ASSERT_TRUE(kill(child, SIGKILL) == 0 && waitpid(child, &status, 0) == child && started && WIFSIGNALED(status))
            << "the copying child ended on its own: a copy failed";
        ++found[kind(read_file(dst))];
    }
    printf("%lu kills: destination large %lu times, small %lu, partial %lu\n", kills, found[0], found[1], found[2]);
    EXPECT_EQ(found[2], 0u);
    EXPECT_TRUE(kills < 100 || (found[0] > 0 && found[1] > 0)) << "kills that always fell at one moment prove little";
}
