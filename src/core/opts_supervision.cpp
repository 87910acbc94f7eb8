// Operations on what supervision.h keeps, and on the form of the extended TLV. Values out of range are
// refused with SSM_CLI_E_INVALID_INPUT; what changes who may be the source is followed by selection at once.
#include "core/extension.h"
#include "core/guard.h"
#include "core/opts.h"
#include "core/ports.h"
#include "core/ql.h"
#include "core/result.h"
#include "core/select.h"
#include "core/supervision.h"
#include "core/timers.h"

namespace {

bool is_hold_off(std::uint32_t milliseconds) {
    return milliseconds == 0 || (milliseconds >= SSM_HOLD_OFF_MIN_MS && milliseconds <= SSM_HOLD_OFF_MAX_MS &&
                                 milliseconds % SSM_HOLD_OFF_STEP_MS == 0);
}

std::int32_t look_again() {
    ssm_opts_reselect();
    ssm_opts_after_change();
    return SSM_OK;
}

}  // namespace

std::int32_t ssm_opts_set_hold_off(std::uint32_t milliseconds) {
    if (!is_hold_off(milliseconds)) return SSM_CLI_E_INVALID_INPUT;
    g_s_master->hold_off_ms = milliseconds;
    return SSM_OK;
}

std::int32_t ssm_opts_set_port_hold_off(interface* intf, std::uint32_t milliseconds) {
    ssm_port* port = ssm_if_port(intf);
    if (!port) return SSM_CLI_E_INVALID_IF;
    if (!is_hold_off(milliseconds)) return SSM_CLI_E_INVALID_INPUT;
    port->hold_off_ms = static_cast<std::uint16_t>(milliseconds);
    return SSM_OK;
}

std::int32_t ssm_opts_set_restore(std::uint32_t seconds) {
    if (seconds > SSM_RESTORE_MAX_S) return SSM_CLI_E_INVALID_INPUT;
    g_s_master->restore_s = seconds;
    return SSM_OK;
}

std::int32_t ssm_opts_set_port_restore(interface* intf, std::uint32_t seconds) {
    ssm_port* port = ssm_if_port(intf);
    if (!port) return SSM_CLI_E_INVALID_IF;
    if (seconds > SSM_RESTORE_MAX_S) return SSM_CLI_E_INVALID_INPUT;
    port->restore_set = 1;
    port->restore_s = static_cast<std::uint16_t>(seconds);
    return SSM_OK;
}

std::int32_t ssm_opts_unset_port_restore(interface* intf) {
    ssm_port* port = ssm_if_port(intf);
    if (!port) return SSM_CLI_E_INVALID_IF;
    port->restore_set = 0;
    port->restore_s = 0;
    return SSM_OK;
}

std::int32_t ssm_opts_end_restore(ssm_port* port) {
    const auto end = [](ssm_port* waiting) {
        ssm_timer_cancel(&waiting->restore_timer);
        waiting->failed = 0;
    };
    if (port)
        end(port);
    else
        ssm_port_walk(end);
    return look_again();
}

std::int32_t ssm_opts_set_port_lockout(interface* intf, std::uint32_t on) {
    ssm_port* port = ssm_if_port(intf);
    if (!port) return SSM_CLI_E_INVALID_IF;
    if (port->lockout == on) return SSM_OK;
    port->lockout = static_cast<std::uint8_t>(on);
    ssm_history_command(intf->name, on ? "lockout" : "no lockout", "the operator");
    return look_again();
}

std::int32_t ssm_opts_set_non_revertive(std::uint32_t on) {
    if (g_s_master->non_revertive == on) return SSM_OK;
    g_s_master->non_revertive = on;
    return look_again();
}

std::int32_t ssm_opts_manual_switch(interface* intf, const char** why) {
    ssm_port* port = ssm_if_port(intf);
    *why = nullptr;
    if (!port) return SSM_CLI_E_INVALID_IF;
    *why = ssm_manual_refusal(port);
    if (*why) return SSM_CLI_E_INVALID_INPUT;
    g_s_master->manual_port = port;
    ssm_history_command(intf->name, "manual switch", "the operator");
    return look_again();
}

std::int32_t ssm_opts_clear_switch() {
    ssm_manual_drop("cleared");
    if (g_s_master->force_e1) (void)ssm_opts_force_e1(0);       // always 0
    if (g_s_master->force_port) (void)ssm_opts_unforce_port();  // always 0
    return look_again();
}

std::int32_t ssm_opts_set_port_limit(interface* intf, std::uint32_t direction, ssm_limit limit,
                                     const char* token) {
    ssm_port* port = ssm_if_port(intf);
    if (!port) return SSM_CLI_E_INVALID_IF;
    ssm_quality quality = QL_NONE;
    const std::int32_t rv = ssm_ql_parse(token, &quality);
    if (rv < 0) return rv;
    std::uint16_t& minimum = direction == SSM_ESMC_RX ? port->min_rx_quality : port->min_tx_quality;
    std::uint16_t& maximum = direction == SSM_ESMC_RX ? port->max_rx_quality : port->max_tx_quality;
    std::uint16_t& changed = limit == ssm_limit::minimum ? minimum : maximum;
    if (changed == quality) return SSM_OK;
    changed = quality;
    port->limited = port->max_rx_quality != QL_NONE;
    ssm_opts_reselect();
    return SSM_OK;
}

std::int32_t ssm_opts_set_extend_form(std::uint32_t form) {
    if (g_s_master->extend_form == form) return SSM_OK;
    g_s_master->extend_form = static_cast<std::uint8_t>(form);
    if (ssm_guard_in_force()) ssm_guard_restart();
    return SSM_OK;
}

std::int32_t ssm_opts_set_port_extend_form(interface* intf, std::uint32_t form) {
    ssm_port* port = ssm_if_port(intf);
    if (!port) return SSM_CLI_E_INVALID_IF;
    port->extend_form = static_cast<std::uint8_t>(form);
    return SSM_OK;
}

std::int32_t ssm_opts_set_clock_type(std::uint32_t type) {
    g_s_master->clock_type = static_cast<std::uint8_t>(type);
    return SSM_OK;
}
