// One flag: whether the last choice stands. It is only ever set by a selection that ran inside the loop.
#include "core/loop.h"

#include "core/select.h"
#include "core/socket.h"
#include "core/timers.h"

namespace {

bool in_loop = false;
bool choice_stands = false;

// A PDU that came takes care of itself (ssm_select_after_pdu); one that goes changes nothing that selection
// looks at.
bool leaves_choice_alone(thread_func handler) {
    return handler == recv_ssm || handler == ssm_pdu_sync_trigger;
}

}  // namespace

int ssm_run_event(thread* event) {
    const bool harmless = leaves_choice_alone(event->func);
    in_loop = true;
    const int result = thread_call(event);
    in_loop = false;
    if (!harmless) choice_stands = false;
    return result;
}

void ssm_select_after_pdu(bool repeated) {
    if (repeated && in_loop && choice_stands) return;
    ssm_clock_select();
    choice_stands = in_loop;
}

void ssm_choice_is_stale() {
    choice_stands = false;
}
