// fcadmin shm end to end: the owner's create and destroy, and the clients init, info, read and write on
// a real segment in the sandbox's IPC namespace.
#include "fcadmin.h"
#include "tests/support/helpers.h"
#include "tools/fcadmin/shm_owner.h"

#include <sys/wait.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

struct ToolRun {
    int status = -1;
    std::string output;  // standard output and standard error together, in order
};

ToolRun shm(const std::vector<std::string> &args) {
    std::vector<std::string> argv = {"/bin/sh", "-c", "exec \"$FCADMIN_TOOL\" shm \"$@\" 2>&1", "sh"};
    argv.insert(argv.end(), args.begin(), args.end());
    ToolRun run;
    const int status = fcadmin_test::run_program(argv, &run.output);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

const char *kNotAttached = "fcadmin shm: cannot attach the shared segment and its semaphore set (has the owner "
                           "made them? see 'fcadmin shm create')\n";

}  // namespace

TEST(ShmTool, OwnerAndClientsOverTheSegmentsLife) {
    fcadmin_owner::destroy();
    ToolRun before = shm({"read"});
    EXPECT_EQ(before.status, 1);
    EXPECT_EQ(before.output, kNotAttached);

    ToolRun created = shm({"create", "256"});
    ASSERT_EQ(created.status, 0) << created.output;
    const int shmid = fcadmin_owner::find_segment();
    const int semid = fcadmin_owner::find_semaphores();
    EXPECT_GT(semid, 0);  // never the id that clients take for "no semaphore"
    EXPECT_EQ(created.output, "created segment id " + std::to_string(shmid) + " of 256 bytes (240 of data), "
                              "semaphore set id " + std::to_string(semid) + ", value 9999\n");
    EXPECT_EQ(shm({"create"}).output, "fcadmin shm: create: shmget: File exists\n");

    ToolRun info = shm({"info"});
    EXPECT_EQ(info.status, 0);
    EXPECT_NE(info.output.find("segment:   key 0x778899 id " + std::to_string(shmid) + ", 256 bytes, 240 of data, 1 attached\n"),
              std::string::npos) << info.output;
    EXPECT_NE(info.output.find("semaphore: key 0x778898 id " + std::to_string(semid) + ", value 9999, 0 waiting\n"),
              std::string::npos) << info.output;

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
    EXPECT_EQ(fcadmin_owner::semaphore_value(semid), 9999);  // clients leave the lock as they found it

    ASSERT_EQ(fcadmin_owner::set_value(semid, 12), 0);
    EXPECT_EQ(shm({"init"}).output, "semaphore set to 9999\n");
    EXPECT_EQ(fcadmin_owner::semaphore_value(semid), 9999);
    ToolRun usage = shm({"create", "16"});
    EXPECT_EQ(usage.status, 2);
    EXPECT_NE(usage.output.find("Try 'fcadmin shm --help'."), std::string::npos);

    EXPECT_EQ(shm({"destroy"}).output, "removed the segment and the semaphore set (2 objects)\n");
    EXPECT_EQ(fcadmin_owner::find_segment(), -1);
    EXPECT_EQ(fcadmin_owner::find_semaphores(), -1);
    EXPECT_EQ(shm({"destroy"}).output, "nothing to remove\n");
}
