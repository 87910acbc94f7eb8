// What turns a context's event loop in a test.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

#include "suite/loop/master.h"

// Runs what is ready, and what comes within `ms`, until `done` after some event; whether it came to that.
inline bool run_loop(lib_globals* ctx, std::uint32_t ms, const std::function<bool()>& done) {
    bool over = false;
    const auto end = [](thread* event) {
        *static_cast<bool*>(event->arg) = true;
        return 0;
    };
    thread* limit = thread_add_timer_msec(ctx, end, &over, ms);
    bool is_done = false;
    for (thread event; !(is_done = done()) && !over && thread_fetch(ctx, &event);) (void)thread_call(&event);
    if (!over) thread_cancel(limit);
    return is_done;
}

// For units whose one edge is a link to a server: the test is the server, at the far end of a socket pair,
// and the loop's clock only moves by waiting.
struct virtual_link {
    lib_globals* ctx = nullptr;
    nanoseconds now = NS_PER_S;
    int near = -1;  // the unit's end, which the unit closes
    int far = -1;
    int opens = 0;       // tries to open the link
    int open_error = 0;  // that they fail with

    virtual_link() = default;
    virtual_link(const virtual_link&) = delete;
    virtual_link& operator=(const virtual_link&) = delete;
    ~virtual_link() { hang_up(); }

    thread_edges edges() {
        return {[](void* self) { return static_cast<virtual_link*>(self)->now; }, wait, this};
    }

    // What the unit gets when it opens its link: a descriptor, or a negative errno.
    int open(int type) {
        ++opens;
        if (open_error) return -open_error;
        hang_up();
        int ends[2];
        if (socketpair(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) return -errno;
        near = ends[0];
        far = ends[1];
        return near;
    }
    void hang_up() {
        if (far >= 0) close(far);
        far = -1;
    }

    bool run(
        std::uint32_t ms, const std::function<bool()>& done = [] { return false; }) const {
        return run_loop(ctx, ms, done);
    }

  private:
    static int wait(void* arg, int timeout_ms, thread_ready* out, int) {
        auto* self = static_cast<virtual_link*>(arg);
        // As the kernel does, tell only of what is waited for: else time would never move on.
        const thread_source* source = thread_source_find(self->ctx->master, self->near);
        const int events = source ? (source->read ? POLLIN : 0) | (source->write ? POLLOUT : 0) : 0;
        pollfd state{self->near, static_cast<short>(events), 0};
        if (events && poll(&state, 1, 0) > 0) {
            *out = {state.fd, (state.revents & ~POLLOUT) != 0, (state.revents & ~POLLIN) != 0};
            return 1;
        }
        if (timeout_ms > 0) self->now += static_cast<nanoseconds>(timeout_ms) * NS_PER_MS;
        return 0;
    }
};
