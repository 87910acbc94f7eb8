// The session with NSM: connects and connects again, greets, takes one message a turn of the loop and hands
// it to whom it concerns. The daemon creates one client at start-up and never waits for it.
//
// A session goes down - greeting - dump - synchronised, and back to down from anywhere. Handlers re-add their
// own events; while there is no link a timer tries twice a second. That timer is always pending, at other
// times far away: moving it needs no memory, so that a link that breaks while there is none left is tried
// again.
//
// What can go wrong: no server, a server that refuses or leaves (tried again for ever, said once), malformed
// messages (dropped, each kind of fault logged once a minute at most; the link stays). Hooks and callbacks
// run from here only, never from inside a request.
#include "suite/manager/client.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstring>

#include "suite/base/memory.h"
#include "suite/base/unix_socket.h"
#include "suite/log/log.h"
#include "suite/loop/thread.h"
#include "suite/manager/record.h"

namespace {

constexpr std::uint32_t RETRY_MS = 500;
constexpr std::uint32_t RESERVE_MS = 3'600'000;

// Connecting to a Unix socket never takes time: it succeeds or fails at once, and is then tried again later.
int open_real_link() {
    return unix_connect(NSM_SOCKET_PATH, SOCK_SEQPACKET | SOCK_NONBLOCK);
}

nsm_link_open link_open = open_real_link;

void try_connect(nsm_client* nc);
void continue_sending(nsm_client* nc);
int on_readable(thread* event);

// Events ------------------------------------------------------------------------------------------------

int on_retry(thread* event);

void set_retry(nsm_client* nc, std::uint32_t milliseconds) {
    thread_cancel(nc->retry);
    nc->retry = thread_add_timer_msec(nc->ctx, on_retry, nc, milliseconds);
}

void want_retry(nsm_client* nc) {
    set_retry(nc, RETRY_MS);
}

int on_retry(thread* event) {
    auto* nc = static_cast<nsm_client*>(event->arg);
    nc->retry = nullptr;
    set_retry(nc, RESERVE_MS);  // first, while the place of the timer that ran is free
    if (nc->fd < 0)
        try_connect(nc);
    else
        continue_sending(nc);
    return 0;
}

void drop_link(nsm_client* nc) {
    if (nc->fd >= 0) {
        thread_forget_fd(nc->ctx, nc->fd);  // cancels what is pending on it
        close(nc->fd);
    }
    nc->fd = -1;
    nc->read = nc->write = nullptr;
    nc->phase = nsm_client_phase::down;
}

void link_failed(nsm_client* nc, const char* why) {
    const bool was_open = nc->phase == nsm_client_phase::dump || nc->phase == nsm_client_phase::synchronised;
    if (was_open || !nc->outage_said) log_suite(LOG_LEVEL_WARNING, "NSM: %s; trying again", why);
    nc->outage_said = true;
    drop_link(nc);
    want_retry(nc);
}

bool want_read(nsm_client* nc) {
    nc->read = thread_add_read(nc->ctx, on_readable, nc, nc->fd);
    return nc->read != nullptr;
}

// Connecting --------------------------------------------------------------------------------------------

void send_hello(nsm_client* nc) {
    const std::uint32_t words[2] = {static_cast<std::uint32_t>(nc->version) << 16 | nc->protocol_id,
                                    nc->service_mask};
    const int result = nsm_client_send(nc, NSM_MSG_HELLO, words, 2);
    if (result == -EAGAIN || result == -ENOTCONN)
        nsm_client_want_write(nc);
    else if (result < 0)
        link_failed(nc, strerror(-result));
    else
        nc->hello_sent = true;
}

void continue_sending(nsm_client* nc) {
    if (nc->phase == nsm_client_phase::greeting && !nc->hello_sent)
        send_hello(nc);
    else
        nsm_client_requests_flush(nc);
}

int on_writable(thread* event) {
    auto* nc = static_cast<nsm_client*>(event->arg);
    nc->write = nullptr;
    continue_sending(nc);
    return 0;
}

void try_connect(nsm_client* nc) {
    const int fd = link_open();
    if (fd < 0) {
        link_failed(nc, strerror(-fd));
        return;
    }
    nc->fd = fd;
    nc->phase = nsm_client_phase::greeting;
    nc->hello_sent = nc->refused = false;
    nc->next_sequence = 1;
    ++nc->stats.connects;
    if (!want_read(nc)) {
        link_failed(nc, "no memory for the link");
        return;
    }
    send_hello(nc);
}

// Messages ----------------------------------------------------------------------------------------------

void take_hello_ack(nsm_client* nc, const_octets body) {
    if (nc->phase == nsm_client_phase::dump || nc->phase == nsm_client_phase::synchronised) {
        nsm_client_fault_seen(nc, nsm_client_fault::second_ack, "second HELLO_ACK ignored");
        return;
    }
    if (const std::uint32_t status = get_be32(body, 0)) {
        nsm_client_fault_seen(nc, nsm_client_fault::refused,
                              "refused by the server, status %" PRIu32 "; trying again", status);
        nc->refused = true;
        return;
    }
    log_suite(LOG_LEVEL_INFO, "NSM: connected");
    nc->outage_said = false;
    nc->phase = nsm_client_phase::dump;
    nc->bridge_seen = nc->clock_state_seen = nc->detail_seen = false;
    nsm_client_dump_begin(nc);
}

void take_sync_done(nsm_client* nc, const_octets) {
    if (nc->phase != nsm_client_phase::dump) {
        nsm_client_fault_seen(nc, nsm_client_fault::order, "SYNC_DONE outside a dump ignored");
        return;
    }
    // What the sweep makes the daemon ask for is kept and goes out with the rest, in its order.
    nsm_client_dump_end(nc);
    if (nc->stopped) return;
    if (!nc->detail_seen && nc->on_detail) (void)nc->on_detail(nullptr, nc, nullptr);
    if (nc->on_synchronised) nc->on_synchronised();
    nc->phase = nsm_client_phase::synchronised;
    log_suite(LOG_LEVEL_INFO, "NSM: synchronised");
    nsm_client_requests_restate(nc);
}

void take_link_up(nsm_client* nc, const_octets body) {
    nsm_client_link_updown(nc, body, true);
}

void take_link_down(nsm_client* nc, const_octets body) {
    nsm_client_link_updown(nc, body, false);
}

void take_bridge(nsm_client* nc, const_octets body) {
    nsm_bridge_message m{};
    std::memcpy(m.name, &body[nsm_bridge_body::NAME], sizeof m.name);
    m.kind = get_be32(body, nsm_bridge_body::KIND);
    m.id = get_be32(body, nsm_bridge_body::ID);
    std::memcpy(m.mac, &body[nsm_bridge_body::MAC], sizeof m.mac);
    const bool repeated = nc->phase == nsm_client_phase::dump && !nc->bridge_seen && nc->have_bridge &&
                          std::memcmp(&m, &nc->bridge, sizeof m) == 0;
    nc->bridge_seen = true;
    if (repeated || !nc->on_bridge) return;
    nc->have_bridge = true;
    nc->bridge = m;
    (void)nc->on_bridge(nullptr, nc, &m);  // its result says nothing that the callback has not logged
}

void take_clock_state(nsm_client* nc, const_octets body) {
    nsm_clock_state_message m{get_be32(body, 0), get_be32(body, 4)};
    const bool repeated = nc->have_clock_state && !nc->clock_state_seen && m.state == nc->clock_state.state &&
                          m.source == nc->clock_state.source;
    nc->clock_state_seen = true;
    if (repeated || !nc->on_clock_state) return;
    nc->have_clock_state = true;
    nc->clock_state = m;
    (void)nc->on_clock_state(nullptr, nc, &m);  // as above
}

void take_detail(nsm_client* nc, const_octets body) {
    nsm_clock_detail d{};
    d.subject = get_be32(body, nsm_detail_body::SUBJECT);
    d.known = get_be32(body, nsm_detail_body::KNOWN);
    d.error = get_be32(body, nsm_detail_body::ERROR);
    d.quality = get_be32(body, nsm_detail_body::QUALITY);
    d.state = get_be32(body, nsm_detail_body::STATE);
    d.offset_ppt = static_cast<std::int64_t>(get_be64(body, nsm_detail_body::OFFSET));
    d.frequency_mhz = get_be64(body, nsm_detail_body::FREQUENCY);
    std::memcpy(d.label, &body[nsm_detail_body::LABEL], nsm_detail_body::LABEL_SIZE);
    nc->detail_seen = true;
    if (nc->on_detail) (void)nc->on_detail(nullptr, nc, &d);  // as above
}

struct message_type {
    std::uint16_t type;
    std::uint16_t body;  // octets that it has at least
    void (*take)(nsm_client*, const_octets body);
};

constexpr message_type MESSAGES[] = {
    {NSM_MSG_HELLO_ACK, 4, take_hello_ack},
    {NSM_MSG_SYNC_DONE, 0, take_sync_done},
    {NSM_MSG_LINK_ADD, nsm_link_body::SIZE, nsm_client_link_add},
    {NSM_MSG_LINK_DELETE, 4, nsm_client_link_delete},
    {NSM_MSG_LINK_UP, 4, take_link_up},
    {NSM_MSG_LINK_DOWN, 4, take_link_down},
    {NSM_MSG_BRIDGE_ADD, nsm_bridge_body::SIZE, take_bridge},
    {NSM_MSG_SSM_SEND_BACK_CLOCK_STATE, 8, take_clock_state},
    {NSM_MSG_SSM_CLOCK_DETAIL, nsm_detail_body::SIZE, take_detail},
};

const message_type* find_type(std::uint16_t type) {
    for (const message_type& m : MESSAGES)
        if (m.type == type) return &m;
    return nullptr;
}

// `packet` holds what of the packet was read, `length` is what it had.
void take_message(nsm_client* nc, const_octets packet, std::size_t length) {
    ++nc->stats.messages_in;
    if (length < NSM_HEADER_SIZE || get_be16(packet, 2) != length) {
        nsm_client_fault_seen(nc, nsm_client_fault::length,
                              "packet of %zu octets with another length field dropped", length);
        return;
    }
    const std::uint16_t type = get_be16(packet, 0);
    const message_type* m = find_type(type);
    if (!m) {
        nsm_client_fault_seen(nc, nsm_client_fault::type, "message of unknown type %u dropped", type);
        return;
    }
    const const_octets body = packet.subspan(NSM_HEADER_SIZE);
    if (body.size() < m->body) {
        nsm_client_fault_seen(nc, nsm_client_fault::body,
                              "message of type %u and %zu octets dropped: too short", type, length);
        return;
    }
    if (nc->phase == nsm_client_phase::greeting && type != NSM_MSG_HELLO_ACK) {
        nsm_client_fault_seen(nc, nsm_client_fault::order, "message of type %u before HELLO_ACK dropped",
                              type);
        return;
    }
    m->take(nc, body);
}

void free_client(nsm_client* nc) {
    nsm_client_requests_free(nc);
    memmgr_free(nc->mentioned, MTYPE_NSM);
    memmgr_free(nc, MTYPE_NSM);
}

// False when the client was stopped meanwhile and is no more.
bool handle_message(nsm_client* nc, const_octets packet, std::size_t length) {
    const bool outermost = !nc->handling;
    nc->handling = true;
    take_message(nc, packet, length);
    if (!outermost) return true;
    nc->handling = false;
    if (nc->stopped) {
        free_client(nc);
        return false;
    }
    if (nc->refused) {
        nc->refused = false;
        nc->outage_said = true;
        drop_link(nc);
        want_retry(nc);
    }
    return true;
}

// A read of nothing is the end of the link, or a packet without octets. Only the former has hung up, and
// leaves nothing behind it.
bool at_end(int fd) {
    pollfd state{fd, POLLRDHUP, 0};
    if (poll(&state, 1, 0) <= 0 || (state.revents & (POLLRDHUP | POLLHUP | POLLERR)) == 0) return false;
    char octet;
    return recv(fd, &octet, 1, MSG_PEEK | MSG_DONTWAIT) <= 0;
}

int on_readable(thread* event) {
    auto* nc = static_cast<nsm_client*>(event->arg);
    nc->read = nullptr;
    std::uint8_t packet[NSM_MESSAGE_MAX];
    const ssize_t got = recv(nc->fd, packet, sizeof packet, MSG_DONTWAIT | MSG_TRUNC);
    if (got == 0 && at_end(nc->fd)) {
        link_failed(nc, nc->phase == nsm_client_phase::greeting ? "closed by the server before its answer"
                                                                : "closed by the server");
        return 0;
    }
    if (got < 0 && errno != EAGAIN && errno != EINTR) {
        link_failed(nc, strerror(errno));
        return 0;
    }
    if (got >= 0) {
        const auto length = static_cast<std::size_t>(got);
        if (!handle_message(nc, const_octets(packet, std::min(length, sizeof packet)), length)) return 0;
    }
    if (nc->fd >= 0 && !nc->read && !want_read(nc)) link_failed(nc, "no memory for the link");
    return 0;
}

}  // namespace

// Shared with the client's other files --------------------------------------------------------------------

void nsm_client_fault_seen(nsm_client* nc, nsm_client_fault kind, const char* format, ...) {
    ++nc->stats.dropped;
    va_list args;
    va_start(args, format);
    log_limited_args(&nc->faults[static_cast<std::size_t>(kind)], thread_now(nc->ctx), LOG_LEVEL_WARNING,
                     "NSM: ", format, args);
    va_end(args);
}

int nsm_client_send(nsm_client* nc, std::uint16_t type, const std::uint32_t* words, std::size_t count) {
    if (nc->fd < 0) return -ENOTCONN;
    std::uint8_t message[NSM_HEADER_SIZE + 4 * 3];
    const std::size_t length = NSM_HEADER_SIZE + 4 * count;
    put_be16(message, 0, type);
    put_be16(message, 2, static_cast<std::uint16_t>(length));
    put_be32(message, 4, nc->next_sequence);
    for (std::size_t i = 0; i < count; ++i) put_be32(message, NSM_HEADER_SIZE + 4 * i, words[i]);
    if (send(nc->fd, message, length, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) return -errno;
    ++nc->next_sequence;
    ++nc->stats.messages_out;
    return 0;
}

void nsm_client_want_write(nsm_client* nc) {
    if (nc->write || nc->fd < 0) return;
    nc->write = thread_add_write(nc->ctx, on_writable, nc, nc->fd);
    if (!nc->write) set_retry(nc, RETRY_MS);
}

// The public face -----------------------------------------------------------------------------------------

nsm_client* nsm_client_create(lib_globals* ctx, std::uint32_t) {
    auto* nc = static_cast<nsm_client*>(memmgr_calloc(sizeof(nsm_client), MTYPE_NSM));
    if (!nc) return nullptr;
    nc->ctx = ctx;
    nc->fd = -1;
    nc->version = NSM_LINK_VERSION;
    if (!nsm_client_requests_init(nc)) {
        memmgr_free(nc, MTYPE_NSM);
        return nullptr;
    }
    ctx->nsm = nc;
    return nc;
}

void nsm_client_set_version(nsm_client* nc, std::uint16_t version) {
    nc->version = version;
}

void nsm_client_set_protocol(nsm_client* nc, std::uint16_t protocol_id) {
    nc->protocol_id = protocol_id;
}

void nsm_client_set_service(nsm_client* nc, std::uint32_t service_mask) {
    nc->service_mask = service_mask;
}

int nsm_client_set_callback(nsm_client* nc, std::int32_t message_type, nsm_callback callback) {
    switch (message_type) {
        case NSM_MSG_BRIDGE_ADD:
            nc->on_bridge = callback;
            return 0;
        case NSM_MSG_SSM_SEND_BACK_CLOCK_STATE:
            nc->on_clock_state = callback;
            return 0;
        case NSM_MSG_SSM_CLOCK_DETAIL:
            nc->on_detail = callback;
            return 0;
        default:
            return -1;
    }
}

void nsm_client_set_synchronised(nsm_client* nc, void (*callback)()) {
    nc->on_synchronised = callback;
}

int nsm_client_start(nsm_client* nc) {
    set_retry(nc, RESERVE_MS);
    if (!nc->retry) return -1;
    try_connect(nc);
    return 0;
}

void nsm_client_stop(nsm_client* nc) {
    if (!nc || nc->stopped) return;
    // Not sent when the link is full or down: the server then finds out by itself.
    if (nc->phase == nsm_client_phase::dump || nc->phase == nsm_client_phase::synchronised)
        (void)nsm_client_send(nc, NSM_MSG_BYE, nullptr, 0);
    nsm_client_leave(nc);
}

void nsm_client_leave(nsm_client* nc) {
    if (!nc || nc->stopped) return;
    drop_link(nc);
    thread_cancel(nc->retry);
    nc->retry = nullptr;
    nc->stopped = true;
    if (nc->ctx->nsm == nc) nc->ctx->nsm = nullptr;
    if (!nc->handling) free_client(nc);
}

void nsm_client_set_link_open(nsm_link_open open_link) {
    link_open = open_link ? open_link : open_real_link;
}

void nsm_client_deliver(nsm_client* nc, const void* message, std::size_t length) {
    (void)handle_message(nc, {static_cast<const std::uint8_t*>(message), length}, length);
}

nsm_client_stats nsm_client_get_stats(const nsm_client* nc) {
    nsm_client_stats s = nc->stats;
    s.connected = nc->fd >= 0;
    s.synchronised = nc->phase == nsm_client_phase::synchronised;
    s.requests_kept = nc->request_count;
    return s;
}
