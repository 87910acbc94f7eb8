// The reasons behind the everyday shows. Pure functions of the records.
#include "cli/reason.h"

#include <cstdio>

#include "core/opts.h"
#include "core/ports.h"
#include "core/ql.h"
#include "core/supervision.h"

namespace {

ssm_reason say(const char* text) {
    ssm_reason said;
    std::snprintf(said.text, sizeof said.text, "%s", text);
    return said;
}

ssm_reason say(const char* text, const char* subject) {
    ssm_reason said;
    std::snprintf(said.text, sizeof said.text, "%s %s", text, subject);
    return said;
}

ssm_reason holding() {
    ssm_reason said;
    std::snprintf(said.text, sizeof said.text, "holding for %u ms",
                  static_cast<unsigned>(ssm_guard_hold_left_ms()));
    return said;
}

// What keeps the switch from looking at its ports at all; empty when nothing does.
ssm_reason no_selection() {
    if (!g_s_master->global_enable) return say("SyncE is off");
    if (g_s_master->device_type == SSM_MASTER_ONLY) return say("the switch is master-only");
    if (g_s_master->force_e1) return say("the E1 input is forced");
    return {};
}

// The switch's own clock is worse, but selection has not run since the port became the best: it runs with the
// next frame or change.
ssm_reason next_source() {
    return say("is chosen by the next selection");
}

// Why the best candidate is not the source either.
ssm_reason own_clock(const ssm_port* best) {
    if (g_s_master->device_type == SSM_SLAVE_ONLY) return next_source();
    switch (ssm_own_clock_compare(best)) {
        case ssm_own_clock::better_quality:
            return say("own quality is better");
        case ssm_own_clock::not_worse_priority:
            return say("own priority is not worse");
        case ssm_own_clock::worse:
            break;
    }
    return next_source();
}

ssm_reason restoring(const ssm_port* port) {
    ssm_reason said;
    std::snprintf(said.text, sizeof said.text, "waiting to restore, %u s left",
                  static_cast<unsigned>(ssm_restore_left_s(port)));
    return said;
}

// While nothing is proved the guard holds over, and what may lead back has only to wait.
ssm_reason refused(const ssm_port* port, ssm_refusal refusal) {
    if (refusal == ssm_refusal::waiting_to_restore && port->restore_timer) return restoring(port);
    if (refusal == ssm_refusal::below_minimum)
        return say("below the minimum", ssm_ql_to_str(port->min_rx_quality, SSM_QL_STYLE_SHORT));
    if (!ssm_refusal_by_guard(refusal)) return say(ssm_refusal_text(refusal));
    if (refusal != ssm_refusal::may_lead_back || !g_s_master->guard.holding_since)
        return say(ssm_guard_objection(port).text);
    ssm_reason said;
    std::snprintf(said.text, sizeof said.text, "holding for %u ms: %d hops, ours %u",
                  static_cast<unsigned>(ssm_guard_hold_left_ms()), port->recv_hop_count,
                  static_cast<unsigned>(ssm_guard_limit(port)));
    return said;
}

ssm_reason better_than(const ssm_port* best, const ssm_port* port) {
    ssm_reason said;
    std::snprintf(said.text, sizeof said.text, "%s has the better %s", ssm_port_name(best),
                  ssm_candidate_compare(best, port).key);
    return said;
}

}  // namespace

ssm_reason ssm_reason_no_source(const ssm_port* best) {
    const ssm_reason stopped = no_selection();
    if (stopped.text[0]) return stopped;
    if (ssm_force_port_in_effect())
        return say("DNU on the forced port", ssm_port_name(g_s_master->force_port));
    if (best) return own_clock(best);
    return ssm_guard_in_force() && g_s_master->guard.holding_since ? holding() : say("no candidate");
}

ssm_reason ssm_reason_no_candidate(const ssm_port* port) {
    const ssm_refusal refusal = ssm_candidate_check(port);
    return refusal == ssm_refusal::none ? ssm_reason{} : refused(port, refusal);
}

ssm_reason ssm_reason_not_source(const ssm_port* port, const ssm_port* best) {
    if (port == g_s_master->selected_port) return {};
    const ssm_reason stopped = no_selection();
    if (stopped.text[0]) return stopped;
    const ssm_port* forced = g_s_master->force_port;
    if (ssm_force_port_in_effect())
        return port == forced ? say("forced, but carries DNU")
                              : say("switched by force to", ssm_port_name(forced));
    const ssm_reason why = ssm_reason_no_candidate(port);
    if (why.text[0]) return why;
    if (!best) return {};
    const ssm_port* source = g_s_master->selected_port;
    if (source && source == g_s_master->manual_port) return say("manual switch to", ssm_port_name(source));
    if (source && port == best && ssm_source_stays(best)) return say("the source stays (non-revertive)");
    return port == best ? own_clock(best) : better_than(best, port);
}
