// fcadmin shm: the owner's create and destroy, and the clients init, info, read and write on a real
// segment in the sandbox's IPC namespace, waiting on the lock like any other client.
#include "fcadmin.h"
#include "tests/support/helpers.h"
#include "tools/fcadmin/shm_owner.h"

#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

struct ToolRun {
    int status = -1;
    std::string output;  // standard output and standard error together, in order
};

// Starts the tool with args; its standard output and error go to one pipe.
struct Started {
    pid_t pid = -1;
    int fd = -1;
};

Started start_tool(const std::vector<std::string> &args) {
    const char *tool = getenv("FCADMIN_TOOL");
    EXPECT_NE(tool, nullptr);
    int out[2];
    EXPECT_EQ(pipe(out), 0);
    std::vector<std::string> argv = {tool, "shm"};
    argv.insert(argv.end(), args.begin(), args.end());
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], 1);
        dup2(out[1], 2);
        close(out[0]);
        close(out[1]);
        std::vector<char *> raw;
        for (auto &a : argv) raw.push_back(const_cast<char *>(a.c_str()));
        raw.push_back(nullptr);
        execv(raw[0], raw.data());
        _exit(127);
    }
    close(out[1]);
    return {pid, out[0]};
}

ToolRun finish(Started started) {
    ToolRun run;
    char buf[4096];
    ssize_t n;
    while ((n = read(started.fd, buf, sizeof buf)) > 0) run.output.append(buf, static_cast<size_t>(n));
    close(started.fd);
    int status = 0;
    waitpid(started.pid, &status, 0);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return run;
}

ToolRun shm(const std::vector<std::string> &args) { return finish(start_tool(args)); }

// Raw semaphore operation of the test itself, standing in for another client.
int take(int delta) {
    sembuf op = {0, static_cast<short>(delta), SEM_UNDO};
    return semop(fcadmin_owner::find_semaphores(), &op, 1);
}

bool waiters_reach(int n) {
    for (int waited = 0; waited < 20000; waited += 5) {
        if (fcadmin_owner::semaphore_waiters(fcadmin_owner::find_semaphores()) == n) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

const char *kNotAttached = "fcadmin shm: cannot attach the shared segment and its semaphore set (has the owner "
                           "made them? see 'fcadmin shm create')\n";

class ShmTool : public ::testing::Test {
protected:
    void SetUp() override { fcadmin_owner::destroy(); }
    void TearDown() override { fcadmin_owner::destroy(); }
};

}  // namespace

TEST_F(ShmTool, OwnerAndClientsOverTheSegmentsLife) {
    EXPECT_EQ(shm({"info"}).output, kNotAttached);
    EXPECT_EQ(shm({"read"}).status, 1);

    ToolRun created = shm({"create", "256"});
    ASSERT_EQ(created.status, 0) << created.output;
    const int shmid = fcadmin_owner::find_segment();
    const int semid = fcadmin_owner::find_semaphores();
    EXPECT_GT(semid, 0);  // never the id that clients take for "no semaphore"
    EXPECT_EQ(created.output, "created segment id " + std::to_string(shmid) + " of 256 bytes (240 of data), "
                              "semaphore set id " + std::to_string(semid) + ", value 9999\n");
    EXPECT_EQ(fcadmin_owner::semaphore_value(semid), 9999);

    ToolRun again = shm({"create"});
    EXPECT_EQ(again.status, 1);
    EXPECT_EQ(again.output, "fcadmin shm: create: shmget: File exists\n");

    ToolRun info = shm({"info"});
    EXPECT_EQ(info.status, 0);
    EXPECT_NE(info.output.find("segment:   key 0x778899 id " + std::to_string(shmid) + ", 256 bytes, 240 of data, 1 attached\n"),
              std::string::npos) << info.output;
    EXPECT_NE(info.output.find("semaphore: key 0x778898 id " + std::to_string(semid) + ", value 9999, 0 waiting\n"),
              std::string::npos) << info.output;
    EXPECT_NE(info.output.find("header:    written by fcadmin shm create\n"), std::string::npos);

    EXPECT_EQ(shm({"write", "first record"}).output, "wrote 13 bytes\n");
    EXPECT_EQ(shm({"read"}).output, "first record\n");
    // The text sits right after the owner's header, NUL-terminated.
    const char *at = static_cast<const char *>(shmat(shmid, nullptr, SHM_RDONLY));
    ASSERT_NE(at, reinterpret_cast<const char *>(-1));
    EXPECT_EQ(memcmp(at, "FCADMSHM", 8), 0);
    EXPECT_STREQ(at + 16, "first record");
    shmdt(at);

    ToolRun too_long = shm({"write", std::string(240, 'x')});
    EXPECT_EQ(too_long.status, 1);
    EXPECT_EQ(too_long.output, "fcadmin shm: the text needs 241 bytes; the data area holds 240\n");
    EXPECT_EQ(shm({"write", std::string(239, 'y')}).status, 0);
    EXPECT_EQ(shm({"read"}).output, std::string(239, 'y') + "\n");

    // Clients leave the lock as they found it.
    EXPECT_EQ(fcadmin_owner::semaphore_value(semid), 9999);
    ASSERT_EQ(fcadmin_owner::set_value(semid, 12), 0);
    EXPECT_EQ(shm({"init"}).output, "semaphore set to 9999\n");
    EXPECT_EQ(fcadmin_owner::semaphore_value(semid), 9999);

    EXPECT_EQ(shm({"destroy"}).output, "removed the segment and the semaphore set (2 objects)\n");
    EXPECT_EQ(fcadmin_owner::find_segment(), -1);
    EXPECT_EQ(fcadmin_owner::find_semaphores(), -1);
    EXPECT_EQ(shm({"destroy"}).output, "nothing to remove\n");
    ToolRun gone = shm({"read"});
    EXPECT_EQ(gone.status, 1);
    EXPECT_EQ(gone.output, kNotAttached);
}

TEST_F(ShmTool, ClientsWaitForTheLock) {
    ASSERT_EQ(shm({"create"}).status, 0);
    ASSERT_EQ(shm({"write", "before"}).status, 0);

    // Another process holds the write lock: a reader waits, then sees what that writer left.
    ASSERT_EQ(take(-9999), 0);
    Started reader = start_tool({"read"});
    ASSERT_TRUE(waiters_reach(1));
    ASSERT_EQ(take(9999), 0);
    ToolRun read = finish(reader);
    EXPECT_EQ(read.status, 0);
    EXPECT_EQ(read.output, "before\n");

    // Another process holds a read lock: a writer waits until it is released.
    ASSERT_EQ(take(-1), 0);
    Started writer = start_tool({"write", "after"});
    ASSERT_TRUE(waiters_reach(1));
    EXPECT_EQ(shm({"read"}).output, "before\n");  // readers still get in
    ASSERT_EQ(take(1), 0);
    EXPECT_EQ(finish(writer).output, "wrote 6 bytes\n");
    EXPECT_EQ(shm({"read"}).output, "after\n");

    // A reader that holds the lock for a while still releases it.
    EXPECT_EQ(shm({"read", "--hold", "20"}).output, "after\n");
    EXPECT_EQ(fcadmin_owner::semaphore_value(fcadmin_owner::find_semaphores()), 9999);
}

TEST_F(ShmTool, UsageErrors) {
    for (const auto &args : std::vector<std::vector<std::string>>{
             {}, {"grow"}, {"create", "abc"}, {"create", "16"}, {"create", "64", "more"}, {"destroy", "x"},
             {"write"}, {"write", "a", "b"}, {"read", "--hold"}, {"read", "--hold", "-5"}, {"info", "x"}}) {
        ToolRun run = shm(args);
        EXPECT_EQ(run.status, 2) << (args.empty() ? "" : args[0]);
        EXPECT_NE(run.output.find("Try 'fcadmin shm --help'."), std::string::npos);
    }
    ToolRun help = shm({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.output.find("through a writable mapping of its own"), std::string::npos);
    EXPECT_NE(help.output.find("create [SIZE]"), std::string::npos);
}
