// Result codes keep their numbers and texts: scripts and other daemons match them.
#include "core/result.h"

#include "daemon_fixture.h"

namespace {

TEST(ssm_err_str, codes_keep_their_numbers) {
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
}

TEST(ssm_cli_err_str, only_four_refusals_have_texts) {
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
    EXPECT_EQ(logged(),
              std::vector<std::string>{": ESMCD OP failed: rv = -990, some_operation:42. SSM_E_TIMER"});
}

}  // namespace
