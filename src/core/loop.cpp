// Two numbers: how many events there were, and in which of them a PDU last left the choice settled.
#include "core/loop.h"

#include "core/debug.h"
#include "core/select.h"
#include "core/timers.h"

namespace {

std::uint64_t events = 0;
std::uint64_t settled_in = 0;

}  // namespace

int ssm_run_event(thread* event) {
    // What a port sends, once a second each, is nothing that selection looks at.
    if (event->func != ssm_pdu_sync_trigger) ++events;
    return thread_call(event);
}

void ssm_select_after_pdu(bool repeated) {
    const bool stands = repeated && settled_in + 1 == events;
    settled_in = events;
    // Who debugs wants to hear of each run why ports are refused.
    if (!stands || ssm_debugging(SSM_DEBUG_EVENT)) ssm_clock_select();
}
