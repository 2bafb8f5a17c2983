// The semaphore lock between real processes on a real segment and set under the fixed keys (in the
// sandbox's private IPC namespace): readers share, a writer excludes everyone, a waiting writer does not
// keep new readers out, and the units of a killed holder come back.
#include "fcadmin.h"
#include "tests/support/helpers.h"
#include "tools/fcadmin/shm_owner.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>

namespace {

constexpr int kPatience = 20000;  // ms; only reached when something is broken

// A child process that attaches, takes the read or the write lock, says so, and holds the lock until
// told to release it.
class Holder {
public:
    enum Kind { reader, writer };

    explicit Holder(Kind kind) {
        int up[2], down[2];
        if (pipe(up) != 0 || pipe(down) != 0) ADD_FAILURE() << "pipe: " << strerror(errno);
        fflush(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            close(up[0]);
            close(down[1]);
            if (admin_shm_client_attach() != 0) _exit(3);
            const int32_t locked = kind == reader ? admin_shm_db_read_lock() : admin_shm_db_write_lock();
            if (locked != 0) _exit(4);
            char c = 'H';
            if (write(up[1], &c, 1) != 1) _exit(5);
            if (read(down[0], &c, 1) != 1) _exit(6);
            const int32_t unlocked = kind == reader ? admin_shm_db_read_unlock() : admin_shm_db_write_unlock();
            admin_shm_detach();
            _exit(unlocked == 0 ? 0 : 7);
        }
        close(up[1]);
        close(down[0]);
        from_child_ = up[0];
        to_child_ = down[1];
    }
    ~Holder() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        close(from_child_);
        close(to_child_);
    }

    // True once the child reports the lock held; waits up to timeout_ms.
    bool holds(int timeout_ms = kPatience) {
        if (held_) return true;
        pollfd p = {from_child_, POLLIN, 0};
        char c = 0;
        held_ = poll(&p, 1, timeout_ms) == 1 && read(from_child_, &c, 1) == 1 && c == 'H';
        return held_;
    }

    // Lets the child release and end; returns its exit status (0 when the unlock succeeded).
    int release() {
        char c = 'R';
        EXPECT_EQ(write(to_child_, &c, 1), 1);
        return reap();
    }

    int kill_and_reap() {
        kill(pid_, SIGKILL);
        return reap();
    }

private:
    int reap() {
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return status;
    }

    pid_t pid_ = -1;
    int from_child_ = -1;
    int to_child_ = -1;
    bool held_ = false;
};

class SegmentProcesses : public ::testing::Test {
protected:
    void SetUp() override {
        fcadmin_owner::destroy();
        std::string error;
        ASSERT_TRUE(fcadmin_owner::create(fcadmin_owner::kDefaultSize, &shmid_, &semid_, &error)) << error;
    }
    void TearDown() override { fcadmin_owner::destroy(); }

    int value() const { return fcadmin_owner::semaphore_value(semid_); }

    // Waits until n processes are blocked on the semaphore: proof that they wait, without a timed guess.
    bool waiters_reach(int n) const {
        for (int waited = 0; waited < kPatience; waited += 5) {
            if (fcadmin_owner::semaphore_waiters(semid_) == n) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return false;
    }

    int shmid_ = -1;
    int semid_ = -1;
};

}  // namespace

TEST_F(SegmentProcesses, ReadersShare) {
    Holder a(Holder::reader), b(Holder::reader), c(Holder::reader);
    ASSERT_TRUE(a.holds());
    ASSERT_TRUE(b.holds());
    ASSERT_TRUE(c.holds());
    EXPECT_EQ(value(), 9996);
    EXPECT_EQ(fcadmin_owner::semaphore_waiters(semid_), 0);
    EXPECT_EQ(a.release(), 0);
    EXPECT_EQ(b.release(), 0);
    EXPECT_EQ(c.release(), 0);
    EXPECT_EQ(value(), 9999);
}

TEST_F(SegmentProcesses, WriterExcludesReadersAndWriters) {
    Holder writer(Holder::writer);
    ASSERT_TRUE(writer.holds());
    EXPECT_EQ(value(), 0);

    Holder reader(Holder::reader);
    Holder second_writer(Holder::writer);
    ASSERT_TRUE(waiters_reach(2));
    EXPECT_FALSE(reader.holds(0));
    EXPECT_FALSE(second_writer.holds(0));

    // Released: one of the two gets in (the kernel picks), and the other waits until it is gone.
    EXPECT_EQ(writer.release(), 0);
    ASSERT_TRUE(waiters_reach(1));
    const int taken = value();
    ASSERT_TRUE(taken == 9998 || taken == 0) << taken;
    const bool reader_first = taken == 9998;
    Holder &first = reader_first ? reader : second_writer;
    Holder &then = reader_first ? second_writer : reader;
    ASSERT_TRUE(first.holds());
    EXPECT_FALSE(then.holds(0));
    EXPECT_EQ(first.release(), 0);
    ASSERT_TRUE(then.holds());
    EXPECT_EQ(value(), reader_first ? 0 : 9998);
    EXPECT_EQ(then.release(), 0);
    EXPECT_EQ(value(), 9999);
}

TEST_F(SegmentProcesses, WaitingWriterDoesNotKeepNewReadersOut) {
    Holder first(Holder::reader);
    ASSERT_TRUE(first.holds());
    Holder writer(Holder::writer);
    ASSERT_TRUE(waiters_reach(1));

    Holder late(Holder::reader);
    ASSERT_TRUE(late.holds());
    EXPECT_EQ(value(), 9997);
    EXPECT_FALSE(writer.holds(0));

    EXPECT_EQ(first.release(), 0);
    EXPECT_EQ(fcadmin_owner::semaphore_waiters(semid_), 1);
    EXPECT_FALSE(writer.holds(0));
    EXPECT_EQ(late.release(), 0);
    ASSERT_TRUE(writer.holds());
    EXPECT_EQ(writer.release(), 0);
    EXPECT_EQ(value(), 9999);
}

TEST_F(SegmentProcesses, KilledHoldersGiveTheirUnitsBack) {
    {
        Holder reader(Holder::reader);
        ASSERT_TRUE(reader.holds());
        EXPECT_EQ(value(), 9998);
        const int status = reader.kill_and_reap();
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
        EXPECT_EQ(value(), 9999);
    }
    {
        Holder writer(Holder::writer);
        ASSERT_TRUE(writer.holds());
        Holder blocked(Holder::reader);
        ASSERT_TRUE(waiters_reach(1));
        EXPECT_EQ(value(), 0);
        writer.kill_and_reap();
        // The kernel's undo gives the 9999 units back, and the blocked reader goes on.
        ASSERT_TRUE(blocked.holds());
        EXPECT_EQ(value(), 9998);
        EXPECT_EQ(blocked.release(), 0);
        EXPECT_EQ(value(), 9999);
    }
    {
        // A process killed while it waits leaves nothing behind either.
        Holder writer(Holder::writer);
        ASSERT_TRUE(writer.holds());
        Holder waiting(Holder::writer);
        ASSERT_TRUE(waiters_reach(1));
        waiting.kill_and_reap();
        EXPECT_EQ(fcadmin_owner::semaphore_waiters(semid_), 0);
        EXPECT_EQ(writer.release(), 0);
        EXPECT_EQ(value(), 9999);
    }
}

// The data view of a reader in another process shows what a writer wrote through its own mapping.
TEST_F(SegmentProcesses, ReadersSeeTheWritersData) {
    const int writer = fcadmin_test::run_in_child([&] {
        ASSERT_EQ(admin_shm_client_attach(), 0);
        ASSERT_NE(admin_shm_writer_open(), nullptr);
        std::string error;
        char *mapping = fcadmin_owner::map_writable(global_db_shmid, &error);
        ASSERT_NE(mapping, nullptr) << error;
        strcpy(mapping + fcadmin_owner::kHeaderSize, "written under the write lock");
        shmdt(mapping);
        EXPECT_EQ(admin_shm_writer_close(), 0);
        EXPECT_EQ(admin_shm_detach(), 0);
    });
    EXPECT_EQ(writer, 0);
    const int reader = fcadmin_test::run_in_child([&] {
        const char *view = static_cast<const char *>(admin_shm_reader_open());
        ASSERT_NE(view, nullptr);
        EXPECT_STREQ(view, "written under the write lock");
        EXPECT_EQ(admin_shm_reader_close(), 0);
        EXPECT_EQ(admin_shm_detach(), 0);
    });
    EXPECT_EQ(reader, 0);
    EXPECT_EQ(value(), 9999);
}
