// Opens the link to the master: the only place that knows sockets' addresses. Neither kind of connect waits:
// a Unix socket's succeeds or fails at once, a TCP one's goes on by itself. Names are not looked up, as that
// could take as long as a name server likes.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "suite/agentx/record.h"
#include "suite/base/unix_socket.h"

namespace {

int begin_connect(int fd, const void* address, socklen_t length) {
    if (connect(fd, static_cast<const sockaddr*>(address), length) == 0 || errno == EINPROGRESS) return fd;
    const int error = errno;
    close(fd);
    return -error;
}

int open_tcp(const agentx_target* target) {
    sockaddr_in v4{};
    sockaddr_in6 v6{};
    v4.sin_family = AF_INET;
    v6.sin6_family = AF_INET6;
    v4.sin_port = v6.sin6_port = htons(target->port);
    const bool is_v4 = inet_pton(AF_INET, target->host, &v4.sin_addr) == 1;
    if (!is_v4 && inet_pton(AF_INET6, target->host, &v6.sin6_addr) != 1) return -EINVAL;
    const int fd = socket(is_v4 ? AF_INET : AF_INET6, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return -errno;
    // One small answer after another: each must leave at once. Without it they only come later.
    const int on = 1;
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (is_v4) return begin_connect(fd, &v4, sizeof v4);
    return begin_connect(fd, &v6, sizeof v6);
}

}  // namespace

int agentx_link_open_real(const agentx_target* target) {
    return target->tcp ? open_tcp(target) : unix_connect(target->path, SOCK_STREAM | SOCK_NONBLOCK);
}

bool agentx_set_tcp(agentx_target* target, const char* host, std::uint16_t port) {
    if (std::strcmp(host, "localhost") == 0) host = "127.0.0.1";
    in6_addr scratch;
    if (inet_pton(AF_INET, host, &scratch) != 1 && inet_pton(AF_INET6, host, &scratch) != 1) return false;
    *target = {};
    target->tcp = true;
    target->port = port;
    std::snprintf(target->host, sizeof target->host, "%s", host);
    return true;
}

bool agentx_set_unix(agentx_target* target, const char* path) {
    if (path[0] != '/' || std::strlen(path) >= sizeof target->path) return false;
    *target = {};
    std::snprintf(target->path, sizeof target->path, "%s", path);
    return true;
}
