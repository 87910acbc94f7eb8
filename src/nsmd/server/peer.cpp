// One client of the NSM socket. The server owns the records and gets every packet; this file owns descriptor,
// events and queue. Nothing here waits: a client that does not read costs at most QUEUE_LIMIT octets, and is
// closed when that is spent; it comes back and gets a fresh dump.
#include "nsmd/server/peer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "suite/base/memory.h"
#include "suite/log/log.h"
#include "suite/loop/thread.h"
#include "suite/manager/wire.h"

namespace {

constexpr std::size_t QUEUE_LIMIT = 256 * 1024;  // some ten dumps of 255 ports
constexpr int PACKETS_PER_TURN = 16;

int reap_due(thread* event) {
    auto* peer = static_cast<nsmd_peer*>(event->arg);
    peer->reap = nullptr;
    peer->sink.closed(peer->sink.arg, peer);
    return 0;
}

// The socket's answer to one packet: 1 taken, 0 full, -1 broken.
int push(const nsmd_peer* peer, const_octets packet) {
    for (;;) {
        const ssize_t sent = send(peer->fd, packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent >= 0) return 1;
        if (errno == EINTR) continue;
        return errno == EAGAIN || errno == ENOBUFS ? 0 : -1;
    }
}

void flush(nsmd_peer* peer);

int writable(thread* event) {
    auto* peer = static_cast<nsmd_peer*>(event->arg);
    peer->write = nullptr;
    flush(peer);
    return 0;
}

void await_room(nsmd_peer* peer) {
    if (!peer->write) peer->write = thread_add_write(peer->ctx, writable, peer, peer->fd);
    if (!peer->write) nsmd_peer_close(peer);
}

void flush(nsmd_peer* peer) {
    std::size_t done = 0;
    while (peer->queue.length - done >= sizeof(std::uint16_t)) {
        std::uint16_t size;
        std::memcpy(&size, peer->queue.data + done, sizeof size);
        const auto* packet = reinterpret_cast<const std::uint8_t*>(peer->queue.data + done + sizeof size);
        const int result = push(peer, {packet, size});
        if (result < 0) {
            nsmd_peer_close(peer);
            return;
        }
        if (result == 0) break;
        done += sizeof size + size;
    }
    text_consume(&peer->queue, done);
    if (peer->queue.length)
        await_room(peer);
    else if (peer->close_when_sent)
        nsmd_peer_close(peer);
}

void enqueue(nsmd_peer* peer, const_octets packet) {
    const auto size = static_cast<std::uint16_t>(packet.size());
    std::uint8_t entry[sizeof size + NSM_MESSAGE_MAX];
    std::memcpy(entry, &size, sizeof size);
    std::memcpy(entry + sizeof size, packet.data(), packet.size());
    if (!text_append(&peer->queue, entry, sizeof size + packet.size())) {
        log_suite(LOG_LEVEL_WARNING, "client %ld takes its messages too slowly, closed",
                  static_cast<long>(peer->pid));
        nsmd_peer_close(peer);
        return;
    }
    await_room(peer);
}

// False when nothing more is to be read, also because the peer was closed.
bool read_packet(nsmd_peer* peer) {
    std::uint8_t packet[NSM_MESSAGE_MAX];
    iovec part{packet, sizeof packet};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    const ssize_t got = recvmsg(peer->fd, &header, MSG_DONTWAIT);
    if (got < 0 && errno == EINTR) return true;
    if (got < 0 && errno == EAGAIN) return false;
    if (got <= 0) {
        nsmd_peer_close(peer);
        return false;
    }
    peer->sink.packet(peer->sink.arg, peer, {packet, static_cast<std::size_t>(got)},
                      (header.msg_flags & MSG_TRUNC) != 0);
    return peer->fd >= 0;
}

int readable(thread* event) {
    auto* peer = static_cast<nsmd_peer*>(event->arg);
    peer->read = nullptr;
    for (int i = 0; i < PACKETS_PER_TURN; ++i)
        if (!read_packet(peer)) break;
    if (peer->fd < 0) return 0;
    peer->read = thread_add_read(peer->ctx, readable, peer, peer->fd);
    if (!peer->read) nsmd_peer_close(peer);
    return 0;
}

void close_descriptor(nsmd_peer* peer) {
    if (peer->fd < 0) return;
    thread_forget_fd(peer->ctx, peer->fd);  // cancels what is pending on it
    close(peer->fd);
    peer->fd = -1;
    peer->read = peer->write = nullptr;
}

pid_t peer_pid(int fd) {
    ucred credentials{};
    socklen_t length = sizeof credentials;
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) == 0 ? credentials.pid : 0;
}

}  // namespace

nsmd_peer* nsmd_peer_create(lib_globals* ctx, int fd, const nsmd_peer_sink& sink) {
    auto* peer = static_cast<nsmd_peer*>(memmgr_calloc(sizeof(nsmd_peer), MTYPE_NSMD));
    if (!peer) {
        close(fd);
        return nullptr;
    }
    peer->ctx = ctx;
    peer->sink = sink;
    peer->fd = fd;
    peer->pid = peer_pid(fd);
    peer->queue.limit = QUEUE_LIMIT;
    peer->read = thread_add_read(ctx, readable, peer, fd);
    if (!peer->read) {
        nsmd_peer_free(peer);
        return nullptr;
    }
    return peer;
}

void nsmd_peer_send(nsmd_peer* peer, std::uint16_t type, const_octets body) {
    if (peer->fd < 0 || NSM_HEADER_SIZE + body.size() > NSM_MESSAGE_MAX) return;
    std::uint8_t packet[NSM_MESSAGE_MAX];
    const std::size_t size = NSM_HEADER_SIZE + body.size();
    put_be16(packet, 0, type);
    put_be16(packet, 2, static_cast<std::uint16_t>(size));
    put_be32(packet, 4, ++peer->sequence);
    if (!body.empty()) std::memcpy(packet + NSM_HEADER_SIZE, body.data(), body.size());
    const int result = peer->queue.length ? 0 : push(peer, {packet, size});
    if (result == 0)
        enqueue(peer, {packet, size});
    else if (result < 0)
        nsmd_peer_close(peer);
}

void nsmd_peer_finish(nsmd_peer* peer) {
    peer->close_when_sent = true;
    if (peer->queue.length == 0) nsmd_peer_close(peer);
}

void nsmd_peer_close(nsmd_peer* peer) {
    if (peer->fd < 0) return;
    close_descriptor(peer);
    text_free(&peer->queue);
    // The caller may be in the middle of a round over all peers: the record goes in a turn of its own.
    peer->reap = thread_add_timer_msec(peer->ctx, reap_due, peer, 0);
}

void nsmd_peer_free(nsmd_peer* peer) {
    thread_cancel(peer->reap);
    close_descriptor(peer);
    text_free(&peer->queue);
    memmgr_free(peer, MTYPE_NSMD);
}
