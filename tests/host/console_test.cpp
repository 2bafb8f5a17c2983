// The host console: formatted text to standard error, nothing to standard output.
#include "fcadmin_platform.h"
#include "tests/support/helpers.h"

#include <fcntl.h>
#include <unistd.h>

using namespace fcadmin_test;

TEST(HostConsole, PrintsToStandardErrorOnly) {
    EXPECT_IN_CHILD({
        dup2(open("/tmp/console_test.out", O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
        dup2(open("/tmp/console_test.err", O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
        EXPECT_EQ(console_printf("Err: cli command \"%s\" open file %s failed\n", "/bin/x", "/var/log/y"), 54);
        EXPECT_EQ(console_printf("%d%%\n", 42), 4);
        EXPECT_EQ(console_printf(nullptr), -1);
        EXPECT_EQ(geps_2env(), 0);  // the host prepares nothing before a transfer tool runs
    });
    EXPECT_EQ(read_file("/tmp/console_test.err"), "Err: cli command \"/bin/x\" open file /var/log/y failed\n42%\n");
    EXPECT_EQ(read_file("/tmp/console_test.out"), "");
}
