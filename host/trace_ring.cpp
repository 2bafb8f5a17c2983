// The host trace ring: a fixed array of lines behind one mutex, overwritten oldest first.
#include "host/trace_ring.h"

#include "common/format.h"

#include <pthread.h>

#include <cinttypes>

namespace fcadmin::host {
namespace {

struct Ring {
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
    char lines[kTraceRingLines][kTraceLineSize] = {};
    uint64_t stored = 0;  // lines appended since the last clear; the last kTraceRingLines are held
};

Ring ring;

// A plain mutex guard: the host services build without exceptions, and std::mutex would drag the
// C++ runtime's error paths into a library that has no use for them.
class RingLock {
public:
    RingLock() { pthread_mutex_lock(&ring.lock); }
    ~RingLock() { pthread_mutex_unlock(&ring.lock); }
    RingLock(const RingLock &) = delete;
    RingLock &operator=(const RingLock &) = delete;
};

uint64_t first_held() { return ring.stored > kTraceRingLines ? ring.stored - kTraceRingLines : 0; }

}  // namespace

void trace_ring_append(const char *line) {
    if (line == nullptr) return;
    RingLock guard;
    bounded_copy(ring.lines[ring.stored % kTraceRingLines], line);
    ++ring.stored;
}

size_t trace_ring_visit(void (*visit)(const char *line, void *context), void *context) {
    if (visit == nullptr) return 0;
    RingLock guard;
    size_t count = 0;
    for (uint64_t i = first_held(); i < ring.stored; ++i, ++count) visit(ring.lines[i % kTraceRingLines], context);
    return count;
}

size_t trace_ring_dump(FILE *out) {
    if (out == nullptr) return 0;
    RingLock guard;
    const uint64_t first = first_held();
    if (first > 0) fprintf(out, "(%" PRIu64 " earlier lines dropped)\n", first);
    for (uint64_t i = first; i < ring.stored; ++i) {
        fputs(ring.lines[i % kTraceRingLines], out);
        fputc('\n', out);
    }
    fflush(out);
    return static_cast<size_t>(ring.stored - first);
}

size_t trace_ring_size() {
    RingLock guard;
    return static_cast<size_t>(ring.stored - first_held());
}

uint64_t trace_ring_dropped() {
    RingLock guard;
    return first_held();
}

void trace_ring_clear() {
    RingLock guard;
    ring.stored = 0;
}

}  // namespace fcadmin::host
