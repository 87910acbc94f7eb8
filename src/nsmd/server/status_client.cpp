// The asking side of the status report: a short life of its own, without the event loop. A server that does
// not answer within a few seconds is given up.
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "nsmd/server/server.h"
#include "suite/base/unix_socket.h"

namespace {

constexpr int TIMEOUT_S = 5;

int dial(const char* path) {
    const int fd = unix_connect(path, SOCK_SEQPACKET, TIMEOUT_S);
    const timeval limit{TIMEOUT_S, 0};
    if (fd >= 0)
        (void)setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);  // it would wait for ever
    return fd;
}

bool ask(int fd) {
    std::uint8_t request[NSM_HEADER_SIZE] = {};
    put_be16(request, 0, NSMD_MSG_STATUS_GET);
    put_be16(request, 2, sizeof request);
    put_be32(request, 4, 1);
    return send(fd, request, sizeof request, MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof request);
}

bool print_answer(int fd) {
    for (;;) {
        std::uint8_t packet[NSM_MESSAGE_MAX];
        const ssize_t got = recv(fd, packet, sizeof packet, 0);
        if (got < static_cast<ssize_t>(NSM_HEADER_SIZE)) return false;
        if (get_be16(packet, 0) != NSMD_MSG_STATUS_TEXT) continue;
        const std::size_t length = static_cast<std::size_t>(got) - NSM_HEADER_SIZE;
        if (length == 0) return true;
        if (std::fwrite(packet + NSM_HEADER_SIZE, 1, length, stdout) != length) return false;
    }
}

}  // namespace

int nsmd_status_print(const char* socket_path) {
    errno = 0;
    const int fd = dial(socket_path);
    if (fd < 0) errno = -fd;
    const bool answered = fd >= 0 && ask(fd) && print_answer(fd) && std::fflush(stdout) == 0;
    if (!answered)
        std::fprintf(stderr, "nsmd: no status from %s: %s\n", socket_path,
                     errno ? std::strerror(errno) : "the link broke");
    if (fd >= 0) close(fd);
    return answered ? 0 : 1;
}
