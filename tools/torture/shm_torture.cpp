// fcadmin_shm_torture: reader and writer processes hammer the real segment under the semaphore lock
// while lock holders are SIGKILLed at random and replaced. Writers store a sequence number, words derived
// from it and a checksum; readers check that they never see a torn record or one that changes under
// their read lock. Uses the fixed System V keys, so run it in a private IPC namespace
// (tests/support/sandbox.sh). Exit status 0 when no violation was seen, 1 after one, 2 on bad use.
#include "fcadmin.h"
#include "fcadmin_platform.h"
#include "tools/fcadmin/shm_owner.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <sched.h>
#include <string>

// The library's lines are not wanted here: thousands of lock calls a second would only fill a trace.
// The program's own definitions replace the platform's.
extern "C" int32_t trace_module_init(int32_t *handle, int32_t module_id, int32_t, const char *, uint32_t *) {
    if (handle != nullptr) *handle = module_id;
    return 0;
}
extern "C" int32_t trace_module_store_lvl(int32_t, int32_t, int32_t, int32_t, const char *) { return 0; }

namespace {

constexpr int kMaxProcesses = 64;
constexpr int kWords = 30;
constexpr int kRecordWords = kWords + 3;  // header word, sequence, words, checksum
constexpr uint32_t kComplete = 0;
constexpr uint32_t kInProgress = 1;
constexpr int kMaxMessages = 8;
constexpr int kPidBits = 1 << 22;  // the kernel's largest pid_max

enum Holding : int { idle = 0, reading = 1, writing = 2 };

struct Slot {
    std::atomic<pid_t> pid;
    std::atomic<int> holding;
    bool writer;
};

// Shared between the parent and every child through one anonymous shared mapping. Only atomics that
// work without a lock will do there: a library lock would be private to each process (64-bit counters
// are such on the 32-bit targets).
using Counter = std::atomic<uint32_t>;
static_assert(Counter::is_always_lock_free && std::atomic<int>::is_always_lock_free &&
                  std::atomic<bool>::is_always_lock_free,
              "counters shared between processes");

struct Board {
    std::atomic<bool> stop;
    Counter reads, writes, violations, excused, started;
    Counter kills_reading, kills_writing;
    std::atomic<int> message_count;
    char messages[kMaxMessages][160];
    Slot slots[kMaxProcesses];
    // Pids that the parent is about to kill, marked before the signal: a record left in progress by
    // such a writer is the expected trace of the kill, not a fault of the lock.
    std::atomic<uint32_t> killed[kPidBits / 32];
};
Board *board;
char *owner_mapping;  // the parent's writable mapping; children drop their inherited copy

void mark_killed(pid_t pid, bool on) {
    const uint32_t bit = 1u << (pid % 32);
    if (on)
        board->killed[pid / 32].fetch_or(bit);
    else
        board->killed[pid / 32].fetch_and(~bit);
}
bool was_killed(pid_t pid) {
    return pid > 0 && pid < kPidBits && (board->killed[pid / 32].load() & (1u << (pid % 32))) != 0;
}

void violation(const char *format, ...) __attribute__((format(printf, 1, 2)));
void violation(const char *format, ...) {
    board->violations.fetch_add(1);
    const int index = board->message_count.fetch_add(1);
    if (index >= kMaxMessages) return;
    va_list args;
    va_start(args, format);
    vsnprintf(board->messages[index], sizeof board->messages[index], format, args);
    va_end(args);
}

uint64_t mix(uint64_t seq, uint64_t i) {
    uint64_t x = seq * 0x9E3779B97F4A7C15ull + i * 0xBF58476D1CE4E5B9ull + 1;
    x ^= x >> 31;
    x *= 0x94D049BB133111EBull;
    return x ^ (x >> 29);
}

uint64_t checksum(const uint64_t *record) {
    uint64_t sum = 0xCBF29CE484222325ull;
    for (int i = 1; i < kRecordWords - 1; ++i) sum = (sum ^ record[i]) * 0x100000001B3ull;
    return sum;
}

uint32_t state_of(uint64_t header) { return static_cast<uint32_t>(header); }
pid_t writer_of(uint64_t header) { return static_cast<pid_t>(header >> 32); }
uint64_t header_word(uint32_t state, pid_t writer) {
    return (static_cast<uint64_t>(static_cast<uint32_t>(writer)) << 32) | state;
}

// A well-formed complete record for a sequence number.
void fill(volatile uint64_t *record, uint64_t seq, pid_t writer, bool yield_midway) {
    record[0] = header_word(kInProgress, writer);
    record[1] = seq;
    for (int i = 0; i < kWords; ++i) {
        record[2 + i] = mix(seq, static_cast<uint64_t>(i));
        if (yield_midway && i == kWords / 2) sched_yield();
    }
    uint64_t copy[kRecordWords];
    for (int i = 0; i < kRecordWords; ++i) copy[i] = record[i];
    record[kRecordWords - 1] = checksum(copy);
}

void copy_record(const volatile uint64_t *from, uint64_t *to) {
    for (int i = 0; i < kRecordWords; ++i) to[i] = from[i];
}

struct Random {
    uint64_t state;
    uint64_t next() {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        return state;
    }
    uint64_t below(uint64_t n) { return n == 0 ? 0 : next() % n; }
};

void pause_us(uint64_t us) {
    if (us > 0) usleep(static_cast<useconds_t>(us));
}

[[noreturn]] void run_reader(Slot &slot, Random random) {
    uint64_t last_seq = 0;
    while (!board->stop.load()) {
        const volatile uint64_t *record = static_cast<const volatile uint64_t *>(admin_shm_reader_open());
        if (record == nullptr) {
            violation("reader %d: the read lock failed", getpid());
            _exit(3);
        }
        slot.holding.store(reading);
        uint64_t first[kRecordWords], second[kRecordWords];
        copy_record(record, first);
        sched_yield();
        copy_record(record, second);
        if (memcmp(first, second, sizeof first) != 0) {
            violation("reader %d: the record changed under a read lock (seq %llu -> %llu)", getpid(),
                      static_cast<unsigned long long>(first[1]), static_cast<unsigned long long>(second[1]));
        } else if (state_of(first[0]) == kInProgress) {
            if (was_killed(writer_of(first[0])))
                board->excused.fetch_add(1);
            else
                violation("reader %d: record %llu in progress by live writer %d under a read lock", getpid(),
                          static_cast<unsigned long long>(first[1]), writer_of(first[0]));
        } else if (first[kRecordWords - 1] != checksum(first)) {
            violation("reader %d: torn record %llu", getpid(), static_cast<unsigned long long>(first[1]));
        } else if (first[1] < last_seq) {
            violation("reader %d: sequence went back from %llu to %llu", getpid(),
                      static_cast<unsigned long long>(last_seq), static_cast<unsigned long long>(first[1]));
        } else {
            last_seq = first[1];
        }
        slot.holding.store(idle);
        if (admin_shm_reader_close() != 0) {
            violation("reader %d: the read unlock failed", getpid());
            _exit(3);
        }
        board->reads.fetch_add(1);
        pause_us(random.below(400));
    }
    admin_shm_detach();
    _exit(0);
}

[[noreturn]] void run_writer(Slot &slot, Random random) {
    if (admin_shm_client_attach() != 0) {
        violation("writer %d: attach failed", getpid());
        _exit(3);
    }
    std::string error;
    char *mapping = fcadmin_owner::map_writable(global_db_shmid, &error);
    if (mapping == nullptr) {
        violation("writer %d: %s", getpid(), error.c_str());
        _exit(3);
    }
    volatile uint64_t *record = reinterpret_cast<volatile uint64_t *>(mapping + fcadmin_owner::kHeaderSize);
    const pid_t self = getpid();
    while (!board->stop.load()) {
        if (admin_shm_writer_open() == nullptr) {
            violation("writer %d: the write lock failed", self);
            _exit(3);
        }
        slot.holding.store(writing);
        uint64_t found[kRecordWords];
        copy_record(record, found);
        if (state_of(found[0]) == kInProgress && !was_killed(writer_of(found[0])))
            violation("writer %d: record %llu in progress by live writer %d", self,
                      static_cast<unsigned long long>(found[1]), writer_of(found[0]));
        else if (state_of(found[0]) == kComplete && found[kRecordWords - 1] != checksum(found))
            violation("writer %d: found torn record %llu", self, static_cast<unsigned long long>(found[1]));
        const uint64_t seq = found[1] + 1;
        fill(record, seq, self, true);
        uint64_t written[kRecordWords];
        copy_record(record, written);
        if (written[1] != seq || written[0] != header_word(kInProgress, self) || written[kRecordWords - 1] != checksum(written))
            violation("writer %d: another process wrote during the write lock (seq %llu)", self,
                      static_cast<unsigned long long>(seq));
        record[0] = header_word(kComplete, self);
        slot.holding.store(idle);
        if (admin_shm_writer_close() != 0) {
            violation("writer %d: the write unlock failed", self);
            _exit(3);
        }
        board->writes.fetch_add(1);
        pause_us(random.below(200));
    }
    shmdt(mapping);
    admin_shm_detach();
    _exit(0);
}

pid_t start(int index, uint64_t seed) {
    Slot &slot = board->slots[index];
    slot.holding.store(idle);
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) {
        mark_killed(getpid(), false);  // a pid of an earlier, killed child may come back
        shmdt(owner_mapping);
        Random random{seed ^ (static_cast<uint64_t>(getpid()) << 20) ^ 0x5DEECE66Dull};
        if (slot.writer) run_writer(slot, random);
        run_reader(slot, random);
    }
    slot.pid.store(pid);
    board->started.fetch_add(1);
    return pid;
}

bool parse(const char *text, long low, long high, long *value) {
    char *end = nullptr;
    errno = 0;
    const long v = strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v < low || v > high) return false;
    *value = v;
    return true;
}

int usage() {
    fprintf(stderr,
            "usage: fcadmin_shm_torture [--readers N] [--writers M] [--seconds S] [--kill-every MS] [--seed X]\n"
            "Runs N reader and M writer processes (defaults 4 and 2, at most %d in all) on the shared segment\n"
            "for S seconds (default 10), SIGKILLs a lock holder about every MS milliseconds (default 20) and\n"
            "starts a new process in its place. Needs a private IPC namespace: the keys must be free.\n",
            kMaxProcesses);
    return 2;
}

}  // namespace

int main(int argc, char **argv) {
    long readers = 4, writers = 2, seconds = 10, kill_every = 20, seed = 1;
    for (int i = 1; i < argc; i += 2) {
        if (i + 1 >= argc) return usage();
        const char *option = argv[i];
        bool ok = false;
        if (strcmp(option, "--readers") == 0) ok = parse(argv[i + 1], 0, kMaxProcesses, &readers);
        else if (strcmp(option, "--writers") == 0) ok = parse(argv[i + 1], 0, kMaxProcesses, &writers);
        else if (strcmp(option, "--seconds") == 0) ok = parse(argv[i + 1], 1, 86400, &seconds);
        else if (strcmp(option, "--kill-every") == 0) ok = parse(argv[i + 1], 1, 60000, &kill_every);
        else if (strcmp(option, "--seed") == 0) ok = parse(argv[i + 1], 0, 0x7fffffff, &seed);
        if (!ok) return usage();
    }
    const int processes = static_cast<int>(readers + writers);
    if (processes == 0 || processes > kMaxProcesses) return usage();

    if (fcadmin_owner::find_segment() >= 0 || fcadmin_owner::find_semaphores() >= 0) {
        fprintf(stderr, "fcadmin_shm_torture: the segment's keys are in use; run it in a private IPC namespace "
                        "(tests/support/sandbox.sh)\n");
        return 2;
    }
    int shmid = -1, semid = -1;
    std::string error;
    if (!fcadmin_owner::create(fcadmin_owner::kHeaderSize + kRecordWords * sizeof(uint64_t), &shmid, &semid,
                               &error)) {
        fprintf(stderr, "fcadmin_shm_torture: %s\n", error.c_str());
        return 1;
    }
    char *mapping = owner_mapping = fcadmin_owner::map_writable(shmid, &error);
    if (mapping == nullptr) {
        fprintf(stderr, "fcadmin_shm_torture: %s\n", error.c_str());
        fcadmin_owner::destroy();
        return 1;
    }
    volatile uint64_t *record = reinterpret_cast<volatile uint64_t *>(mapping + fcadmin_owner::kHeaderSize);
    fill(record, 0, getpid(), false);
    record[0] = header_word(kComplete, getpid());

    void *area = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (area == MAP_FAILED) {
        perror("fcadmin_shm_torture: mmap");
        fcadmin_owner::destroy();
        return 1;
    }
    board = new (area) Board();

    for (int i = 0; i < processes; ++i) {
        board->slots[i].writer = i < writers;
        start(i, static_cast<uint64_t>(seed) + static_cast<uint64_t>(i));
    }

    Random random{static_cast<uint64_t>(seed) * 2654435761u + 7};
    uint64_t restarts = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < deadline) {
        pause_us(random.below(static_cast<uint64_t>(kill_every) * 2000));
        // Children that ended on their own (a failed lock call) are replaced too.
        int status = 0;
        for (pid_t gone; (gone = waitpid(-1, &status, WNOHANG)) > 0;) {
            for (int i = 0; i < processes; ++i)
                if (board->slots[i].pid.load() == gone) {
                    violation("process %d ended by itself (status %d)", gone, status);
                    start(i, random.next());
                    ++restarts;
                }
        }
        // A victim that holds the lock, looked for a few times before giving up on this round.
        int victim = -1;
        int holding = idle;
        for (int tries = 0; tries < 200 && victim < 0; ++tries) {
            const int first = static_cast<int>(random.below(static_cast<uint64_t>(processes)));
            for (int k = 0; k < processes && victim < 0; ++k) {
                const int i = (first + k) % processes;
                holding = board->slots[i].holding.load();
                if (holding != idle) victim = i;
            }
            if (victim < 0) pause_us(50);
        }
        if (victim < 0) continue;
        const pid_t pid = board->slots[victim].pid.load();
        mark_killed(pid, true);
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        (holding == writing ? board->kills_writing : board->kills_reading).fetch_add(1);
        start(victim, random.next());
        ++restarts;
    }

    board->stop.store(true);
    const auto grace = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    int left = processes;
    while (left > 0 && std::chrono::steady_clock::now() < grace) {
        int status = 0;
        const pid_t gone = waitpid(-1, &status, WNOHANG);
        if (gone > 0) {
            --left;
            if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
                violation("process %d ended with status %d at the end", gone, status);
        } else {
            pause_us(1000);
        }
    }
    if (left > 0) {
        violation("%d processes did not finish within 10 s of the end (stuck on the lock?)", left);
        for (int i = 0; i < processes; ++i) kill(board->slots[i].pid.load(), SIGKILL);
        while (waitpid(-1, nullptr, 0) > 0) {
        }
    }

    // Every holder is gone, killed ones included: the kernel must have given every unit back.
    const int value = fcadmin_owner::semaphore_value(semid);
    if (value != fcadmin_owner::kFullValue) violation("semaphore value %d after the run, not 9999", value);
    shmdt(mapping);
    fcadmin_owner::destroy();

    const unsigned long long kills = board->kills_reading.load() + board->kills_writing.load();
    printf("shm torture: %ld s, %ld readers and %ld writers, a lock holder killed about every %ld ms\n", seconds,
           readers, writers, kill_every);
    printf("processes: %d at a time, %llu started in all (%llu replacements)\n", processes,
           static_cast<unsigned long long>(board->started.load()), static_cast<unsigned long long>(restarts));
    printf("operations: %llu reads, %llu writes\n", static_cast<unsigned long long>(board->reads.load()),
           static_cast<unsigned long long>(board->writes.load()));
    printf("kills: %llu (%llu holding the read lock, %llu holding the write lock)\n",
           kills, static_cast<unsigned long long>(board->kills_reading.load()),
           static_cast<unsigned long long>(board->kills_writing.load()));
    printf("reads of a record left half-written by a killed writer: %llu\n",
           static_cast<unsigned long long>(board->excused.load()));
    printf("semaphore value at the end: %d\n", value);
    printf("violations: %llu\n", static_cast<unsigned long long>(board->violations.load()));
    const int shown = board->message_count.load() < kMaxMessages ? board->message_count.load() : kMaxMessages;
    for (int i = 0; i < shown; ++i) printf("  %s\n", board->messages[i]);
    return board->violations.load() == 0 ? 0 : 1;
}
