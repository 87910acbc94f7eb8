// For the tests and the fuzz targets of nsmd: the event loop with a clock that only moves by waiting, and
// what the kernel answers to the lookup of a generic netlink family.
#pragma once

#include <linux/genetlink.h>
#include <poll.h>

#include <cstdlib>
#include <functional>
#include <vector>

#include "nsmd/netlink/netlink.h"
#include "suite/base/memory.h"
#include "suite/loop/master.h"
#include "suite/loop/thread.h"
#include "suite/start/lib.h"

struct virtual_loop {
    lib_globals ctx{};
    nanoseconds clock = 1000 * NS_PER_S;
    std::vector<int> descriptors;  // real ones, which are polled
    std::function<std::vector<int>()> fake_ready = [] { return std::vector<int>{}; };  // invented ones

    virtual_loop() {
        memory_init(0);
        const thread_edges edges = {now, wait, this};
        ctx.master = thread_master_create(&edges);
        if (!ctx.master) std::abort();
    }
    ~virtual_loop() { thread_master_finish(ctx.master); }

    // Runs everything that happens within so many milliseconds of virtual time.
    void run(unsigned milliseconds) {
        const auto over = [](thread* event) {
            event->ctx->flags |= LIB_SHUTTING_DOWN;
            return 0;
        };
        if (!thread_add_timer_msec(&ctx, over, nullptr, milliseconds)) std::abort();
        thread event;
        while (thread_fetch(&ctx, &event)) thread_call(&event);
        ctx.flags = 0;
    }

  private:
    static nanoseconds now(void* arg) { return static_cast<virtual_loop*>(arg)->clock; }

    static int wait(void* arg, int timeout_ms, thread_ready* out, int max) {
        auto* v = static_cast<virtual_loop*>(arg);
        int count = 0;
        for (const int fd : v->fake_ready())
            if (count < max) out[count++] = {fd, true, false};
        for (const int fd : v->descriptors)
            if (count < max && v->is_ready(fd, &out[count])) ++count;
        if (count == 0 && timeout_ms > 0) v->clock += static_cast<nanoseconds>(timeout_ms) * NS_PER_MS;
        return count;
    }
    // As the kernel does, report only what is waited for: else time would never move on.
    bool is_ready(int fd, thread_ready* out) const {
        const thread_source* source = thread_source_find(ctx.master, fd);
        if (!source) return false;
        const auto events = static_cast<short>((source->read ? POLLIN : 0) | (source->write ? POLLOUT : 0));
        pollfd entry{fd, events, 0};
        if (!events || poll(&entry, 1, 0) <= 0) return false;
        *out = {fd, (entry.revents & ~POLLOUT) != 0, (entry.revents & POLLOUT) != 0};
        return true;
    }
};

inline nl_builder generic_message(std::uint16_t type, std::uint8_t command, std::uint16_t flags = 0) {
    nl_builder b;
    nl_begin(&b, type, flags, 0);
    const std::uint8_t header[4] = {command, 1, 0, 0};
    nl_put_raw(&b, header, sizeof header);
    return b;
}

inline nl_builder family_message(std::uint16_t id, std::uint32_t group_id, const char* group) {
    nl_builder b = generic_message(GENL_ID_CTRL, CTRL_CMD_NEWFAMILY);
    nl_put(&b, CTRL_ATTR_FAMILY_ID, &id, sizeof id);
    const std::size_t groups = nl_nest_begin(&b, CTRL_ATTR_MCAST_GROUPS), one = nl_nest_begin(&b, 1);
    nl_put_text(&b, CTRL_ATTR_MCAST_GRP_NAME, group);
    nl_put_u32(&b, CTRL_ATTR_MCAST_GRP_ID, group_id);
    nl_nest_end(&b, one);
    nl_nest_end(&b, groups);
    return b;
}
