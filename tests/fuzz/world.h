// The daemon in virtual time: real records, operations, timers, PDUs, socket unit, NSM client and event loop;
// in place of the kernel's clock, packet socket and NSM stand a counter, a queue of frames, and the far end
// of a socket pair. Five seconds of protocol time take microseconds and are exact to the millisecond. The
// fuzz targets and the scenario tests run it. What must always hold ends the process.
#pragma once

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <deque>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "core/debug.h"
#include "core/loop.h"
#include "core/opts.h"
#include "core/pdu.h"
#include "core/ports.h"
#include "core/ql.h"
#include "core/socket.h"
#include "esmcd/start.h"
#include "fuzz/fuzz.h"
#include "suite/log/log.h"
#include "suite/manager/client.h"
#include "suite/start/lib.h"

using message = std::vector<std::uint8_t>;

// What a neighbour sends.
struct neighbour_pdu {
    std::uint8_t quality = QL_PRC;
    bool event = false;
    bool extended = false;
    std::array<std::uint8_t, 8> clock_id = {};
    std::uint8_t hops = 0;

    bool standard = false;  // the extended TLV in the standard's form
    std::uint8_t enhanced = QL_ENHANCED_NONE, flags = 0, eeec = 0, eec = 0;
};

constexpr std::size_t PDU_AT = 14;  // behind the Ethernet header

inline message esmc_frame(const neighbour_pdu& pdu) {
    const std::uint8_t flags = pdu.event ? 0x18 : 0x10;
    message f = {0x01, 0x80, 0xC2, 0,    0, 2, 2,     0xEE, 0, 0, 0, 1, 0x88, 0x09,
                 0x0A, 0,    0x19, 0xA7, 0, 1, flags, 0,    0, 0, 1, 0, 4,    pdu.quality};
    f.resize(60);
    const octets p = octets(f).subspan(PDU_AT);
    if (!pdu.extended) return f;
    p[14] = 2;
    p[16] = pdu.standard ? 20 : 12;
    const std::size_t id_at = pdu.standard ? 18 : 17;
    p[17] = pdu.enhanced;
    std::copy(pdu.clock_id.begin(), pdu.clock_id.end(), p.subspan(id_at).begin());
    if (pdu.standard)
        std::ranges::copy(std::array{pdu.flags, pdu.eeec, pdu.eec}, p.begin() + 26);
    else
        p[25] = pdu.hops;
    return f;
}

inline message be_words(std::initializer_list<std::uint32_t> values) {
    message body(values.size() * 4);
    std::size_t at = 0;
    for (const std::uint32_t v : values) put_be32(body, std::exchange(at, at + 4), v);
    return body;
}

// Kernel indexes are those of the daemon and 1000. Unless told, names are of two digits: p01 of 101, too.
inline message link_body(std::uint32_t index, bool up, std::string name = {},
                         std::uint16_t type = IF_TYPE_SYNCE) {
    if (name.empty())
        name = {'p', static_cast<char>('0' + index / 10 % 10), static_cast<char>('0' + index % 10)};
    message body(nsm_link_body::SIZE);
    put_be32(body, nsm_link_body::IFINDEX, index);
    put_be32(body, nsm_link_body::KERNEL_IFINDEX, index + 1000);
    put_be16(body, nsm_link_body::TYPE, type);
    put_be16(body, nsm_link_body::FLAGS, up ? nsm_link_body::FLAG_UP : 0);
    body[nsm_link_body::MAC] = 2;
    body[nsm_link_body::MAC + 5] = static_cast<std::uint8_t>(index);
    std::copy(name.begin(), name.end(), body.begin() + nsm_link_body::NAME);
    return body;
}

struct virtual_daemon {
    bool with_link = false;  // NSM is the far end of a socket pair; else it can't be reached
    int nsm_fd = -1;         // that end

    // For scripted runs: NSM greets and states these links; what was sent is counted by daemon index.
    bool nsm_answers = false;
    std::vector<message> links;
    std::uint64_t sent[256] = {}, events[256] = {};  // information and event PDUs
    int send_errors[256] = {};                       // errno that sending on the port fails with

    // For who looks at it himself: what leaves on a port, in place of the rules here, and what NSM is told
    // after the greeting.
    std::function<void(std::uint32_t index, const_octets frame)> on_sent;
    std::function<void(std::uint16_t type, const_octets body)> on_request;

    // Operations that are called between events are unknown to ssm_run_event. Who does that says false: every
    // PDU selects then.
    bool as_the_daemon = true;

    void start(bool with_nsm_link) {
        with_link = with_nsm_link;
        ssm_debug = 0;
        memory_init(SSM_PROTO_ID);
        log_use_sink(LOG_SINK_STDERR, false);
        must(try_start(), "the daemon starts");
        ssm_socket_arm_read();
        settle();
    }

    // What start() does where memory may be short. Without success there is nothing but to stop.
    bool try_start() {
        current = this;
        for (memory_type t = 0; t < TYPES; ++t) before[t] = memmgr_type_stats(t).blocks;
        const auto open_edge = [](void* self) {
            return static_cast<virtual_daemon*>(self)->slow_fd = eventfd(0, EFD_CLOEXEC);
        };
        slow = {open_edge, send_edge, receive_edge, this};
        slow_socket_set_edge(&slow);
        nsm_client_set_link_open(link_edge);
        g_p_esmcd = lib_create("fuzz");
        if (!g_p_esmcd || lib_start(g_p_esmcd) < 0) return false;
        const auto now_edge = [](void* self) { return static_cast<virtual_daemon*>(self)->now; };
        const thread_edges edges = {now_edge, wait_edge, this};
        g_p_esmcd->master = thread_master_create(&edges);
        g_s_master = static_cast<ssm_master*>(ssm_calloc(sizeof(ssm_master), MTYPE_SSM_MASTER));
        if (!g_p_esmcd->master || !g_s_master || ssm_master_init() < 0) return false;
        return ssm_instance_create(g_p_esmcd) == 0;
    }
    void stop() {
        while (g_p_esmcd && g_p_esmcd->ifm->count) if_remove(g_p_esmcd->ifm, g_p_esmcd->ifm->items[0]);
        if (ssm_instance) nsm_client_stop(ssm_instance->nsm_client);
        if (ssm_instance) close_ssm();
        lib_stop(g_p_esmcd);
        memmgr_free(std::exchange(ssm_instance, nullptr), MTYPE_SSM_INSTANCE);
        memmgr_free(std::exchange(g_s_master, nullptr), MTYPE_SSM_MASTER);
        g_p_esmcd = nullptr;
        slow_socket_set_edge(nullptr);
        nsm_client_set_link_open(nullptr);
        end_link();
        for (memory_type t = 0; t < TYPES; ++t)  // but for the recent lines, which are the process's
            must(t == MTYPE_LOG || memmgr_type_stats(t).blocks == before[t], memmgr_type_name(t));
    }

    std::uint64_t now_ms() const { return now / NS_PER_MS; }

    void turn() {
        thread event;
        must(thread_fetch(g_p_esmcd, &event) != nullptr, "the loop goes on");
        (void)(as_the_daemon ? ssm_run_event(&event) : thread_call(&event));
        must(++turns < 400'000, "the loop comes to rest");
    }
    // Runs what can run without time passing.
    void settle() {
        while (!inbox.empty() || link_wants_turn()) turn();
    }
    void pass(std::uint32_t ms) {
        run_after(ms, [] {});
    }
    // The clock alone moves, as when the process was stopped.
    void jump(std::int64_t ms) { now += static_cast<nanoseconds>(ms) * NS_PER_MS; }
    // Runs `work` as an event of the loop, like a command.
    void in_event(const std::function<void()>& work) { run_after(0, work); }

    // `settled` false: the frame waits in the socket.
    void hear(std::uint32_t kernel_ifindex, message frame, bool settled = true) {
        inbox.emplace_back(kernel_ifindex, std::move(frame));
        if (settled) settle();
    }

    // NSM's end of the link goes away.
    void end_link() {
        if (nsm_fd >= 0) close(nsm_fd);
        nsm_fd = -1;
    }

    static message with_header(std::uint16_t type, const_octets body, std::size_t too_much = 0) {
        message m(NSM_HEADER_SIZE);
        put_be16(m, 0, type);
        put_be16(m, 2, static_cast<std::uint16_t>(m.size() + body.size() + too_much));
        m.insert(m.end(), body.begin(), body.end());
        return m;
    }
    // A message of NSM's, without a link.
    void deliver(const message& m) {
        in_event([&] { nsm_client_deliver(ssm_instance->nsm_client, m.data(), m.size()); });
    }
    void deliver(std::uint16_t type, const message& body) { deliver(with_header(type, body)); }
    // Over the link; lost while there is none.
    void nsm_says(const message& m) const {
        if (nsm_fd >= 0) (void)send(nsm_fd, m.data(), m.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    void nsm_says(std::uint16_t type, const message& body) const { nsm_says(with_header(type, body)); }

    // What NSM's end has received. The client closes its end by itself; its number may then be another
    // descriptor's.
    void drain_nsm() {
        if (!nsm_client_get_stats(ssm_instance->nsm_client).connected) client_fd = -1;
        std::uint8_t buffer[256];
        while (nsm_fd >= 0) {
            const ssize_t n = recv(nsm_fd, buffer, sizeof buffer, MSG_DONTWAIT);
            if (n < 0) return;
            if (n == 0) return end_link();
            greeted = true;
            const const_octets m{buffer, static_cast<std::size_t>(n)};
            must(m.size() >= NSM_HEADER_SIZE, "requests have a header");
            must(get_be16(m, 2) == m.size(), "requests say their length");
            const std::uint16_t type = get_be16(m, 0);
            if (type != NSM_MSG_HELLO && on_request) on_request(type, m.subspan(NSM_HEADER_SIZE));
            if (type == NSM_MSG_HELLO && nsm_answers) greet();
        }
    }

    // ---- The rules ----

    static bool live(const ssm_port* wanted) {
        return ssm_port_walk_until([&](const ssm_port* port) { return port == wanted; });
    }
    // Who goes on after a broken rule brings his own `rule`.
    template <class judge = decltype(&must)>
    static void check_records_after_faults(judge rule = must) {
        const ssm_master& m = *g_s_master;
        const ssm_port* source = m.selected_port;
        rule(!source || live(source), "the selected port is a live record");
        rule(!m.force_port || live(m.force_port), "the forced port is a live record");
        rule(!m.gephy_dynamic_intf || live(ssm_if_port(m.gephy_dynamic_intf)),
             "the gephy port is a live record");
        rule((m.freerun != 0) + (m.holdover != 0) + (source != nullptr) <= 1,
             "free-run, holdover or a source");
        rule(!source || m.global_enable, "no source with SyncE off");
        rule(!source || !live(source) || (source->link_up && source->synce_enable),
             "the source is up and enabled");
    }
    // An enhanced code goes with one SSM code of either option.
    static bool is_quality(ssm_quality quality) {
        const unsigned code = quality & 0xFF;
        switch (quality >> 8) {
            case 0:
                return code <= QL_DNU;
            case 0x22:
                return code == QL_EEC1 || code == QL_EEC2;
            default:
                return quality >> 8 >= 0x20 && quality >> 8 <= 0x23 && (code == QL_PRC || code == QL_PRS);
        }
    }
    // Sources follow each other without a gap, each with a reason; what came first is the oldest.
    template <class judge>
    static void check_history(judge rule) {
        const ssm_change *later = nullptr, *later_source = nullptr;
        for (std::size_t back = 0; const ssm_change* change = ssm_history_get(back); ++back) {
            rule(change->why[0], "a change has a reason");
            rule(!later || change->monotonic <= later->monotonic, "the history is in order");
            later = change;
            if (change->kind != ssm_change_kind::source) continue;
            rule(std::strcmp(change->from, change->to) != 0, "a change of source is one");
            rule(!later_source || std::strcmp(change->to, later_source->from) == 0, "no source is left out");
            later_source = change;
        }
    }
    // As what follows the QL TLV has to look: nothing, the own form, or the standard's; then zeros.
    static bool is_extension(std::uint8_t quality, const_octets tlv) {
        const std::size_t length = get_be16(tlv, 1);
        const bool standard = length == 20;
        if (length ? tlv[0] != 2 || (!standard && length != 12) || !g_s_master->ssm_extend : tlv[0])
            return false;
        if (standard && (!is_quality(ssm_quality_of(quality, tlv[3] == 0xFF ? 0 : tlv[3])) || tlv[12] > 3))
            return false;
        return std::ranges::all_of(tlv.subspan(standard ? 15 : length), [](auto o) { return o == 0; });
    }

    // These do not hold where an allocation failed a moment ago.
    template <class judge = decltype(&must)>
    static void check_records(judge rule = must) {
        const ssm_master& m = *g_s_master;
        check_records_after_faults(rule);
        ssm_port_walk([&](const ssm_port* p) {
            const bool runs = p->synce_enable && m.global_enable && m.ssm_enable;
            const bool transmits = p->esmc_mode == SSM_ESMC_TX || p->esmc_mode == SSM_ESMC_ALL;
            // On a port that is down, an event PDU that was on its way arms the timer for one last time.
            rule(!p->link_up || (p->send_timer != nullptr) == (runs && transmits),
                 "send timer as configured");
            // A frame that was on its way when the link went down still counts as heard.
            rule(!p->timeout_timer || runs, "no time-out on a port that is off");
            for (const ssm_quality q : {p->recv_quality, p->force_rx_quality, p->force_tx_quality,
                                        p->min_rx_quality, p->max_rx_quality})
                rule(is_quality(q), "qualities are codes");
            const ssm_statistics& s = *p->statistics;
            rule(s.information_in < 2 ||
                     (s.shortest <= ssm_mean_interval(s) && ssm_mean_interval(s) <= s.longest),
                 "the mean interval is between the shortest and the longest");
            rule(s.dnu_in <= s.information_in + s.events_in && s.dnu_out <= s.information_out + s.events_out,
                 "DNU are PDUs");
        });
        check_history(rule);
    }

  private:
    static constexpr memory_type TYPES = 1024;
    bool link_wants_turn() {
        drain_nsm();
        return client_readable() || (client_fd >= 0 && !greeted);
    }
    void greet() {
        nsm_says(NSM_MSG_HELLO_ACK, be_words({0}));
        message bridge(nsm_bridge_body::SIZE);
        bridge[nsm_bridge_body::MAC] = 2;
        if (!links.empty()) nsm_says(NSM_MSG_BRIDGE_ADD, bridge);
        for (const auto& body : links) nsm_says(NSM_MSG_LINK_ADD, body);
        nsm_says(NSM_MSG_SSM_SEND_BACK_CLOCK_STATE, be_words({2, 0}));
        nsm_says(NSM_MSG_SYNC_DONE, {});
    }
    void run_after(std::uint32_t ms, const std::function<void()>& work) {
        bool done = false;
        std::function<void()> last = [&] {
            work();
            done = true;
        };
        const auto run = [](thread* event) {
            (*static_cast<std::function<void()>*>(event->arg))();
            return 0;
        };
        // Where allocations are made to fail, the failure may be this one's.
        must(thread_add_timer_msec(g_p_esmcd, run, &last, ms) ||
                 thread_add_timer_msec(g_p_esmcd, run, &last, ms),
             "a timer can be added");
        while (!done) turn();
        settle();
    }
    bool client_readable() const {
        pollfd p = {client_fd, POLLIN, 0};
        return client_fd >= 0 && poll(&p, 1, 0) == 1;
    }
    static void check_frame(const_octets frame, std::uint32_t kernel_ifindex) {
        must(frame.size() >= 60 && frame.size() <= 1514, "frames have a legal length");
        must(get_be16(frame, 12) == 0x8809 && frame[PDU_AT] == 0x0A, "frames are ESMC");
        const std::uint8_t quality = frame[PDU_AT + 13];
        must(quality <= QL_DNU && quality != QL_NONE, "qualities sent are codes");
        must(is_extension(quality, frame.subspan(PDU_AT + 14)),
             "the extended TLV is one of two forms, or none");
        bool known = false, lawful = false;
        ssm_port_walk([&](const ssm_port* p) {
            if (p->intf->kernel_ifindex != kernel_ifindex) return;
            known = true;
            lawful |= !p->link_up || p != g_s_master->selected_port || quality == QL_DNU;
        });
        must(known, "frames leave on ports");
        must(lawful, "the source is told DNU");
    }

    static int wait_edge(void* arg, int timeout_ms, thread_ready* out, int max) {
        auto* self = static_cast<virtual_daemon*>(arg);
        int count = 0;
        self->drain_nsm();
        if (!self->inbox.empty() && count < max) out[count++] = {self->slow_fd, true, false};
        if (self->client_fd >= 0 && count < max) {
            const bool in = self->client_readable();
            if (in || !self->greeted) out[count++] = {self->client_fd, in, !self->greeted};
        }
        if (count == 0 && timeout_ms > 0) self->now += static_cast<nanoseconds>(timeout_ms) * NS_PER_MS;
        return count;
    }
    static ssize_t send_edge(void* arg, int, const_octets frame, std::uint32_t kernel_ifindex) {
        auto* self = static_cast<virtual_daemon*>(arg);
        const std::uint32_t index = kernel_ifindex - 1000;
        // Without a kernel index: another port took it over.
        errno = kernel_ifindex == 0 ? ENXIO : index < 256 ? self->send_errors[index] : 0;
        if (errno) return -1;
        if (index < 256) ++(frame[PDU_AT + 6] & 8 ? self->events : self->sent)[index];
        if (self->on_sent)
            self->on_sent(index, frame);
        else
            check_frame(frame, kernel_ifindex);
        return static_cast<ssize_t>(frame.size());
    }
    static ssize_t receive_edge(void* arg, int, octets frame, std::uint32_t* kernel_ifindex) {
        auto* self = static_cast<virtual_daemon*>(arg);
        if (self->inbox.empty()) {
            errno = EAGAIN;
            return -1;
        }
        const auto [from, heard] = std::move(self->inbox.front());
        self->inbox.pop_front();
        const std::size_t n = std::min(heard.size(), frame.size());
        std::copy_n(heard.begin(), n, frame.begin());
        *kernel_ifindex = from;
        return static_cast<ssize_t>(n);
    }
    static int link_edge() {
        if (!current->with_link) return -ECONNREFUSED;
        int pair[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair) < 0) return -errno;
        current->end_link();
        current->nsm_fd = pair[0];
        current->client_fd = pair[1];
        current->greeted = false;
        return pair[1];
    }

    inline static virtual_daemon* current = nullptr;
    slow_edge slow = {};  // must stay as long as it is used
    std::uint64_t before[TYPES] = {};
    nanoseconds now = 1'000 * NS_PER_S;
    std::uint64_t turns = 0;
    int slow_fd = -1, client_fd = -1;
    bool greeted = false;
    std::deque<std::pair<std::uint32_t, message>> inbox;  // frames, and the kernel indexes they come from
};
