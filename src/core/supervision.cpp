// A failure goes through up to two times: hold-off, in which the port stays as it is (link_up, what was
// received), then the failure itself, and after the recovery wait-to-restore, in which the port is no
// candidate. `failed` is set from the failure to the end of that.
#include "core/supervision.h"

#include "core/debug.h"
#include "core/loop.h"
#include "core/opts.h"
#include "core/ports.h"
#include "core/ql.h"
#include "core/select.h"
#include "core/timers.h"

namespace {

bool ssm_runs() {
    return g_s_master->global_enable && g_s_master->ssm_enable;
}

void select_again() {
    if (ssm_runs() && g_s_master->device_type != SSM_MASTER_ONLY) ssm_clock_select();
}

// ---- Hold-off ----

int hold_off_over(thread* event) {
    auto* port = static_cast<ssm_port*>(event->arg);
    port->hold_off_timer = nullptr;
    const std::uint8_t failures = port->held_failures;
    port->held_failures = 0;
    SSM_TRACE(SSM_DEBUG_TIMER, LOG_LEVEL_DEBUG, "%s%shold-off of port %s is over", port->intf->name);
    if (failures & SSM_FAILED_LINK)
        (void)ssm_opts_link_down_switch(port);
    else if (failures & SSM_FAILED_SILENCE)
        ssm_source_silent(port);
    return 0;
}

// ---- Wait-to-restore ----

int restore_over(thread* event) {
    auto* port = static_cast<ssm_port*>(event->arg);
    port->restore_timer = nullptr;
    port->failed = 0;
    SSM_LOG(LOG_LEVEL_INFO, "%s%s%s was free of faults for %d s and counts again", port->intf->name,
            static_cast<int>(ssm_restore_s(port)));
    select_again();
    return 0;
}

}  // namespace

std::uint32_t ssm_hold_off_ms(const ssm_port* port) {
    return port->hold_off_ms ? port->hold_off_ms : g_s_master->hold_off_ms;
}

std::uint32_t ssm_restore_s(const ssm_port* port) {
    return port->restore_set ? port->restore_s : g_s_master->restore_s;
}

std::uint32_t ssm_hold_off_left_ms(const ssm_port* port) {
    return port->hold_off_timer ? thread_timer_remaining_ms(port->hold_off_timer) : 0;
}

std::uint32_t ssm_restore_left_s(const ssm_port* port) {
    return port->restore_timer ? (thread_timer_remaining_ms(port->restore_timer) + 999) / 1000 : 0;
}

bool ssm_offers_quality(const ssm_port* port) {
    if (!port->synce_enable || !port->link_up || !ssm_runs()) return false;
    if (port->force_rx_quality == QL_NONE && !port->recv_pdu) return false;
    const ssm_quality quality = ssm_port_select_quality(port);
    return quality != QL_NONE && quality != QL_DNU;
}

bool ssm_hold_off(ssm_port* port, ssm_failure failure) {
    if (!port->hold_off_timer) {
        const std::uint32_t ms = ssm_hold_off_ms(port);
        if (!ms || !ssm_offers_quality(port)) return false;
        port->hold_off_timer = ssm_timer_add_msec(hold_off_over, port, ms);
        if (!port->hold_off_timer) return false;  // without memory for it the failure counts at once
    }
    port->held_failures |= failure;
    return true;
}

bool ssm_hold_off_recovered(ssm_port* port, ssm_failure failure) {
    if (!(port->held_failures & failure)) return false;
    port->held_failures &= static_cast<std::uint8_t>(~failure);
    if (!port->held_failures) ssm_timer_cancel(&port->hold_off_timer);
    return true;
}

void ssm_source_failed(ssm_port* port) {
    ssm_timer_cancel(&port->restore_timer);
    if (ssm_restore_s(port) && ssm_offers_quality(port)) port->failed = 1;
}

void ssm_source_recovered(ssm_port* port) {
    if (!port->failed || port->restore_timer || !port->link_up) return;
    const std::uint32_t seconds = ssm_restore_s(port);
    if (seconds) port->restore_timer = ssm_timer_add_msec(restore_over, port, seconds * 1000);
    if (!port->restore_timer) port->failed = 0;
}

void ssm_supervision_forget(ssm_port* port) {
    ssm_timer_cancel(&port->hold_off_timer);
    ssm_timer_cancel(&port->restore_timer);
    port->held_failures = 0;
    port->failed = 0;
}

void ssm_supervision_resume(ssm_port* port, std::uint32_t hold_off_left_ms, std::uint32_t restore_left_ms) {
    ssm_timer_cancel(&port->hold_off_timer);
    ssm_timer_cancel(&port->restore_timer);
    if (hold_off_left_ms) port->hold_off_timer = ssm_timer_add_msec(hold_off_over, port, hold_off_left_ms);
    if (restore_left_ms) port->restore_timer = ssm_timer_add_msec(restore_over, port, restore_left_ms);
}

// ---- Limits ----

bool ssm_has_limits(const ssm_port* port) {
    return port->min_rx_quality != QL_NONE || port->max_rx_quality != QL_NONE ||
           port->min_tx_quality != QL_NONE || port->max_tx_quality != QL_NONE;
}

bool ssm_below_minimum(const ssm_port* port) {
    return port->min_rx_quality != QL_NONE &&
           ssm_ql_compare(ssm_port_select_quality(port), port->min_rx_quality) > 0;
}

ssm_quality ssm_limited_for_sending(const ssm_port* port, ssm_quality quality) {
    if (port->min_tx_quality != QL_NONE && ssm_ql_compare(quality, port->min_tx_quality) > 0) return QL_DNU;
    if (port->max_tx_quality != QL_NONE && ssm_ql_compare(quality, port->max_tx_quality) < 0)
        return port->max_tx_quality;
    return quality;
}

// ---- Manual switch ----

namespace {

// Whether it may be chosen in place of the best: quality is never given up.
bool as_good_candidate(const ssm_port* port, const ssm_port* best) {
    return best && ssm_candidate_check(port) == ssm_refusal::none &&
           ssm_ql_compare(ssm_port_select_quality(port), ssm_port_select_quality(best)) == 0;
}

}  // namespace

const char* ssm_manual_refusal(const ssm_port* port) {
    if (!ssm_runs()) return "SyncE and SSM are not both on";
    if (g_s_master->device_type == SSM_MASTER_ONLY) return "the switch is master-only";
    if (g_s_master->force_e1 || g_s_master->force_port) return "the source is forced";
    const ssm_refusal refusal = ssm_candidate_check(port);
    if (refusal != ssm_refusal::none) return ssm_refusal_text(refusal);
    return as_good_candidate(port, ssm_best_candidate()) ? nullptr : "another port offers a better quality";
}

void ssm_manual_drop(const char* why) {
    const ssm_port* port = g_s_master->manual_port;
    if (!port) return;
    g_s_master->manual_port = nullptr;
    g_s_master->manual_end = {g_s_master->manual_end.count + 1, port->ifindex, why};
    SSM_LOG(LOG_LEVEL_WARNING, "%s%smanual switch to %s ended: %s", port->intf->name, why);
    ssm_history_command(port->intf->name, "no manual switch", why);
}

void ssm_supervision_say_active() {
    if (g_s_master->force_e1) SSM_LOG(LOG_LEVEL_WARNING, "%s%sforced switch to the E1 input is active");
    if (const char* forced = ssm_port_name(g_s_master->force_port))
        SSM_LOG(LOG_LEVEL_WARNING, "%s%sforced switch to %s is active", forced);
    if (const char* manual = ssm_port_name(g_s_master->manual_port))
        SSM_LOG(LOG_LEVEL_WARNING, "%s%smanual switch to %s is active", manual);
    ssm_port_walk([](const ssm_port* port) {
        if (port->lockout) SSM_LOG(LOG_LEVEL_WARNING, "%s%s%s is locked out", port->intf->name);
    });
}

bool ssm_source_stays(const ssm_port* best) {
    const ssm_port* source = g_s_master->selected_port;
    return g_s_master->non_revertive && source && source != best && as_good_candidate(source, best);
}

ssm_port* ssm_choice_of_operator(ssm_port* best) {
    if (ssm_port* manual = g_s_master->manual_port) {
        if (as_good_candidate(manual, best)) return manual;
        const ssm_refusal refusal = ssm_candidate_check(manual);
        ssm_manual_drop(refusal != ssm_refusal::none ? ssm_refusal_text(refusal)
                                                     : "another port offers a better quality");
    }
    return ssm_source_stays(best) ? g_s_master->selected_port : best;
}
