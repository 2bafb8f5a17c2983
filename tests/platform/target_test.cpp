// What the library takes from the processor and kernel it runs on: the kernel thread id through the raw
// system call, the byte order and word size of the record layout, and programs started from a test
// (helpers, the tool) running on the same target, emulated or not.
#include "fcadmin.h"
#include "tests/support/helpers.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

using fcadmin_test::run_program;
using fcadmin_test::self_exe;
using fcadmin_test::under_emulation;

constexpr bool kPowerPc32 =
#if defined(__powerpc__) && !defined(__powerpc64__)
    true;
#else
    false;
#endif

long raw_gettid() { return syscall(SYS_gettid); }

// The kernel's own view of the calling thread: /proc/thread-self is "<pid>/task/<tid>".
long kernel_tid() {
    char link[PATH_MAX] = {};
    ssize_t n = readlink("/proc/thread-self", link, sizeof link - 1);
    if (n <= 0) return -1;
    const char *slash = strrchr(link, '/');
    return slash == nullptr ? -1 : strtol(slash + 1, nullptr, 10);
}

}  // namespace

// Prints what the started program sees of itself, so the test can compare it with its own view.
FCADMIN_TEST_HELPER(describe_target) {
    printf("endian=%d pointer=%zu gettid=%ld tid=%ld pid=%ld\n", endian_check(), sizeof(void *),
           static_cast<long>(SYS_gettid), raw_gettid(), static_cast<long>(getpid()));
    return 0;
}

TEST(Target, KernelThreadIdThroughTheRawSystemCall) {
    if (kPowerPc32) {
        EXPECT_EQ(SYS_gettid, 207);
    }
    // The main thread's id is the process id; another thread has an id of its own, and both are the
    // ids the kernel shows for them.
    EXPECT_EQ(raw_gettid(), static_cast<long>(getpid()));
    EXPECT_EQ(raw_gettid(), kernel_tid());
    struct Ids {
        long raw = 0;
        long kernel = 0;
    } ids;
    pthread_t thread;
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void *arg) -> void * {
                      auto *out = static_cast<Ids *>(arg);
                      out->raw = raw_gettid();
                      out->kernel = kernel_tid();
                      return nullptr;
                  },
                  &ids),
              0);
    pthread_join(thread, nullptr);
    EXPECT_NE(ids.raw, static_cast<long>(getpid()));
    EXPECT_GT(ids.raw, 0);
    EXPECT_EQ(ids.raw, ids.kernel);
}

TEST(Target, ByteOrderAndWordSizeOfTheBuild) {
    const uint32_t word = 0x01020304u;
    unsigned char bytes[4];
    memcpy(bytes, &word, sizeof bytes);
    const bool big_endian = bytes[0] == 0x01;
    EXPECT_EQ(endian_check(), big_endian ? 2 : 1);
    EXPECT_EQ(big_endian, bytes[3] == 0x04);
    if (kPowerPc32) {
        EXPECT_TRUE(big_endian);
        EXPECT_EQ(sizeof(void *), 4u);
        EXPECT_EQ(sizeof(TransferRequest), 1924u);
    }
    // An emulated run that is not a PowerPC build would mean the suite runs on the wrong target.
    if (under_emulation()) {
        EXPECT_TRUE(kPowerPc32) << "FCADMIN_UNDER_EMULATION=1 in a build for another processor";
    }
}

TEST(Target, StartedProgramsRunOnTheSameTarget) {
    // The test binary started again (as the library's fork/exec paths do with helpers) and the tool
    // both have to run; under emulation that is the sandbox's binfmt handler at work.
    std::string out;
    int status = run_program({self_exe()}, &out, {"FCADMIN_TEST_HELPER=describe_target"});
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status << ": " << out;
    char expected[128];
    snprintf(expected, sizeof expected, "endian=%d pointer=%zu gettid=%ld tid=", endian_check(),
             sizeof(void *), static_cast<long>(SYS_gettid));
    EXPECT_EQ(out.rfind(expected, 0), 0u) << out;
    // A program of its own: its thread id is its process id, and not ours.
    long tid = 0, pid = 0;
    ASSERT_EQ(sscanf(out.c_str() + strlen(expected), "%ld pid=%ld", &tid, &pid), 2) << out;
    EXPECT_EQ(tid, pid);
    EXPECT_NE(pid, static_cast<long>(getpid()));

    const char *tool = getenv("FCADMIN_TOOL");
    ASSERT_NE(tool, nullptr);
    std::string help;
    status = run_program({tool, "--help"}, &help);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    EXPECT_NE(help.find("usage: fcadmin COMMAND [ARGS...]\n"), std::string::npos) << help;
}
