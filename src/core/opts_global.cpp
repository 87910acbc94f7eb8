// Operations on the switch-wide settings. The order of the steps after a change matters on the wire and
// towards the hardware: timers first, then re-evaluation, then the request, then what holds without SSM.
#include <cstring>

#include "core/nsm_request.h"
#include "core/opts.h"
#include "core/pdu.h"
#include "core/ports.h"
#include "core/ql.h"
#include "core/result.h"
#include "core/select.h"
#include "core/supervision.h"
#include "core/timers.h"

namespace {

void update_all_timers(std::uint32_t on) {
    ssm_opts_port_list_loop(on ? [](ssm_port* port) { return ssm_port_timers_update(port, 1); }
                               : [](ssm_port* port) { return ssm_port_timers_update(port, 0); });
}

void clear_gephy_roles() {
    ssm_opts_port_list_loop([](ssm_port* port) { return ssm_opts_set_gephy_role(port->intf, 0, 0); });
    // A role that is set from now on is somebody else's: the next report of the clock must leave it alone.
    g_s_master->gephy_dynamic_intf = nullptr;
}

// What a port heard says nothing about a switch that changed its role: quality and clock are forgotten.
void forget_neighbour(ssm_port* port) {
    port->recv_pdu = 0;
    port->recv_hop_count = 0;
    port->recv_quality = QL_NONE;
    std::memset(port->recv_clockid, 0, SSM_CLOCK_ID_SIZE);
}

void enter_master_only() {
    ssm_opts_master_only_apply();
    ssm_port_walk([](ssm_port* port) {
        forget_neighbour(port);
        port->send_quality =
            static_cast<std::uint16_t>(port->send_timer ? g_s_master->local_quality : std::uint32_t{QL_NONE});
        ssm_timer_cancel(&port->timeout_timer);
    });
}

bool forced_quality_counts(const ssm_port* port) {
    return g_s_master->global_enable && g_s_master->ssm_enable && port->synce_enable && port->link_up &&
           port->force_rx_quality != QL_NONE;
}

void enter_selecting_role() {
    ssm_opts_no_source();
    g_s_master->current_quality = QL_DNU;
    ssm_port_walk([](ssm_port* port) {
        forget_neighbour(port);  // time-outs are left running
        port->send_quality = QL_NONE;
        if (forced_quality_counts(port) && !g_s_master->selected_port) ssm_clock_select();
    });
    (void)ssm_opts_force_switch_if();  // always 0
    ssm_opts_without_ssm_step();
}

}  // namespace

std::int32_t ssm_opts_set_global_enable(std::uint32_t on) {
    if (g_s_master->global_enable == on) return SSM_OK;
    g_s_master->global_enable = on;
    update_all_timers(on);
    ssm_opts_reselect();
    (void)ssm_nsm_send_global_enable(on);
    ssm_opts_without_ssm_step();
    ssm_opts_after_change();
    return SSM_OK;
}

std::int32_t ssm_opts_set_recovery_select(std::uint32_t select) {
    if (g_s_master->recovery_select == select) return SSM_OK;
    g_s_master->recovery_select = select;
    (void)ssm_nsm_send_recovery_select(select);
    return SSM_OK;
}

std::int32_t ssm_opts_set_ssm_enable(std::uint32_t on) {
    if (on && !g_s_master->gephy_dynamic) clear_gephy_roles();  // also when SSM is on already
    if (g_s_master->ssm_enable == on) return SSM_OK;
    g_s_master->ssm_enable = on;
    update_all_timers(on);
    ssm_opts_reselect();
    if (!on) clear_gephy_roles();
    ssm_opts_after_change();
    return SSM_OK;
}

// Given again, as a reload of the configuration does, it is no reason to forget what neighbours were told.
std::int32_t ssm_opts_set_ssm_extend(std::uint32_t on) {
    if (g_s_master->ssm_extend == on) return SSM_OK;
    g_s_master->ssm_extend = on;
    if (g_s_master->guard.enable) ssm_guard_restart();
    return SSM_OK;
}

void ssm_opts_hardware_quality(std::uint16_t quality) {
    g_s_master->hardware.quality = quality;
    if (!g_s_master->local_quality_set && g_s_master->ql_option == SSM_OPTION_1)
        (void)ssm_opts_set_local_quality(QL_DNU, SSM_OPTION_1);  // the option stays: no collision
}

std::int32_t ssm_opts_set_local_quality(std::uint32_t quality, std::uint8_t option) {
    const bool is_default = quality == QL_DNU && option == SSM_OPTION_1;
    if (is_default) quality = g_s_master->hardware.quality;
    if (g_s_master->ql_option == option) g_s_master->local_quality_set = !is_default;
    if (g_s_master->local_quality == quality && g_s_master->ql_option == option) return SSM_OK;
    // Forced port qualities and limits are stored as codes and would silently change their meaning.
    if ((option == SSM_OPTION_1 && g_s_master->forced_ql_count_op2) ||
        (option == SSM_OPTION_2 && g_s_master->forced_ql_count_op1) ||
        (option != g_s_master->ql_option && ssm_port_walk_until(ssm_has_limits)))
        return SSM_CLI_E_OPTION_COLLISION;
    g_s_master->local_quality = quality;
    g_s_master->local_quality_set = !is_default;
    g_s_master->ql_option = option;
    if (g_s_master->device_type != SSM_MASTER_ONLY) return SSM_OK;  // the next selection takes it up

    const std::uint32_t target = g_s_master->ssm_enable && g_s_master->global_enable
                                     ? g_s_master->local_quality
                                     : std::uint32_t{QL_DNU};
    if (g_s_master->current_quality != target) {
        g_s_master->current_quality = target;
        (void)ssm_pdu_tx_all();
    }
    return SSM_OK;
}

std::int32_t ssm_opts_set_local_priority(std::uint32_t priority) {
    const auto value = static_cast<std::uint8_t>(priority);
    if (g_s_master->local_priority == value) return SSM_OK;
    g_s_master->local_priority = value;
    ssm_opts_without_ssm_step();
    return SSM_OK;
}

std::int32_t ssm_opts_set_device_type(std::uint32_t type) {
    if (g_s_master->device_type == type) return SSM_OK;
    g_s_master->device_type = type;
    if (type == SSM_MASTER_ONLY)
        enter_master_only();
    else
        enter_selecting_role();
    return SSM_OK;
}

std::int32_t ssm_opts_set_loop_guard(std::uint32_t on) {
    if (g_s_master->guard.enable == on) return SSM_OK;
    g_s_master->guard.enable = on;
    ssm_guard_restart();
    return SSM_OK;
}

std::int32_t ssm_opts_set_guard_hold(std::uint32_t milliseconds) {
    if (milliseconds < SSM_GUARD_HOLD_MIN || milliseconds > SSM_GUARD_HOLD_MAX)
        return SSM_CLI_E_INVALID_INPUT;
    g_s_master->guard.hold_ms = milliseconds;
    return SSM_OK;
}

std::int32_t ssm_opts_set_guard_hops(std::uint32_t hops) {
    if (hops < SSM_GUARD_HOPS_MIN || hops > SSM_GUARD_HOPS_MAX) return SSM_CLI_E_INVALID_INPUT;
    g_s_master->guard.hops = hops;
    return SSM_OK;
}

std::int32_t ssm_opts_set_advertise_when_locked(std::uint32_t on) {
    if (g_s_master->advertise_when_locked == on) return SSM_OK;
    g_s_master->advertise_when_locked = on;
    ssm_opts_reselect();
    return SSM_OK;
}

std::int32_t ssm_opts_set_keep_state(std::uint32_t on) {
    g_s_master->keep_state = on;
    return SSM_OK;
}

std::int32_t ssm_opts_set_e1_quality(const char* token) {
    if (g_s_master->ql_option != SSM_OPTION_1) return SSM_CLI_E_QL_OPTION2;
    std::uint16_t code = QL_NONE;
    const std::int32_t rv = ssm_ql_parse(token, &code);
    if (rv < 0) return rv;
    g_s_master->e1_quality = code;
    return SSM_OK;
}
