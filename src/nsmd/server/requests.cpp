// Takes the daemon's requests apart. Called by nsmd's core for each request that the server decoded; owns
// nothing. Values that the link does not define are logged and ignored.
#include "nsmd/server/requests.h"

#include "suite/log/log.h"

namespace {

constexpr std::uint32_t bit(std::uint16_t type) {
    return 1U << (type - NSM_MSG_SSM_GLOBAL_ENABLE);
}

const char* port_name(const port_table* table, std::uint32_t ifindex) {
    const nsmd_port* port = port_table_find(table, ifindex);
    return port ? port->name : "unknown";
}

request_effect refuse(const char* what, std::uint32_t value) {
    log_suite(LOG_LEVEL_WARNING, "request ignored: %s %u is not defined", what, value);
    return request_effect::ignored;
}

request_effect take_enable(std::uint32_t enable, dpll_wanted* wanted) {
    if (enable > 1) return refuse("enable value", enable);
    log_suite(LOG_LEVEL_INFO, "request: SyncE %s on the switch", enable ? "enabled" : "disabled");
    wanted->enable = enable != 0;
    return enable ? request_effect::clock : request_effect::source;  // off leaves no question open
}

request_effect take_recovery(std::uint32_t select, dpll_wanted* wanted) {
    if (select > 2) return refuse("clock input", select);
    if (select)
        log_suite(LOG_LEVEL_INFO, "request: recover the clock from external input %u", select);
    else
        log_suite(LOG_LEVEL_INFO, "request: recover the clock from the SyncE ports");
    wanted->recovery_select = select;
    return select ? request_effect::source : request_effect::clock;
}

// The value is the negation of the holdover state: 0 enters, 1 leaves.
request_effect take_holdover(std::uint32_t value, dpll_wanted* wanted) {
    if (value > 1) return refuse("holdover value", value);
    log_suite(LOG_LEVEL_INFO, "request: %s holdover", value ? "leave" : "enter");
    wanted->holdover = value == 0;
    return value ? request_effect::clock : request_effect::source;
}

request_effect take_selected(std::uint32_t ifindex, const port_table* table, std::uint32_t stated,
                             dpll_wanted* wanted) {
    if (ifindex == 0 || ifindex > PORT_INDEX_MAX) return refuse("interface index", ifindex);
    log_suite(LOG_LEVEL_INFO, "request: the clock source is port %u (%s)", ifindex,
              port_name(table, ifindex));
    wanted->selected = ifindex;
    // A daemon that was started anew says what differs from its own beginnings, not from what the one before
    // it had asked for. Choosing a source ends what that one left behind.
    if (!(stated & bit(NSM_MSG_SSM_HOLDOVER_ENABLE))) wanted->holdover = false;
    if (!(stated & bit(NSM_MSG_SSM_CLOCK_RECOVERY_SELECT))) wanted->recovery_select = 0;
    return request_effect::source;
}

request_effect take_role(const std::uint32_t (&words)[NSM_REQUEST_WORDS], const port_table* table,
                         copper_role* role) {
    const auto [ifindex, enable, value] = words;
    if (ifindex == 0 || ifindex > PORT_INDEX_MAX) return refuse("interface index", ifindex);
    if (enable > 1) return refuse("role enable", enable);
    if (enable && value != 1 && value != 2) return refuse("copper role", value);
    *role = {ifindex, enable != 0, value == 2};
    log_suite(LOG_LEVEL_INFO, "request: port %u (%s) %s", ifindex, port_name(table, ifindex),
              !enable      ? "has no copper role"
              : value == 1 ? "is copper timing master"
                           : "is copper timing slave");
    return request_effect::role;
}

}  // namespace

request_effect request_take(std::uint16_t type, const std::uint32_t (&words)[NSM_REQUEST_WORDS],
                            const port_table* table, std::uint32_t* stated, dpll_wanted* wanted,
                            copper_role* role) {
    request_effect effect = request_effect::ignored;
    switch (type) {
        case NSM_MSG_SSM_GLOBAL_ENABLE:
            effect = take_enable(words[0], wanted);
            break;
        case NSM_MSG_SSM_CLOCK_RECOVERY_SELECT:
            effect = take_recovery(words[0], wanted);
            break;
        case NSM_MSG_SSM_HOLDOVER_ENABLE:
            effect = take_holdover(words[0], wanted);
            break;
        case NSM_MSG_SSM_SELECTED_IF_INDEX:
            effect = take_selected(words[0], table, *stated, wanted);
            break;
        case NSM_MSG_SSM_SET_GEPHY_ROLE:
            effect = take_role(words, table, role);
            break;
        default:
            break;
    }
    if (effect != request_effect::ignored) *stated |= bit(type);
    return effect;
}
