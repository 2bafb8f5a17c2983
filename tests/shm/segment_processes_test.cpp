// The semaphore lock between real processes on a real segment and set under the fixed keys (in the
// sandbox's private IPC namespace): readers share, a writer excludes everyone, a waiting writer does not
// keep new readers out, and the units of a killed holder come back.
#include "fcadmin.h"
#include "tests/support/helpers.h"
#include "tools/fcadmin/shm_owner.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

namespace {

constexpr int kPatience = 20000;  // ms; only reached when something is broken

// A child process that attaches, takes the read or the write lock, says so, and holds the lock until
// told to release it; it exits 0 when its unlock succeeded.
enum Kind { kReader, kWriter };
class Holder {
public:
    explicit Holder(Kind kind) {
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        fflush(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            const bool writer = kind == kWriter;
            char c = 'H';
            if (admin_shm_client_attach() != 0 || (writer ? admin_shm_db_write_lock() : admin_shm_db_read_lock()) != 0)
                _exit(3);
            if (write(fds[1], &c, 1) != 1 || read(fds[1], &c, 1) != 1) _exit(4);
            _exit((writer ? admin_shm_db_write_unlock() : admin_shm_db_read_unlock()) == 0 ? 0 : 5);
        }
        close(fds[1]);
        fd_ = fds[0];
    }
    ~Holder() {
        if (pid_ > 0) kill_and_reap();
        close(fd_);
    }
    // True once the child reports the lock held; waits up to timeout_ms.
    bool holds(int timeout_ms = kPatience) {
        pollfd p = {fd_, POLLIN, 0};
        char c = 0;
        return held_ = held_ || (poll(&p, 1, timeout_ms) == 1 && read(fd_, &c, 1) == 1);
    }
    // Lets the child release and end; returns its wait status.
    int release() {
        EXPECT_EQ(write(fd_, "R", 1), 1);
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
    int fd_ = -1;
    bool held_ = false;
};

class SegmentProcesses : public ::testing::Test {
protected:
    void SetUp() override {
        fcadmin_owner::destroy();
        std::string error;
        int shmid = -1;
        ASSERT_TRUE(fcadmin_owner::create(fcadmin_owner::kDefaultSize, &shmid, &semid_, &error)) << error;
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
    int semid_ = -1;
};

}  // namespace

TEST_F(SegmentProcesses, ReadersShareAndAWaitingWriterDoesNotKeepThemOut) {
    Holder first(kReader);
    ASSERT_TRUE(first.holds());
    Holder writer(kWriter);
    ASSERT_TRUE(waiters_reach(1));
    Holder late(kReader);
    ASSERT_TRUE(late.holds());
    EXPECT_EQ(value(), 9997);
    EXPECT_FALSE(writer.holds(0));

    EXPECT_EQ(first.release(), 0);
    EXPECT_EQ(fcadmin_owner::semaphore_waiters(semid_), 1);
    EXPECT_FALSE(writer.holds(0));
    EXPECT_EQ(late.release(), 0);
    ASSERT_TRUE(writer.holds());
    EXPECT_EQ(value(), 0);
    EXPECT_EQ(writer.release(), 0);
    EXPECT_EQ(value(), 9999);
}

// Readers waiting behind a writer are covered by the crash case below.
TEST_F(SegmentProcesses, WriterExcludesWriters) {
    Holder writer(kWriter);
    ASSERT_TRUE(writer.holds());
    EXPECT_EQ(value(), 0);
    Holder second(kWriter);
    ASSERT_TRUE(waiters_reach(1));
    EXPECT_FALSE(second.holds(0));
    EXPECT_EQ(writer.release(), 0);
    ASSERT_TRUE(second.holds());
    EXPECT_EQ(value(), 0);
    EXPECT_EQ(second.release(), 0);
    EXPECT_EQ(value(), 9999);
}

TEST_F(SegmentProcesses, KilledHoldersGiveTheirUnitsBack) {
    Holder reader(kReader);
    ASSERT_TRUE(reader.holds());
    EXPECT_EQ(value(), 9998);
    const int status = reader.kill_and_reap();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    EXPECT_EQ(value(), 9999);

    Holder writer(kWriter);
    ASSERT_TRUE(writer.holds());
    Holder blocked(kReader);
    ASSERT_TRUE(waiters_reach(1));
    EXPECT_FALSE(blocked.holds(0));
    writer.kill_and_reap();
    // The kernel's undo gives the 9999 units back, and the blocked reader goes on.
    ASSERT_TRUE(blocked.holds());
    EXPECT_EQ(value(), 9998);
    EXPECT_EQ(blocked.release(), 0);
    EXPECT_EQ(value(), 9999);
}
