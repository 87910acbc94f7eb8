// The daemon in virtual time as the scenario tests use it, with SyncE and SSM on: what a neighbour, NSM and
// the operator do is a line, and what the daemon sent and asked for is kept with its time.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <tuple>
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

using nsm_request = std::vector<std::uint32_t>;  // type and words
using requests = std::vector<nsm_request>;

// The selected port (0: none), the quality that the switch advertises, and what it asked NSM for.
using outcome = std::tuple<std::uint32_t, std::uint32_t, requests>;
// By port.
using qualities = std::map<std::uint32_t, std::uint8_t>;

class sim : public ::testing::Test {
  protected:
    std::optional<virtual_daemon> daemon;

    void SetUp() override {
        daemon.emplace();
        daemon->nsm_answers = true;
        daemon->as_the_daemon = false;
        daemon->on_sent = [this](std::uint32_t port, const_octets frame) {
            const std::vector<std::uint8_t> payload(frame.begin() + PDU_AT, frame.end());
            sent_.push_back({daemon->now_ms(), port, (payload[6] & 8) != 0, payload[13], payload});
        };
        daemon->on_request = [this](std::uint16_t type, const_octets body) {
            nsm_request& r = requests_.emplace_back(nsm_request{type});
            for (std::size_t at = 0; at < body.size(); at += 4) r.push_back(get_be32(body, at));
        };
        slow_socket_set_rate_limit(0);  // scenarios hear much in no time
        daemon->start(true);
        ASSERT_EQ(ssm_opts_set_global_enable(1), 0);
        ASSERT_EQ(ssm_opts_set_ssm_enable(1), 0);
        take_requests();
    }
    void TearDown() override { daemon->stop(); }

    // What NSM may be asked for.
    static nsm_request holdover(bool on) { return {NSM_MSG_SSM_HOLDOVER_ENABLE, on ? 0U : 1U}; }
    static nsm_request source(std::uint32_t port) { return {NSM_MSG_SSM_SELECTED_IF_INDEX, port, 0}; }
    static nsm_request global(std::uint32_t on) { return {NSM_MSG_SSM_GLOBAL_ENABLE, on}; }
    static nsm_request gephy(std::uint32_t port, std::uint32_t enable, std::uint32_t role) {
        return {NSM_MSG_SSM_SET_GEPHY_ROLE, port, enable, role};
    }

    // ---- What happens. As an operation does, it returns 0: see after(). ----

    static message port_body(std::uint32_t index, bool up = true) {
        return link_body(index, up, "p" + std::to_string(index));
    }
    // Binds a port, and unless told otherwise takes it up and enables SyncE on it.
    ssm_port* add_port(std::uint32_t index, bool up = true, bool synce = true) {
        nsm_says(NSM_MSG_LINK_ADD, port_body(index, up));
        EXPECT_EQ(synce ? ssm_opts_set_port_synce(intf(index), 1) : 0, 0);
        return port(index);
    }
    void add_ports(std::initializer_list<std::uint32_t> indexes) {
        for (std::uint32_t index : indexes) add_port(index);
    }
    interface* intf(std::uint32_t index) {
        return if_lookup_by_index(g_p_esmcd->ifm, index);
    }
    ssm_port* port(std::uint32_t index) { return ssm_if_port(intf(index)); }

    int nsm_says(std::uint16_t type, const message& body) {
        daemon->nsm_says(type, body);
        daemon->settle();
        return 0;
    }
    int link_up(std::uint32_t index) { return nsm_says(NSM_MSG_LINK_UP, be_words({index})); }
    int link_down(std::uint32_t index) { return nsm_says(NSM_MSG_LINK_DOWN, be_words({index})); }
    int unbind(std::uint32_t index, bool gone = true) {
        return nsm_says(NSM_MSG_LINK_DELETE, be_words({index, gone ? 1U : 0U}));
    }
    int dpll(std::uint32_t state, std::uint32_t source_index = 0) {
        return nsm_says(NSM_MSG_SSM_SEND_BACK_CLOCK_STATE, be_words({state, source_index}));
    }
    int bridge(std::array<std::uint8_t, 6> mac) {
        message body(nsm_bridge_body::SIZE);
        std::copy(mac.begin(), mac.end(), body.begin() + nsm_bridge_body::MAC);
        return nsm_says(NSM_MSG_BRIDGE_ADD, body);
    }

    int hear_raw(std::uint32_t index, message ethernet) {
        daemon->hear(index + 1000, std::move(ethernet));
        return 0;
    }
    int hear(std::uint32_t index, const neighbour_pdu& pdu) { return hear_raw(index, esmc_frame(pdu)); }
    int hear(std::uint32_t index, std::uint8_t quality) { return hear(index, neighbour_pdu{quality}); }

    int advance(std::uint32_t ms) {
        daemon->pass(ms);
        return 0;
    }
    // Lets `ms` pass while the given neighbours go on sending one information PDU a second.
    int pass(std::uint32_t ms, std::initializer_list<std::pair<std::uint32_t, std::uint8_t>> talking = {}) {
        for (std::uint32_t step; ms > 0; ms -= step) {
            step = std::min(ms, 1000U);
            advance(step);
            for (const auto& [index, quality] : talking) hear(index, quality);
        }
        return 0;
    }

    // ---- What came of it ----

    std::uint32_t selected() const {
        return g_s_master->selected_port ? g_s_master->selected_port->intf->ifindex : 0;
    }
    // After what succeeded: all of it, with the requests since they were taken last, or the source alone.
    outcome after(int result) {
        EXPECT_EQ(result, 0);
        return {selected(), g_s_master->current_quality, take_requests()};
    }
    std::uint32_t source_after(int result) {
        EXPECT_EQ(result, 0);
        return selected();
    }

    std::vector<sent_pdu> take_sent() { return std::exchange(sent_, {}); }
    requests take_requests() {
        daemon->drain_nsm();
        return std::exchange(requests_, {});
    }
    // The quality of the last PDU on each port since the last take_sent.
    qualities last_qualities() {
        qualities last;
        for (const sent_pdu& pdu : take_sent()) last[pdu.port] = pdu.quality;
        return last;
    }
    // The same, where all of them were event PDUs, one a port.
    qualities told_at_once() {
        qualities told;
        for (const sent_pdu& pdu : take_sent())
            EXPECT_TRUE(pdu.event && told.emplace(pdu.port, pdu.quality).second) << pdu.port;
        return told;
    }

    // A source on `index` with PRC, selected, the outcome of which has been taken.
    void lock_to(std::uint32_t index, std::uint8_t quality = QL_PRC) {
        ASSERT_EQ(source_after(hear(index, quality)), index);
        take_sent();
        take_requests();
    }

  private:
    std::vector<sent_pdu> sent_;
    requests requests_;
};

// With the lines of the log.
class logged_sim : public sim {
  protected:
    void SetUp() override {
        sim::SetUp();
        log_add_tap(keep, this);
    }
    void TearDown() override {
        log_remove_tap(keep, this);
        sim::TearDown();
    }
    static void keep(void* self, int, const char* line, std::size_t length) {
        static_cast<logged_sim*>(self)->lines_.emplace_back(line, length);
    }
    std::ptrdiff_t said(std::string_view words) {
        return std::ranges::count_if(lines_, [&](const std::string& l) { return l.find(words) != l.npos; });
    }

    std::vector<std::string> lines_;
};
