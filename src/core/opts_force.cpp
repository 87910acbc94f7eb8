// Force switch, holdover and re-evaluation: where the clock comes from when it is not (only) the quality
// comparison that decides. Keeps force_port, force_e1, selected_port, holdover, freerun and current_quality
// consistent, and tells NSM of every switch and every change of holdover exactly once.
#include "core/debug.h"
#include "core/nsm_request.h"
#include "core/opts.h"
#include "core/pdu.h"
#include "core/ports.h"
#include "core/ql.h"
#include "core/result.h"
#include "core/select.h"
#include "core/supervision.h"

namespace {

bool ssm_runs() {
    return g_s_master->global_enable && g_s_master->ssm_enable;
}

// A port that has a time-out running, or an operator's word for its quality, can still serve.
bool may_serve(const ssm_port* port) {
    if (port->timeout_timer || port->hold_off_timer) return true;
    if (port->lockout || ssm_below_minimum(port)) return false;
    return port->synce_enable && port->link_up && ssm_runs() && port->force_rx_quality != QL_NONE &&
           port->force_rx_quality != QL_DNU;
}

void switch_to_e1() {
    g_s_master->current_quality = g_s_master->e1_quality;
    (void)ssm_opts_switch_port(SSM_IFINDEX_E1);
    g_s_master->selected_port = nullptr;
    if (!g_s_master->ssm_enable) g_s_master->current_quality = QL_NONE;
    SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_DEBUG, "%s%sssm_opts_force_switch_if: switch force e1 port");
}

void switch_to_forced(ssm_port* forced) {
    (void)ssm_opts_switch_port(
        forced->intf->ifindex);  // says when it is selected already: nothing to do then
    g_s_master->selected_port = forced;
}

void switch_to_force_port() {
    ssm_port* forced = g_s_master->force_port;
    const ssm_quality quality = ssm_port_select_quality(forced);
    if (quality == QL_NONE) {
        // Nothing forced, nothing received: the operator's word still holds, but nobody may rely on it.
        g_s_master->current_quality = QL_DNU;
        switch_to_forced(forced);
    } else {
        g_s_master->current_quality = quality == QL_DNU ? quality : ssm_quality_followed(forced);
        if (quality == QL_DNU)
            ssm_opts_no_source();
        else
            switch_to_forced(forced);
    }
    if (!g_s_master->ssm_enable) g_s_master->current_quality = QL_DNU;
    SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_DEBUG, "%s%sssm_opts_force_switch_if: switch force port %d",
              static_cast<int>(forced->intf->ifindex));
}

}  // namespace

bool ssm_force_port_in_effect() {
    const ssm_port* forced = g_s_master->force_port;
    return forced && g_s_master->global_enable && forced->link_up && forced->synce_enable && !forced->lockout;
}

void ssm_opts_without_ssm_step() {
    if (g_s_master->global_enable && !g_s_master->ssm_enable)
        (void)ssm_select_without_ssm(g_s_master->device_type);  // always 0
}

void ssm_opts_after_change() {
    ssm_opts_master_only_apply();
    (void)ssm_opts_force_switch_if();  // always 0
    ssm_opts_without_ssm_step();
}

std::int32_t ssm_opts_set_holdover(std::uint32_t on) {
    if (g_s_master->holdover == on) return SSM_E_GENERAL;
    if (g_s_master->freerun) return SSM_E_GENERAL;  // a clock that never had a source has nothing to hold
    (void)ssm_nsm_send_holdover(on);
    g_s_master->holdover = on;
    if (ssm_runs()) (void)ssm_pdu_tx_all();
    return SSM_OK;
}

std::int32_t ssm_opts_switch_port(std::uint32_t ifindex) {
    const ssm_port* selected = g_s_master->selected_port;
    if (selected && selected->intf->ifindex == ifindex) return SSM_E_GENERAL;
    g_s_master->freerun = 0;
    (void)ssm_opts_set_holdover(0);  // says when it was off already
    if (ifindex == SSM_IFINDEX_E1) return SSM_OK;
    (void)ssm_nsm_selected_if_index(ifindex, 0);  // logged there, kept and restated by the client
    return SSM_OK;
}

void ssm_opts_no_source() {
    if (g_s_master->freerun) return;
    if (g_s_master->force_port || !ssm_runs())
        g_s_master->current_quality = QL_DNU;
    else
        g_s_master->current_quality = ssm_holdover_quality();
    g_s_master->selected_port = nullptr;
    (void)ssm_opts_set_holdover(1);  // says when it is on already
}

void ssm_opts_check_all_lost() {
    if (!ssm_port_walk_until(may_serve)) ssm_opts_no_source();
}

void ssm_opts_master_only_apply() {
    if (g_s_master->device_type != SSM_MASTER_ONLY || !g_s_master->global_enable) return;
    g_s_master->current_quality = g_s_master->ssm_enable ? g_s_master->local_quality : std::uint32_t{QL_DNU};
    (void)ssm_opts_set_holdover(1);
    g_s_master->selected_port = nullptr;
}

std::int32_t ssm_opts_force_switch_if() {
    if (g_s_master->force_e1)
        switch_to_e1();
    else if (!g_s_master->force_port)
        return SSM_OK;
    else if (ssm_force_port_in_effect())
        switch_to_force_port();
    else
        ssm_opts_no_source();
    return SSM_OK;
}

std::int32_t ssm_opts_set_force_port(ssm_port* port) {
    if (g_s_master->force_port == port) return SSM_OK;
    if (port) {
        g_s_master->force_e1 = 0;
        ssm_manual_drop("the source is forced");
    }
    g_s_master->force_port = port;
    if (port) ssm_history_command(port->intf->name, "forced switch", "the operator");
    ssm_opts_after_change();
    return SSM_OK;
}

std::int32_t ssm_opts_unforce_port() {
    if (g_s_master->force_port)
        ssm_history_command(g_s_master->force_port->intf->name, "no forced switch", "the operator");
    g_s_master->force_port = nullptr;
    ssm_opts_master_only_apply();
    if (ssm_runs() && g_s_master->non_revertive)
        ssm_clock_select();  // the source stays if it is as good as any
    else
        ssm_opts_no_source();  // the next selection chooses anew
    ssm_opts_without_ssm_step();
    return SSM_OK;
}

std::int32_t ssm_opts_force_e1(std::uint32_t on) {
    if (g_s_master->force_e1 == on) return SSM_OK;
    if (on) {
        g_s_master->force_port = nullptr;
        ssm_manual_drop("the source is forced");
    }
    g_s_master->force_e1 = on;
    ssm_opts_after_change();
    return SSM_OK;
}

std::int32_t ssm_opts_clear_force() {
    if (g_s_master->force_e1 && g_s_master->force_port) return SSM_CLI_E_FORCE_CONFLICT;
    if (g_s_master->force_e1) (void)ssm_opts_force_e1(0);
    if (g_s_master->force_port) (void)ssm_opts_unforce_port();
    return SSM_OK;
}

void ssm_opts_reselect() {
    if (g_s_master->device_type == SSM_MASTER_ONLY) {
        ssm_opts_master_only_apply();
        return;
    }
    if (g_s_master->force_port) {
        if (!ssm_force_port_in_effect()) {
            g_s_master->current_quality = QL_DNU;
            g_s_master->selected_port = nullptr;
        }
        ssm_opts_check_all_lost();
    }
    if (!g_s_master->global_enable) {
        ssm_opts_no_source();
    } else if (!g_s_master->ssm_enable) {
        (void)ssm_select_without_ssm(g_s_master->device_type);  // always 0
    } else {
        ssm_opts_check_all_lost();
        ssm_clock_select();
    }
}
