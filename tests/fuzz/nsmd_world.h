// nsmd's parts in virtual time, for the fuzz targets of nsmd: a loop, a port table, and a kernel whose
// netlink sockets say what the input makes them say.
#pragma once

#include <cerrno>
#include <deque>
#include <functional>
#include <utility>
#include <vector>

#include "fuzz/fuzz.h"
#include "nsmd/links/port_table.h"
#include "nsmd/netlink/netlink.h"
#include "nsmd/netlink/socket.h"
#include "suite/log/log.h"
#include "unit/nsmd_loop.h"

struct nsmd_world {
    static constexpr int FIRST_FD = 700;
    virtual_loop loop;
    input in;
    std::deque<std::vector<std::uint8_t>> queue;  // what the kernel has said
    std::deque<int> errors;                       // what the next reads fail with before that
    int next_fd = FIRST_FD;
    // Who is told of requests, and of ports.
    std::function<void(const nl_message&)> on_request;
    std::function<void(const nsmd_port&, port_event)> on_port;
    port_table* table;

    nsmd_world(const char* const& pattern, const std::uint8_t* data, std::size_t size) : in{data, size} {
        log_use_sink(LOG_SINK_STDERR, false);
        loop.fake_ready = [this] { return std::vector<int>(queue.empty() ? 0 : 1, FIRST_FD); };
        const auto port = [](void* arg, const nsmd_port& p, port_event event) {
            must(p.name[0] && p.name[LINK_NAME_SIZE - 1] == 0, "ports have names");
            must(p.ifindex >= 1 && p.ifindex <= PORT_INDEX_MAX, "ports that are reported have an index");
            const auto* w = static_cast<nsmd_world*>(arg);
            if (w->on_port) w->on_port(p, event);
        };
        const auto bridge = [](void*, const bridge_identity& identity) {
            must(identity.name[LINK_NAME_SIZE - 1] == 0, "names end");
        };
        table = port_table_create(&pattern, 1, {port, bridge, this});
        must(table != nullptr, "the table starts");
    }
    ~nsmd_world() {
        port_table_free(table);
        must(memmgr_type_stats(MTYPE_NSMD).blocks == before, "no memory is left");
    }

    netlink_edge edge() {
        const auto open = [](void* arg, int) { return static_cast<nsmd_world*>(arg)->next_fd++; };
        const auto join = [](void*, int, unsigned) { return 0; };
        const auto receive = [](void* arg, int, octets buffer) {
            auto* w = static_cast<nsmd_world*>(arg);
            if (w->errors.empty() && w->queue.empty()) return -EAGAIN;
            if (!w->errors.empty()) {
                const int error = w->errors.front();
                w->errors.pop_front();
                return error;
            }
            const std::vector<std::uint8_t> next = std::move(w->queue.front());
            w->queue.pop_front();
            if (next.size() > buffer.size()) return -EMSGSIZE;
            std::copy(next.begin(), next.end(), buffer.begin());
            return static_cast<int>(next.size());
        };
        const auto send = [](void* arg, int, const_octets request) {
            nl_message m;
            must(nl_next_message(&request, &m) && m.body.size() >= 4, "requests are whole");
            static_cast<nsmd_world*>(arg)->on_request(m);
            return 0;
        };
        return {open, join, receive, send, [](void*, int) {}, this};
    }

    template <typename Part>
    static void check_status(bool (*status)(const Part*, text_buffer*), const Part* part) {
        text_buffer text;
        must(status(part, &text), "the status can be told");
        text_free(&text);
    }

  private:
    const std::uint64_t before = memmgr_type_stats(MTYPE_NSMD).blocks;
};
