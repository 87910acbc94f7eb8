// What the clock is to do, and when it is told: between the daemon's requests and the backend.
//
// Requests take effect a few milliseconds after the last of them, so that a daemon that states all it wants
// after a reconnection moves the hardware once, to where it ends, and not through every step on the way.
//
// Nobody may follow a source whose quality is not watched. When the last client's link breaks, the hardware
// is left alone for the grace time, in which a restarting daemon comes back; then it goes to holdover. A
// client that said goodbye is not waited for. The same clock runs from nsmd's own start. It stops when a
// client says where the clock is to come from: being connected alone is not enough.
#pragma once

#include "nsmd/clock/dpll.h"

struct thread;

struct clock_control {
    lib_globals* ctx;
    dpll_backend dpll;  // all null until clock_control_start
    std::uint32_t grace_s;
    dpll_wanted wanted;  // whoever changes it says so with clock_control_wanted
    bool unwatched;      // overrides what is wanted: holdover
    std::uint32_t clients;
    thread* settle_timer;
    thread* grace_timer;
};

// Takes the backend over. Nothing is asked of it before the first request or the end of the grace time.
void clock_control_start(clock_control* c, lib_globals* ctx, const dpll_backend& dpll, std::uint32_t grace_s);
void clock_control_stop(clock_control* c);  // leaves the hardware as it is

// `wanted` changed or was stated again. `names_source`: the request says where the clock is to come from.
void clock_control_wanted(clock_control* c, bool names_source);
// How many clients there are now; `clean`: the one that went said goodbye.
void clock_control_clients(clock_control* c, std::uint32_t count, bool clean);

dpll_report clock_control_report(const clock_control* c);
