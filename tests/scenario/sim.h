// The daemon in virtual time: real records, operations, timers, PDUs, socket unit, NSM client and event loop;
// in place of the kernel's clock, packet socket and NSM stand a counter, a queue of frames, and the far end
// of a socket pair. Five seconds of protocol time take microseconds and are exact to the millisecond.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <initializer_list>
#include <map>
#include <string>
#include <vector>

#include "core/ssm_loop.h"
#include "core/ssm_opts.h"
#include "core/ssm_pdu.h"
#include "core/ssm_ports.h"
#include "core/ssm_ql.h"
#include "core/ssm_select.h"
#include "core/ssm_socket.h"
#include "core/ssm_timers.h"
#include "frame/ssm_debug.h"
#include "frame/ssm_result.h"
#include "frame/ssm_start.h"
#include "nsm/ssm_nsm_session.h"
#include "suite/lib.h"
#include "suite/nsm_client.h"
#include "suite/thread.h"

struct sent_pdu {
    std::uint64_t at_ms;
    std::uint32_t port;
    bool event;
    std::uint8_t quality;
    std::vector<std::uint8_t> payload;  // from the subtype octet
};

struct nsm_request {
    std::uint16_t type;
    std::array<std::uint32_t, 3> words;
    bool operator==(const nsm_request&) const = default;
};

inline nsm_request holdover_request(bool on) {
    return {NSM_MSG_SSM_HOLDOVER_ENABLE, {on ? 0U : 1U, 0, 0}};
}
inline nsm_request select_request(std::uint32_t port) {
    return {NSM_MSG_SSM_SELECTED_IF_INDEX, {port, 0, 0}};
}
inline nsm_request enable_request(std::uint32_t on) {
    return {NSM_MSG_SSM_GLOBAL_ENABLE, {on, 0, 0}};
}
inline nsm_request gephy_request(std::uint32_t port, std::uint32_t enable, std::uint32_t role) {
    return {NSM_MSG_SSM_SET_GEPHY_ROLE, {port, enable, role}};
}
inline std::ostream& operator<<(std::ostream& out, const nsm_request& r) {
    return out << "request " << r.type << " (" << r.words[0] << ", " << r.words[1] << ", " << r.words[2]
               << ")";
}

// What a neighbour sends.
struct neighbour_pdu {
    std::uint8_t quality = QL_PRC;
    bool event = false;
    bool extended = false;
    std::array<std::uint8_t, 8> clock_id = {};
    std::uint8_t hops = 0;
};

class sim : public ::testing::Test {
  protected:
    void SetUp() override {
        ssm_debug = 0;
        memory_init(SSM_PROTO_ID);
        log_use_sink(LOG_SINK_STDERR, false);
        g_p_esmcd = lib_create("scenario");
        ASSERT_NE(g_p_esmcd, nullptr);
        ASSERT_GE(lib_start(g_p_esmcd), 0);
        const thread_edges edges = {now_edge, wait_edge, this};
        g_p_esmcd->master = thread_master_create(&edges);
        ASSERT_NE(g_p_esmcd->master, nullptr);
        g_s_master = static_cast<ssm_master*>(ssm_calloc(sizeof(ssm_master), MTYPE_SSM_MASTER));
        (void)ssm_master_init();
        current = this;
        slow = {open_edge, send_edge, receive_edge, this};
        slow_socket_set_edge(&slow);
        slow_socket_set_rate_limit(0);  // scenarios hear much in no time
        nsm_client_set_link_open(link_edge);
        ASSERT_EQ(ssm_instance_create(g_p_esmcd), 0);
        ssm_socket_arm_read();
        settle();
        requests.clear();
    }

    void TearDown() override {
        while (g_p_esmcd->ifm.count) if_remove(&g_p_esmcd->ifm, g_p_esmcd->ifm.items[0]);
        nsm_client_stop(ssm_instance->nsm_client);
        close_ssm();
        lib_stop(g_p_esmcd);
        memmgr_free(ssm_instance, MTYPE_SSM_INSTANCE);
        memmgr_free(g_s_master, MTYPE_SSM_MASTER);
        g_p_esmcd = nullptr;
        ssm_instance = nullptr;
        g_s_master = nullptr;
        slow_socket_set_edge(nullptr);
        nsm_client_set_link_open(nullptr);
        if (nsm_fd >= 0) close(nsm_fd);
        EXPECT_EQ(memmgr_type_stats(MTYPE_SSM_PORT).blocks, 0U) << "a port record leaked";
    }

    // ---- The switch ----

    // SyncE and SSM on, as most scenarios want it.
    void enable() {
        ASSERT_EQ(ssm_opts_set_global_enable(1), 0);
        ASSERT_EQ(ssm_opts_set_ssm_enable(1), 0);
    }

    // Binds a port, and unless told otherwise takes it up and enables SyncE on it.
    ssm_port* add_port(std::uint32_t index, bool up = true, bool synce = true) {
        std::string name = "p" + std::to_string(index);
        std::vector<std::uint8_t> body(nsm_link::SIZE);
        put_be32(body, nsm_link::IFINDEX, index);
        put_be32(body, nsm_link::KERNEL_IFINDEX, index + 1000);
        put_be16(body, nsm_link::TYPE, IF_TYPE_SYNCE);
        put_be16(body, nsm_link::FLAGS, up ? nsm_link::FLAG_UP : 0);
        body[nsm_link::MAC] = 2;
        body[nsm_link::MAC + 5] = static_cast<std::uint8_t>(index);
        std::memcpy(&body[nsm_link::NAME], name.data(), name.size());
        nsm_says(NSM_MSG_LINK_ADD, body);
        if (synce) {
            EXPECT_EQ(ssm_opts_set_port_synce(intf(index), 1), 0);
        }
        return port(index);
    }

    interface* intf(std::uint32_t index) {
        return if_lookup_by_index(&g_p_esmcd->ifm, index);
    }
    ssm_port* port(std::uint32_t index) { return ssm_if_port(intf(index)); }

    void link_up(std::uint32_t index) { nsm_says_words(NSM_MSG_LINK_UP, {index}); }
    void link_down(std::uint32_t index) { nsm_says_words(NSM_MSG_LINK_DOWN, {index}); }
    void unbind(std::uint32_t index, bool gone = true) {
        nsm_says_words(NSM_MSG_LINK_DELETE, {index, gone ? 1U : 0U});
    }
    void dpll(std::uint32_t state, std::uint32_t source = 0) {
        nsm_says_words(NSM_MSG_SSM_SEND_BACK_CLOCK_STATE, {state, source});
    }
    void bridge(std::array<std::uint8_t, 6> mac) {
        std::vector<std::uint8_t> body(nsm_bridge::SIZE);
        std::memcpy(&body[nsm_bridge::MAC], mac.data(), mac.size());
        nsm_says(NSM_MSG_BRIDGE_ADD, body);
    }

    // ---- The wire ----

    void raw_frame(std::uint32_t index, std::vector<std::uint8_t> ethernet) {
        inbox.push_back({index + 1000, std::move(ethernet)});
        settle();
    }

    void hear(std::uint32_t index, const neighbour_pdu& pdu) {
        std::vector<std::uint8_t> f = {0x01, 0x80, 0xC2, 0, 0, 2, 2, 0xEE, 0, 0, 0, 1, 0x88, 0x09};
        f.resize(60);
        const octets p(f.data() + 14, 46);
        p[0] = 0x0A;
        p[2] = 0x19;
        p[3] = 0xA7;
        p[5] = 1;
        p[6] = pdu.event ? 0x18 : 0x10;
        p[10] = 1;
        p[12] = 4;
        p[13] = pdu.quality;
        if (pdu.extended) {
            p[14] = 2;
            p[16] = 12;
            std::memcpy(&p[17], pdu.clock_id.data(), 8);
            p[25] = pdu.hops;
        }
        raw_frame(index, f);
    }
    void hear(std::uint32_t index, std::uint8_t quality) { hear(index, neighbour_pdu{.quality = quality}); }

    // Lets `ms` pass while the given neighbours go on sending one information PDU a second.
    void pass(std::uint32_t ms, std::initializer_list<std::pair<std::uint32_t, std::uint8_t>> talking = {}) {
        for (std::uint32_t left = ms; left > 0;) {
            const std::uint32_t step = left < 1000 ? left : 1000;
            advance(step);
            for (const auto& [index, quality] : talking) hear(index, quality);
            left -= step;
        }
    }

    // ---- Time and what came out ----

    std::uint64_t now_ms() const { return now / NS_PER_MS; }

    void advance(std::uint32_t ms) {
        bool done = false;
        ASSERT_NE(thread_add_timer_msec(g_p_esmcd, stop_timer, &done, ms), nullptr);
        while (!done) turn();
        settle();
    }

    // Runs what can run without time passing.
    void settle() {
        for (;;) {
            serve_nsm();
            if (!inbox.empty() || nsm_readable()) {
                turn();
            } else if (client_fd >= 0 && !greeted) {
                turn();
            } else {
                return;
            }
        }
    }

    std::vector<sent_pdu> take_sent() {
        std::vector<sent_pdu> taken;
        taken.swap(sent);
        return taken;
    }
    std::vector<nsm_request> take_requests() {
        serve_nsm();
        std::vector<nsm_request> taken;
        taken.swap(requests);
        return taken;
    }

    // The quality of the last PDU on each port since the last take_sent.
    std::map<std::uint32_t, std::uint8_t> last_qualities() {
        std::map<std::uint32_t, std::uint8_t> last;
        for (const sent_pdu& pdu : take_sent()) last[pdu.port] = pdu.quality;
        return last;
    }

    std::uint32_t selected() const {
        return g_s_master->selected_port ? g_s_master->selected_port->intf->ifindex : 0;
    }

    // A source on `index` with PRC, selected, the outcome of which has been taken.
    void lock_to(std::uint32_t index, std::uint8_t quality = QL_PRC) {
        hear(index, quality);
        ASSERT_EQ(selected(), index);
        take_sent();
        take_requests();
    }

    void nsm_says_words(std::uint16_t type, std::initializer_list<std::uint32_t> words) {
        std::vector<std::uint8_t> body(words.size() * 4);
        std::size_t at = 0;
        for (std::uint32_t w : words) put_be32(body, std::exchange(at, at + 4), w);
        nsm_says(type, body);
    }
    void nsm_says(std::uint16_t type, const std::vector<std::uint8_t>& body) {
        nsm_send(type, body);
        settle();
    }
    // The NSM end goes away; the client finds a new one at its next try.
    void nsm_vanishes() {
        close(nsm_fd);
        nsm_fd = -1;
        turn();  // the client sees the end and closes its side
        client_fd = -1;
    }

    bool nsm_there = true;
    std::vector<std::function<void()>> dump;  // what NSM tells between HELLO_ACK and SYNC_DONE

    void nsm_send(std::uint16_t type, const std::vector<std::uint8_t>& body) {
        std::vector<std::uint8_t> m(NSM_HEADER_SIZE);
        put_be16(m, 0, type);
        put_be16(m, 2, static_cast<std::uint16_t>(NSM_HEADER_SIZE + body.size()));
        put_be32(m, 4, ++nsm_sequence);
        m.insert(m.end(), body.begin(), body.end());
        ASSERT_EQ(send(nsm_fd, m.data(), m.size(), MSG_NOSIGNAL), static_cast<ssize_t>(m.size()));
    }

    // Operations that a test calls between events are unknown to ssm_run_event, so that by default events run
    // without it and every PDU selects. A test that does everything inside events sets this.
    bool as_the_daemon = false;

    void turn() {
        thread event;
        ASSERT_NE(thread_fetch(g_p_esmcd, &event), nullptr);
        (void)(as_the_daemon ? ssm_run_event(&event) : thread_call(&event));
        serve_nsm();
    }

    // Runs `work` as an event of the loop, like a command.
    void in_event(std::function<void()> work) {
        struct job {
            std::function<void()> work;
            bool done;
        } j = {std::move(work), false};
        const auto run = [](thread* event) {
            auto* todo = static_cast<job*>(event->arg);
            todo->work();
            todo->done = true;
            return 0;
        };
        ASSERT_NE(thread_add_timer_msec(g_p_esmcd, run, &j, 0), nullptr);
        while (!j.done) turn();
        settle();
    }

    // What is looked at when a PDU leaves.
    std::function<void(const sent_pdu&)> on_sent;

  private:
    struct queued_frame {
        std::uint32_t kernel_ifindex;
        std::vector<std::uint8_t> octets;
    };

    static int stop_timer(thread* event) {
        *static_cast<bool*>(event->arg) = true;
        return 0;
    }

    static bool readable(int fd) {
        pollfd p = {fd, POLLIN, 0};
        return fd >= 0 && poll(&p, 1, 0) == 1;
    }
    bool nsm_readable() const { return readable(client_fd); }

    // The far end of the link: acknowledges a HELLO, dumps, and records requests.
    void serve_nsm() {
        while (readable(nsm_fd)) {
            std::array<std::uint8_t, 256> m;
            const ssize_t n = recv(nsm_fd, m.data(), m.size(), 0);
            if (n < static_cast<ssize_t>(NSM_HEADER_SIZE)) return;
            const const_octets message(m.data(), static_cast<std::size_t>(n));
            const std::uint16_t type = get_be16(message, 0);
            if (type == NSM_MSG_HELLO) {
                greeted = true;
                nsm_send(NSM_MSG_HELLO_ACK, {0, 0, 0, 0});
                for (const auto& say : dump) say();
                nsm_send(NSM_MSG_SSM_SEND_BACK_CLOCK_STATE, {0, 0, 0, 2, 0, 0, 0, 0});
                nsm_send(NSM_MSG_SYNC_DONE, {});
                continue;
            }
            nsm_request r = {type, {}};
            for (std::size_t i = 0; i < 3 && NSM_HEADER_SIZE + 4 * i + 4 <= message.size(); ++i)
                r.words[i] = get_be32(message, NSM_HEADER_SIZE + 4 * i);
            requests.push_back(r);
        }
    }

    static nanoseconds now_edge(void* self) { return static_cast<sim*>(self)->now; }

    static int wait_edge(void* arg, int timeout_ms, thread_ready* out, int max) {
        auto* self = static_cast<sim*>(arg);
        int count = 0;
        if (!self->inbox.empty() && count < max) out[count++] = {self->slow_fd, true, false};
        if (self->client_fd >= 0 && count < max) {
            const bool in = self->nsm_readable();
            const bool connecting = !self->greeted;  // a write event is pending until the HELLO is out
            if (in || connecting) out[count++] = {self->client_fd, in, connecting};
        }
        if (count == 0 && timeout_ms > 0) self->now += static_cast<nanoseconds>(timeout_ms) * NS_PER_MS;
        return count;
    }

    static int open_edge(void* arg) {
        auto* self = static_cast<sim*>(arg);
        self->slow_fd = eventfd(0, EFD_CLOEXEC);
        return self->slow_fd;
    }
    static ssize_t send_edge(void* arg, int, const_octets frame, std::uint32_t kernel_ifindex) {
        auto* self = static_cast<sim*>(arg);
        const std::vector<std::uint8_t> payload(frame.begin() + 14, frame.end());
        self->sent.push_back(
            {self->now_ms(), kernel_ifindex - 1000, (payload[6] & 8) != 0, payload[13], payload});
        if (self->on_sent) self->on_sent(self->sent.back());
        return static_cast<ssize_t>(frame.size());
    }
    static ssize_t receive_edge(void* arg, int, octets frame, std::uint32_t* kernel_ifindex) {
        auto* self = static_cast<sim*>(arg);
        if (self->inbox.empty()) {
            errno = EAGAIN;
            return -1;
        }
        const queued_frame f = self->inbox.front();
        self->inbox.pop_front();
        const std::size_t n = std::min(f.octets.size(), frame.size());
        std::memcpy(frame.data(), f.octets.data(), n);
        *kernel_ifindex = f.kernel_ifindex;
        return static_cast<ssize_t>(n);
    }
    static int link_edge() {
        if (!current->nsm_there) return -ECONNREFUSED;
        int pair[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair) < 0) return -errno;
        current->nsm_fd = pair[0];
        current->client_fd = pair[1];
        current->nsm_sequence = 0;
        current->greeted = false;
        return pair[1];
    }

    inline static sim* current = nullptr;
    slow_edge slow = {};
    nanoseconds now = 1'000 * NS_PER_S;
    int slow_fd = -1, nsm_fd = -1, client_fd = -1;
    std::uint32_t nsm_sequence = 0;
    bool greeted = false;  // the client's HELLO has come
    std::deque<queued_frame> inbox;
    std::vector<sent_pdu> sent;
    std::vector<nsm_request> requests;
};
