// The segment's usage pattern as four helpers: a reader open that attaches once per process under a
// process-wide mutex, the writer open over an existing attachment, and the two closes.
#include "fcadmin.h"
#include "shm/trace.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

namespace {

using fcadmin::TraceChannel;
using fcadmin::trace_general_echo;
using fcadmin::trace_line;

// The first bytes of the segment are the owner's header; clients see what follows.
constexpr size_t kOwnerHeaderSize = 16;

// Serialises the attach between the threads of the process; the lock calls are made outside it.
pthread_mutex_t attach_mutex = PTHREAD_MUTEX_INITIALIZER;

// The reader's data view, filled by the first reader open. Threads test it outside the mutex, hence
// the atomic; two threads that both find it empty both attach, and the second attach returns at once.
std::atomic<void *> reader_view{nullptr};

// Integer arithmetic: after a failed shmat the attachment is the all-bits-set value, and adding to that
// as a pointer would overflow.
void *data_view() {
    return reinterpret_cast<void *>(reinterpret_cast<uintptr_t>(global_shm_data_ptr) + kOwnerHeaderSize);
}

long self_id() { return static_cast<long>(pthread_self()); }

// Attaches (once per process) and fills the reader's slot. A slot left over from before a detach no
// longer matches the attachment and is refilled, so that a process can open again after detaching.
bool fill_reader_view() {
    void *view = reader_view.load(std::memory_order_acquire);
    if (view != nullptr && global_shm_data_ptr != nullptr && view == data_view()) return true;

    trace_line(TraceChannel::detail, "Trying shm db attach thread lock by tid=[%ld] ", self_id());
    pthread_mutex_lock(&attach_mutex);
    trace_line(TraceChannel::detail, "shm db attach thread lock taken by tid=[%ld] ", self_id());
    const bool attached = admin_shm_client_attach() >= 0;
    if (attached)
        reader_view.store(data_view(), std::memory_order_release);
    else
        trace_general_echo("\n [%d : %s] shm db attach failed.\n", getpid(), "admin_shm_reader_open");
    pthread_mutex_unlock(&attach_mutex);
    trace_line(TraceChannel::detail, "shm db attach thread lock release by tid=[%ld] ", self_id());
    return attached;
}

}  // namespace

extern "C" {

void *admin_shm_reader_open(void) {
    admin_trace_init();
    if (!fill_reader_view()) return nullptr;
    if (admin_shm_db_read_lock() != 0) return nullptr;
    return reader_view.load(std::memory_order_acquire);
}

// The segment stays attached: a process detaches once, when it is done with it.
int32_t admin_shm_reader_close(void) {
    admin_trace_init();
    if (admin_shm_db_read_unlock() == 0) return 0;
    trace_general_echo("\n [%d : %s] shm db read unlock failed.\n", getpid(), __func__);
    return -1;
}

// Never attaches by itself: a writer is a process that has attached before.
void *admin_shm_writer_open(void) {
    admin_trace_init();
    if (global_shm_data_ptr == nullptr) {
        trace_general_echo("\n [%d : %s] shm db data pointer is null.\n", getpid(), __func__);
        return nullptr;
    }
    if (admin_shm_db_write_lock() != 0) return nullptr;
    return data_view();
}

int32_t admin_shm_writer_close(void) {
    admin_trace_init();
    if (admin_shm_db_write_unlock() == 0) return 0;
    trace_general_echo("\n [%d : %s] shm db unlock failed.\n", getpid(), __func__);
    return -1;
}

}  // extern "C"
