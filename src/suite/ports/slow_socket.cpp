// The slow-protocol socket: turns Ethernet frames of all ports into datagrams with a 16-octet address and
// back, keeps the group memberships, and counts. One descriptor, opened by the daemon at start-up; the NSM
// client tells which ports there are.
//
// Frames are read ahead in batches while they come densely, and handed out one by one: the event loop is told
// that the descriptor is ready without asking the kernel, so that the loop's order (timers, one frame, the
// others) stays and the system calls go.
//
// What can go wrong: a send that fails is counted for its port and forgotten, as the next PDU goes out a
// second later. A port whose queue does not move eats up the send buffer of the socket that it shares, so a
// port that finds that buffer full gets a sending socket of its own from then on. A lost frame shows only in
// the kernel's drop counter, which is read (and thereby reset) now and then.
#include "suite/ports/slow_socket.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "suite/log/log.h"
#include "suite/loop/thread.h"
#include "suite/ports/slow_edge.h"
#include "suite/ports/slow_ports.h"

namespace {

constexpr std::size_t HEADER = 14;  // destination, source, EtherType
constexpr std::size_t FRAME_MIN = HEADER + SLOW_PAYLOAD_MIN;
constexpr std::size_t PAYLOAD_MAX = 1500;
constexpr std::uint8_t SLOW_GROUP[6] = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x02};

constexpr std::size_t BATCH = 32;
// A Slow Protocols frame has at most 128 octets by its standard; what is longer is cut here.
constexpr std::size_t SLOT = 160;
// Frames that follow each other more slowly than this are not worth a batch call.
constexpr nanoseconds DENSE = 1 * NS_PER_MS;
// Single reads after a batch call that found one frame only.
constexpr std::uint32_t LONELY_READS = 16;

constexpr std::uint32_t DROPS_PERIOD_MS = 10'000;

struct read_ahead {
    std::size_t next, count;  // frames [next, count) wait to be handed out
    std::uint32_t lonely;     // single reads left before the next batch call
    nanoseconds last;         // turn of the previous read
    std::uint8_t frame[BATCH][SLOT];
    std::size_t length[BATCH];
    sockaddr_ll from[BATCH];
    iovec room[BATCH];
    mmsghdr call[BATCH];
};

slow_opened opened{-1, slow_kind::closed, false, 0, 0};
lib_globals* loop;  // context of the open socket
thread* drops_timer;
slow_stats totals;
nanoseconds frame_worth = NS_PER_S / SLOW_RATE_DEFAULT;  // 0: no limit
const slow_edge* edge;
read_ahead ring;
alignas(8) std::uint8_t out_frame[HEADER + PAYLOAD_MAX];

void prepare_ring() {
    ring.next = ring.count = 0;
    ring.lonely = 0;
    ring.last = 0;
    for (std::size_t i = 0; i < BATCH; ++i) {
        ring.room[i] = {ring.frame[i], SLOT};
        ring.call[i].msg_hdr = {};
        ring.call[i].msg_hdr.msg_name = &ring.from[i];
        ring.call[i].msg_hdr.msg_namelen = sizeof ring.from[i];
        ring.call[i].msg_hdr.msg_iov = &ring.room[i];
        ring.call[i].msg_hdr.msg_iovlen = 1;
    }
}

// Membership -------------------------------------------------------------------------------------------

bool set_membership(int option, std::uint32_t kernel_ifindex) {
    packet_mreq request{};
    request.mr_ifindex = static_cast<int>(kernel_ifindex);
    request.mr_type = PACKET_MR_MULTICAST;
    request.mr_alen = sizeof SLOW_GROUP;
    std::memcpy(request.mr_address, SLOW_GROUP, sizeof SLOW_GROUP);
    return setsockopt(opened.fd, SOL_PACKET, option, &request, sizeof request) == 0;
}

// The kernel counts joins, and forgets them all when the device leaves: dropping too often does no harm.
void leave_group(slow_port* port) {
    for (; port->joins != 0; --port->joins)
        if (opened.kind == slow_kind::packet) (void)set_membership(PACKET_DROP_MEMBERSHIP, port->joined);
}

// Joined anew at every bind, without leaving first: a device that was away meanwhile has lost its membership,
// and one that was not must not miss a frame.
void join_group(slow_port* port) {
    if (opened.kind != slow_kind::packet || port->kernel_ifindex == 0) return;
    if (set_membership(PACKET_ADD_MEMBERSHIP, port->kernel_ifindex)) {
        port->joined = port->kernel_ifindex;
        ++port->joins;
    } else {
        log_suite(LOG_LEVEL_WARNING,
                  "slow-protocol socket: can't join the group on interface %u (kernel %u): %s", port->ifindex,
                  port->kernel_ifindex, strerror(errno));
    }
}

void drop_own_socket(slow_port* port) {
    if (port->own_fd >= 0) close(port->own_fd);
    port->own_fd = -1;
}

// Kernel drops -----------------------------------------------------------------------------------------

void collect_drops() {
    if (opened.kind != slow_kind::packet) return;
    tpacket_stats fresh{};
    socklen_t length = sizeof fresh;
    if (getsockopt(opened.fd, SOL_PACKET, PACKET_STATISTICS, &fresh, &length) != 0) return;
    totals.kernel_drops += fresh.tp_drops;
    if (fresh.tp_drops != 0)
        log_suite(LOG_LEVEL_WARNING, "slow-protocol socket: %u frames lost for want of buffer",
                  fresh.tp_drops);
}

int on_drops_timer(thread* event) {
    drops_timer = nullptr;
    collect_drops();
    drops_timer = thread_add_timer_msec(event->ctx, on_drops_timer, nullptr, DROPS_PERIOD_MS);
    return 0;
}

// Receiving --------------------------------------------------------------------------------------------

bool keep_single(ssize_t got) {
    if (got < 0) return false;
    ring.length[0] = static_cast<std::size_t>(got);
    ring.next = 0;
    ring.count = 1;
    return true;
}

bool read_edge(int fd) {
    std::uint32_t kernel_ifindex = 0;
    const ssize_t got = edge->receive(edge->arg, fd, octets(ring.frame[0]), &kernel_ifindex);
    ring.from[0].sll_ifindex = static_cast<int>(kernel_ifindex);
    return keep_single(got);
}

bool read_one(int fd) {
    socklen_t length = sizeof ring.from[0];
    return keep_single(
        recvfrom(fd, ring.frame[0], SLOT, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&ring.from[0]), &length));
}

bool read_batch(int fd) {
    const int got = recvmmsg(fd, ring.call, BATCH, MSG_DONTWAIT, nullptr);
    if (got <= 0) return false;
    ring.next = 0;
    ring.count = static_cast<std::size_t>(got);
    for (std::size_t i = 0; i < ring.count; ++i) {
        ring.length[i] = ring.call[i].msg_len;
        ring.call[i].msg_hdr.msg_namelen = sizeof ring.from[i];
    }
    if (got == 1) ring.lonely = LONELY_READS;
    return true;
}

// Without a loop nobody would learn of the frames that wait here, so there is no reading ahead.
bool worth_a_batch() {
    if (!loop->master) return false;
    const nanoseconds now = thread_now(loop);
    const bool dense = now - ring.last < DENSE;
    ring.last = now;
    if (!dense) return false;
    if (ring.lonely == 0) return true;
    --ring.lonely;
    return false;
}

bool refill(int fd) {
    if (opened.kind == slow_kind::replaced) return read_edge(fd);
    return worth_a_batch() ? read_batch(fd) : read_one(fd);
}

// What the kernel's filter does, for a kernel (or an emulator) that did not take it.
bool wanted(const std::uint8_t* frame, std::size_t length, const sockaddr_ll& from) {
    return length > HEADER && from.sll_pkttype == PACKET_MULTICAST &&
           std::memcmp(frame, SLOW_GROUP, sizeof SLOW_GROUP) == 0 && frame[14] == 0x0A;
}

// The port's frames are worth a time each; a port that is too far ahead of the clock has brought too many.
bool within_limit(slow_port* port) {
    if (!port || frame_worth == 0) return true;
    const nanoseconds now = thread_now(loop);
    if (port->paid_until < now) port->paid_until = now;
    if (port->paid_until - now >= SLOW_BURST * frame_worth) {
        ++port->stats.limited;
        ++totals.limited;
        return false;
    }
    port->paid_until += frame_worth;
    return true;
}

slow_port* count_in(slow_port* port, slow_address* from) {
    ++totals.frames_in;
    if (port) {
        ++port->stats.frames_in;
        from->ifindex = port->ifindex;
    } else {
        ++totals.unknown_port;
        from->ifindex = 0;
    }
    return port;
}

// The next frame that was read ahead, is wanted, and is not one too many of its port. False when there is
// none.
bool next_frame(std::size_t* at, slow_port** port) {
    while (ring.next != ring.count) {
        *at = ring.next++;
        *port = slow_port_by_kernel(static_cast<std::uint32_t>(ring.from[*at].sll_ifindex));
        if (!opened.filtered && !wanted(ring.frame[*at], ring.length[*at], ring.from[*at])) continue;
        if (within_limit(*port)) return true;
    }
    errno = EAGAIN;
    return false;
}

ssize_t take_frame(std::size_t at, slow_port* port, octets payload, slow_address* from) {
    const std::uint8_t* frame = ring.frame[at];
    const std::size_t length = ring.length[at];
    if (length < HEADER) {
        ++totals.short_frames;
        errno = EBADMSG;
        return -1;
    }
    std::memcpy(from->destination, frame, 6);
    std::memcpy(from->source, frame + 6, 6);
    count_in(port, from);
    const std::size_t kept = std::min(length - HEADER, payload.size());
    std::memcpy(payload.data(), frame + HEADER, kept);
    return static_cast<ssize_t>(kept);
}

ssize_t receive_native(int fd, octets payload, slow_address* from) {
    slow_address address{};
    socklen_t length = sizeof address;
    const ssize_t got = recvfrom(fd, payload.data(), payload.size(), MSG_DONTWAIT,
                                 reinterpret_cast<sockaddr*>(&address), &length);
    if (got < 0) return got;
    slow_port* port = slow_port_by_ifindex(address.ifindex);
    if (!within_limit(port)) {
        errno = EAGAIN;
        return -1;
    }
    count_in(port, &address);
    *from = address;
    return got;
}

// Sending ----------------------------------------------------------------------------------------------

const_octets build_frame(const slow_port* port, const_octets payload, const slow_address& to) {
    static constexpr std::uint8_t OWN[6] = {};
    const bool own = std::memcmp(to.source, OWN, sizeof OWN) == 0;
    std::memcpy(out_frame, to.destination, 6);
    std::memcpy(out_frame + 6, own ? port->mac : to.source, 6);
    put_be16(out_frame, 12, ETH_P_SLOW);
    std::memcpy(out_frame + HEADER, payload.data(), payload.size());
    const std::size_t length = HEADER + payload.size();
    if (length >= FRAME_MIN) return {out_frame, length};
    std::memset(out_frame + length, 0, FRAME_MIN - length);
    return {out_frame, FRAME_MIN};
}

ssize_t send_packet(int fd, const slow_port* port, const_octets frame) {
    return sendto(fd, frame.data(), frame.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                  reinterpret_cast<const sockaddr*>(&port->to), sizeof port->to);
}

ssize_t send_frame(int fd, slow_port* port, const_octets frame) {
    if (opened.kind == slow_kind::replaced) return edge->send(edge->arg, fd, frame, port->kernel_ifindex);
    if (port->own_fd >= 0) return send_packet(port->own_fd, port, frame);
    const ssize_t sent = send_packet(fd, port, frame);
    if (sent >= 0 || errno != EAGAIN) return sent;
    // Somebody's frames fill the common buffer. Who it is can't be seen; with a buffer of its own each port
    // that still has to send waits for itself alone.
    port->own_fd = slow_edge_open_sender();
    if (port->own_fd < 0) {
        errno = EAGAIN;
        return -1;
    }
    log_suite(LOG_LEVEL_INFO, "slow-protocol socket: send buffer full, interface %u gets one of its own",
              port->ifindex);
    return send_packet(port->own_fd, port, frame);
}

void count_error(slow_port* port, int error) {
    switch (error) {
        case ENOBUFS:
            ++port->stats.no_buffer;
            break;
        case EAGAIN:
            ++port->stats.again;
            break;
        case ENETDOWN:
            ++port->stats.link_down;
            break;
        case ENXIO:
        case ENODEV:
            ++port->stats.no_device;
            break;
        default:
            ++port->stats.other_errors;
            break;
    }
}

ssize_t send_on_port(int fd, slow_port* port, const_octets payload, const slow_address& to) {
    if (payload.size() > PAYLOAD_MAX) {
        errno = EMSGSIZE;
        return -1;
    }
    if (opened.kind == slow_kind::native)
        return sendto(fd, payload.data(), payload.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                      reinterpret_cast<const sockaddr*>(&to), sizeof to);
    return send_frame(fd, port, build_frame(port, payload, to));
}

}  // namespace

int slow_socket_open(lib_globals* ctx) {
    if (opened.kind != slow_kind::closed) slow_socket_close(loop, opened.fd);
    if (edge) {
        const int fd = edge->open(edge->arg);
        opened = {fd, fd < 0 ? slow_kind::closed : slow_kind::replaced, true, 0, 0};
    } else {
        opened = slow_edge_open_real();
    }
    if (opened.fd < 0) {
        const int error = opened.fd;
        opened = {-1, slow_kind::closed, false, 0, 0};
        return error;
    }
    loop = ctx;
    prepare_ring();
    for (const interface* intf : if_list(ctx->ifm))
        if (intf->bound) slow_socket_port_bound(intf);
    if (opened.kind == slow_kind::packet && ctx->master)
        drops_timer = thread_add_timer_msec(ctx, on_drops_timer, nullptr, DROPS_PERIOD_MS);
    return opened.fd;
}

void slow_socket_close(lib_globals* ctx, int fd) {
    if (fd < 0 || fd != opened.fd) return;
    collect_drops();
    if (ctx && ctx->master) {
        thread_cancel(drops_timer);
        thread_forget_fd(ctx, fd);
    }
    drops_timer = nullptr;
    while (slow_port* port = slow_port_any()) {  // closing leaves all groups
        drop_own_socket(port);
        slow_port_drop(port);
    }
    close(fd);
    opened = {-1, slow_kind::closed, false, 0, 0};
    ring.next = ring.count = 0;
    loop = nullptr;
}

ssize_t slow_sendto(int fd, const_octets payload, const slow_address& to) {
    if (fd < 0 || fd != opened.fd) {
        errno = EBADF;
        return -1;
    }
    slow_port* port = slow_port_by_ifindex(to.ifindex);
    if (!port) {
        errno = ENODEV;
        return -1;
    }
    if (send_on_port(fd, port, payload, to) < 0) {
        count_error(port, errno);
        return -1;
    }
    ++port->stats.frames_out;
    ++totals.frames_out;
    return static_cast<ssize_t>(payload.size());
}

ssize_t slow_recvfrom(int fd, octets payload, slow_address* from) {
    if (fd < 0 || fd != opened.fd) {
        errno = EBADF;
        return -1;
    }
    if (opened.kind == slow_kind::native) return receive_native(fd, payload, from);
    if (ring.next == ring.count && !refill(fd)) return -1;
    std::size_t at = 0;
    slow_port* port = nullptr;
    if (!next_frame(&at, &port)) return -1;
    if (ring.next != ring.count) thread_mark_ready(loop, fd);
    return take_frame(at, port, payload, from);
}

void slow_socket_port_bound(const interface* intf) {
    if (opened.kind == slow_kind::closed) return;
    if (intf->type != IF_TYPE_SYNCE) return;  // its frames are those of an unknown port
    slow_port* port = slow_port_take(intf->ifindex);
    if (!port) {
        log_suite(LOG_LEVEL_ERROR, "slow-protocol socket: no memory for interface %s", intf->name);
        return;
    }
    if (port->joined != intf->kernel_ifindex) leave_group(port);
    slow_port_map_kernel(port, intf->kernel_ifindex);
    std::memcpy(port->mac, intf->mac, sizeof port->mac);
    port->to.sll_family = AF_PACKET;
    port->to.sll_protocol = htons(ETH_P_SLOW);
    port->to.sll_halen = sizeof SLOW_GROUP;
    std::memcpy(port->to.sll_addr, SLOW_GROUP, sizeof SLOW_GROUP);
    join_group(port);
}

void slow_socket_port_unbound(const interface* intf) {
    slow_port* port = slow_port_by_ifindex(intf->ifindex);
    if (!port) return;
    leave_group(port);
    drop_own_socket(port);
    slow_port_drop(port);
}

void slow_socket_set_rate_limit(std::uint32_t frames_per_second) {
    frame_worth = frames_per_second == 0 ? 0 : NS_PER_S / frames_per_second;
}

std::uint32_t slow_socket_rate_limit() {
    return frame_worth == 0 ? 0 : static_cast<std::uint32_t>(NS_PER_S / frame_worth);
}

bool slow_socket_port_stats(std::uint32_t ifindex, slow_port_stats* stats) {
    const slow_port* port = slow_port_by_ifindex(ifindex);
    if (!port) return false;
    *stats = port->stats;
    return true;
}

slow_stats slow_socket_stats() {
    collect_drops();
    return totals;
}

void slow_socket_count_short() {
    ++totals.short_frames;
}

void slow_socket_set_edge(const slow_edge* replacement) {
    edge = replacement;
}

slow_opened slow_socket_opened() {
    return opened;
}
