// Watches the kernel's links: one rtnetlink socket in the link group, a dump at the start and after each loss
// of messages, and questions about single links. Owns the channel and its events; writes the port table.
//
// What can go wrong, and what is done: messages lost to a full buffer (ENOBUFS), a dump that other changes
// made inconsistent, refused, or that never ends: all lead to one more dump, after a pause where the kernel
// would only refuse again. Answers to questions come through the same socket as the notifications and so
// never tell older news than what was read before.
//
// The kernel delays the message about a lost carrier by up to a second when links changed just before, but
// answers a question truly at once. So ports that are up are asked for, often while such a delay can be
// running, seldom otherwise, and some of them at a time: a link that flaps among hundreds must not make nsmd
// ask for all the others without end. What was asked is worked off first, however long the kernel takes for
// it.
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

constexpr const char* SUBJECT = "the kernel's list of links";
constexpr std::size_t RECEIVE_SIZE = 32768;  // what the kernel fills at most in one datagram of a dump
constexpr int DATAGRAMS_PER_TURN = 32;
constexpr std::uint32_t DUMP_TIMEOUT_MS = 2000, DUMP_RETRY_MS = 50;
constexpr nanoseconds DELAY_WINDOW = 1100 * NS_PER_MS;  // the kernel's second, and the way to us
// So many ports have their turn in a round of questions, one of which costs the kernel, the helper and us
// some 25 us. With no more ports than this each is asked for in each round.
constexpr std::uint32_t TURNS_PER_ROUND = 16;
constexpr std::size_t RECENT_MAX = 8;  // links that changed last

enum class dump_state { idle, running, retry };

}  // namespace

struct link_watch {
    lib_globals* ctx;
    port_table* table;
    netlink_channel channel;
    link_poll poll;
    thread* dump_timer;  // time-out of a running dump, or the pause before the next
    thread* poll_timer;
    dump_state dump;
    bool dump_spoiled;   // something changed or was lost meanwhile: not to be believed
    bool dump_answered;  // its first message has come
    bool ready;
    std::uint32_t sequence, dump_sequence;
    std::uint32_t own_port;  // our netlink address, which the kernel's answers carry; 0 until one came
    nanoseconds last_hint;
    std::uint32_t recent[RECENT_MAX];  // kernel indexes of the links that changed last, 0: none
    std::size_t recent_at;             // the oldest of them
    std::uint32_t turn;                // the first port of the next round, counted among those that are up
    std::uint32_t preferred;           // esmcd's index
    std::uint64_t messages, dumps, overruns, questions;
    std::uint8_t buffer[RECEIVE_SIZE];
};

namespace {

void begin_dump(link_watch* w);
void arm_dump_timer(link_watch* w, std::uint32_t ms);
void arm_poll(link_watch* w, std::uint32_t ms);

int dump_timed_out(thread* event) {
    auto* w = static_cast<link_watch*>(event->arg);
    w->dump_timer = nullptr;
    if (w->dump == dump_state::running && netlink_channel_waits(&w->channel)) {
        arm_dump_timer(w, DUMP_TIMEOUT_MS);  // it is with the kernel still
        return 0;
    }
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
    const int result = netlink_channel_send(&w->channel, request.message());
    if (result == -EPIPE) {  // who tends the channel asks again
        w->dump = dump_state::retry;
        return;
    }
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

// Once more where a dump is under way, which may have passed what changed.
void ask_for_all(link_watch* w) {
    if (w->dump == dump_state::idle)
        begin_dump(w);
    else
        w->dump_spoiled = true;
}

void messages_lost(link_watch* w) {
    ++w->overruns;
    log_suite(LOG_LEVEL_INFO, "messages about links were lost, asking for all of them");
    ask_for_all(w);
}

void ask(link_watch* w, std::uint32_t kernel_ifindex) {
    nl_builder request;
    link_message_get(&request, ++w->sequence, kernel_ifindex);
    ++w->questions;
    // Not sent: the next question, or the kernel's own message, tells as well.
    (void)netlink_channel_send(&w->channel, request.message());
}

bool is_recent(const link_watch* w, std::uint32_t kernel_ifindex) {
    return std::find(std::begin(w->recent), std::end(w->recent), kernel_ifindex) != std::end(w->recent);
}

// From now on, for a second, this and other links' news may be held back.
void hint(link_watch* w, std::uint32_t kernel_ifindex) {
    if (!is_recent(w, kernel_ifindex)) w->recent[w->recent_at++ % RECENT_MAX] = kernel_ifindex;
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
    if (notification) hint(w, link.kernel_ifindex);
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
    const int got = netlink_channel_receive(&w->channel, {w->buffer, sizeof w->buffer});
    if (got == -ENOBUFS || got == -EMSGSIZE) {
        messages_lost(w);
        return true;
    }
    if (got == -EINTR) return true;
    if (got < 0) {
        if (got != -EAGAIN && got != -EPIPE)
            log_suite(LOG_LEVEL_ERROR, "reading about links: %s", std::strerror(-got));
        return false;
    }
    const_octets rest{w->buffer, static_cast<std::size_t>(got)};
    nl_message message;
    while (nl_next_message(&rest, &message)) take_message(w, message);
    return true;
}

int readable(thread* event) {
    auto* w = static_cast<link_watch*>(event->arg);
    for (int i = 0; i < DATAGRAMS_PER_TURN && read_datagram(w); ++i) {
    }
    (void)netlink_channel_listen(&w->channel);
    return 0;
}

void ask_round(link_watch* w, bool fast) {
    std::uint32_t count = 0;
    for (const nsmd_port* p = port_table_first(w->table); p; p = p->next) {
        if (!p->up || !p->ifindex) continue;
        const bool has_turn = count >= w->turn && count < w->turn + TURNS_PER_ROUND;
        const bool is_urgent = p->ifindex == w->preferred || is_recent(w, p->kernel_ifindex);
        if (has_turn || (fast && is_urgent)) ask(w, p->kernel_ifindex);
        ++count;
    }
    w->turn += TURNS_PER_ROUND;
    if (w->turn >= count) w->turn = 0;
}

int poll_due(thread* event) {
    auto* w = static_cast<link_watch*>(event->arg);
    w->poll_timer = nullptr;
    const bool fast = w->poll.fast_ms && thread_now(w->ctx) - w->last_hint <= DELAY_WINDOW;
    if (w->dump == dump_state::idle && !netlink_channel_waits(&w->channel)) ask_round(w, fast);
    arm_poll(w, fast ? w->poll.fast_ms : w->poll.slow_ms);
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
    w->poll = poll;
    int result = netlink_channel_open(&w->channel, edge, NETLINK_ROUTE);
    if (result >= 0) result = netlink_channel_join(&w->channel, RTNLGRP_LINK);
    if (result >= 0 && !netlink_channel_attach(&w->channel, ctx, readable, w, true)) result = -ENOMEM;
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
    netlink_channel_close(&w->channel);
    memmgr_free(w, MTYPE_NSMD);
}

void link_watch_prefer(link_watch* w, std::uint32_t ifindex) {
    w->preferred = ifindex;
}

void link_watch_refresh(link_watch* w) {
    ask_for_all(w);
}

void link_watch_tend(link_watch* w) {
    if (!netlink_channel_tend(&w->channel, SUBJECT)) return;
    w->own_port = 0;
    begin_dump(w);
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
        pollfd entry{w->channel.fd, POLLIN, 0};
        (void)poll(&entry, 1, static_cast<int>(DUMP_RETRY_MS));
    }
    return w->ready;
}

bool link_watch_status(const link_watch* w, text_buffer* out) {
    if (!netlink_channel_status(&w->channel, SUBJECT, out)) return false;
    return text_printf(
        out, "links: %" PRIu64 " messages, %" PRIu64 " dumps, %" PRIu64 " overruns, %" PRIu64 " questions\n",
        w->messages, w->dumps, w->overruns, w->questions);
}
