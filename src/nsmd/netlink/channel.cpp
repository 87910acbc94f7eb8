// The socket pair between nsmd and a helper, and the helper itself. Each packet towards nsmd begins with a
// word that says what it is. The helper is a job (suite/process) that never comes to an end; it has nsmd's
// rights of the moment in which it was made, allocates nothing, and goes when the pair does.
//
// What can go wrong: a helper dies, which breaks the channel until it is tended; or none can be made, and
// nsmd waits itself rather than be deaf. A helper that hangs in the kernel can't be ended by anybody; it sees
// the pair's end when the driver lets it go.
#include "nsmd/netlink/channel.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <iterator>
#include <utility>

#include "nsmd/netlink/netlink.h"
#include "suite/log/log.h"

namespace {

constexpr std::size_t PACKET_MAX = 32768;  // the kernel's datagrams

enum packet_kind : std::int32_t { FROM_KERNEL = 0, WORKED_OFF = 1 };  // or a negative errno of receiving

// --- the helper ---

void pass_on(int pair, std::int32_t kind, const_octets data) {
    iovec parts[2] = {{&kind, sizeof kind}, {const_cast<std::uint8_t*>(data.data()), data.size()}};
    msghdr header{};
    header.msg_iov = parts;
    header.msg_iovlen = 2;
    ssize_t sent;
    do {
        sent = sendmsg(pair, &header, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) _exit(0);  // nsmd has ended, or given us up
}

// Everything that is there.
void drain(const netlink_edge& edge, int socket, int pair) {
    static std::uint8_t buffer[PACKET_MAX];
    for (;;) {
        const int got = edge.receive(edge.arg, socket, {buffer, sizeof buffer});
        if (got == -EAGAIN) return;
        if (got > 0) pass_on(pair, FROM_KERNEL, {buffer, static_cast<std::size_t>(got)});
        if (got == -ENOBUFS || got == -EMSGSIZE) pass_on(pair, got, {});
        if (got < 0 && got != -ENOBUFS && got != -EMSGSIZE && got != -EINTR) _exit(1);
    }
}

void work_off(const netlink_edge& edge, int socket, int pair) {
    std::uint8_t request[sizeof(nl_builder::data)];
    const ssize_t length = recv(pair, request, sizeof request, 0);
    if (length < 0 && errno == EINTR) return;
    if (length <= 0) _exit(0);
    const const_octets octets{request, static_cast<std::size_t>(length)};
    const int result = edge.send(edge.arg, socket, octets);
    drain(edge, socket, pair);
    const_octets rest = octets;
    nl_message asked{};
    (void)nl_next_message(&rest, &asked);
    nl_builder end;
    const std::int32_t code = result < 0 ? result : -ETIMEDOUT;
    nl_begin(&end, NLMSG_ERROR, 0, asked.sequence);
    nl_put_raw(&end, &code, sizeof code);
    pass_on(pair, WORKED_OFF, end.message());
}

struct helper_order {
    const netlink_edge* edge;
    int socket, pair;
};

int help(const void* arg, int) {
    const auto* order = static_cast<const helper_order*>(arg);
    pollfd entries[2] = {{order->pair, POLLIN, 0}, {order->socket, POLLIN, 0}};
    for (;;) {
        if (poll(entries, 2, -1) < 0) continue;
        if (entries[1].revents) drain(*order->edge, order->socket, order->pair);
        if (entries[0].revents) work_off(*order->edge, order->socket, order->pair);
    }
}

// --- nsmd's side ---

void let_go(netlink_channel* c) {
    if (job* helper = std::exchange(c->helper, nullptr)) job_cancel(helper);
    if (c->fd < 0) return;
    if (c->readable) thread_forget_fd(c->ctx, c->fd);
    if (c->detached)
        close(c->fd);
    else
        c->edge.close(c->edge.arg, c->fd);
    c->fd = -1;
}

void helper_died(lib_globals*, void* owner, int, std::string_view) {
    static_cast<netlink_channel*>(owner)->helper = nullptr;
}

// Our end of the pair, or a negative errno.
int start_helper(netlink_channel* c, int socket, job** helper) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) < 0) return -errno;
    (void)fcntl(pair[0], F_SETFL, O_NONBLOCK);
    const helper_order order = {&c->edge, socket, pair[1]};
    const int kept[] = {socket, pair[1]};
    *helper = job_start(c->ctx, {help, &order, kept, std::size(kept), 0, 0, helper_died, c});
    const int error = errno;
    close(pair[1]);
    if (*helper) return pair[0];
    close(pair[0]);
    return -error;
}

void take(netlink_channel* c, int fd, job* helper) {
    let_go(c);
    c->fd = fd;
    c->helper = helper;
    c->detached = helper != nullptr;
    c->helpers += c->detached;
    c->asked = c->worked_off = 0;
    c->said_s = 0;
    if (c->readable) (void)netlink_channel_listen(c);
}

void say_refused(netlink_channel* c, const char* subject, int result) {
    if (result < 0 && result != c->refused)
        log_suite(LOG_LEVEL_WARNING, "no helper process for %s: %s", subject, std::strerror(-result));
    c->refused = std::min(result, 0);
}

// True: the socket is another one.
bool detach(netlink_channel* c, const char* subject) {
    const int socket = c->edge.open(c->edge.arg, c->protocol);
    const int result = socket < 0 ? socket : c->group ? c->edge.join(c->edge.arg, socket, c->group) : 0;
    job* helper = nullptr;
    const int pair = result < 0 ? result : start_helper(c, socket, &helper);
    say_refused(c, subject, pair);
    // Without a helper what there is serves on; where there is nothing, the socket is our own for now.
    const bool is_own = pair < 0 && result >= 0 && c->fd < 0;
    if (pair >= 0) take(c, pair, helper);
    if (is_own) take(c, socket, nullptr);
    if (socket >= 0 && !is_own) c->edge.close(c->edge.arg, socket);
    return pair >= 0 || is_own;
}

std::uint32_t waiting_s(const netlink_channel* c) {
    if (!netlink_channel_waits(c)) return 0;
    return static_cast<std::uint32_t>((monotonic_now() - c->waiting_since) / NS_PER_S);
}

void note_worked_off(netlink_channel* c) {
    ++c->worked_off;
    c->waiting_since = monotonic_now();  // of the next, if there is one
}

void say_slowness(netlink_channel* c, const char* subject) {
    const std::uint32_t seconds = waiting_s(c);
    if (seconds == 0 && c->said_s) {
        c->said_s = 0;
        log_suite(LOG_LEVEL_INFO, "%s answers again", subject);
    }
    if (seconds == 0 || seconds < 2 * c->said_s) return;
    c->said_s = seconds;
    log_suite(LOG_LEVEL_WARNING, "%s has not answered for %u s", subject, seconds);
}

}  // namespace

int netlink_channel_open(netlink_channel* c, const netlink_edge& edge, int protocol) {
    *c = {};
    c->edge = edge;
    c->protocol = protocol;
    c->fd = edge.open(edge.arg, protocol);
    if (c->fd >= 0) return 0;
    const int result = c->fd;
    c->fd = -1;
    return result;
}

int netlink_channel_join(netlink_channel* c, unsigned group) {
    const int result = c->edge.join(c->edge.arg, c->fd, group);
    if (result >= 0) c->group = group;
    return result;
}

void netlink_channel_close(netlink_channel* c) {
    let_go(c);
}

bool netlink_channel_attach(netlink_channel* c, lib_globals* ctx, thread_func readable, void* arg,
                            bool is_high) {
    c->ctx = ctx;
    c->readable = readable;
    c->arg = arg;
    c->is_high = is_high;
    return netlink_channel_listen(c);
}

bool netlink_channel_listen(netlink_channel* c) {
    if (c->fd < 0 || !c->readable) return false;
    const auto add = c->is_high ? thread_add_read_high : thread_add_read;
    if (add(c->ctx, c->readable, c->arg, c->fd)) return true;
    if (c->detached) let_go(c);  // not deaf for ever: as if the helper had died
    return false;
}

bool netlink_channel_tend(netlink_channel* c, const char* subject) {
    const bool is_new = (!c->detached || c->fd < 0) && detach(c, subject);
    say_slowness(c, subject);
    return is_new;
}

bool netlink_channel_is_broken(const netlink_channel* c) {
    return c->detached && c->fd < 0;
}

int netlink_channel_send(netlink_channel* c, const_octets message) {
    if (c->fd < 0) return -EPIPE;
    if (!c->detached) return c->edge.send(c->edge.arg, c->fd, message);
    if (send(c->fd, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
        const int error = errno;
        if (error != EPIPE && error != ECONNRESET) return -error;
        let_go(c);
        return -EPIPE;
    }
    if (!netlink_channel_waits(c)) c->waiting_since = monotonic_now();
    ++c->asked;
    return 0;
}

int netlink_channel_receive(netlink_channel* c, octets buffer) {
    if (c->fd < 0) return -EPIPE;
    if (!c->detached) return c->edge.receive(c->edge.arg, c->fd, buffer);
    std::int32_t kind = 0;
    iovec parts[2] = {{&kind, sizeof kind}, {buffer.data(), buffer.size()}};
    msghdr header{};
    header.msg_iov = parts;
    header.msg_iovlen = 2;
    const ssize_t got = recvmsg(c->fd, &header, MSG_DONTWAIT);
    if (got < 0 && errno != ECONNRESET) return -errno;
    if (got < static_cast<ssize_t>(sizeof kind)) {
        let_go(c);
        return -EPIPE;
    }
    if (kind == WORKED_OFF) note_worked_off(c);
    if (kind < 0) return kind;
    return header.msg_flags & MSG_TRUNC ? -EMSGSIZE : static_cast<int>(got) - static_cast<int>(sizeof kind);
}

bool netlink_channel_waits(const netlink_channel* c) {
    return c->fd >= 0 && c->asked != c->worked_off;
}

bool netlink_channel_status(const netlink_channel* c, const char* subject, text_buffer* out) {
    if (!c->detached) return true;
    if (!c->helper) return text_printf(out, "helper: none for %s\n", subject);
    const std::uint32_t seconds = waiting_s(c);
    bool ok = text_printf(out, "helper: process %ld, the %" PRIu64 ". for %s", job_process(c->helper),
                          c->helpers, subject);
    if (ok && seconds) ok = text_printf(out, ", which has not answered for %u s", seconds);
    return ok && text_printf(out, "\n");
}
