// The event loop. Events are one-shot: an event that has been fetched is spent and its handle invalid;
// who wants the next one adds it again (this costs no system call when it is done inside the handler).
//
// One turn is: due timers (earliest first, equal due times in the order in which they were added), then at
// most one ready event of the high class, then at most one of the others, in turn. The clock is sampled once
// a turn; timers added during the turn count from that sample. Events may be added and cancelled, the running
// one's descriptor included, from inside any handler.
//
// Allocation failure in an add function: logged, null returned, nothing changed.
#pragma once

#include <cstdint>

#include "suite/base/clock.h"

struct lib_globals;
struct thread_master;
struct thread;

using thread_func = int (*)(thread*);

enum class thread_class : std::uint8_t { timer, read_high, read, write };

// An event. Handlers read `arg`, `fd` and `ctx`; the rest is the loop's.
struct thread {
    thread_func func;
    void* arg;
    lib_globals* ctx;
    int fd;  // -1 for timers
    thread_class type;
    std::uint32_t slot;   // loop's: place in the timer heap, or in the free list
    nanoseconds due;      // timers: absolute, monotonic
    std::uint64_t order;  // loop's: first in first out among equal due times
    thread* next;         // loop's: free list
};

// What a wait reports: descriptor and which directions are ready (error and hang-up count as both).
struct thread_ready {
    int fd;
    bool readable;
    bool writable;
};

// Edges that a test replaces for virtual time. `now` returns monotonic nanoseconds. `wait` blocks until
// something is ready, at most `timeout_ms` (-1: no limit, 0: poll), fills at most `max` entries and returns
// their number; 0 for a time-out or a signal. A virtual wait moves the clock forward by the time-out. With a
// replaced wait, no descriptor is ever registered with the kernel, and one that returns 0 although it may
// block without limit has nothing left to tell: thread_fetch then returns null.
struct thread_edges {
    nanoseconds (*now)(void* arg);
    int (*wait)(void* arg, int timeout_ms, thread_ready* out, int max);
    void* arg;
};

// Null when memory or descriptors are exhausted. `edges` null: the system's clock and epoll.
thread_master* thread_master_create(const thread_edges* edges = nullptr);
void thread_master_finish(thread_master* master);  // cancels everything; null is ignored

thread* thread_add_read_high(lib_globals* ctx, thread_func func, void* arg, int fd);
thread* thread_add_read(lib_globals* ctx, thread_func func, void* arg, int fd);
thread* thread_add_write(lib_globals* ctx, thread_func func, void* arg, int fd);
thread* thread_add_timer_msec(lib_globals* ctx, thread_func func, void* arg, std::uint32_t milliseconds);

// Removes a pending event; null is ignored. Never call it with the handle of an event that was fetched.
void thread_cancel(thread* event);

// Must be called before a descriptor that was ever added is closed: cancels what is pending on it and makes
// the loop forget it, so that the number can be used again at once.
void thread_forget_fd(lib_globals* ctx, int fd);

// A reader that holds frames in a buffer of its own says so: the pending read event of `fd` is then ready
// without asking the kernel, once.
void thread_mark_ready(lib_globals* ctx, int fd);

// Waits for the next event and copies it into *event (the loop's own record is free again by then). Null once
// the context is shutting down, or when nothing is pending that could ever become ready.
thread* thread_fetch(lib_globals* ctx, thread* event);
// Runs a fetched event; returns what the handler returned. Measures the longest run for `show events`: of
// timers and the normal class each run, of the high class one in 64, as reading the clock costs a good part
// of a frame.
int thread_call(thread* event);

// The time of the current turn, as the timers see it.
nanoseconds thread_now(const lib_globals* ctx);
// Milliseconds until a pending timer is due (0 when overdue).
std::uint32_t thread_timer_remaining_ms(const thread* timer);

// Signals. thread_interrupt is the one call that is safe in a signal handler: it sets a flag and wakes the
// loop. The handler set here then runs at the start of the next turn, before anything else. It may end the
// library (lib_stop); thread_fetch then returns null and touches nothing any more.
void thread_set_interrupt(lib_globals* ctx, void (*handler)(lib_globals*));
void thread_interrupt();

struct thread_stats {
    std::uint64_t turns, timers_run, high_run, others_run;
    nanoseconds longest_run;  // of one handler
    std::uint32_t timers_pending, reads_pending, writes_pending;
};
thread_stats thread_get_stats(const lib_globals* ctx);
