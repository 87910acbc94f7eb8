// The kernel's own netlink sockets: opened, read and written here and nowhere else. Owns nothing; the caller
// owns the descriptor. The receive buffer is made large, because 255 ports that change at once send more than
// the default holds; without the privilege the largest allowed size has to do.
#include "nsmd/netlink/socket.h"

#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace {

constexpr int RECEIVE_BUFFER = 4 << 20;

int system_open(void*, int protocol) {
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, protocol);
    if (fd < 0) return -errno;
    const int size = RECEIVE_BUFFER;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) < 0)
        (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);  // best that is left
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
        const int error = errno;
        close(fd);
        return -error;
    }
    return fd;
}

int system_join(void*, int fd, unsigned group) {
    return setsockopt(fd, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) < 0 ? -errno : 0;
}

int system_receive(void*, int fd, octets buffer) {
    sockaddr_nl from{};
    iovec part{buffer.data(), buffer.size()};
    msghdr header{};
    header.msg_name = &from;
    header.msg_namelen = sizeof from;
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    const ssize_t got = recvmsg(fd, &header, MSG_DONTWAIT);
    if (got < 0) return -errno;
    if (header.msg_flags & MSG_TRUNC) return -EMSGSIZE;
    if (from.nl_pid != 0) return 0;  // another process may send to us; only the kernel is believed
    return static_cast<int>(got);
}

int system_send(void*, int fd, const_octets message) {
    sockaddr_nl to{};
    to.nl_family = AF_NETLINK;
    const ssize_t sent = sendto(fd, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr*>(&to), sizeof to);
    return sent < 0 ? -errno : 0;
}

void system_close(void*, int fd) {
    close(fd);
}

}  // namespace

const netlink_edge& netlink_system_edge() {
    static const netlink_edge edge = {system_open, system_join,  system_receive,
                                      system_send, system_close, nullptr};
    return edge;
}
