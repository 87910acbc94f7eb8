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

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <vector>

#include "nsmd/copper.h"
#include "nsmd/dpll_kernel.h"
#include "nsmd/dpll_message.h"
#include "suite/log.h"
#include "suite/memory.h"
#include "suite/thread.h"

namespace {

constexpr int FIRST_FD = 700;
constexpr std::uint16_t FAMILY = 31;

struct kernel {
    lib_globals ctx{};
    nanoseconds now = 1000 * NS_PER_S;
    const std::uint8_t* at;
    std::size_t left;
    std::deque<std::vector<std::uint8_t>> queue;
    int lost = 0;  // so many reads fail with ENOBUFS
    int fd = FIRST_FD;
    std::uint64_t requests = 0;
    port_table* table = nullptr;
};
kernel* k;

void must(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "FAULT rule broken: %s\n", what);
    std::abort();
}

std::uint8_t octet() {
    if (k->left == 0) return 0;
    --k->left;
    return *k->at++;
}

void push(nl_builder* b, std::uint32_t sequence) {
    std::memcpy(b->data + 8, &sequence, sizeof sequence);
    k->queue.emplace_back(b->data, b->data + b->length);
}

void put_device(nl_builder* b) {
    const std::uint8_t what = octet();
    const std::uint64_t clock = what & 1;
    nl_put_u32(b, DPLL_A_ID, what >> 1 & 1);
    nl_put_text(b, DPLL_A_MODULE_NAME, "chip");
    nl_put(b, DPLL_A_CLOCK_ID, &clock, sizeof clock);
    nl_put_u32(b, DPLL_A_MODE, 1 + (what >> 2 & 1));
    nl_put_u32(b, DPLL_A_LOCK_STATUS, what >> 3 & 7);
    nl_put_u32(b, DPLL_A_TYPE, what & 0x40 ? DPLL_TYPE_PPS : DPLL_TYPE_EEC);
}

void put_pin(nl_builder* b) {
    const std::uint8_t what = octet();
    nl_put_u32(b, DPLL_PIN_A_ID, what & 7);
    nl_put_text(b, DPLL_PIN_A_BOARD_LABEL, what & 0x80 ? "EXT" : "PIN");
    nl_put_u32(b, DPLL_PIN_A_CAPABILITIES, what >> 4 & 7);
    for (std::uint8_t parents = octet() % 20; parents > 0; --parents) {
        const std::uint8_t place = octet(), more = octet();
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
void say(std::uint32_t sequence) {
    const std::uint8_t what = octet();
    nl_builder b;
    nl_begin(&b, what & 0x80 ? octet() : FAMILY, what & 4 ? NLM_F_DUMP_INTR : 0, 0);
    constexpr std::uint8_t COMMANDS[] = {DPLL_CMD_DEVICE_GET,        DPLL_CMD_PIN_GET,
                                         DPLL_CMD_DEVICE_CREATE_NTF, DPLL_CMD_PIN_CREATE_NTF,
                                         DPLL_CMD_DEVICE_DELETE_NTF, DPLL_CMD_PIN_DELETE_NTF,
                                         DPLL_CMD_DEVICE_CHANGE_NTF, DPLL_CMD_PIN_CHANGE_NTF};
    const std::uint8_t header[4] = {COMMANDS[what >> 3 & 7], 1, 0, 0};
    nl_put_raw(&b, header, sizeof header);
    const bool is_pin = what >> 3 & 1;
    if ((what & 3) == 3) {
        const std::size_t count = std::min<std::size_t>(octet(), k->left);
        nl_put_raw(&b, k->at, count);
        k->at += count;
        k->left -= count;
    } else if (is_pin) {
        put_pin(&b);
    } else {
        put_device(&b);
    }
    if (b.overflow) return;
    // A length field that lies.
    if (what & 0x40) b.data[0] = octet();
    push(&b, sequence);
}

void acknowledge(std::uint32_t sequence, std::uint16_t type, int error) {
    nl_builder b;
    nl_begin(&b, type, 0, 0);
    nl_put_raw(&b, &error, sizeof error);
    push(&b, sequence);
}

// The lookup is answered truly most of the time: everything else lies behind it.
void answer_lookup(std::uint32_t sequence) {
    nl_builder b;
    nl_begin(&b, GENL_ID_CTRL, 0, 0);
    const std::uint8_t header[4] = {CTRL_CMD_NEWFAMILY, 1, 0, 0};
    nl_put_raw(&b, header, sizeof header);
    nl_put(&b, CTRL_ATTR_FAMILY_ID, &FAMILY, sizeof FAMILY);
    const std::size_t groups = nl_nest_begin(&b, CTRL_ATTR_MCAST_GROUPS), group = nl_nest_begin(&b, 1);
    nl_put_text(&b, CTRL_ATTR_MCAST_GRP_NAME, DPLL_GROUP);
    nl_put_u32(&b, CTRL_ATTR_MCAST_GRP_ID, 9);
    nl_nest_end(&b, group);
    nl_nest_end(&b, groups);
    push(&b, sequence);
    acknowledge(sequence, NLMSG_ERROR, 0);
}

int open_socket(void*, int) {
    return k->fd++;
}
int join(void*, int, unsigned) {
    return 0;
}
int receive(void*, int, octets buffer) {
    if (k->lost > 0) {
        --k->lost;
        return -ENOBUFS;
    }
    if (k->queue.empty()) return -EAGAIN;
    const std::vector<std::uint8_t> next = std::move(k->queue.front());
    k->queue.pop_front();
    const std::size_t n = std::min(next.size(), buffer.size());
    if (n) std::memcpy(buffer.data(), next.data(), n);
    return static_cast<int>(n);
}
int send_message(void*, int, const_octets message) {
    nl_message m;
    must(nl_next_message(&message, &m) && m.body.size() >= 4, "requests are whole");
    must(++k->requests < 100'000, "requests come to an end");
    const std::uint8_t how = octet();
    if (m.type == GENL_ID_CTRL && how < 0xF0) {
        answer_lookup(m.sequence);
        return 0;
    }
    for (int count = how & 3; count > 0; --count) say(m.sequence);
    constexpr int ERRORS[] = {EBUSY, EINVAL, EOPNOTSUPP, ENODEV, EPERM, EAGAIN, EINTR, 9999};
    if (k->left == 0 || (how >> 2 & 3) < 2)
        acknowledge(m.sequence, m.flags & NLM_F_DUMP ? NLMSG_DONE : NLMSG_ERROR, 0);
    else if ((how >> 2 & 3) == 2)
        acknowledge(m.sequence, NLMSG_ERROR, -ERRORS[how >> 4 & 7]);
    return 0;
}
void close_socket(void*, int) {}

nanoseconds now(void*) {
    return k->now;
}
int wait(void*, int timeout_ms, thread_ready* out, int) {
    if (!k->queue.empty()) {
        out[0] = {FIRST_FD, true, false};
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
    k->queue.clear();  // of another socket's, which nobody reads
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

// nsmd's core between the port table and the backend.
const dpll_backend* backend;
void on_port(void*, const nsmd_port& port, port_event event) {
    if (backend && backend->self) backend->port(backend->self, port, event);
}
void on_bridge(void*, const bridge_identity&) {}

void step(copper* roles) {
    const std::uint8_t what = octet();
    const std::uint32_t index = 1 + (what >> 4 & 3);
    switch (what % 8) {
        case 0:
        case 1:
            say(0);
            break;
        case 2:
            run(1 + octet() * 20U);
            break;
        case 3: {
            const std::uint8_t w = octet();
            backend->apply(backend->self,
                           {(w & 3) != 3, w >> 2 & 3U ? w >> 2 & 1U : 2U, (w & 0x10) != 0, w >> 5 & 3U});
            break;
        }
        case 4:
            port_table_link(k->table, port_link(index, octet()));
            break;
        case 5:
            port_table_link_gone(k->table, index);
            copper_forget(roles, index);
            break;
        case 6:
            k->lost = 1;
            say(0);
            break;
        default: {
            const std::uint8_t w = octet();
            copper_set(roles, {index, (w & 1) != 0, (w & 2) != 0});
        }
    }
    run(1);
}

void check_status(bool (*status)(const void*, text_buffer*), const void* self) {
    text_buffer text;
    must(status(self, &text), "the status can be told");
    text_free(&text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > 4096) return 0;
    kernel state;
    k = &state;
    k->at = data;
    k->left = size;
    memory_init(0);
    log_use_sink(LOG_SINK_STDERR, false);
    static const thread_edges edges = {now, wait, nullptr};
    static const netlink_edge netlink = {open_socket, join, receive, send_message, close_socket, nullptr};
    const std::uint64_t before = memmgr_type_stats(MTYPE_NSMD).blocks;
    k->ctx.master = thread_master_create(&edges);
    backend = nullptr;
    static const char* const patterns[] = {"p*"};
    k->table = port_table_create(patterns, 1, {on_port, on_bridge, nullptr});
    must(k->ctx.master && k->table, "the table starts");
    port_table_dump_begin(k->table);
    for (std::uint32_t index = 1; index <= 3; ++index) port_table_link(k->table, port_link(index, octet()));
    port_table_dump_end(k->table);
    dpll_kernel_options options;
    options.bits[0] = "EXT";
    options.bits[1] = "5";
    int error = 0;
    const dpll_backend made =
        dpll_kernel_create(&k->ctx, k->table, netlink, options, false, {on_report, nullptr}, &error);
    k->queue.clear();
    backend = &made;
    copper* roles = copper_create(k->table, netlink);
    k->queue.clear();
    must(roles != nullptr, "the roles start");
    while (k->left && made.self) {
        step(roles);
        on_report(nullptr, made.current(made.self));
        check_status(made.status, made.self);
    }
    text_buffer text;
    must(copper_status(roles, &text), "the roles can be told");
    text_free(&text);
    copper_free(roles);
    if (made.self) made.finish(made.self);
    port_table_free(k->table);
    thread_master_finish(k->ctx.master);
    must(memmgr_type_stats(MTYPE_NSMD).blocks == before, "no memory is left");
    return 0;
}
