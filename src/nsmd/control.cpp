// The rules of control.h as two timers over one backend. Called by nsmd's core on the event loop.
// Without memory for a timer requests take effect at once, and there is no grace time.
#include "nsmd/control.h"

#include "suite/log/log.h"
#include "suite/loop/thread.h"

namespace {

constexpr std::uint32_t SETTLE_MS = 10;

void stop_timer(thread** timer) {
    thread_cancel(*timer);
    *timer = nullptr;
}

void apply_now(clock_control* c) {
    stop_timer(&c->settle_timer);
    dpll_wanted effective = c->wanted;
    effective.holdover |= c->unwatched;
    c->dpll.apply(c->dpll.self, effective);
}

int settled(thread* event) {
    auto* c = static_cast<clock_control*>(event->arg);
    c->settle_timer = nullptr;
    apply_now(c);
    return 0;
}

void abandon(clock_control* c, const char* why) {
    stop_timer(&c->grace_timer);
    if (c->unwatched) return;
    c->unwatched = true;
    if (clock_control_report(c).state == DPLL_LOCKED)
        log_suite(LOG_LEVEL_WARNING, "%s: the clock goes to holdover", why);
    apply_now(c);
}

int grace_over(thread* event) {
    auto* c = static_cast<clock_control*>(event->arg);
    c->grace_timer = nullptr;
    abandon(c, c->clients ? "the daemon has not chosen a source" : "no daemon watches the quality");
    return 0;
}

void start_grace(clock_control* c) {
    stop_timer(&c->grace_timer);
    c->grace_timer = thread_add_timer_msec(c->ctx, grace_over, c, c->grace_s * 1000);
    if (!c->grace_timer) abandon(c, "no memory to wait for the daemon");
}

}  // namespace

void clock_control_start(clock_control* c, lib_globals* ctx, const dpll_backend& dpll,
                         std::uint32_t grace_s) {
    *c = {};
    c->ctx = ctx;
    c->dpll = dpll;
    c->grace_s = grace_s;
    c->wanted.enable = true;  // until the daemon says otherwise; with no source named, nothing is touched
    start_grace(c);
}

void clock_control_stop(clock_control* c) {
    stop_timer(&c->settle_timer);
    stop_timer(&c->grace_timer);
    if (c->dpll.finish) c->dpll.finish(c->dpll.self);
}

void clock_control_wanted(clock_control* c, bool names_source) {
    if (names_source) {
        c->unwatched = false;
        stop_timer(&c->grace_timer);
    }
    stop_timer(&c->settle_timer);
    c->settle_timer = thread_add_timer_msec(c->ctx, settled, c, SETTLE_MS);
    if (!c->settle_timer) apply_now(c);
}

void clock_control_clients(clock_control* c, std::uint32_t count, bool clean) {
    c->clients = count;
    if (count) return;
    if (c->settle_timer) apply_now(c);
    if (clean)
        abandon(c, "the daemon was stopped");
    else if (!c->unwatched)
        start_grace(c);
}

dpll_report clock_control_report(const clock_control* c) {
    return c->dpll.current(c->dpll.self);
}
