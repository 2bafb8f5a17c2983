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

// What each target of the test matrix reports (see describe()); null on any other. The emulated targets
// are the big-endian ones.
struct KnownTarget {
    const char *description;
    bool emulated;
};
constexpr KnownTarget kTarget =
#if defined(__powerpc__) && !defined(__powerpc64__)
    {"endian=2 pointer=4 gettid=207 record=1924", true};
#elif defined(__s390x__)
    {"endian=2 pointer=8 gettid=236 record=1928", true};
#elif defined(__i386__)
    {"endian=1 pointer=4 gettid=224 record=1924", false};
#elif defined(__x86_64__)
    {"endian=1 pointer=8 gettid=186 record=1928", false};
#else
    {nullptr, false};
#endif

// "<raw gettid> <the kernel's own view of the calling thread>": /proc/thread-self is "<pid>/task/<tid>".
std::string thread_ids() {
    char link[PATH_MAX] = {};
    const ssize_t n = readlink("/proc/thread-self", link, sizeof link - 1);
    const char *slash = n > 0 ? strrchr(link, '/') : nullptr;
    return std::to_string(syscall(SYS_gettid)) + " " + (slash != nullptr ? slash + 1 : "?");
}

// What a program sees of its target, for the test to compare with a started program's view.
std::string describe() {
    char text[128];
    snprintf(text, sizeof text, "endian=%d pointer=%zu gettid=%ld record=%zu", endian_check(), sizeof(void *),
             static_cast<long>(SYS_gettid), sizeof(TransferRequest));
    return text;
}

}  // namespace

FCADMIN_TEST_HELPER(describe_target) {
    printf("%s ids=%s pid=%ld\n", describe().c_str(), thread_ids().c_str(), static_cast<long>(getpid()));
    return 0;
}

TEST(Target, ThreadIdByteOrderAndRecordSize) {
    // The main thread's id is the process id; another thread has an id of its own, and both are the
    // ids the kernel shows for them.
    const std::string pid = std::to_string(getpid());
    EXPECT_EQ(thread_ids(), pid + " " + pid);
    std::string other;
    pthread_t thread;
    auto body = [](void *out) -> void * {
        *static_cast<std::string *>(out) = thread_ids();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, body, &other), 0);
    pthread_join(thread, nullptr);
    const std::string tid = other.substr(0, other.find(' '));
    EXPECT_EQ(other, tid + " " + tid);
    EXPECT_NE(tid, pid);

    const uint32_t word = 0x01020304u;
    EXPECT_EQ(endian_check(), *reinterpret_cast<const unsigned char *>(&word) == 0x01 ? 2 : 1);
    if (kTarget.description != nullptr) {
        EXPECT_EQ(describe(), kTarget.description);
    }
    // An emulated run of a build for the machine's own kind would mean the suite runs on the wrong target.
    EXPECT_TRUE(kTarget.emulated || !fcadmin_test::under_emulation()) << "FCADMIN_UNDER_EMULATION=1 in a native build";
}

TEST(Target, StartedProgramsRunOnTheSameTarget) {
    // The test binary started again (as the library's fork/exec paths do with helpers) and the tool
    // both have to run; under emulation that is the sandbox's binfmt handler at work. The helper is a
    // program of its own: its thread id is its process id, and not ours.
    std::string out;
    int status = fcadmin_test::run_program({fcadmin_test::self_exe()}, &out, {"FCADMIN_TEST_HELPER=describe_target"});
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status << ": " << out;
    const std::string pid = out.substr(out.rfind('=') + 1, out.size() - out.rfind('=') - 2);
    EXPECT_EQ(out, describe() + " ids=" + pid + " " + pid + " pid=" + pid + "\n");
    EXPECT_NE(pid, std::to_string(getpid()));

    const char *tool = getenv("FCADMIN_TOOL");
    ASSERT_NE(tool, nullptr);
    std::string help;
    status = fcadmin_test::run_program({tool, "--help"}, &help);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    EXPECT_NE(help.find("usage: fcadmin COMMAND [ARGS...]\n"), std::string::npos) << help;
}
