// Test main: runs a requested helper program, or the tests.
#include <gtest/gtest.h>

namespace fcadmin_test {
int run_requested_helper(int argc, char **argv);
}

int main(int argc, char **argv) {
    int helper_status = fcadmin_test::run_requested_helper(argc, argv);
    if (helper_status >= 0) return helper_status;
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
