// The event loop's own record, shared by its three files: thread.cpp (turns and the public calls),
// poll.cpp (descriptors and readiness), heap.cpp (timers). Nobody else includes this.
#pragma once

#include <sys/epoll.h>
#include <cstddef>
#include <cstdint>

#include "suite/loop/thread.h"

// Directions of a descriptor, as bits. READY_MARKED: the reader has data of its own (thread_mark_ready).
enum : std::uint8_t { DIRECTION_READ = 1, DIRECTION_WRITE = 2, READY_MARKED = 4 };

// Which lists a descriptor is in.
enum : std::uint8_t { QUEUED_HIGH = 1, QUEUED_READ = 2, QUEUED_WRITE = 4, QUEUED_DIRTY = 8 };

// A descriptor that has, or had, events. It stays registered with the kernel between one-shot events.
struct thread_source {
    thread* read;  // of either class
    thread* write;
    std::int32_t next_high;      // list links: -1 ends a list
    std::int32_t next_other[2];  // by direction: read, write
    std::int32_t next_dirty;
    std::uint32_t
        served[2];  // by direction, not of the high class: when it was last served (a running number)
    std::uint8_t registered;  // directions that the kernel watches
    std::uint8_t ready;       // reported since the handler last ran, and not served yet
    std::uint8_t queued;
    bool always_ready;  // a kind of file that the kernel does not watch
};

// A list of ready events. Entries of the high list are descriptors, of the other list descriptor * 2 +
// direction (0 read, 1 write). An entry may be out of date; who takes it looks again.
struct thread_queue {
    std::int32_t first, last;
};

struct timer_item {
    nanoseconds due;
    std::uint64_t order;
    thread* event;
};

struct timer_heap {
    timer_item* items;
    std::size_t count, room;
};

struct thread_chunk;

enum class turn_phase : std::uint8_t { start, timers, high, others };

constexpr int THREAD_BATCH = 64;                 // reports taken from one wait
constexpr std::uint32_t POLL_EVENTS = 16;        // the kernel is asked again after so many events ...
constexpr nanoseconds POLL_AGE = NS_PER_MS / 2;  // ... or after this time

struct thread_master {
    turn_phase phase;
    bool in_turn;   // between two events of a running loop: `now` is the turn's sample
    bool replaced;  // edges of a test: nothing is registered with the kernel
    std::uint32_t served_since_poll;
    nanoseconds now;
    nanoseconds polled;        // when readiness was last asked for
    std::uint64_t next_order;  // of the next timer
    std::uint64_t turn_order;  // timers from this order on belong to the next turn

    timer_heap timers;

    thread_source* sources;  // by descriptor
    std::size_t source_room;
    thread_queue high, others;
    std::uint32_t others_served;  // running number for `served`
    std::int32_t first_dirty;     // descriptors whose registration may be more than what is pending

    thread* free_events;
    thread_chunk* chunks;

    int epoll_fd, wake_fd;
    thread_edges edges;
    void (*interrupt)(lib_globals*);
    thread_stats stats;
    epoll_event reports[THREAD_BATCH];
};

inline nanoseconds thread_sample(const thread_master* m) {
    return m->replaced ? m->edges.now(m->edges.arg) : monotonic_now();
}

// heap.cpp. Equal due times come out in the order of `order`. The event's `slot` is kept at its place.
[[nodiscard]] bool timer_heap_reserve(timer_heap* heap);  // room for one more
void timer_heap_push(timer_heap* heap, const timer_item& item);
void timer_heap_remove(timer_heap* heap, std::size_t slot);
void timer_heap_shift_back(timer_heap* heap, nanoseconds by);  // the clock went back: so do the due times

// poll.cpp
[[nodiscard]] bool thread_poll_open(thread_master* m);
void thread_poll_close(thread_master* m);
thread_source* thread_source_get(thread_master* m, int fd);  // makes room; null when exhausted
inline thread_source* thread_source_find(const thread_master* m, int fd) {
    return fd >= 0 && static_cast<std::size_t>(fd) < m->source_room ? m->sources + fd : nullptr;
}
// Has the kernel watch the direction, if it does not yet. False when it refuses, with errno.
[[nodiscard]] bool thread_poll_watch(thread_master* m, thread_source* s, int fd, std::uint8_t direction);
void thread_poll_forget(thread_master* m, thread_source* s, int fd);
// The direction has lost its event: its registration is looked at before the next wait.
void thread_poll_unused(thread_master* m, thread_source* s, int fd);
void thread_poll_set_ready(thread_master* m, thread_source* s, int fd, std::uint8_t ready);
// Asks for readiness, waiting for at most `timeout_ms`, and queues what is reported. False when nothing was.
bool thread_poll(thread_master* m, int timeout_ms);
// Takes the next event that is ready out of a list; null when there is none.
thread* thread_take_high(thread_master* m);
thread* thread_take_other(thread_master* m);
void thread_poll_wake(int wake_fd);  // safe in a signal handler; errno is kept
