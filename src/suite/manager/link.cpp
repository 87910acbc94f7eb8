// Opens the link to NSM: the only place that knows its socket. Called by nsm_client.cpp at start and at every
// try after that. Connecting to a Unix socket never takes time: it succeeds or fails at once (a full backlog
// is EAGAIN), so the caller just tries again later.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "suite/manager/record.h"

int nsm_link_open_real() {
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return -errno;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    constexpr std::string_view PATH = NSM_SOCKET_PATH;
    static_assert(PATH.size() < sizeof address.sun_path);
    std::memcpy(address.sun_path, PATH.data(), PATH.size());  // zeroed above
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
    const int error = errno;
    close(fd);
    return -error;
}
