// The sending half of the slow-protocol socket. A port whose queue does not move eats up the send buffer of
// the socket that it shares, so a port that finds that buffer full gets a sending socket of its own from then
// on. A send that fails is counted for its port and forgotten, as the next PDU goes out a second later.
//
// What an event makes all ports say is collected and handed to the kernel in batches: of the time that a
// frame takes, a fifth is the system call's.
#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "suite/log/log.h"
#include "suite/ports/slow_state.h"

namespace {

constexpr std::size_t FRAME_MIN = SLOW_HEADER + SLOW_PAYLOAD_MIN;
constexpr std::size_t PAYLOAD_MAX = 1500;

alignas(8) std::uint8_t out_frame[SLOW_HEADER + PAYLOAD_MAX];

// Frames that leave together. Longer ones, and those of a port with a socket of its own, go at once.
constexpr std::size_t BATCH = 64, BATCH_FRAME = 64;
struct {
    bool collecting;
    std::size_t count;
    slow_port* port[BATCH];
    std::uint8_t frame[BATCH][BATCH_FRAME];
    iovec octets[BATCH];
    mmsghdr call[BATCH];
} together;

const_octets build_frame(std::uint8_t* out, const slow_port* port, const_octets payload,
                         const slow_address& to) {
    static constexpr std::uint8_t OWN[6] = {};
    const bool own = std::memcmp(to.source, OWN, sizeof OWN) == 0;
    std::memcpy(out, to.destination, 6);
    std::memcpy(out + 6, own ? port->mac : to.source, 6);
    put_be16({out, SLOW_HEADER}, 12, ETH_P_SLOW);
    std::memcpy(out + SLOW_HEADER, payload.data(), payload.size());
    const std::size_t length = SLOW_HEADER + payload.size();
    if (length >= FRAME_MIN) return {out, length};
    std::memset(out + length, 0, FRAME_MIN - length);
    return {out, FRAME_MIN};
}

ssize_t send_packet(int fd, const slow_port* port, const_octets frame) {
    return sendto(fd, frame.data(), frame.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                  reinterpret_cast<const sockaddr*>(&port->to), sizeof port->to);
}

ssize_t send_frame(int fd, slow_port* port, const_octets frame) {
    if (slow.opened.kind == slow_kind::replaced)
        return slow.edge->send(slow.edge->arg, fd, frame, port->kernel_ifindex);
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

// Counts what became of a frame; `sent` and errno are the system call's.
ssize_t count_out(slow_port* port, ssize_t sent) {
    if (sent < 0) {
        count_error(port, errno);
        return -1;
    }
    ++port->stats.frames_out;
    ++slow.totals.frames_out;
    return sent;
}

void send_collected() {
    for (std::size_t done = 0; done < together.count;) {
        const int sent = sendmmsg(slow.opened.fd, together.call + done,
                                  static_cast<unsigned>(together.count - done), MSG_DONTWAIT | MSG_NOSIGNAL);
        for (int i = 0; i < sent; ++i) (void)count_out(together.port[done++], 0);
        if (sent > 0) continue;
        // The first of them can't leave like this. On its own it is counted as what it is, or gets its own
        // socket.
        const iovec& frame = together.octets[done];
        slow_port* port = together.port[done++];
        (void)count_out(port, send_frame(slow.opened.fd, port,
                                         {static_cast<const std::uint8_t*>(frame.iov_base), frame.iov_len}));
    }
    together.count = 0;
}

void collect(slow_port* port, const_octets payload, const slow_address& to) {
    if (together.count == BATCH) send_collected();
    const std::size_t at = together.count++;
    const const_octets frame = build_frame(together.frame[at], port, payload, to);
    together.port[at] = port;
    together.octets[at] = {together.frame[at], frame.size()};
    together.call[at].msg_hdr = {};
    together.call[at].msg_hdr.msg_name = &port->to;
    together.call[at].msg_hdr.msg_namelen = sizeof port->to;
    together.call[at].msg_hdr.msg_iov = &together.octets[at];
    together.call[at].msg_hdr.msg_iovlen = 1;
}

bool can_wait(const slow_port* port, const_octets payload) {
    return together.collecting && slow.opened.kind == slow_kind::packet && port->own_fd < 0 &&
           SLOW_HEADER + payload.size() <= BATCH_FRAME;
}

ssize_t send_at_once(int fd, slow_port* port, const_octets payload, const slow_address& to) {
    if (payload.size() > PAYLOAD_MAX) {
        errno = EMSGSIZE;
        return -1;
    }
    if (slow.opened.kind == slow_kind::native)
        return sendto(fd, payload.data(), payload.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                      reinterpret_cast<const sockaddr*>(&to), sizeof to);
    return send_frame(fd, port, build_frame(out_frame, port, payload, to));
}

}  // namespace

slow_sending_together::slow_sending_together() {
    together.collecting = true;
}

slow_sending_together::~slow_sending_together() {
    send_collected();
    together.collecting = false;
}

void slow_send_forget(slow_port* port) {
    if (port->own_fd >= 0) close(port->own_fd);
    port->own_fd = -1;
}

ssize_t slow_sendto(int fd, const_octets payload, const slow_address& to) {
    if (fd < 0 || fd != slow.opened.fd) {
        errno = EBADF;
        return -1;
    }
    slow_port* port = slow_port_by_ifindex(to.ifindex);
    if (!port) {
        errno = ENODEV;
        return -1;
    }
    if (can_wait(port, payload))
        collect(port, payload, to);
    else if (count_out(port, send_at_once(fd, port, payload, to)) < 0)
        return -1;
    return static_cast<ssize_t>(payload.size());
}
