// One timer, and how long it takes. Without memory for it, which the loop has said, nothing is tried again.
#include "suite/loop/retry.h"

#include <algorithm>

void retry_later(retry* r, lib_globals* ctx, thread_func again, void* arg, retry_waits waits) {
    if (r->event) return;
    r->delay_ms = r->delay_ms ? std::min(2 * r->delay_ms, waits.last_ms) : waits.first_ms;
    r->event = thread_add_timer_msec(ctx, again, arg, r->delay_ms);
}

void retry_begin(retry* r) {
    r->event = nullptr;
}

void retry_stop(retry* r) {
    thread_cancel(r->event);
    *r = {};
}
