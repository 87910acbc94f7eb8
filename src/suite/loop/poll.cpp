// Descriptors and their readiness. Owns the table of sources, the lists of what is ready, and the epoll set.
//
// A descriptor stays registered while its one-shot events come and go: an event that is added again inside
// its handler costs no system call. Descriptors that lost an event are remembered as dirty, and what the
// kernel watches for nobody is taken back before the next wait, so that a ready descriptor without an event
// cannot make the loop spin. A report is good for one service: a handler runs only when its descriptor was
// reported since the handler last ran, or when the reader said itself that it has more.
#include <sys/eventfd.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

#include "suite/base/memory.h"
#include "suite/log/log.h"
#include "suite/loop/master.h"

namespace {

constexpr std::size_t FIRST_ROOM = 64;
constexpr std::int32_t NONE = -1;

std::uint32_t epoll_mask(std::uint8_t directions) {
    std::uint32_t mask = 0;
    if (directions & DIRECTION_READ) mask |= EPOLLIN;
    if (directions & DIRECTION_WRITE) mask |= EPOLLOUT;
    return mask;
}

// Makes the kernel's registration what `directions` says.
bool register_with_kernel(thread_master* m, thread_source* s, int fd, std::uint8_t directions) {
    if (directions == s->registered) return true;
    epoll_event e{};
    e.events = epoll_mask(directions);
    e.data.fd = fd;
    int operation = directions == 0 ? EPOLL_CTL_DEL : s->registered == 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
    int result = epoll_ctl(m->epoll_fd, operation, fd, &e);
    // A descriptor that was closed or reused without a word to the loop: what the kernel knows counts.
    if (result != 0 && operation == EPOLL_CTL_ADD && errno == EEXIST) {
        result = epoll_ctl(m->epoll_fd, EPOLL_CTL_MOD, fd, &e);
    } else if (result != 0 && operation == EPOLL_CTL_MOD && errno == ENOENT) {
        result = epoll_ctl(m->epoll_fd, EPOLL_CTL_ADD, fd, &e);
    }
    if (result != 0 && operation != EPOLL_CTL_DEL) return false;
    s->registered = directions;
    return true;
}

std::uint8_t wanted_directions(const thread_source* s) {
    return static_cast<std::uint8_t>((s->read != nullptr ? DIRECTION_READ : 0) |
                                     (s->write != nullptr ? DIRECTION_WRITE : 0));
}

void settle_dirty(thread_master* m) {
    while (m->first_dirty != NONE) {
        const int fd = m->first_dirty;
        thread_source* s = m->sources + fd;
        m->first_dirty = s->next_dirty;
        s->queued &= static_cast<std::uint8_t>(~QUEUED_DIRTY);
        const std::uint8_t less = s->registered & wanted_directions(s);
        if (!register_with_kernel(m, s, fd, less)) s->registered = 0;
    }
}

std::int32_t* next_of_other(thread_master* m, std::int32_t entry) {
    return &m->sources[entry >> 1].next_other[entry & 1];
}

void queue_high(thread_master* m, thread_source* s, int fd) {
    if (s->queued & QUEUED_HIGH) return;
    s->queued |= QUEUED_HIGH;
    s->next_high = NONE;
    (m->high.first == NONE ? m->high.first : m->sources[m->high.last].next_high) = fd;
    m->high.last = fd;
}

std::uint32_t served_of_other(const thread_master* m, std::int32_t entry) {
    return m->sources[entry >> 1].served[entry & 1];
}

// Who was served longest ago comes first. The kernel reports in an order of its own, in which two that were
// served between the same two waits could keep overtaking the rest.
void queue_other(thread_master* m, thread_source* s, int fd, int direction) {
    const std::uint8_t bit = direction == 0 ? QUEUED_READ : QUEUED_WRITE;
    if (s->queued & bit) return;
    s->queued |= bit;
    const std::int32_t entry = fd * 2 + direction;
    const auto served_later = [&](std::int32_t other) {
        return static_cast<std::int32_t>(served_of_other(m, other) - s->served[direction]) > 0;
    };
    std::int32_t* link = &m->others.first;
    if (*link != NONE && !served_later(m->others.last)) link = next_of_other(m, m->others.last);
    while (*link != NONE && !served_later(*link)) link = next_of_other(m, *link);
    s->next_other[direction] = *link;
    *link = entry;
    if (s->next_other[direction] == NONE) m->others.last = entry;
}

void take_report(thread_master* m, int fd, bool readable, bool writable) {
    thread_source* s = thread_source_find(m, fd);
    if (s == nullptr) return;
    const std::uint8_t ready =
        static_cast<std::uint8_t>((readable ? DIRECTION_READ : 0) | (writable ? DIRECTION_WRITE : 0));
    thread_poll_set_ready(m, s, fd, ready);
}

bool poll_kernel(thread_master* m, int timeout_ms) {
    const int count = epoll_wait(m->epoll_fd, m->reports, THREAD_BATCH, timeout_ms);
    for (int i = 0; i < count; i++) {
        const std::uint32_t events = m->reports[i].events;
        const int fd = m->reports[i].data.fd;
        if (fd == m->wake_fd) {
            std::uint64_t wakes = 0;
            // Nothing to do when there is nothing to read: the flag counts, not the number.
            (void)!read(m->wake_fd, &wakes, sizeof wakes);
            continue;
        }
        constexpr std::uint32_t both = EPOLLERR | EPOLLHUP;
        take_report(m, fd, (events & (EPOLLIN | both)) != 0, (events & (EPOLLOUT | both)) != 0);
    }
    return count > 0;
}

bool poll_replaced(thread_master* m, int timeout_ms) {
    thread_ready reports[THREAD_BATCH];
    const int count = m->edges.wait(m->edges.arg, timeout_ms, reports, THREAD_BATCH);
    for (int i = 0; i < count; i++) take_report(m, reports[i].fd, reports[i].readable, reports[i].writable);
    return count > 0;
}

}  // namespace

bool thread_poll_open(thread_master* m) {
    m->high = m->others = {NONE, NONE};
    m->first_dirty = NONE;
    m->epoll_fd = m->wake_fd = -1;
    if (m->replaced) return true;
    m->epoll_fd = epoll_create1(EPOLL_CLOEXEC);
    m->wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m->epoll_fd < 0 || m->wake_fd < 0) return false;
    epoll_event e{};
    e.events = EPOLLIN;
    e.data.fd = m->wake_fd;
    return epoll_ctl(m->epoll_fd, EPOLL_CTL_ADD, m->wake_fd, &e) == 0;
}

void thread_poll_close(thread_master* m) {
    if (m->epoll_fd >= 0) close(m->epoll_fd);
    if (m->wake_fd >= 0) close(m->wake_fd);
    memmgr_free(m->sources, MTYPE_THREAD);
}

thread_source* thread_source_get(thread_master* m, int fd) {
    const std::size_t index = static_cast<std::size_t>(fd);
    if (index < m->source_room) return m->sources + index;
    std::size_t room = m->source_room == 0 ? FIRST_ROOM : m->source_room;
    while (room <= index) room *= 2;
    void* grown = memmgr_realloc(m->sources, room * sizeof(thread_source), MTYPE_THREAD);
    if (grown == nullptr) return nullptr;
    m->sources = static_cast<thread_source*>(grown);
    m->source_room = room;
    return m->sources + index;
}

bool thread_poll_watch(thread_master* m, thread_source* s, int fd, std::uint8_t direction) {
    if (m->replaced || s->always_ready || (s->registered & direction) != 0) return true;
    const std::uint8_t more = s->registered | direction;
    if (register_with_kernel(m, s, fd, more)) return true;
    if (errno != EPERM) return false;
    s->always_ready = true;
    return true;
}

void thread_poll_forget(thread_master* m, thread_source* s, int fd) {
    // The registration may be gone already, with the descriptor.
    if (!m->replaced) (void)epoll_ctl(m->epoll_fd, EPOLL_CTL_DEL, fd, nullptr);
    s->registered = 0;
    s->ready = 0;
    s->always_ready = false;
}

void thread_poll_unused(thread_master* m, thread_source* s, int fd) {
    if (m->replaced || s->registered == 0 || (s->queued & QUEUED_DIRTY) != 0) return;
    s->queued |= QUEUED_DIRTY;
    s->next_dirty = m->first_dirty;
    m->first_dirty = fd;
}

void thread_poll_set_ready(thread_master* m, thread_source* s, int fd, std::uint8_t ready) {
    if ((ready & (DIRECTION_READ | READY_MARKED)) != 0 && s->read != nullptr) {
        s->ready |= ready & (DIRECTION_READ | READY_MARKED);
        if (s->read->type == thread_class::read_high) {
            queue_high(m, s, fd);
        } else {
            queue_other(m, s, fd, 0);
        }
    }
    if ((ready & DIRECTION_WRITE) != 0 && s->write != nullptr) {
        s->ready |= DIRECTION_WRITE;
        queue_other(m, s, fd, 1);
    }
}

bool thread_poll(thread_master* m, int timeout_ms) {
    settle_dirty(m);
    m->served_since_poll = 0;
    return m->replaced ? poll_replaced(m, timeout_ms) : poll_kernel(m, timeout_ms);
}

thread* thread_take_high(thread_master* m) {
    while (m->high.first != NONE) {
        const int fd = m->high.first;
        thread_source* s = m->sources + fd;
        m->high.first = s->next_high;
        s->queued &= static_cast<std::uint8_t>(~QUEUED_HIGH);
        thread* event = s->read;
        if (event == nullptr || event->type != thread_class::read_high) continue;
        if ((s->ready & (DIRECTION_READ | READY_MARKED)) == 0) continue;
        s->ready &= DIRECTION_WRITE;
        s->read = nullptr;
        thread_poll_unused(m, s, fd);
        return event;
    }
    return nullptr;
}

thread* thread_take_other(thread_master* m) {
    while (m->others.first != NONE) {
        const std::int32_t entry = m->others.first;
        const int fd = entry >> 1, direction = entry & 1;
        thread_source* s = m->sources + fd;
        m->others.first = s->next_other[direction];
        s->queued &= static_cast<std::uint8_t>(~(direction == 0 ? QUEUED_READ : QUEUED_WRITE));
        const std::uint8_t mask = direction == 0 ? DIRECTION_READ | READY_MARKED : DIRECTION_WRITE;
        thread** pending = direction == 0 ? &s->read : &s->write;
        thread* event = *pending;
        if (event == nullptr || event->type == thread_class::read_high || (s->ready & mask) == 0) continue;
        s->ready &= static_cast<std::uint8_t>(~mask);
        *pending = nullptr;
        s->served[direction] = ++m->others_served;
        thread_poll_unused(m, s, fd);
        return event;
    }
    return nullptr;
}

void thread_poll_wake(int wake_fd) {
    const int kept = errno;
    const std::uint64_t one = 1;
    (void)!write(wake_fd, &one, sizeof one);
    errno = kept;
}
