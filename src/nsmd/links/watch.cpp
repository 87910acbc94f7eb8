// Watches the kernel's links: one rtnetlink socket in the link group, a dump at the start and after each loss
// of messages, and questions about single links. Owns the socket and its events; writes the port table.
//
// What can go wrong, and what is done: messages lost to a full buffer (ENOBUFS), a dump that other changes
// made inconsistent, refused, or that never ends: all lead to one more dump, after a pause where the kernel
// would only refuse again. Answers to questions come through the same socket as the notifications and so
// never tell older news than what was read before.
//
// The kernel delays the message about a lost carrier by up to a second when links changed just before, but
// answers a question truly at once. So ports that are up are asked for, often while such a delay can be
// running, seldom otherwise and the less often the more ports there are.
#include "nsmd/links/watch.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>

#include "nsmd/links/message.h"
#include "suite/base/memory.h"
#include "suite/log/log.h"
#include "suite/loop/thread.h"

namespace {

constexpr std::size_t RECEIVE_SIZE = 32768;  // what the kernel fills at most in one datagram of a dump
constexpr int DATAGRAMS_PER_TURN = 32;
constexpr std::uint32_t DUMP_TIMEOUT_MS = 2000, DUMP_RETRY_MS = 50;
constexpr nanoseconds DELAY_WINDOW = 1100 * NS_PER_MS;  // the kernel's second, and the way to us
// One question costs the kernel and us some 15 us. This much time a port keeps slow polling below half a
// percent of a processor.
constexpr std::uint32_t SLOW_MS_PER_PORT = 3;

enum class dump_state { idle, running, retry };

}  // namespace

struct link_watch {
    lib_globals* ctx;
    port_table* table;
    netlink_edge edge;
    link_poll poll;
    int fd;
    thread* read;
    thread* dump_timer;  // time-out of a running dump, or the pause before the next
    thread* poll_timer;
    dump_state dump;
    bool dump_spoiled;   // something changed or was lost meanwhile: not to be believed
    bool dump_answered;  // its first message has come
    bool ready;
    std::uint32_t sequence, dump_sequence;
    std::uint32_t own_port;  // our netlink address, which the kernel's answers carry; 0 until one came
    nanoseconds last_hint;
    std::uint64_t messages, dumps, overruns, questions;
    std::uint8_t buffer[RECEIVE_SIZE];
};

namespace {

void begin_dump(link_watch* w);
void arm_poll(link_watch* w, std::uint32_t ms);

int dump_timed_out(thread* event) {
    auto* w = static_cast<link_watch*>(event->arg);
    w->dump_timer = nullptr;
    if (w->dump == dump_state::running)
        log_suite(LOG_LEVEL_WARNING, "the kernel did not finish its list of links, asking again");
    begin_dump(w);
    return 0;
}

void arm_dump_timer(link_watch* w, std::uint32_t ms) {
    thread_cancel(w->dump_timer);
    w->dump_timer = thread_add_timer_msec(w->ctx, dump_timed_out, w, ms);
}

void retry_dump(link_watch* w) {
    w->dump = dump_state::retry;
    arm_dump_timer(w, DUMP_RETRY_MS);
}

void begin_dump(link_watch* w) {
    nl_builder request;
    w->dump_sequence = ++w->sequence;
    link_message_dump(&request, w->dump_sequence);
    const int result = w->edge.send(w->edge.arg, w->fd, request.message());
    if (result < 0) {
        log_suite(LOG_LEVEL_WARNING, "can't ask the kernel for its links: %s", std::strerror(-result));
        retry_dump(w);
        return;
    }
    ++w->dumps;
    w->dump = dump_state::running;
    w->dump_spoiled = w->dump_answered = false;
    port_table_dump_begin(w->table);
    arm_dump_timer(w, DUMP_TIMEOUT_MS);
}

void end_dump(link_watch* w) {
    if (w->dump_spoiled) {
        begin_dump(w);
        return;
    }
    w->dump = dump_state::idle;
    thread_cancel(w->dump_timer);
    w->dump_timer = nullptr;
    w->ready = true;
    port_table_dump_end(w->table);
}

void messages_lost(link_watch* w) {
    ++w->overruns;
    log_suite(LOG_LEVEL_INFO, "messages about links were lost, asking for all of them");
    if (w->dump == dump_state::idle)
        begin_dump(w);
    else
        w->dump_spoiled = true;
}

void ask(link_watch* w, std::uint32_t kernel_ifindex) {
    nl_builder request;
    link_message_get(&request, ++w->sequence, kernel_ifindex);
    ++w->questions;
    // Not sent: the next question, or the kernel's own message, tells as well.
    (void)w->edge.send(w->edge.arg, w->fd, request.message());
}

// From now on, for a second, other links' news may be held back.
void hint(link_watch* w) {
    const nanoseconds now = thread_now(w->ctx);
    const bool was_slow = now - w->last_hint > DELAY_WINDOW;
    w->last_hint = now;
    if (was_slow && w->poll.fast_ms) arm_poll(w, w->poll.fast_ms);
}

void take_link(link_watch* w, const nl_message& message) {
    link_info link;
    if (!link_message_parse(message, &link)) return;
    // A notification carries the address of who made the change, which is never us.
    const bool notification = w->own_port == 0 || message.port != w->own_port;
    if (notification) hint(w);
    if (message.type == RTM_DELLINK)
        port_table_link_gone(w->table, link.kernel_ifindex);
    else if (link.complete)
        port_table_link(w->table, link);
    else if (notification)
        ask(w, link.kernel_ifindex);
}

void take_error(link_watch* w, const nl_message& message) {
    const int code = nl_error_code(message);
    if (code == 0) return;
    if (w->dump == dump_state::running && message.sequence == w->dump_sequence) {
        log_suite(LOG_LEVEL_DEBUG, "list of links refused: %s", std::strerror(-code));
        retry_dump(w);
    }
    // Else a question about a link that is gone: its end comes as a message.
}

void take_message(link_watch* w, const nl_message& message) {
    ++w->messages;
    const bool of_dump = w->dump == dump_state::running && message.sequence == w->dump_sequence &&
                         (message.flags & NLM_F_MULTI);
    if (of_dump) w->own_port = message.port;
    if (of_dump && !w->dump_answered) {
        // What was queued before it is older than the list, and proves nothing about what exists by now:
        // after an overrun the end of a link may be among what was lost.
        w->dump_answered = true;
        port_table_dump_begin(w->table);
    }
    if (of_dump && (message.flags & NLM_F_DUMP_INTR)) w->dump_spoiled = true;
    switch (message.type) {
        case RTM_NEWLINK:
        case RTM_DELLINK:
            take_link(w, message);
            break;
        case NLMSG_ERROR:
            take_error(w, message);
            break;
        case NLMSG_DONE:
            if (of_dump) end_dump(w);
            break;
        default:
            break;
    }
}

// False when nothing more is there.
bool read_datagram(link_watch* w) {
    const int got = w->edge.receive(w->edge.arg, w->fd, {w->buffer, sizeof w->buffer});
    if (got == -ENOBUFS || got == -EMSGSIZE) {
        messages_lost(w);
        return true;
    }
    if (got == -EINTR) return true;
    if (got < 0) {
        if (got != -EAGAIN) log_suite(LOG_LEVEL_ERROR, "reading about links: %s", std::strerror(-got));
        return false;
    }
    const_octets rest{w->buffer, static_cast<std::size_t>(got)};
    nl_message message;
    while (nl_next_message(&rest, &message)) take_message(w, message);
    return true;
}

int readable(thread* event) {
    auto* w = static_cast<link_watch*>(event->arg);
    w->read = nullptr;
    for (int i = 0; i < DATAGRAMS_PER_TURN && read_datagram(w); ++i) {
    }
    w->read = thread_add_read_high(w->ctx, readable, w, w->fd);
    return 0;
}

int poll_due(thread* event) {
    auto* w = static_cast<link_watch*>(event->arg);
    w->poll_timer = nullptr;
    std::uint32_t asked = 0;
    if (w->dump == dump_state::idle)
        for (const nsmd_port* p = port_table_first(w->table); p; p = p->next)
            if (p->up && p->ifindex) {
                ask(w, p->kernel_ifindex);
                ++asked;
            }
    const bool fast = w->poll.fast_ms && thread_now(w->ctx) - w->last_hint <= DELAY_WINDOW;
    arm_poll(w, fast              ? w->poll.fast_ms
                : w->poll.slow_ms ? std::max(w->poll.slow_ms, asked * SLOW_MS_PER_PORT)
                                  : 0);
    return 0;
}

void arm_poll(link_watch* w, std::uint32_t ms) {
    thread_cancel(w->poll_timer);
    w->poll_timer = ms ? thread_add_timer_msec(w->ctx, poll_due, w, ms) : nullptr;
}

}  // namespace

link_watch* link_watch_start(lib_globals* ctx, port_table* table, const netlink_edge& edge, link_poll poll) {
    auto* w = static_cast<link_watch*>(memmgr_calloc(sizeof(link_watch), MTYPE_NSMD));
    if (!w) {
        log_suite(LOG_LEVEL_ERROR, "no memory for the link watcher");
        return nullptr;
    }
    w->ctx = ctx;
    w->table = table;
    w->edge = edge;
    w->poll = poll;
    w->fd = edge.open(edge.arg, NETLINK_ROUTE);
    int result = w->fd < 0 ? w->fd : edge.join(edge.arg, w->fd, RTNLGRP_LINK);
    if (result >= 0) {
        w->read = thread_add_read_high(ctx, readable, w, w->fd);
        if (!w->read) result = -ENOMEM;
    }
    if (result < 0) {
        log_suite(LOG_LEVEL_ERROR, "can't watch the kernel's links: %s", std::strerror(-result));
        link_watch_stop(w);
        return nullptr;
    }
    w->last_hint = thread_now(ctx);
    begin_dump(w);
    arm_poll(w, poll.fast_ms ? poll.fast_ms : poll.slow_ms);
    return w;
}

void link_watch_stop(link_watch* w) {
    if (!w) return;
    thread_cancel(w->dump_timer);
    thread_cancel(w->poll_timer);
    if (w->fd >= 0) {
        thread_forget_fd(w->ctx, w->fd);
        w->edge.close(w->edge.arg, w->fd);
    }
    memmgr_free(w, MTYPE_NSMD);
}

bool link_watch_ready(const link_watch* w) {
    return w->ready;
}

bool link_watch_wait_ready(link_watch* w, int timeout_ms) {
    const nanoseconds deadline = monotonic_now() + static_cast<nanoseconds>(timeout_ms) * NS_PER_MS;
    while (!w->ready && monotonic_now() < deadline) {
        if (read_datagram(w)) continue;
        // A refused dump is asked for again here too: the loop does not turn yet.
        if (w->dump == dump_state::retry) begin_dump(w);
        pollfd entry{w->fd, POLLIN, 0};
        (void)poll(&entry, 1, static_cast<int>(DUMP_RETRY_MS));
    }
    return w->ready;
}

bool link_watch_status(const link_watch* w, text_buffer* out) {
    return text_printf(
        out, "links: %" PRIu64 " messages, %" PRIu64 " dumps, %" PRIu64 " overruns, %" PRIu64 " questions\n",
        w->messages, w->dumps, w->overruns, w->questions);
}
