// What the kernel answers to nsmd's generic netlink requests, and what it says unasked: the clock backend and
// the copper roles against a kernel that takes its answers from the input. Each request is answered by
// messages of any attributes (raw octets, or devices and pins of small numbers, so that they refer to each
// other), and by an acknowledgement, an error, an end of dump, or nothing. Between requests come
// notifications, time, ports and wishes of the daemon.
#include <linux/ethtool_netlink.h>
#include <linux/genetlink.h>
#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/netlink.h>

#include <cstring>

#include "nsmd/clock/copper.h"
#include "nsmd/dpll/kernel.h"
#include "nsmd/dpll/message.h"
#include "nsmd_world.h"

namespace {

constexpr std::uint16_t FAMILY = 31;

void push(nsmd_world* w, nl_builder b, std::uint32_t sequence) {
    std::memcpy(b.data + 8, &sequence, sizeof sequence);
    w->queue.emplace_back(b.data, b.data + b.length);
}

void put_device(input* in, nl_builder* b) {
    const std::uint8_t what = in->octet();
    const std::uint64_t clock = what & 1;
    nl_put_u32(b, DPLL_A_ID, what >> 1 & 1);
    nl_put_text(b, DPLL_A_MODULE_NAME, "chip");
    nl_put(b, DPLL_A_CLOCK_ID, &clock, sizeof clock);
    nl_put_u32(b, DPLL_A_MODE, 1 + (what >> 2 & 1));
    nl_put_u32(b, DPLL_A_LOCK_STATUS, what >> 3 & 7);
    nl_put_u32(b, DPLL_A_TYPE, what & 0x40 ? DPLL_TYPE_PPS : DPLL_TYPE_EEC);
}

void put_pin(input* in, nl_builder* b) {
    const std::uint8_t what = in->octet();
    nl_put_u32(b, DPLL_PIN_A_ID, what & 7);
    nl_put_text(b, DPLL_PIN_A_BOARD_LABEL, what & 0x80 ? "EXT" : "PIN");
    nl_put_u32(b, DPLL_PIN_A_CAPABILITIES, what >> 4 & 7);
    for (std::uint8_t parents = in->octet() % 20; parents > 0; --parents) {
        const std::uint8_t place = in->octet(), more = in->octet();
        const bool on_pin = place & 1;
        const std::size_t nest = nl_nest_begin(b, on_pin ? DPLL_PIN_A_PARENT_PIN : DPLL_PIN_A_PARENT_DEVICE);
        nl_put_u32(b, DPLL_PIN_A_PARENT_ID, place >> 1 & 7);
        nl_put_u32(b, DPLL_PIN_A_STATE, place >> 4 & 3);
        if (more & 1) nl_put_u32(b, DPLL_PIN_A_DIRECTION, 1 + (more >> 1 & 1));
        if (more & 4) nl_put_u32(b, DPLL_PIN_A_PRIO, more >> 4);
        if (more & 8) nl_put_u32(b, DPLL_PIN_A_OPERSTATE, place >> 6);
        nl_nest_end(b, nest);
    }
}

// One message of the family, by the input's choice a device, a pin, or any octets.
void say(nsmd_world* w, std::uint32_t sequence) {
    constexpr std::uint8_t COMMANDS[] = {DPLL_CMD_DEVICE_GET,        DPLL_CMD_PIN_GET,
                                         DPLL_CMD_DEVICE_CREATE_NTF, DPLL_CMD_PIN_CREATE_NTF,
                                         DPLL_CMD_DEVICE_DELETE_NTF, DPLL_CMD_PIN_DELETE_NTF,
                                         DPLL_CMD_DEVICE_CHANGE_NTF, DPLL_CMD_PIN_CHANGE_NTF};
    const std::uint8_t what = w->in.octet();
    nl_builder b = generic_message(what & 0x80 ? w->in.octet() : FAMILY, COMMANDS[what >> 3 & 7],
                                   what & 4 ? NLM_F_DUMP_INTR : 0);
    const bool is_pin = what >> 3 & 1;
    if ((what & 3) == 3) {
        const const_octets any = w->in.take(w->in.octet());
        nl_put_raw(&b, any.data(), any.size());
    } else if (is_pin) {
        put_pin(&w->in, &b);
    } else {
        put_device(&w->in, &b);
    }
    if (b.overflow) return;
    // A length field that lies.
    if (what & 0x40) b.data[0] = w->in.octet();
    push(w, b, sequence);
}

void acknowledge(nsmd_world* w, std::uint32_t sequence, std::uint16_t type, int error) {
    nl_builder b;
    nl_begin(&b, type, 0, 0);
    nl_put_raw(&b, &error, sizeof error);
    push(w, b, sequence);
}

void answer(nsmd_world* w, const nl_message& m) {
    const std::uint8_t how = w->in.octet();
    // The lookup is answered truly most of the time: everything else lies behind it.
    if (m.type == GENL_ID_CTRL && how < 0xF0) {
        push(w, family_message(FAMILY, 9, DPLL_GROUP), m.sequence);
        return acknowledge(w, m.sequence, NLMSG_ERROR, 0);
    }
    for (int count = how & 3; count > 0; --count) say(w, m.sequence);
    constexpr int ERRORS[] = {EBUSY, EINVAL, EOPNOTSUPP, ENODEV, EPERM, EAGAIN, EINTR, 9999};
    if (w->in.left == 0 || (how >> 2 & 3) < 2)
        acknowledge(w, m.sequence, m.flags & NLM_F_DUMP ? NLMSG_DONE : NLMSG_ERROR, 0);
    else if ((how >> 2 & 3) == 2)
        acknowledge(w, m.sequence, NLMSG_ERROR, -ERRORS[how >> 4 & 7]);
}

void run(nsmd_world* w, std::uint32_t ms) {
    w->loop.run(ms);
    w->queue.clear();  // of the other socket's, which nobody reads
}

void on_report(void*, const dpll_report& report) {
    must(report.state >= DPLL_FREERUN && report.state <= DPLL_TRANSIENT, "states are known");
    must(report.source <= PORT_INDEX_MAX || report.source == DPLL_SOURCE_BITS, "sources are ports or inputs");
}

link_info port_link(std::uint32_t index, std::uint8_t flags) {
    link_info l{};
    l.kernel_ifindex = index;
    l.hardware_type = ARPHRD_ETHER;
    l.flags = IFF_UP | IFF_RUNNING;
    l.name[0] = 'p';
    l.name[1] = static_cast<char>('0' + index);
    l.mac[0] = 2;
    l.operstate = IF_OPER_UP;
    l.carrier = flags & 1;
    l.has_dpll_pin = flags & 2;
    l.dpll_pin = flags >> 2 & 7;
    l.complete = true;
    return l;
}

void step(nsmd_world* w, const dpll_backend& backend, copper* roles) {
    const std::uint8_t what = w->in.octet(), kind = what % 8;
    const std::uint32_t index = 1 + (what >> 4 & 3);
    if (kind == 6) w->errors.push_back(-ENOBUFS);
    if (kind < 2 || kind == 6) {
        say(w, 0);
    } else if (kind == 5) {
        port_table_link_gone(w->table, index);
        copper_forget(roles, index);
    } else {
        const std::uint8_t o = w->in.octet();
        if (kind == 2) run(w, 1 + o * 20U);
        if (kind == 3)
            backend.apply(backend.self,
                          {(o & 3) != 3, o >> 2 & 3U ? o >> 2 & 1U : 2U, (o & 0x10) != 0, o >> 5 & 3U});
        if (kind == 4) port_table_link(w->table, port_link(index, o));
        if (kind == 7) copper_set(roles, {index, (o & 1) != 0, (o & 2) != 0});
    }
    run(w, 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > 4096) return 0;
    static const char* const pattern = "p*";
    nsmd_world w(pattern, data, size);
    std::uint64_t requests = 0;
    w.on_request = [&](const nl_message& m) {
        must(++requests < 100'000, "requests come to an end");
        answer(&w, m);
    };
    port_table_dump_begin(w.table);
    for (std::uint32_t index = 1; index <= 3; ++index)
        port_table_link(w.table, port_link(index, w.in.octet()));
    port_table_dump_end(w.table);
    dpll_kernel_options options;
    options.bits[0] = "EXT";
    options.bits[1] = "5";
    int error = 0;
    const dpll_backend backend = dpll_kernel_create(&w.loop.ctx, w.table, w.edge(), options,
                                                    {on_report, [](void*) {}, nullptr}, &error);
    w.queue.clear();
    // nsmd's core between the port table and the backend.
    w.on_port = [&](const nsmd_port& port, port_event event) {
        if (backend.self) backend.port(backend.self, port, event);
    };
    copper* roles = copper_create(w.table, w.edge());
    w.queue.clear();
    must(roles != nullptr, "the roles start");
    while (w.in.left && backend.self) {
        step(&w, backend, roles);
        on_report(nullptr, backend.current(backend.self));
        nsmd_world::check_status(backend.status, static_cast<const void*>(backend.self));
    }
    nsmd_world::check_status(copper_status, static_cast<const copper*>(roles));
    copper_free(roles);
    if (backend.self) backend.finish(backend.self);
    return 0;
}
