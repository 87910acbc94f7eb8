// The debug mask, its commands, and the platform's way to it.
#include "core/debug.h"

#include "daemon_fixture.h"

namespace {

using debug_mask = daemon_test;
using lines = std::vector<std::string>;

TEST_F(debug_mask, commands_set_and_clear_one_bit_or_all_in_every_mode) {
    constexpr struct {
        const char* word;
        std::uint32_t bits;
    } words[] = {{"event", 1}, {"cli", 2}, {"timer", 4}, {"packet", 8}, {"all", 15}};
    add_port("p1", 1);
    interface_mode("p1");
    for (const auto& choice : words) {
        ssm_debug = 0;
        quiet((std::string("debug ssm ") + choice.word).c_str());
        EXPECT_EQ(ssm_debug, choice.bits) << choice.word;
        EXPECT_EQ(session_.mode, INTERFACE_MODE);
        ssm_debug = 15;
        quiet((std::string("no debug ssm ") + choice.word).c_str());
        EXPECT_EQ(ssm_debug, 15U & ~choice.bits) << choice.word;
        exec_mode();
        quiet("no debug ssm all");
        interface_mode("p1");
    }
}

TEST_F(debug_mask, trace_tests_the_mask_before_the_change) {
    quiet("debug ssm cli");
    EXPECT_EQ(logged(), lines{});
    quiet("debug ssm cli");
    EXPECT_EQ(logged(), lines{": debug ssm cli"});
    quiet("no debug ssm cli");
    EXPECT_EQ(logged(), lines{": no debug ssm cli"});
    quiet("no debug ssm all");
    EXPECT_EQ(logged(), lines{});
}

TEST_F(debug_mask, show_lists_what_is_on_in_its_own_order) {
    EXPECT_EQ(shown("show debugging ssm"), "SSM debugging status:\n\n");
    ssm_debug = SSM_DEBUG_ALL;
    EXPECT_EQ(shown("show debugging ssm"),
              "SSM debugging status:\n SSM timer debugging is on\n SSM cli debugging is on\n"
              " SSM packet debugging is on\n SSM event debugging is on\n\n");
}

TEST_F(debug_mask, platform_shows_sets_and_clears_through_the_callback) {
    ssm_debug = SSM_DEBUG_PACKET | SSM_DEBUG_CLI;
    ssm_debug_callback(&session_, 0, nullptr);
    EXPECT_EQ(output(),
              "ssm             ssm             cli                     on\n"
              "ssm             ssm             packet                  on\n");
    ssm_debug_callback(nullptr, 2, nullptr);
    ssm_debug_callback(&session_, 7, nullptr);
    EXPECT_EQ(ssm_debug, 10U);
    ssm_debug_callback(&session_, 2, nullptr);
    EXPECT_EQ(ssm_debug, 15U);
    ssm_debug_callback(&session_, 0, nullptr);
    EXPECT_EQ(output(), "ssm             ssm             all                     on\n");
    ssm_debug_callback(&session_, 1, nullptr);
    ssm_debug_callback(&session_, 0, nullptr);
    EXPECT_EQ(output(), "");
}

TEST_F(debug_mask, start_up_clears_two_bits) {
    ssm_debug = SSM_DEBUG_ALL;
    ssm_debug_init();
    EXPECT_EQ(ssm_debug, static_cast<std::uint32_t>(SSM_DEBUG_TIMER | SSM_DEBUG_PACKET));
}

}  // namespace
