// The line of a failed operation, and the debug mask: its commands, and
// the platform's way to the mask.
#include "core/result.h"

#include "core/debug.h"
#include "daemon_fixture.h"

namespace {

using lines = std::vector<std::string>;

using result_output = daemon_test;

using debug_mask = daemon_test;

// The trace of the commands tests the mask before the change.
TEST_F(debug_mask, commands_set_and_clear_one_bit_or_all_in_every_mode) {
    const std::pair<std::string, std::uint32_t> words[] = {
        {"event", 1}, {"cli", 2}, {"timer", 4}, {"packet", 8}, {"all", 15}};
    add_port("p1", 1);
    for (const auto& [word, bits] : words) {
        interface_mode("p1");
        ssm_debug = 0;
        quiet("debug ssm " + word);
        EXPECT_EQ(ssm_debug, bits) << word;
        EXPECT_EQ(logged(), lines{});
        EXPECT_EQ(session_.mode, INTERFACE_MODE);
        ssm_debug = 15;
        exec_mode();
        quiet("no debug ssm " + word);
        EXPECT_EQ(ssm_debug, 15U & ~bits) << word;
        EXPECT_EQ(logged(), lines{": no debug ssm " + word});
    }
}

TEST_F(debug_mask, is_shown_set_and_cleared_by_the_platform_too) {
    const auto callback = [this](int what) {
        ssm_debug_callback(&session_, what, nullptr);
        return output();
    };
    ssm_debug = SSM_DEBUG_PACKET | SSM_DEBUG_CLI;
    EXPECT_EQ(shown("show debugging ssm"),
              "SSM debugging status:\n SSM cli debugging is on\n SSM packet debugging is on\n\n");
    EXPECT_EQ(callback(0),
              "ssm             ssm             cli                     on\n"
              "ssm             ssm             packet                  on\n");
    callback(2);
    EXPECT_EQ(ssm_debug, 15U);
    EXPECT_EQ(callback(0), "ssm             ssm             all                     on\n");
    ssm_debug_init();  // start-up clears two bits
    EXPECT_EQ(ssm_debug, static_cast<std::uint32_t>(SSM_DEBUG_TIMER | SSM_DEBUG_PACKET));
    callback(1);
    EXPECT_EQ(callback(0), "");
}

}  // namespace
