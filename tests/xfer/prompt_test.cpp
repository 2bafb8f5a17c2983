// The password prompt with the platform fakes: when it asks, how often, and which verdict counts. Its
// terminal handling is exercised on a pseudo-terminal through the fetch (fetch_runner_test).
#include "fcadmin.h"
#include "tests/support/fake_platform.h"
#include "tests/support/helpers.h"

#include <fcntl.h>
#include <pty.h>
#include <unistd.h>

#include <algorithm>

using namespace fcadmin_test;

namespace {

using Names = std::vector<std::string>;

// In a forked child with a fresh terminal on standard input: QueryPassword for user against the
// scripted reads and verdicts; checks its result and the platform calls it made, one letter each:
// s for a prompt (ork_infra_scanf), v for a check (ork_verify_password).
void expect_prompt(const char *user, std::vector<int> reads, std::vector<int> verdicts, int32_t result,
                   const std::string &calls) {
    EXPECT_EQ(run_in_child([&] {
        int master = -1, slave = -1;
        ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
        ASSERT_EQ(dup2(slave, 0), 0);
        reset_platform();
        script_answers({"one", "two", "three"});
        script_results("ork_infra_scanf", reads);
        script_results("ork_verify_password", verdicts);
        char password[384] = {};
        EXPECT_EQ(QueryPassword(user, password), result);
        std::string seen;
        for (const auto &name : platform_call_names())
            seen += name == "ork_infra_scanf" ? 's' : name == "ork_verify_password" ? 'v' : '?';
        EXPECT_EQ(seen, calls);
        for (const auto &call : platform_calls_of("ork_infra_scanf"))
            EXPECT_EQ(call.args, (Names{"Password", "384"}));
        // The field holds the last answer read, accepted or not.
        const char *answers[] = {"one", "two", "three"};
        EXPECT_STREQ(password, answers[std::count(calls.begin(), calls.end(), 's') - 1]);
    }), 0);
}

TEST(QueryPassword, AsksNothingWhenNoPasswordIsNeeded) {
    // Standard input is no terminal here: touching it would end the child with status 1.
    EXPECT_IN_CHILD({
        dup2(open("/dev/null", O_RDONLY), 0);
        reset_platform();
        char password[384] = "given";
        EXPECT_EQ(QueryPassword("guest", password), 0);
        EXPECT_STREQ(password, "given");
        char empty[384] = {};
        for (const char *user : {"anonymous", "anon", "a", ""}) EXPECT_EQ(QueryPassword(user, empty), 0) << user;
        EXPECT_EQ(QueryPassword(nullptr, empty), -1);
        EXPECT_EQ(QueryPassword("guest", nullptr), -1);
        EXPECT_TRUE(platform_calls().empty());
    });
    // "anonymous2" is no prefix of "anonymous": the bound is the name's own length.
    expect_prompt("anonymous2", {0}, {1}, 0, "sv");
}

TEST(QueryPassword, LatestSuccessfulReadDecides) {
    expect_prompt("guest", {0, 0, 0}, {0, 0, 0}, -1, "svsvsv");
    expect_prompt("guest", {0, 0}, {0, 1}, 0, "svsv");
    // A prompt whose read fails is not judged; the verdict before it stands.
    expect_prompt("guest", {0, -1, 0}, {0, 0}, -1, "svssv");
    expect_prompt("guest", {-1, -1, -1}, {1}, -1, "sss");
}

}  // namespace
