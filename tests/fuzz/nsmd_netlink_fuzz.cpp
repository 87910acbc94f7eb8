// What the kernel says to nsmd about links: datagrams of any octets to a watcher that asks, dumps and times
// out in virtual time, and the port table that it keeps. An input is records: an octet for the kind, two for
// the length, and so many octets. Answers can be made to look like those that are waited for, as the kernel's
// would.
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstring>

#include "nsmd/links/watch.h"
#include "nsmd_world.h"

namespace {

constexpr std::uint32_t OWN_PORT = 4711;
std::uint32_t last_sequence;

void check_table(const port_table* table) {
    bool used[PORT_INDEX_MAX + 1] = {};
    for (const nsmd_port* p = port_table_first(table); p; p = p->next) {
        if (p->ifindex == 0) continue;
        must(p->ifindex <= PORT_INDEX_MAX && !used[p->ifindex], "an index is one port's");
        used[p->ifindex] = true;
        must(port_table_find(table, p->ifindex) == p, "a port is found by its index");
    }
}

// Headers of all messages in the datagram get the sequence number and the address that are waited for.
std::vector<std::uint8_t> answer(std::vector<std::uint8_t> data) {
    for (std::size_t at = 0; at + NLMSG_HDRLEN <= data.size();) {
        std::uint32_t length;
        std::memcpy(&length, data.data() + at, sizeof length);
        std::memcpy(data.data() + at + 8, &last_sequence, 4);
        std::memcpy(data.data() + at + 12, &OWN_PORT, 4);
        if (length < NLMSG_HDRLEN || length > data.size() - at) break;
        at += (std::size_t{length} + 3) & ~std::size_t{3};
    }
    return data;
}

void take_record(nsmd_world* w) {
    constexpr int ERRORS[] = {-ENOBUFS, -EMSGSIZE, -EINTR, 0};
    std::vector<std::uint8_t> done(NLMSG_HDRLEN + 4);
    done[0] = NLMSG_HDRLEN + 4;
    done[4] = NLMSG_DONE;
    done[6] = NLM_F_MULTI;
    const std::uint8_t kind = w->in.octet(), low = w->in.octet();
    const std::size_t length = low + std::size_t{w->in.octet()} * 256;
    const const_octets body = w->in.take(length);
    const std::vector<std::uint8_t> data(body.begin(), body.end());
    if (kind % 6 == 4) return;  // nothing is run: the next record arrives in the same turn
    if (kind % 6 == 5) {
        w->loop.run(static_cast<unsigned>(length % 3000));
    } else if (kind % 6 == 2) {
        w->errors.push_back(ERRORS[kind / 6 % 4]);
        w->queue.emplace_back();  // so that there is something to read
    } else {
        w->queue.push_back(kind % 6 == 0 ? data : answer(kind % 6 == 1 ? data : done));
    }
    w->loop.run(1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > 8192) return 0;
    static const char* const pattern = "sw*";
    nsmd_world w(pattern, data, size);
    w.on_request = [](const nl_message& m) {
        must(m.type == RTM_GETLINK, "requests are questions about links");
        last_sequence = m.sequence;
    };
    link_watch* watch = link_watch_start(&w.loop.ctx, w.table, w.edge(), {});
    must(watch != nullptr, "the watcher starts");
    while (w.in.left >= 3) {
        take_record(&w);
        check_table(w.table);
    }
    nsmd_world::check_status(link_watch_status, static_cast<const link_watch*>(watch));
    link_watch_stop(watch);
    return 0;
}
