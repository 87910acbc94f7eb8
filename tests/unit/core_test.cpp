// Result codes and the debug mask: numbers and texts that scripts and other daemons match, the commands, and
// the platform's way to the mask.
#include "core/result.h"

#include "core/debug.h"
#include "daemon_fixture.h"

namespace {

using lines = std::vector<std::string>;

TEST(results, codes_keep_their_numbers_and_texts) {
    std::string from_minus_998;
    for (std::int32_t code = -998; code <= -958; code++)
        from_minus_998 += ssm_err_str(code) + std::string("\n");
    EXPECT_EQ(
        from_minus_998,
        "SSM_E_NO_MEMORY\nSSM_E_NOT_INIT\nSSM_E_NOT_FOUND\nSSM_E_NOT_EXIST\nSSM_E_HAVE_EXIST\n"
        "SSM_E_INIT_FAILED\nSSM_E_FILE\nSSM_E_FILE_OPEN\nSSM_E_TIMER\nSSM_E_TIMEOUT\nSSM_E_IOCTL\n"
        "SSM_E_NOT_IMPLEMENT\nSSM_E_INVALID_PARAM\nUnable to translate MAC address\n"
        "SSM_E_INVALID_IP_ADDR\nSSM_E_INVALID_PTR\nSSM_E_INVALID_INDEX\nSSM_E_INVALID_IFINDEX\n"
        "SSM_E_INVALID_IFNAME\nSSM_E_INVALID_LENGTH\nSSM_E_INVALID_PORT\nSSM_E_INVALID_CHIP\n"
        "SSM_E_INVALID_MSG\nSSM_E_SOCK_GEN\nSSM_E_SOCK_SEND\nSSM_E_SOCK_RECV\nSSM_E_SOCK_CREATE\n"
        "SSM_E_SOCK_BIND\nSSM_E_SOCK_LISTEN\nSSM_E_SOCK_ACCEPT\nSSM_E_NSM_PORT_INIT_ERROR\n"
        "The MAC address must be unicast address\nCannot configure SSM on this interface\n"
        "Encapsulation mode must be IEEE 802.3\nEncapsulation mode must be IEEE 802.3 or UDP over IPv4\n"
        "Only can be configured when the interface disabled SSM\nSSM_E_OP_TC_PORT_FAULTY_DISCARD\n"
        "General error\nSSM_E_MSG_ERROR_ENCAP\nSSM_E_CHIP_ENABLE_SET_FAIL\n"
        "SSM_E_PORT_ENABLE_SET_FAIL\n");
    EXPECT_STREQ(ssm_err_str(0), "OK");
    for (std::int32_t unknown : {-999, -957, -1, 1, -49998})
        EXPECT_STREQ(ssm_err_str(unknown), "General error") << unknown;
    EXPECT_STREQ(ssm_cli_err_str(0), "OK");
    EXPECT_STREQ(ssm_cli_err_str(-49999), "Cannot recognize your input");
    EXPECT_STREQ(ssm_cli_err_str(-49998), "Cannot configure on this interface");
    EXPECT_STREQ(ssm_cli_err_str(-49997), "Cannot configure on running SSM port");
    EXPECT_STREQ(ssm_cli_err_str(-49996), "Cannot configure on slave-only clock");
    for (std::int32_t code : {-49995, -49993, -50000, -998, -1, 1})
        EXPECT_STREQ(ssm_cli_err_str(code), "General error") << code;
}

using result_output = daemon_test;

TEST_F(result_output, failed_operation_is_logged_once_and_its_code_returned) {
    EXPECT_EQ(ssm_op_failed(SSM_E_TIMER, "some_operation", 42), SSM_E_TIMER);
    EXPECT_EQ(logged(), lines{": ESMCD OP failed: rv = -990, some_operation:42. SSM_E_TIMER"});
}

using debug_mask = daemon_test;

TEST_F(debug_mask, commands_set_and_clear_one_bit_or_all_in_every_mode) {
    const std::pair<std::string, std::uint32_t> words[] = {
        {"event", 1}, {"cli", 2}, {"timer", 4}, {"packet", 8}, {"all", 15}};
    add_port("p1", 1);
    for (const auto& [word, bits] : words) {
        interface_mode("p1");
        ssm_debug = 0;
        quiet("debug ssm " + word);
        EXPECT_EQ(ssm_debug, bits) << word;
        EXPECT_EQ(session_.mode, INTERFACE_MODE);
        ssm_debug = 15;
        quiet("no debug ssm " + word);
        EXPECT_EQ(ssm_debug, 15U & ~bits) << word;
        exec_mode();
        quiet("no debug ssm all");
    }
}

TEST_F(debug_mask, trace_tests_the_mask_before_the_change) {
    const std::pair<std::string, lines> steps[] = {{"debug ssm cli", {}},
                                                   {"debug ssm cli", {": debug ssm cli"}},
                                                   {"no debug ssm cli", {": no debug ssm cli"}},
                                                   {"no debug ssm all", {}}};
    for (const auto& [line, traced] : steps) {
        quiet(line);
        EXPECT_EQ(logged(), traced) << line;
    }
}

TEST_F(debug_mask, show_lists_what_is_on_in_its_own_order) {
    EXPECT_EQ(shown("show debugging ssm"), "SSM debugging status:\n\n");
    ssm_debug = SSM_DEBUG_ALL;
    EXPECT_EQ(shown("show debugging ssm"),
              "SSM debugging status:\n SSM timer debugging is on\n SSM cli debugging is on\n"
              " SSM packet debugging is on\n SSM event debugging is on\n\n");
    ssm_debug_init();  // start-up clears two bits
    EXPECT_EQ(ssm_debug, static_cast<std::uint32_t>(SSM_DEBUG_TIMER | SSM_DEBUG_PACKET));
}

TEST_F(debug_mask, platform_shows_sets_and_clears_through_the_callback) {
    const auto callback = [this](int what) {
        ssm_debug_callback(&session_, what, nullptr);
        return output();
    };
    ssm_debug = SSM_DEBUG_PACKET | SSM_DEBUG_CLI;
    EXPECT_EQ(callback(0),
              "ssm             ssm             cli                     on\n"
              "ssm             ssm             packet                  on\n");
    ssm_debug_callback(nullptr, 2, nullptr);
    callback(7);
    EXPECT_EQ(ssm_debug, 10U);
    callback(2);
    EXPECT_EQ(ssm_debug, 15U);
    EXPECT_EQ(callback(0), "ssm             ssm             all                     on\n");
    callback(1);
    EXPECT_EQ(callback(0), "");
}

}  // namespace
