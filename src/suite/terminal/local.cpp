// The local terminal socket: who may open the socket file may configure. A file that is left from a daemon
// that is gone is replaced; whether one still answers is asked by connecting.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

#include "suite/log/log.h"
#include "suite/terminal/session.h"
#include "suite/terminal/terminal.h"

namespace {

char bound_path[sizeof(sockaddr_un::sun_path)];
ino_t bound_inode;

bool make_address(const char* path, sockaddr_un* address) {
    *address = {};
    address->sun_family = AF_UNIX;
    if (std::strlen(path) >= sizeof address->sun_path) return false;
    std::memcpy(address->sun_path, path, std::strlen(path) + 1);
    return true;
}

// A connection that would have to wait is one that somebody listens for.
bool answers(const sockaddr_un& address) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return false;
    int result = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    bool yes = result == 0 || errno == EAGAIN || errno == EACCES;
    close(fd);
    return yes;
}

bool is_socket(const char* path) {
    struct stat status;
    return lstat(path, &status) == 0 && S_ISSOCK(status.st_mode);
}

// 0 or a negative errno. The mode is right from the first moment on: the umask keeps others out until chmod.
int bind_and_listen(int fd, const sockaddr_un& address) {
    mode_t mask = umask(0177);
    int result = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? 0 : -errno;
    umask(mask);
    if (result != 0) return result;
    if (chmod(address.sun_path, 0660) != 0 || listen(fd, static_cast<int>(SESSION_MAX)) != 0) return -errno;
    return 0;
}

int open_socket(const sockaddr_un& address) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -errno;
    int result = bind_and_listen(fd, address);
    if (result == -EADDRINUSE && is_socket(address.sun_path) && !answers(address)) {
        (void)unlink(address.sun_path);  // the second bind tells if it did not go
        result = bind_and_listen(fd, address);
    }
    if (result == 0) return fd;
    close(fd);
    return result;
}

void arm_accept(host_state* host);

// Accepts one client a turn. Without descriptors or memory the next try waits for a timer, because the
// waiting client would make every turn ready.
int on_connection(thread* event) {
    auto* host = static_cast<host_state*>(event->arg);
    host->local_accept = nullptr;
    int fd = accept4(host->local_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0 && (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS)) {
        host->local_accept = thread_add_timer_msec(
            host->ctx,
            [](thread* t) {
                auto* h = static_cast<host_state*>(t->arg);
                h->local_accept = nullptr;
                arm_accept(h);
                return 0;
            },
            host, 500);
        return 0;
    }
    session* s = fd < 0 ? nullptr : session_create(host->ctx, fd, session_kind::local);
    if (s) {
        std::strcpy(s->peer, "local");
        session_settle(s);
    }
    arm_accept(host);
    return 0;
}

void arm_accept(host_state* host) {
    host->local_accept = thread_add_read(host->ctx, on_connection, host, host->local_fd);
}

}  // namespace

int local_terminal_start(host_state* host, const char* path) {
    sockaddr_un address;
    int fd = make_address(path, &address) ? open_socket(address) : -ENAMETOOLONG;
    if (fd < 0) {
        log_suite(LOG_LEVEL_ERROR, "local terminal %s: %s", path, std::strerror(-fd));
        return -1;
    }
    struct stat status {};
    bound_inode = stat(path, &status) == 0 ? status.st_ino : 0;
    std::memcpy(bound_path, address.sun_path, sizeof bound_path);
    host->local_fd = fd;
    arm_accept(host);
    return 0;
}

void local_terminal_stop(host_state* host) {
    if (host->local_fd < 0) return;
    thread_cancel(host->local_accept);
    host->local_accept = nullptr;
    thread_forget_fd(host->ctx, host->local_fd);
    close(host->local_fd);
    host->local_fd = -1;
    // Another daemon may have put its own socket there meanwhile.
    struct stat status;
    if (stat(bound_path, &status) == 0 && status.st_ino == bound_inode) (void)unlink(bound_path);
}
