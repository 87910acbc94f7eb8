// What the kernel says to nsmd about links: datagrams of any octets to a watcher that asks, dumps and times
// out in virtual time, and the port table that it keeps. An input is records: an octet for the kind, two for
// the length, and so many octets. Answers can be made to look like those that are waited for, as the kernel's
// would.
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <vector>

#include "nsmd/link_watch.h"
#include "suite/log.h"
#include "suite/memory.h"
#include "suite/thread.h"

namespace {

constexpr int FD = 700;
constexpr std::uint32_t OWN_PORT = 4711;

struct kernel {
    lib_globals ctx{};
    nanoseconds now = 1000 * NS_PER_S;
    std::deque<std::vector<std::uint8_t>> queue;
    std::deque<int> errors;
    std::uint32_t last_sequence = 0;
    port_table* table = nullptr;
};
kernel* k;

void must(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "FAULT rule broken: %s\n", what);
    std::abort();
}

int open_socket(void*, int) {
    return FD;
}
int join(void*, int, unsigned) {
    return 0;
}
int receive(void*, int, octets buffer) {
    if (!k->errors.empty()) {
        const int error = k->errors.front();
        k->errors.pop_front();
        return error;
    }
    if (k->queue.empty()) return -EAGAIN;
    const std::vector<std::uint8_t> next = std::move(k->queue.front());
    k->queue.pop_front();
    if (next.size() > buffer.size()) return -EMSGSIZE;
    if (!next.empty()) std::memcpy(buffer.data(), next.data(), next.size());
    return static_cast<int>(next.size());
}
int send_message(void*, int, const_octets message) {
    nl_message m;
    must(nl_next_message(&message, &m) && m.type == RTM_GETLINK, "requests are whole questions about links");
    k->last_sequence = m.sequence;
    return 0;
}
void close_socket(void*, int) {}

nanoseconds now(void*) {
    return k->now;
}
int wait(void*, int timeout_ms, thread_ready* out, int) {
    if (!k->queue.empty() || !k->errors.empty()) {
        out[0] = {FD, true, false};
        return 1;
    }
    if (timeout_ms > 0) k->now += static_cast<nanoseconds>(timeout_ms) * NS_PER_MS;
    return 0;
}

void run(std::uint32_t ms) {
    const auto over = [](thread* event) {
        event->ctx->flags |= LIB_SHUTTING_DOWN;
        return 0;
    };
    must(thread_add_timer_msec(&k->ctx, over, nullptr, ms) != nullptr, "a timer can be added");
    thread event;
    while (thread_fetch(&k->ctx, &event)) thread_call(&event);
    k->ctx.flags = 0;
}

void on_port(void*, const nsmd_port& port, port_event) {
    must(port.name[0] && port.name[LINK_NAME_SIZE - 1] == 0, "ports have names");
    must(port.ifindex >= 1 && port.ifindex <= PORT_INDEX_MAX, "ports that are reported have an index");
}
void on_bridge(void*, const bridge_identity& identity) {
    must(identity.name[LINK_NAME_SIZE - 1] == 0, "names end");
}

void check_table() {
    bool used[PORT_INDEX_MAX + 1] = {};
    for (const nsmd_port* p = port_table_first(k->table); p; p = p->next) {
        if (p->ifindex == 0) continue;
        must(p->ifindex <= PORT_INDEX_MAX && !used[p->ifindex], "an index is one port's");
        used[p->ifindex] = true;
        must(port_table_find(k->table, p->ifindex) == p, "a port is found by its index");
    }
}

// Headers of all messages in the datagram get the sequence number and the address that are waited for.
void answer(std::vector<std::uint8_t>* data) {
    for (std::size_t at = 0; at + NLMSG_HDRLEN <= data->size();) {
        std::uint32_t length;
        std::memcpy(&length, data->data() + at, sizeof length);
        std::memcpy(data->data() + at + 8, &k->last_sequence, 4);
        std::memcpy(data->data() + at + 12, &OWN_PORT, 4);
        if (length < NLMSG_HDRLEN || length > data->size() - at) break;
        at += (std::size_t{length} + 3) & ~std::size_t{3};
    }
}

void take_record(const_octets* rest) {
    const std::uint8_t kind = (*rest)[0];
    const std::size_t length = (*rest)[1] + std::size_t{(*rest)[2]} * 256;
    *rest = rest->subspan(3);
    const const_octets body = rest->first(std::min(length, rest->size()));
    *rest = rest->subspan(body.size());
    std::vector<std::uint8_t> data(body.begin(), body.end());
    switch (kind % 6) {
        case 0:
            k->queue.push_back(std::move(data));
            break;
        case 1:
            answer(&data);
            k->queue.push_back(std::move(data));
            break;
        case 2: {
            const int errors[] = {-ENOBUFS, -EMSGSIZE, -EINTR, 0};
            k->errors.push_back(errors[kind / 6 % 4]);
            break;
        }
        case 3: {
            std::vector<std::uint8_t> done = {20, 0, 0, 0, NLMSG_DONE, 0, NLM_F_MULTI, 0, 0, 0,
                                              0,  0, 0, 0, 0,          0, 0,           0, 0, 0};
            answer(&done);
            k->queue.push_back(std::move(done));
            break;
        }
        case 4:
            // Nothing is run: the next record arrives in the same turn.
            return;
        default:
            run(static_cast<std::uint32_t>(length % 3000));
    }
    run(1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > 8192) return 0;
    kernel state;
    k = &state;
    memory_init(0);
    log_use_sink(LOG_SINK_STDERR, false);
    static const thread_edges edges = {now, wait, nullptr};
    static const netlink_edge netlink = {open_socket, join, receive, send_message, close_socket, nullptr};
    static const char* const patterns[] = {"sw*"};
    const std::uint64_t before = memmgr_type_stats(MTYPE_NSMD).blocks;
    k->ctx.master = thread_master_create(&edges);
    k->table = port_table_create(patterns, 1, {on_port, on_bridge, nullptr});
    link_watch* watch = link_watch_start(&k->ctx, k->table, netlink, {});
    must(k->ctx.master && k->table && watch, "the watcher starts");
    const_octets rest{data, size};
    while (rest.size() >= 3) {
        take_record(&rest);
        check_table();
    }
    text_buffer status;
    must(link_watch_status(watch, &status), "the status can be told");
    text_free(&status);
    link_watch_stop(watch);
    port_table_free(k->table);
    thread_master_finish(k->ctx.master);
    must(memmgr_type_stats(MTYPE_NSMD).blocks == before, "no memory is left");
    return 0;
}
