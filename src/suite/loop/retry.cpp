// One timer, and how long it takes. Without memory for it, which the loop has said, nothing is tried again.
#include "suite/loop/retry.h"

#include <algorithm>

namespace {

constexpr std::uint32_t FIRST_MS = 250, LAST_MS = 8000;

}  // namespace

void retry_later(retry* r, lib_globals* ctx, thread_func again, void* arg) {
    if (r->event) return;
    r->delay_ms = r->delay_ms ? std::min(2 * r->delay_ms, LAST_MS) : FIRST_MS;
    r->event = thread_add_timer_msec(ctx, again, arg, r->delay_ms);
}

void retry_begin(retry* r) {
    r->event = nullptr;
}

void retry_stop(retry* r) {
    thread_cancel(r->event);
    *r = {};
}
