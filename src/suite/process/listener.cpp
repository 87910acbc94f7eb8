// Takes connections for the local and the TCP terminals, and for nsmd. What comes of a connection is its
// owner's; nothing but the listening socket and its file is kept here.
#include "suite/process/listener.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "suite/loop/thread.h"

namespace {

constexpr std::uint32_t REST_MS = 500;

int connection_ready(thread* event);

void await(listener* l) {
    l->event = thread_add_read(l->ctx, connection_ready, l, l->fd);
}

int rested(thread* event) {
    auto* l = static_cast<listener*>(event->arg);
    l->event = nullptr;
    if (l->has_place && !l->has_place(l->arg))
        listener_rest(l, l->rest_ms);
    else
        await(l);
    return 0;
}

int connection_ready(thread* event) {
    auto* l = static_cast<listener*>(event->arg);
    l->event = nullptr;
    sockaddr_storage peer{};
    socklen_t size = sizeof peer;
    const int fd = accept4(l->fd, reinterpret_cast<sockaddr*>(&peer), &size, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0 && (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS)) {
        log_limited(&l->exhausted, thread_now(l->ctx), "can't take a client: %s", std::strerror(errno));
        listener_rest(l, REST_MS);
        return 0;
    }
    await(l);
    if (fd >= 0) l->accepted(l->arg, fd, peer);
    return 0;
}

}  // namespace

int listener_start(listener* l, lib_globals* ctx, int fd, listener_accepted accepted, void* arg) {
    *l = {};
    l->ctx = ctx;
    l->accepted = accepted;
    l->arg = arg;
    l->fd = fd;
    await(l);
    if (l->event) return 0;
    listener_stop(l);
    return -ENOMEM;
}

int listener_start_unix(listener* l, lib_globals* ctx, const char* path, int type, listener_accepted accepted,
                        void* arg) {
    unix_file file;
    char place[sizeof l->path];
    if (!unix_place(path, place)) return -ENAMETOOLONG;
    const int fd = unix_listen(place, type | SOCK_NONBLOCK, 0660, &file);
    if (fd < 0) return fd;
    if (const int result = listener_start(l, ctx, fd, accepted, arg)) {
        unix_remove(place, file);
        return result;
    }
    std::memcpy(l->path, place, sizeof place);
    l->file = file;
    return 0;
}

void listener_rest(listener* l, std::uint32_t milliseconds) {
    if (!l->ctx) return;
    thread_cancel(l->event);
    l->rest_ms = milliseconds;
    l->event = thread_add_timer_msec(l->ctx, rested, l, milliseconds);
    if (!l->event) await(l);  // no memory to rest
}

void listener_stop(listener* l) {
    if (!l->ctx) return;
    thread_cancel(l->event);
    thread_forget_fd(l->ctx, l->fd);
    close(l->fd);
    if (l->path[0]) unix_remove(l->path, l->file);
    *l = {};
}
