// The daemon in virtual time as the scenario tests use it: what a neighbour, NSM and the operator do is a
// line, and what the daemon sent and asked for is kept with its time.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/result.h"
#include "core/select.h"
#include "core/timers.h"
#include "fuzz/world.h"
#include "nsm/session.h"
#include "suite/loop/thread.h"
#include "suite/start/lib.h"

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

class sim : public ::testing::Test {
  protected:
    std::optional<virtual_daemon> daemon;

    void SetUp() override {
        daemon.emplace();
        daemon->nsm_answers = true;
        daemon->as_the_daemon = false;
        daemon->on_sent = [this](std::uint32_t port, const_octets frame) {
            const std::vector<std::uint8_t> payload(frame.begin() + PDU_AT, frame.end());
            sent.push_back({now_ms(), port, (payload[6] & 8) != 0, payload[13], payload});
            if (on_sent) on_sent(sent.back());
        };
        daemon->on_request = [this](std::uint16_t type, const_octets body) {
            nsm_request r = {type, {}};
            for (std::size_t i = 0; i < 3 && 4 * i + 4 <= body.size(); ++i)
                r.words[i] = get_be32(body, 4 * i);
            requests.push_back(r);
        };
        slow_socket_set_rate_limit(0);  // scenarios hear much in no time
        daemon->start(true);
        requests.clear();
    }
    void TearDown() override { daemon->stop(); }

    // ---- The switch ----

    // SyncE and SSM on, as most scenarios want it.
    void enable() {
        ASSERT_EQ(ssm_opts_set_global_enable(1), 0);
        ASSERT_EQ(ssm_opts_set_ssm_enable(1), 0);
    }

    static message port_body(std::uint32_t index, bool up = true) {
        return link_body(index, up, "p" + std::to_string(index));
    }
    // Binds a port, and unless told otherwise takes it up and enables SyncE on it.
    ssm_port* add_port(std::uint32_t index, bool up = true, bool synce = true) {
        nsm_says(NSM_MSG_LINK_ADD, port_body(index, up));
        if (synce) {
            EXPECT_EQ(ssm_opts_set_port_synce(intf(index), 1), 0);
        }
        return port(index);
    }

    interface* intf(std::uint32_t index) {
        return if_lookup_by_index(&g_p_esmcd->ifm, index);
    }
    ssm_port* port(std::uint32_t index) { return ssm_if_port(intf(index)); }

    void link_up(std::uint32_t index) { nsm_says(NSM_MSG_LINK_UP, words({index})); }
    void link_down(std::uint32_t index) { nsm_says(NSM_MSG_LINK_DOWN, words({index})); }
    void unbind(std::uint32_t index, bool gone = true) {
        nsm_says(NSM_MSG_LINK_DELETE, words({index, gone ? 1U : 0U}));
    }
    void dpll(std::uint32_t state, std::uint32_t source = 0) {
        nsm_says(NSM_MSG_SSM_SEND_BACK_CLOCK_STATE, words({state, source}));
    }
    void bridge(std::array<std::uint8_t, 6> mac) {
        message body(nsm_bridge::SIZE);
        std::copy(mac.begin(), mac.end(), body.begin() + nsm_bridge::MAC);
        nsm_says(NSM_MSG_BRIDGE_ADD, body);
    }

    // ---- The wire ----

    void raw_frame(std::uint32_t index, message ethernet) { daemon->hear(index + 1000, std::move(ethernet)); }
    void hear(std::uint32_t index, const neighbour_pdu& pdu) { raw_frame(index, esmc_frame(pdu)); }
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

    std::uint64_t now_ms() const { return daemon->now_ms(); }
    void advance(std::uint32_t ms) { daemon->pass(ms); }
    // Runs `work` as an event of the loop, like a command.
    void in_event(const std::function<void()>& work) { daemon->in_event(work); }
    // For tests that do everything inside events.
    void run_as_the_daemon() { daemon->as_the_daemon = true; }

    std::vector<sent_pdu> take_sent() { return std::exchange(sent, {}); }
    std::vector<nsm_request> take_requests() {
        daemon->drain_nsm();
        return std::exchange(requests, {});
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

    void nsm_says(std::uint16_t type, const message& body) {
        daemon->nsm_says(type, body);
        daemon->settle();
    }
    // The NSM end goes away; the client finds a new one at its next try.
    void nsm_vanishes() {
        daemon->end_link();
        daemon->turn();  // the client sees the end and closes its side
    }

    // What is looked at when a PDU leaves.
    std::function<void(const sent_pdu&)> on_sent;

  private:
    std::vector<sent_pdu> sent;
    std::vector<nsm_request> requests;
};
