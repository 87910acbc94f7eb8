// Result codes keep their numbers and texts: scripts and other daemons match them.
#include "frame/ssm_result.h"

#include <gtest/gtest.h>

#include "daemon_fixture.h"

namespace {

TEST(ssm_err_str, named_codes_print_their_names) {
    constexpr struct {
        std::int32_t code;
        const char* text;
    } expected[] = {
        {0, "OK"},
        {-999, "General error"},
        {-998, "SSM_E_NO_MEMORY"},
        {-997, "SSM_E_NOT_INIT"},
        {-996, "SSM_E_NOT_FOUND"},
        {-995, "SSM_E_NOT_EXIST"},
        {-994, "SSM_E_HAVE_EXIST"},
        {-993, "SSM_E_INIT_FAILED"},
        {-992, "SSM_E_FILE"},
        {-991, "SSM_E_FILE_OPEN"},
        {-990, "SSM_E_TIMER"},
        {-989, "SSM_E_TIMEOUT"},
        {-988, "SSM_E_IOCTL"},
        {-987, "SSM_E_NOT_IMPLEMENT"},
        {-986, "SSM_E_INVALID_PARAM"},
        {-985, "Unable to translate MAC address"},
        {-984, "SSM_E_INVALID_IP_ADDR"},
        {-983, "SSM_E_INVALID_PTR"},
        {-982, "SSM_E_INVALID_INDEX"},
        {-981, "SSM_E_INVALID_IFINDEX"},
        {-980, "SSM_E_INVALID_IFNAME"},
        {-979, "SSM_E_INVALID_LENGTH"},
        {-978, "SSM_E_INVALID_PORT"},
        {-977, "SSM_E_INVALID_CHIP"},
        {-976, "SSM_E_INVALID_MSG"},
        {-975, "SSM_E_SOCK_GEN"},
        {-974, "SSM_E_SOCK_SEND"},
        {-973, "SSM_E_SOCK_RECV"},
        {-972, "SSM_E_SOCK_CREATE"},
        {-971, "SSM_E_SOCK_BIND"},
        {-970, "SSM_E_SOCK_LISTEN"},
        {-969, "SSM_E_SOCK_ACCEPT"},
        {-968, "SSM_E_NSM_PORT_INIT_ERROR"},
        {-967, "The MAC address must be unicast address"},
        {-966, "Cannot configure SSM on this interface"},
        {-965, "Encapsulation mode must be IEEE 802.3"},
        {-964, "Encapsulation mode must be IEEE 802.3 or UDP over IPv4"},
        {-963, "Only can be configured when the interface disabled SSM"},
        {-962, "SSM_E_OP_TC_PORT_FAULTY_DISCARD"},
        {-961, "General error"},
        {-960, "SSM_E_MSG_ERROR_ENCAP"},
        {-959, "SSM_E_CHIP_ENABLE_SET_FAIL"},
        {-958, "SSM_E_PORT_ENABLE_SET_FAIL"},
        {-957, "General error"},
        {-1, "General error"},
        {1, "General error"},
        {-49998, "General error"},  // the families don't mix
    };
    for (const auto& entry : expected) EXPECT_STREQ(ssm_err_str(entry.code), entry.text) << entry.code;
}

TEST(ssm_cli_err_str, only_four_refusals_have_texts) {
    EXPECT_STREQ(ssm_cli_err_str(0), "OK");
    EXPECT_STREQ(ssm_cli_err_str(-49999), "Cannot recognize your input");
    EXPECT_STREQ(ssm_cli_err_str(-49998), "Cannot configure on this interface");
    EXPECT_STREQ(ssm_cli_err_str(-49997), "Cannot configure on running SSM port");
    EXPECT_STREQ(ssm_cli_err_str(-49996), "Cannot configure on slave-only clock");
    for (std::int32_t code : {-49995, -49994, -49993, -50000, -998, -1, 1})
        EXPECT_STREQ(ssm_cli_err_str(code), "General error") << code;
}

using result_output = daemon_test;

TEST_F(result_output, is_one_line_behind_a_percent_sign) {
    ssm_cli_result_print(&session_, -49999);
    EXPECT_EQ(output(), "% Cannot recognize your input\n");
}

TEST_F(result_output, failed_operation_is_logged_once_and_its_code_returned) {
    EXPECT_EQ(ssm_op_failed(SSM_E_TIMER, "some_operation", 42), SSM_E_TIMER);
    EXPECT_EQ(logged(),
              std::vector<std::string>{": ESMCD OP failed: rv = -990, some_operation:42. SSM_E_TIMER"});
}

}  // namespace
