// The shared segment's read lock pair with the host trace ring as the trace service, the thread lock and
// the atomic copy, each against the bare system calls beneath it. Needs the fixed System V keys to
// itself: make bench runs it in the sandbox.
#include "fcadmin.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr size_t kSegmentSize = 4096;

// The owner's part: the segment and the semaphore set under the fixed keys, the semaphore at full value.
bool set_up_segment() {
    static const bool ready = [] {
        if (shmget(FCADMIN_SHM_KEY, kSegmentSize, IPC_CREAT | 0600) < 0) return false;
        // A fresh IPC namespace hands out set id 0 first, which the client refuses: take it elsewhere.
        semget(IPC_PRIVATE, 1, 0600);
        if (semget(FCADMIN_SEM_KEY, 1, IPC_CREAT | 0660) < 0) return false;
        return admin_shm_client_attach() == 0 && admin_sem_init() == 0;
    }();
    return ready;
}

void shm_read_pair(benchmark::State &state) {
    if (!set_up_segment()) return state.SkipWithError("no segment (run in the sandbox, as make bench does)");
    for (auto _ : state) {
        benchmark::DoNotOptimize(admin_shm_db_read_lock());
        benchmark::DoNotOptimize(admin_shm_db_read_unlock());
    }
}
BENCHMARK(shm_read_pair)->Name("lock/shm_read_pair");

void bare_semop_pair(benchmark::State &state) {
    if (!set_up_segment()) return state.SkipWithError("no segment (run in the sandbox, as make bench does)");
    struct sembuf lock = {0, -1, SEM_UNDO}, unlock = {0, 1, SEM_UNDO};
    for (auto _ : state) {
        benchmark::DoNotOptimize(semop(global_db_semid, &lock, 1));
        benchmark::DoNotOptimize(semop(global_db_semid, &unlock, 1));
    }
}
BENCHMARK(bare_semop_pair)->Name("lock/bare_semop_pair");

pthread_rwlock_t thread_lock = PTHREAD_RWLOCK_INITIALIZER;

void mr_read_pair(benchmark::State &state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(mr_lock(&thread_lock, 1));
        benchmark::DoNotOptimize(mr_unlock(&thread_lock));
    }
}
BENCHMARK(mr_read_pair)->Name("lock/mr_read_pair");

void pthread_read_pair(benchmark::State &state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(pthread_rwlock_rdlock(&thread_lock));
        benchmark::DoNotOptimize(pthread_rwlock_unlock(&thread_lock));
    }
}
BENCHMARK(pthread_read_pair)->Name("lock/pthread_read_pair");

struct CopyFiles {
    std::string source, destination, temporary;
    CopyFiles() {
        const char *dir = getenv("TMPDIR");
        char name[] = "/fcadmin_bench_copy.XXXXXX";
        std::string base = std::string(dir != nullptr ? dir : "/tmp") + name;
        if (mkdtemp(base.data()) == nullptr) abort();
        source = base + "/source";
        destination = base + "/destination";
        temporary = destination + ".tmp";
        std::string content(4096, 'c');
        FILE *file = fopen(source.c_str(), "w");
        fwrite(content.data(), 1, content.size(), file);
        fclose(file);
    }
};

const CopyFiles &copy_files() {
    static const CopyFiles files;
    return files;
}

void library_copy(benchmark::State &state) {
    const CopyFiles &f = copy_files();
    for (auto _ : state) benchmark::DoNotOptimize(admin_file_copy(f.source.c_str(), f.destination.c_str()));
}
BENCHMARK(library_copy)->Name("copy/admin_file_copy");

// What the copy does beneath its checks: read the source whole, write, sync and rename a temporary file.
void bare_copy(benchmark::State &state) {
    const CopyFiles &f = copy_files();
    static char block[4096];
    for (auto _ : state) {
        int in = open(f.source.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat status;
        fstat(in, &status);
        benchmark::DoNotOptimize(read(in, block, sizeof block));
        close(in);
        int out = open(f.temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, status.st_mode);
        benchmark::DoNotOptimize(write(out, block, sizeof block));
        fsync(out);
        close(out);
        rename(f.temporary.c_str(), f.destination.c_str());
    }
}
BENCHMARK(bare_copy)->Name("copy/bare_syscalls");

}  // namespace
