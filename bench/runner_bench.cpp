// Starting /bin/true from callers of growing resident size: admin_system_call against posix_spawn and a
// bare fork and exec, each followed by waitpid.
#include "fcadmin.h"
#include "xfer/runner.h"

#include <benchmark/benchmark.h>

#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

extern char **environ;

namespace {

char kTrue[] = "/bin/true";
char *const kTrueArgv[] = {kTrue, nullptr};

// Resident memory of the caller, in 4 KiB pages as a daemon's heap would have it; kept between
// benchmarks and changed only when a benchmark asks for another size.
class Ballast {
public:
    void resize(size_t bytes) {
        if (bytes == size_) return;
        if (data_ != nullptr) munmap(data_, size_);
        data_ = nullptr;
        size_ = bytes;
        if (bytes == 0) return;
        data_ = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (data_ == MAP_FAILED) abort();
        madvise(data_, bytes, MADV_NOHUGEPAGE);
        memset(data_, 0x5A, bytes);
    }

private:
    void *data_ = nullptr;
    size_t size_ = 0;
};

Ballast ballast;

int32_t fork_exec() {
    const pid_t child = fork();
    if (child < 0) return -1;
    if (child == 0) {
        execv(kTrue, kTrueArgv);
        _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : -1;
}

int32_t spawn() {
    pid_t child = 0;
    if (posix_spawn(&child, kTrue, nullptr, nullptr, kTrueArgv, environ) != 0) return -1;
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : -1;
}

int32_t library() { return admin_system_call(kTrue); }

// The literal launcher, kept in the library as the reference of the runner's tests.
int32_t fork_launcher() { return fcadmin::system_call(kTrue, fcadmin::Launcher::fork); }

template <int32_t (*Launch)()>
void launch_benchmark(benchmark::State &state) {
    ballast.resize(static_cast<size_t>(state.range(0)) << 20);
    if (Launch() != 0) state.SkipWithError("/bin/true did not succeed");
    for (auto _ : state) benchmark::DoNotOptimize(Launch());
    state.counters["resident_MiB"] = static_cast<double>(state.range(0));
}

// 0 is the benchmark program itself, a small caller; the rest are ballast sizes in MiB.
void resident_sizes(benchmark::internal::Benchmark *b) {
    for (int64_t mib : {0, 10, 32, 100, 316, 1024, 2048}) b->Arg(mib);
    b->Unit(benchmark::kMicrosecond)->MinTime(0.05);
}

BENCHMARK(launch_benchmark<fork_exec>)->Name("launch/fork_exec")->Apply(resident_sizes);
BENCHMARK(launch_benchmark<spawn>)->Name("launch/posix_spawn")->Apply(resident_sizes);
BENCHMARK(launch_benchmark<library>)->Name("launch/admin_system_call")->Apply(resident_sizes);
BENCHMARK(launch_benchmark<fork_launcher>)
    ->Name("launch/fork_launcher")
    ->Arg(0)
    ->Arg(1024)
    ->Unit(benchmark::kMicrosecond)
    ->MinTime(0.05);

}  // namespace
