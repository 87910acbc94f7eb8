// Result codes: 0 is success, every failure is negative. Two families: the daemon's own (-999 to -958) and
// those with which a configuration operation refuses a request (-50000 to -49993). A few operations also
// return -1 (a system or library call failed) and -100 (no instance record).
#pragma once

#include <cstdint>

struct cli;

enum ssm_result : std::int32_t {
    SSM_OK = 0,
    SSM_E_GENERAL = -999,
    SSM_E_NO_MEMORY = -998,
    SSM_E_NOT_INIT = -997,
    SSM_E_NOT_FOUND = -996,
    SSM_E_NOT_EXIST = -995,
    SSM_E_HAVE_EXIST = -994,
    SSM_E_INIT_FAILED = -993,
    SSM_E_FILE = -992,
    SSM_E_FILE_OPEN = -991,
    SSM_E_TIMER = -990,
    SSM_E_TIMEOUT = -989,
    SSM_E_IOCTL = -988,
    SSM_E_NOT_IMPLEMENT = -987,
    SSM_E_INVALID_PARAM = -986,
    SSM_E_INVALID_MAC_ADDR = -985,
    SSM_E_INVALID_IP_ADDR = -984,
    SSM_E_INVALID_PTR = -983,
    SSM_E_INVALID_INDEX = -982,
    SSM_E_INVALID_IFINDEX = -981,
    SSM_E_INVALID_IFNAME = -980,
    SSM_E_INVALID_LENGTH = -979,
    SSM_E_INVALID_PORT = -978,
    SSM_E_INVALID_CHIP = -977,
    SSM_E_INVALID_MSG = -976,
    SSM_E_SOCK_GEN = -975,
    SSM_E_SOCK_SEND = -974,
    SSM_E_SOCK_RECV = -973,
    SSM_E_SOCK_CREATE = -972,
    SSM_E_SOCK_BIND = -971,
    SSM_E_SOCK_LISTEN = -970,
    SSM_E_SOCK_ACCEPT = -969,
    SSM_E_NSM_PORT_INIT_ERROR = -968,
    SSM_E_MAC_NOT_UNICAST = -967,
    SSM_E_IF_NOT_SUPPORTED = -966,
    SSM_E_ENCAP_NOT_8023 = -965,
    SSM_E_ENCAP_NOT_8023_UDP4 = -964,
    SSM_E_IF_SSM_ENABLED = -963,
    SSM_E_OP_TC_PORT_FAULTY_DISCARD = -962,
    SSM_E_MSG_ERROR_ENCAP = -960,
    SSM_E_CHIP_ENABLE_SET_FAIL = -959,
    SSM_E_PORT_ENABLE_SET_FAIL = -958,

    SSM_CLI_E_FORCE_CONFLICT = -50000,
    SSM_CLI_E_INVALID_INPUT = -49999,
    SSM_CLI_E_INVALID_IF = -49998,
    SSM_CLI_E_PORT_RUNNING = -49997,
    SSM_CLI_E_SLAVE_ONLY = -49996,
    SSM_CLI_E_QL_OPTION1 = -49995,
    SSM_CLI_E_QL_OPTION2 = -49994,
    SSM_CLI_E_OPTION_COLLISION = -49993,
};

// Constant texts, never null. Unknown codes: "General error".
const char* ssm_err_str(std::int32_t code);
const char* ssm_cli_err_str(std::int32_t code);

// "% TEXT" on the operator's terminal.
void ssm_cli_result_print(cli* terminal, std::int32_t code);

// The one line in which an internal operation reports a step that failed; returns the code unchanged.
std::int32_t ssm_op_failed(std::int32_t code, const char* function, int line);
