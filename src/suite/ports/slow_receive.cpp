// The receiving half of the slow-protocol socket. Frames are read ahead in batches while they come densely,
// and handed out one by one: the event loop is told that the descriptor is ready without asking the kernel,
// so that the loop's order (timers, one frame, the others) stays and the system calls go.
#include <linux/if_packet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "suite/loop/thread.h"
#include "suite/ports/slow_state.h"

namespace {

constexpr std::size_t BATCH = 32;
// A Slow Protocols frame has at most 128 octets by its standard; what is longer is cut here.
constexpr std::size_t SLOT = 160;
// Frames that follow each other more slowly than this are not worth a batch call.
constexpr nanoseconds DENSE = 1 * NS_PER_MS;
// Single reads after a batch call that found one frame only.
constexpr std::uint32_t LONELY_READS = 16;

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

read_ahead ring;
nanoseconds frame_worth = NS_PER_S / SLOW_RATE_DEFAULT;  // 0: no limit

bool keep_single(ssize_t got) {
    if (got < 0) return false;
    ring.length[0] = static_cast<std::size_t>(got);
    ring.next = 0;
    ring.count = 1;
    return true;
}

bool read_edge(int fd) {
    std::uint32_t kernel_ifindex = 0;
    const ssize_t got = slow.edge->receive(slow.edge->arg, fd, octets(ring.frame[0]), &kernel_ifindex);
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
    if (!slow.ctx->master) return false;
    const nanoseconds now = thread_now(slow.ctx);
    const bool dense = now - ring.last < DENSE;
    ring.last = now;
    if (!dense) return false;
    if (ring.lonely == 0) return true;
    --ring.lonely;
    return false;
}

bool refill(int fd) {
    if (slow.opened.kind == slow_kind::replaced) return read_edge(fd);
    return worth_a_batch() ? read_batch(fd) : read_one(fd);
}

// What the kernel's filter does, for a kernel (or an emulator) that did not take it.
bool wanted(const std::uint8_t* frame, std::size_t length, const sockaddr_ll& from) {
    return length > SLOW_HEADER && from.sll_pkttype == PACKET_MULTICAST &&
           std::memcmp(frame, SLOW_GROUP, sizeof SLOW_GROUP) == 0 && frame[14] == 0x0A;
}

// The port's frames are worth a time each; a port that is too far ahead of the clock has brought too many.
bool within_limit(slow_port* port) {
    if (!port || frame_worth == 0) return true;
    const nanoseconds now = thread_now(slow.ctx);
    if (port->paid_until < now) port->paid_until = now;
    if (port->paid_until - now >= SLOW_BURST * frame_worth) {
        ++port->stats.limited;
        ++slow.totals.limited;
        return false;
    }
    port->paid_until += frame_worth;
    return true;
}

// What the daemon would take for another port's.
bool is_heard(slow_port* port) {
    if (!port || port->ifindex <= IF_INDEX_HEARD_MAX) return true;
    ++port->stats.unheard;
    ++slow.totals.unheard;
    return false;
}

slow_port* count_in(slow_port* port, slow_address* from) {
    ++slow.totals.frames_in;
    if (port) {
        ++port->stats.frames_in;
        from->ifindex = port->ifindex;
    } else {
        ++slow.totals.unknown_port;
        from->ifindex = 0;
    }
    return port;
}

// The next frame that was read ahead, is wanted, and is neither unheard nor one too many of its port. False
// when there is none.
bool next_frame(std::size_t* at, slow_port** port) {
    while (ring.next != ring.count) {
        *at = ring.next++;
        *port = slow_port_by_kernel(static_cast<std::uint32_t>(ring.from[*at].sll_ifindex));
        if (!slow.opened.filtered && !wanted(ring.frame[*at], ring.length[*at], ring.from[*at])) continue;
        if (is_heard(*port) && within_limit(*port)) return true;
    }
    errno = EAGAIN;
    return false;
}

ssize_t take_frame(std::size_t at, slow_port* port, octets payload, slow_address* from) {
    const std::uint8_t* frame = ring.frame[at];
    const std::size_t length = ring.length[at];
    if (length < SLOW_HEADER) {
        ++slow.totals.short_frames;
        errno = EBADMSG;
        return -1;
    }
    std::memcpy(from->destination, frame, 6);
    std::memcpy(from->source, frame + 6, 6);
    count_in(port, from);
    const std::size_t kept = std::min(length - SLOW_HEADER, payload.size());
    std::memcpy(payload.data(), frame + SLOW_HEADER, kept);
    return static_cast<ssize_t>(kept);
}

ssize_t receive_native(int fd, octets payload, slow_address* from) {
    slow_address address{};
    socklen_t length = sizeof address;
    const ssize_t got = recvfrom(fd, payload.data(), payload.size(), MSG_DONTWAIT,
                                 reinterpret_cast<sockaddr*>(&address), &length);
    if (got < 0) return got;
    slow_port* port = slow_port_by_ifindex(address.ifindex);
    if (!is_heard(port) || !within_limit(port)) {
        errno = EAGAIN;
        return -1;
    }
    count_in(port, &address);
    *from = address;
    return got;
}

}  // namespace

void slow_receive_start() {
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

void slow_receive_forget() {
    ring.next = ring.count = 0;
}

ssize_t slow_recvfrom(int fd, octets payload, slow_address* from) {
    if (fd < 0 || fd != slow.opened.fd) {
        errno = EBADF;
        return -1;
    }
    if (slow.opened.kind == slow_kind::native) return receive_native(fd, payload, from);
    if (ring.next == ring.count && !refill(fd)) return -1;
    std::size_t at = 0;
    slow_port* port = nullptr;
    if (!next_frame(&at, &port)) return -1;
    if (ring.next != ring.count) thread_mark_ready(slow.ctx, fd);
    return take_frame(at, port, payload, from);
}

void slow_socket_set_rate_limit(std::uint32_t frames_per_second) {
    frame_worth = frames_per_second == 0 ? 0 : NS_PER_S / frames_per_second;
}

std::uint32_t slow_socket_rate_limit() {
    return frame_worth == 0 ? 0 : static_cast<std::uint32_t>(NS_PER_S / frame_worth);
}
