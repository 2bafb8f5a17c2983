// The segment's owner side, which the library leaves to its users: create and remove the segment and
// the semaphore set under the fixed keys, and map the segment writable. Used by `fcadmin shm`, the
// torture program and the tests that need a real segment.
#pragma once

#include "fcadmin.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

namespace fcadmin_owner {

constexpr size_t kHeaderSize = 16;  // the owner's part of the segment; clients see what follows
constexpr size_t kDefaultSize = 4096;
constexpr int kFullValue = 9999;
constexpr int kPermissions = 0660;
constexpr char kMagic[8] = {'F', 'C', 'A', 'D', 'M', 'S', 'H', 'M'};

// The owner's header: what the segment is and how much data follows it.
struct Header {
    char magic[8];
    uint32_t data_size;
    uint32_t reserved;
};
static_assert(sizeof(Header) == kHeaderSize, "clients skip exactly the header");

union semun {
    int val;
    struct semid_ds *buf;
    unsigned short *array;
};

inline std::string errno_text(const char *what) { return std::string(what) + ": " + strerror(errno); }

inline int set_value(int semid, int value) {
    union semun argument = {};
    argument.val = value;
    return semctl(semid, 0, SETVAL, argument);
}

inline int semaphore_value(int semid) { return semctl(semid, 0, GETVAL); }
// Processes blocked until the value rises: readers behind a writer, writers behind anyone.
inline int semaphore_waiters(int semid) { return semctl(semid, 0, GETNCNT); }

// Ids of the existing segment and set, -1 for a missing one.
inline int find_segment() { return shmget(FCADMIN_SHM_KEY, 0, 0); }
inline int find_semaphores() { return semget(FCADMIN_SEM_KEY, 0, 0); }

// A writable mapping of the segment: clients attach read-only, so a writer writes through this one.
inline char *map_writable(int shmid, std::string *error) {
    void *at = shmat(shmid, nullptr, 0);
    if (at == reinterpret_cast<void *>(-1)) {
        *error = errno_text("shmat");
        return nullptr;
    }
    return static_cast<char *>(at);
}

// Creates the segment (size bytes in all, header included) and the semaphore set, writes the header
// and a zeroed data area through a mapping of its own, and sets the semaphore to its full value.
// Fails when either exists already. Returns true on success, else false with *error set.
inline bool create(size_t size, int *shmid, int *semid, std::string *error) {
    if (size <= kHeaderSize || size > UINT32_MAX) {
        *error = "size must be more than 16 bytes and fit in 32 bits";
        return false;
    }
    const int segment = shmget(FCADMIN_SHM_KEY, size, IPC_CREAT | IPC_EXCL | kPermissions);
    if (segment < 0) {
        *error = errno_text("shmget");
        return false;
    }
    // Clients take a set id of 0 for "no semaphore"; the first set of a fresh IPC namespace gets
    // that id, so such a set is removed and made again, which gives it a new id.
    int semaphores = -1;
    for (int attempt = 0; attempt < 4 && semaphores <= 0; ++attempt) {
        if (semaphores == 0) semctl(semaphores, 0, IPC_RMID);
        semaphores = semget(FCADMIN_SEM_KEY, 1, IPC_CREAT | IPC_EXCL | kPermissions);
    }
    if (semaphores <= 0) {
        *error = semaphores == 0 ? "the semaphore set keeps getting id 0" : errno_text("semget");
        if (semaphores == 0) semctl(semaphores, 0, IPC_RMID);
        shmctl(segment, IPC_RMID, nullptr);
        return false;
    }
    char *mapping = map_writable(segment, error);
    if (mapping == nullptr || set_value(semaphores, kFullValue) < 0) {
        if (mapping != nullptr) {
            *error = errno_text("semctl");
            shmdt(mapping);
        }
        semctl(semaphores, 0, IPC_RMID);
        shmctl(segment, IPC_RMID, nullptr);
        return false;
    }
    Header header = {};
    memcpy(header.magic, kMagic, sizeof header.magic);
    header.data_size = static_cast<uint32_t>(size - kHeaderSize);
    memcpy(mapping, &header, sizeof header);
    memset(mapping + kHeaderSize, 0, size - kHeaderSize);
    shmdt(mapping);
    *shmid = segment;
    *semid = semaphores;
    return true;
}

// Removes whichever of the two exists. Returns the number removed (0, 1 or 2).
inline int destroy() {
    int removed = 0;
    const int segment = find_segment();
    if (segment >= 0 && shmctl(segment, IPC_RMID, nullptr) == 0) ++removed;
    const int semaphores = find_semaphores();
    if (semaphores >= 0 && semctl(semaphores, 0, IPC_RMID) == 0) ++removed;
    return removed;
}

}  // namespace fcadmin_owner
