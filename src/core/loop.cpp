// Two numbers: how many events there were, and in which of them a PDU last left the choice settled.
#include "core/loop.h"

#include "core/debug.h"
#include "core/select.h"
#include "core/timers.h"

int ssm_run_event(thread* event) {
    // What a port sends, once a second each, is nothing that selection looks at.
    if (event->func != ssm_pdu_sync_trigger) ++g_s_master->events;
    const int result = thread_call(event);
    const ssm_master& clock = *g_s_master;
    if (clock.resuming) [[unlikely]]
        return result;
    const ssm_standing now = ssm_standing_of(clock);
    if (now != clock.standing) [[unlikely]]
        ssm_history_changed(now);
    if (clock.guard.enable && clock.ssm_extend) ssm_guard_after_event();
    return result;
}

void ssm_select_after_pdu(bool repeated) {
    const bool stands = repeated && g_s_master->settled_in + 1 == g_s_master->events;
    g_s_master->settled_in = g_s_master->events;
    // Who debugs wants to hear of each run why ports are refused.
    if (!stands || ssm_debugging(SSM_DEBUG_EVENT)) ssm_clock_select();
}
