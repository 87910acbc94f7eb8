// The two families of result codes and their texts, and how a failed result is shown: on the operator's
// terminal, or as the one log line of an internal operation. Everybody calls it; nothing can go wrong here.
#include "core/result.h"

#include <span>

#include "core/debug.h"

namespace {

struct code_text {
    std::int32_t code;
    const char* text;
};

// A code whose text is its own name.
#define NAMED(code) \
    { code, #code }

constexpr code_text daemon_texts[] = {
    {SSM_OK, "OK"},
    NAMED(SSM_E_NO_MEMORY),
    NAMED(SSM_E_NOT_INIT),
    NAMED(SSM_E_NOT_FOUND),
    NAMED(SSM_E_NOT_EXIST),
    NAMED(SSM_E_HAVE_EXIST),
    NAMED(SSM_E_INIT_FAILED),
    NAMED(SSM_E_FILE),
    NAMED(SSM_E_FILE_OPEN),
    NAMED(SSM_E_TIMER),
    NAMED(SSM_E_TIMEOUT),
    NAMED(SSM_E_IOCTL),
    NAMED(SSM_E_NOT_IMPLEMENT),
    NAMED(SSM_E_INVALID_PARAM),
    {SSM_E_INVALID_MAC_ADDR, "Unable to translate MAC address"},
    NAMED(SSM_E_INVALID_IP_ADDR),
    NAMED(SSM_E_INVALID_PTR),
    NAMED(SSM_E_INVALID_INDEX),
    NAMED(SSM_E_INVALID_IFINDEX),
    NAMED(SSM_E_INVALID_IFNAME),
    NAMED(SSM_E_INVALID_LENGTH),
    NAMED(SSM_E_INVALID_PORT),
    NAMED(SSM_E_INVALID_CHIP),
    NAMED(SSM_E_INVALID_MSG),
    NAMED(SSM_E_SOCK_GEN),
    NAMED(SSM_E_SOCK_SEND),
    NAMED(SSM_E_SOCK_RECV),
    NAMED(SSM_E_SOCK_CREATE),
    NAMED(SSM_E_SOCK_BIND),
    NAMED(SSM_E_SOCK_LISTEN),
    NAMED(SSM_E_SOCK_ACCEPT),
    NAMED(SSM_E_NSM_PORT_INIT_ERROR),
    {SSM_E_MAC_NOT_UNICAST, "The MAC address must be unicast address"},
    {SSM_E_IF_NOT_SUPPORTED, "Cannot configure SSM on this interface"},
    {SSM_E_ENCAP_NOT_8023, "Encapsulation mode must be IEEE 802.3"},
    {SSM_E_ENCAP_NOT_8023_UDP4, "Encapsulation mode must be IEEE 802.3 or UDP over IPv4"},
    {SSM_E_IF_SSM_ENABLED, "Only can be configured when the interface disabled SSM"},
    NAMED(SSM_E_OP_TC_PORT_FAULTY_DISCARD),
    NAMED(SSM_E_MSG_ERROR_ENCAP),
    NAMED(SSM_E_CHIP_ENABLE_SET_FAIL),
    NAMED(SSM_E_PORT_ENABLE_SET_FAIL),
};

#undef NAMED

// The quality, collision and conflict codes have no text: the commands that meet them say it in their own
// words.
constexpr code_text cli_texts[] = {
    {SSM_OK, "OK"},
    {SSM_CLI_E_INVALID_INPUT, "Cannot recognize your input"},
    {SSM_CLI_E_INVALID_IF, "Cannot configure on this interface"},
    {SSM_CLI_E_PORT_RUNNING, "Cannot configure on running SSM port"},
    {SSM_CLI_E_SLAVE_ONLY, "Cannot configure on slave-only clock"},
};

const char* find_text(std::span<const code_text> texts, std::int32_t code) {
    for (const code_text& entry : texts)
        if (entry.code == code) return entry.text;
    return "General error";
}

}  // namespace

const char* ssm_err_str(std::int32_t code) {
    return find_text(daemon_texts, code);
}

const char* ssm_cli_err_str(std::int32_t code) {
    return find_text(cli_texts, code);
}

void ssm_cli_result_print(cli* terminal, std::int32_t code) {
    terminal->out_func(terminal->out_val, "%% %s\n", ssm_cli_err_str(code));
}

std::int32_t ssm_op_failed(std::int32_t code, const char* function, int line) {
    SSM_LOG(LOG_LEVEL_ERROR, "%s%sESMCD OP failed: rv = %d, %s:%d. %s", code, function, line,
            ssm_err_str(code));
    return code;
}
