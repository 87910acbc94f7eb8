// The listening socket of the NSM link: made, served and removed here, for the server. A crash of nsmd leaves
// the file behind; it is told from a live server's by connecting to it. When descriptors run out the listener
// rests for a second instead of turning the loop in vain.
#include "nsmd/server/listen.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "nsmd/module.h"
#include "suite/base/memory.h"
#include "suite/log/log.h"
#include "suite/loop/thread.h"

struct nsm_listener {
    lib_globals* ctx;
    void (*connected)(void* arg, int fd);
    void* arg;
    int fd;
    thread* event;  // reading, or the rest after running out of descriptors
    dev_t device;   // the file as we made it
    ino_t inode;
    sockaddr_un address;
};

namespace {

constexpr int BACKLOG = 16;
constexpr std::uint32_t REST_MS = 1000;

int connection_ready(thread* event);

int rested(thread* event) {
    auto* l = static_cast<nsm_listener*>(event->arg);
    l->event = thread_add_read(l->ctx, connection_ready, l, l->fd);
    return 0;
}

int connection_ready(thread* event) {
    auto* l = static_cast<nsm_listener*>(event->arg);
    const int fd = accept4(l->fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    const int error = errno;
    const bool exhausted =
        fd < 0 && (error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS);
    if (exhausted) {
        log_sys(NSMD_MODULE, LOG_LEVEL_WARNING, "can't take a client: %s", std::strerror(error));
        l->event = thread_add_timer_msec(l->ctx, rested, l, REST_MS);
        return 0;
    }
    l->event = thread_add_read(l->ctx, connection_ready, l, l->fd);
    if (fd >= 0) l->connected(l->arg, fd);
    return 0;
}

int make_socket() {
    return socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

// Anything but a refusal means that somebody is there, a server that is stopped or busy included.
bool is_stale(const sockaddr_un& address) {
    const int fd = make_socket();
    if (fd < 0) return false;
    const bool refused =
        connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0 && errno == ECONNREFUSED;
    close(fd);
    return refused;
}

int bind_once(int fd, const sockaddr_un& address) {
    const mode_t mask = umask(0117);
    const int result = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const int error = errno;
    umask(mask);
    return result < 0 ? -error : 0;
}

int bind_path(int fd, const sockaddr_un& address) {
    int result = bind_once(fd, address);
    if (result == -EADDRINUSE && is_stale(address)) {
        unlink(address.sun_path);
        result = bind_once(fd, address);
    }
    return result;
}

int open_listener(nsm_listener* l) {
    l->fd = make_socket();
    if (l->fd < 0) return -errno;
    const int result = bind_path(l->fd, l->address);
    if (result < 0) return result;
    struct stat file {};
    if (lstat(l->address.sun_path, &file) == 0) {
        l->device = file.st_dev;
        l->inode = file.st_ino;
    }
    if (listen(l->fd, BACKLOG) < 0) return -errno;
    l->event = thread_add_read(l->ctx, connection_ready, l, l->fd);
    return l->event ? 0 : -ENOMEM;
}

}  // namespace

nsm_listener* nsm_listen_start(lib_globals* ctx, const char* path, void (*connected)(void* arg, int fd),
                               void* arg) {
    auto* l = static_cast<nsm_listener*>(memmgr_calloc(sizeof(nsm_listener), MTYPE_NSMD));
    int result = -ENOMEM;
    if (l) {
        l->ctx = ctx;
        l->connected = connected;
        l->arg = arg;
        l->fd = -1;
        l->address.sun_family = AF_UNIX;
        std::strncpy(l->address.sun_path, path, sizeof l->address.sun_path - 1);
        result = open_listener(l);
    }
    if (result == 0) return l;
    log_sys(NSMD_MODULE, LOG_LEVEL_ERROR, "can't listen on %s: %s", path,
            result == -EADDRINUSE ? "another server is there" : std::strerror(-result));
    nsm_listen_stop(l);
    return nullptr;
}

void nsm_listen_stop(nsm_listener* l) {
    if (!l) return;
    thread_cancel(l->event);
    if (l->fd >= 0) {
        thread_forget_fd(l->ctx, l->fd);
        close(l->fd);
    }
    struct stat file {};
    if (l->inode && lstat(l->address.sun_path, &file) == 0 && file.st_dev == l->device &&
        file.st_ino == l->inode)
        unlink(l->address.sun_path);
    memmgr_free(l, MTYPE_NSMD);
}
