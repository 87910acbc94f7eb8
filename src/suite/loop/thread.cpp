// The event loop: turns, and the calls that add, cancel, fetch and run events. Owns the event records (taken
// from chunks that are never given back while the loop lives) and everything behind the event master.
//
// A turn is spread over several calls of thread_fetch, each of which yields one event: first all timers that
// were due when the turn began, then at most one high event, then at most one other. The kernel is asked for
// readiness when nothing is known to be ready, and otherwise often enough (POLL_EVENTS, POLL_AGE) that
// neither a busy descriptor nor a reader that always has more can hide the others.
//
// What can go wrong: memory or the kernel's tables are exhausted (the add functions return null); the clock
// jumps (forward: timers are due; back: they keep what they had left).
#include "suite/loop/thread.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>

#include "suite/base/context.h"
#include "suite/base/memory.h"
#include "suite/log/log.h"
#include "suite/loop/master.h"

constexpr std::size_t CHUNK_EVENTS = 64;
struct thread_chunk {
    thread_chunk* next;
    thread events[CHUNK_EVENTS];
};

namespace {

constexpr int LOG_RETRY_MS = 200;  // how long dropped log lines may stay unsaid while the loop sleeps

// The signal handler's side. One flag for the process: a handler interrupts whichever loop runs.
std::atomic<bool> interrupted{false};
std::atomic<int> interrupt_wake_fd{-1};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

// Tells thread_call that the master went away under the handler.
std::uint64_t masters_finished;

// thread_call measures only each of so many high events: reading the clock costs as much as the rest of it.
constexpr std::uint64_t HIGH_MEASURED_EVERY = 64;

bool add_chunk(thread_master* m) {
    thread_chunk* chunk = static_cast<thread_chunk*>(memmgr_calloc(sizeof(thread_chunk), MTYPE_THREAD));
    if (chunk == nullptr) return false;
    chunk->next = m->chunks;
    m->chunks = chunk;
    for (thread& t : chunk->events) {
        t.next = m->free_events;
        m->free_events = &t;
    }
    return true;
}

// Null when exhausted. The record stays in the free list until claim_event.
thread* spare_event(thread_master* m) {
    if (m->free_events == nullptr && !add_chunk(m)) return nullptr;
    return m->free_events;
}

void claim_event(thread_master* m, thread* t, lib_globals* ctx, thread_func func, void* arg) {
    m->free_events = t->next;
    t->next = nullptr;
    t->func = func;
    t->arg = arg;
    t->ctx = ctx;
}

// A free record has no function, by which a second cancel is noticed.
void free_event(thread_master* m, thread* t) {
    t->func = nullptr;
    t->next = m->free_events;
    m->free_events = t;
}

void count_pending(thread_master* m, thread_class type, std::uint32_t change) {
    switch (type) {
        case thread_class::timer:
            m->stats.timers_pending += change;
            break;
        case thread_class::write:
            m->stats.writes_pending += change;
            break;
        default:
            m->stats.reads_pending += change;
            break;
    }
}
constexpr std::uint32_t ONE_LESS = UINT32_MAX;

thread* refuse(const char* what, int fd, const char* why) {
    log_suite(LOG_LEVEL_ERROR, "event loop: %s of descriptor %d refused: %s", what, fd, why);
    return nullptr;
}

thread* add_descriptor(lib_globals* ctx, thread_func func, void* arg, int fd, thread_class type) {
    const bool writing = type == thread_class::write;
    const char* what = writing ? "write event" : "read event";
    thread_master* m = ctx->master;
    if (m == nullptr) return refuse(what, fd, "no event master");
    if (fd < 0) return refuse(what, fd, "no descriptor");
    thread_source* s = thread_source_get(m, fd);
    thread* t = spare_event(m);
    if (s == nullptr || t == nullptr) return refuse(what, fd, "out of memory");
    thread** pending = writing ? &s->write : &s->read;
    if (*pending != nullptr) return refuse(what, fd, "one is pending already");
    if (!thread_poll_watch(m, s, fd, writing ? DIRECTION_WRITE : DIRECTION_READ)) {
        return refuse(what, fd, std::strerror(errno));
    }
    claim_event(m, t, ctx, func, arg);
    t->fd = fd;
    t->type = type;
    *pending = t;
    count_pending(m, type, 1);
    if (s->always_ready) thread_poll_set_ready(m, s, fd, writing ? DIRECTION_WRITE : DIRECTION_READ);
    if (!writing && (s->ready & READY_MARKED) != 0) thread_poll_set_ready(m, s, fd, READY_MARKED);
    return t;
}

// Copies a fetched event out and frees the loop's record.
thread* hand_out(thread_master* m, thread* t, thread* event) {
    *event = *t;
    count_pending(m, t->type, ONE_LESS);
    free_event(m, t);
    return event;
}

void sample_clock(thread_master* m) {
    const nanoseconds now = thread_sample(m);
    if (now < m->now) timer_heap_shift_back(&m->timers, m->now - now);
    m->now = now;
}

// How long a wait may last: until the first timer, rounded up so that it is due then.
int wait_limit(const thread_master* m) {
    int limit = !m->replaced && log_backlog() ? LOG_RETRY_MS : -1;
    if (m->timers.count == 0) return limit;
    const nanoseconds due = m->timers.items[0].due;
    if (due <= m->now) return 0;
    const nanoseconds left = (due - m->now + NS_PER_MS - 1) / NS_PER_MS;
    const int until_timer = left > INT_MAX ? INT_MAX : static_cast<int>(left);
    return limit >= 0 && limit < until_timer ? limit : until_timer;
}

bool can_ever_wake(const thread_master* m) {
    return m->stats.timers_pending != 0 || m->stats.reads_pending != 0 || m->stats.writes_pending != 0 ||
           m->interrupt != nullptr;
}

bool interrupt_pending(const thread_master* m) {
    return interrupted.load(std::memory_order_relaxed) && m->interrupt != nullptr;
}

// Asks for readiness when the turn needs it. False when nothing can ever happen any more.
bool refresh_readiness(thread_master* m) {
    const bool high = m->high.first >= 0;
    if (high && m->served_since_poll < POLL_EVENTS && m->now - m->polled < POLL_AGE) return true;
    // With only others at hand the kernel is asked each turn, as a frame must not wait until they are
    // through.
    if (high || m->others.first >= 0) {
        (void)thread_poll(m, 0);
        m->polled = m->now;
        return true;
    }
    if (!can_ever_wake(m)) return false;
    const int limit = wait_limit(m);
    const bool reported = thread_poll(m, limit);
    if (limit != 0) {
        sample_clock(m);
        if (log_backlog()) log_retry();
    }
    m->polled = m->now;
    // A replaced wait that has no end and reports nothing has nothing left to tell.
    return reported || limit >= 0 || !m->replaced || interrupt_pending(m);
}

thread* take_timer(thread_master* m) {
    if (m->timers.count == 0) return nullptr;
    const timer_item& first = m->timers.items[0];
    // Timers that were added during this turn sort behind all others that are due: the next turn is theirs.
    if (first.due > m->now || first.order >= m->turn_order) return nullptr;
    thread* t = first.event;
    timer_heap_remove(&m->timers, 0);
    m->stats.timers_run++;
    return t;
}

// The next event of the turn, or null when the turn is over.
thread* next_of_turn(thread_master* m) {
    if (m->phase == turn_phase::timers) {
        if (thread* t = take_timer(m)) return t;
        m->phase = turn_phase::high;
    }
    if (m->phase == turn_phase::high) {
        m->phase = turn_phase::others;
        if (thread* t = thread_take_high(m)) {
            m->stats.high_run++;
            m->served_since_poll++;
            return t;
        }
    }
    m->phase = turn_phase::start;
    if (thread* t = thread_take_other(m)) {
        m->stats.others_run++;
        m->served_since_poll++;
        return t;
    }
    return nullptr;
}

// False when the loop is over; neither the context nor the master may be touched then, as the interrupt
// handler may have ended both.
bool begin_turn(thread_master* m, lib_globals* ctx) {
    m->in_turn = true;
    do {
        sample_clock(m);
        while (interrupt_pending(m)) {
            const std::uint64_t finished = masters_finished;
            interrupted.store(false, std::memory_order_relaxed);
            m->interrupt(ctx);
            if (masters_finished != finished || (ctx->flags & LIB_SHUTTING_DOWN) != 0) return false;
        }
        if (!refresh_readiness(m)) {
            m->in_turn = false;
            return false;
        }
    } while (interrupt_pending(m));
    m->turn_order = m->next_order;
    m->stats.turns++;
    m->phase = turn_phase::timers;
    return true;
}

}  // namespace

thread_master* thread_master_create(const thread_edges* edges) {
    thread_master* m = static_cast<thread_master*>(memmgr_calloc(sizeof(thread_master), MTYPE_THREAD));
    if (m == nullptr) return nullptr;
    m->replaced = edges != nullptr;
    if (edges != nullptr) m->edges = *edges;
    if (!thread_poll_open(m) || !add_chunk(m)) {
        thread_master_finish(m);
        return nullptr;
    }
    m->now = thread_sample(m);
    if (m->wake_fd >= 0) interrupt_wake_fd.store(m->wake_fd);
    return m;
}

void thread_master_finish(thread_master* m) {
    if (m == nullptr) return;
    int own = m->wake_fd;
    if (own >= 0) interrupt_wake_fd.compare_exchange_strong(own, -1);
    thread_poll_close(m);
    memmgr_free(m->timers.items, MTYPE_THREAD);
    while (m->chunks != nullptr) {
        thread_chunk* chunk = m->chunks;
        m->chunks = chunk->next;
        memmgr_free(chunk, MTYPE_THREAD);
    }
    memmgr_free(m, MTYPE_THREAD);
    masters_finished++;
}

thread* thread_add_read_high(lib_globals* ctx, thread_func func, void* arg, int fd) {
    return add_descriptor(ctx, func, arg, fd, thread_class::read_high);
}

thread* thread_add_read(lib_globals* ctx, thread_func func, void* arg, int fd) {
    return add_descriptor(ctx, func, arg, fd, thread_class::read);
}

thread* thread_add_write(lib_globals* ctx, thread_func func, void* arg, int fd) {
    return add_descriptor(ctx, func, arg, fd, thread_class::write);
}

thread* thread_add_timer_msec(lib_globals* ctx, thread_func func, void* arg, std::uint32_t milliseconds) {
    thread_master* m = ctx->master;
    thread* t = m != nullptr && timer_heap_reserve(&m->timers) ? spare_event(m) : nullptr;
    if (t == nullptr) {
        log_suite(LOG_LEVEL_ERROR, "event loop: timer of %u ms refused: %s", milliseconds,
                  m == nullptr ? "no event master" : "out of memory");
        return nullptr;
    }
    claim_event(m, t, ctx, func, arg);
    t->fd = -1;
    t->type = thread_class::timer;
    if (!m->in_turn) sample_clock(m);
    t->due = m->now + milliseconds * NS_PER_MS;
    t->order = m->next_order++;
    timer_heap_push(&m->timers, {t->due, t->order, t});
    m->stats.timers_pending++;
    return t;
}

void thread_cancel(thread* t) {
    if (t == nullptr) return;
    if (t->func == nullptr) {
        log_suite(LOG_LEVEL_ERROR, "event loop: cancel of an event that is not pending");
        return;
    }
    thread_master* m = t->ctx->master;
    if (t->type == thread_class::timer) {
        timer_heap_remove(&m->timers, t->slot);
    } else {
        thread_source* s = m->sources + t->fd;
        // A mark stays: what the reader holds is still there for its next event.
        if (t->type == thread_class::write) {
            s->write = nullptr;
            s->ready &= static_cast<std::uint8_t>(~DIRECTION_WRITE);
        } else {
            s->read = nullptr;
            s->ready &= static_cast<std::uint8_t>(~DIRECTION_READ);
        }
        thread_poll_unused(m, s, t->fd);
    }
    count_pending(m, t->type, ONE_LESS);
    free_event(m, t);
}

void thread_forget_fd(lib_globals* ctx, int fd) {
    thread_master* m = ctx->master;
    thread_source* s = m != nullptr ? thread_source_find(m, fd) : nullptr;
    if (s == nullptr) return;
    thread_cancel(s->read);
    thread_cancel(s->write);
    thread_poll_forget(m, s, fd);
}

void thread_mark_ready(lib_globals* ctx, int fd) {
    thread_master* m = ctx->master;
    // Without memory the mark is lost, but then the event that it is for is refused as well.
    thread_source* s = m != nullptr && fd >= 0 ? thread_source_get(m, fd) : nullptr;
    if (s == nullptr) return;
    s->ready |= READY_MARKED;
    thread_poll_set_ready(m, s, fd, READY_MARKED);
}

thread* thread_fetch(lib_globals* ctx, thread* event) {
    thread_master* m = ctx->master;
    if (m == nullptr || (ctx->flags & LIB_SHUTTING_DOWN) != 0) return nullptr;
    for (;;) {
        if (m->phase == turn_phase::start && !begin_turn(m, ctx)) return nullptr;
        if (thread* t = next_of_turn(m)) return hand_out(m, t, event);
    }
}

int thread_call(thread* event) {
    thread_master* m = event->ctx->master;
    const bool measured =
        event->type != thread_class::read_high || m->stats.high_run % HIGH_MEASURED_EVERY == 0;
    if (!measured) return event->func(event);
    const std::uint64_t finished = masters_finished;
    const nanoseconds began = thread_sample(m);
    const int result = event->func(event);
    if (masters_finished != finished) return result;  // the handler has ended the loop
    const nanoseconds ended = thread_sample(m);
    if (ended > began && ended - began > m->stats.longest_run) m->stats.longest_run = ended - began;
    return result;
}

nanoseconds thread_now(const lib_globals* ctx) {
    const thread_master* m = ctx->master;
    if (m == nullptr) return monotonic_now();
    return m->in_turn ? m->now : thread_sample(m);
}

std::uint32_t thread_timer_remaining_ms(const thread* timer) {
    const nanoseconds now = thread_now(timer->ctx);
    if (timer->due <= now) return 0;
    return static_cast<std::uint32_t>((timer->due - now + NS_PER_MS - 1) / NS_PER_MS);
}

void thread_set_interrupt(lib_globals* ctx, void (*handler)(lib_globals*)) {
    if (ctx->master != nullptr) ctx->master->interrupt = handler;
}

void thread_interrupt() {
    interrupted.store(true, std::memory_order_relaxed);
    const int fd = interrupt_wake_fd.load(std::memory_order_relaxed);
    if (fd >= 0) thread_poll_wake(fd);
}

thread_stats thread_get_stats(const lib_globals* ctx) {
    return ctx->master != nullptr ? ctx->master->stats : thread_stats{};
}
