// The loop guard on one switch, and the bound on event PDUs. What it does in networks is tests/network's.
#include "core/guard.h"

#include "scenario/sim.h"
#include "suite/ports/slow_socket.h"

namespace {

constexpr std::array<std::uint8_t, 8> MASTER = {1, 1, 1, 0xFF, 0xFE, 1, 1, 1},
                                      OTHER = {2, 2, 2, 0xFF, 0xFE, 2, 2, 2};

class guard : public sim {
  protected:
    void SetUp() override {
        sim::SetUp();
        daemon->as_the_daemon = true;
        bridge({2, 3, 4, 5, 6, 7});
        add_ports({1, 2, 3});
        daemon->in_event([] {
            EXPECT_EQ(ssm_opts_set_ssm_extend(1), 0);
            EXPECT_EQ(ssm_opts_set_loop_guard(1), 0);
        });
        take_sent();
    }
    std::uint32_t offer(std::uint32_t index, std::uint8_t hops, std::uint8_t quality = QL_PRC,
                        std::array<std::uint8_t, 8> id = MASTER) {
        return source_after(
            hear(index, {.quality = quality, .extended = true, .clock_id = id, .hops = hops}));
    }
    void locked_to(std::uint32_t index, std::uint8_t hops) {
        ASSERT_EQ(offer(index, hops), index);
        dpll(SSM_DPLL_LOCK);
        pass(2000);
        ASSERT_EQ(offer(index, hops), index);
        take_sent();
    }
};

TEST_F(guard, farther_offers_wait_until_all_behind_us_have_heard) {
    locked_to(1, 2);
    EXPECT_EQ(offer(2, 3), 1U);  // as far as we tell: it may lead back here
    EXPECT_EQ(ssm_candidate_check(port(2)), ssm_refusal::may_lead_back);
    EXPECT_EQ(ssm_guard_limit(port(2)), 3U);
    take_sent();

    link_down(1);
    EXPECT_EQ(std::pair(selected(), g_s_master->holdover), std::pair(0U, 1U));
    const auto told = take_sent();
    ASSERT_EQ(told.size(), 2U);  // once a port
    for (const sent_pdu& pdu : told) {
        EXPECT_TRUE(pdu.event && pdu.quality == QL_EEC1);
        EXPECT_EQ(std::vector(pdu.payload.begin() + 17, pdu.payload.begin() + 26),
                  (std::vector<std::uint8_t>{2, 3, 4, 0xFF, 0xFE, 5, 6, 7, 0}));
    }
    EXPECT_EQ(ssm_guard_hold_left_ms(), SSM_GUARD_HOLD_MS);
    pass(SSM_GUARD_HOLD_MS - 1);
    daemon->in_event([] { EXPECT_EQ(ssm_opts_set_ssm_extend(1), 0); });  // as a reload says it again
    EXPECT_EQ(offer(2, 3), 0U);
    pass(1);
    EXPECT_EQ(selected(), 2U);
    EXPECT_EQ(g_s_master->guard.longest_hold, SSM_GUARD_HOLD_MS * NS_PER_MS);
    EXPECT_EQ(std::pair(g_s_master->guard.holds, g_s_master->guard.refused),
              std::pair(std::uint64_t{1}, std::uint64_t{1}));
}

TEST_F(guard, a_proved_offer_is_taken_at_once_whatever_its_priority) {
    ASSERT_EQ(ssm_opts_set_port_priority(intf(2), 1), 0);
    locked_to(1, 2);
    EXPECT_EQ(offer(2, 3), 1U);
    EXPECT_EQ(offer(3, 2), 1U);
    link_down(1);
    EXPECT_EQ(selected(), 3U);
    EXPECT_EQ(offer(2, 0, QL_PRC, OTHER), 2U);  // of a clock that we told nobody of
}

TEST_F(guard, own_clock_in_holdover_is_as_good_as_a_neighbours) {
    locked_to(1, 0);
    EXPECT_EQ(offer(2, 0, QL_EEC1, OTHER), 1U);
    link_down(1);
    pass(4000);
    EXPECT_EQ(offer(2, 0, QL_EEC1, OTHER), 0U);
    EXPECT_EQ(ssm_candidate_check(port(2)), ssm_refusal::own_holdover_as_good);
    EXPECT_EQ(offer(2, 0, QL_SSU_B, OTHER), 2U);
}

TEST_F(guard, changes_are_told_and_followed_at_once_and_counts_end) {
    locked_to(1, 5);
    EXPECT_EQ(offer(1, 4), 1U);
    EXPECT_EQ(told_at_once(), (qualities{{1, QL_DNU}, {2, QL_PRC}, {3, QL_PRC}}));
    EXPECT_EQ(offer(2, 4), 1U);
    hear(1, QL_DNU);
    EXPECT_EQ(selected(), 2U);
    EXPECT_EQ(offer(3, SSM_GUARD_HOPS + 1, QL_PRC, OTHER), 2U);
    EXPECT_EQ(ssm_candidate_check(port(3)), ssm_refusal::too_many_hops);
    ASSERT_EQ(ssm_opts_set_force_port(port(3)), 0);
    offer(3, 255, QL_PRC, OTHER);
    take_sent();
    pass(1000);
    EXPECT_EQ(take_sent().back().payload[25], 255);
}

// A minute of it is said once, and again only of the next refusal; that an offer is refused which would not
// be preferred anyway is nothing to tell of: in a healthy ring there is always one.
TEST_F(guard, an_offer_that_stays_refused_is_said_once) {
    std::vector<std::string> lines;
    const auto tap = [](void* to, int, const char* line, std::size_t length) {
        const std::string said(line, length);
        if (said.find("loop guard") != said.npos)
            static_cast<std::vector<std::string>*>(to)->push_back(said.substr(said.find("guard: ") + 7));
    };
    ASSERT_EQ(log_add_tap(tap, &lines), 0);
    const auto repeat = [&](std::uint32_t seconds, std::uint8_t hops_on_2) {
        for (std::uint32_t s = 0; s < seconds; ++s) {
            pass(1000);
            offer(1, 2);
            offer(2, hops_on_2);
        }
    };
    locked_to(1, 2);
    repeat(70, 4);
    EXPECT_EQ(ssm_candidate_check(port(2)), ssm_refusal::may_lead_back);
    EXPECT_EQ(lines, std::vector<std::string>{});
    const char* const refused =
        "p2 is not followed: may lead back here: 4 hops, ours 3 (clock "
        "01:01:01:FF:FE:01:01:01)";
    daemon->in_event([this] { EXPECT_EQ(ssm_opts_set_port_priority(intf(2), 1), 0); });
    repeat(59, 4);
    EXPECT_EQ(std::exchange(lines, {}), std::vector<std::string>{refused});
    EXPECT_FALSE(port(2)->guard_alarmed);
    repeat(120, 4);
    EXPECT_EQ(
        std::exchange(lines, {}),
        std::vector<std::string>{"p2 has not been followed for 60 s: may lead back here: 4 hops, ours 3 "
                                 "(clock 01:01:01:FF:FE:01:01:01)"});
    EXPECT_TRUE(port(2)->guard_alarmed);
    // Back and forth each second: a line each ten seconds, and no alarm.
    for (int i = 0; i < 50; ++i) {
        hear(2, QL_DNU);
        repeat(1, 4);
    }
    EXPECT_FALSE(port(2)->guard_alarmed);
    EXPECT_EQ(std::exchange(lines, {}), std::vector<std::string>(5, refused));
    EXPECT_EQ(g_s_master->guard.refused, 51U);
    link_down(1);
    pass(SSM_GUARD_HOLD_MS);
    EXPECT_EQ(lines, (std::vector<std::string>{"no offer is proved, holding over for at most 500 ms",
                                               "held over for 500 ms, now from p2"}));
    log_remove_tap(tap, &lines);
}

// A source that falls silent is left, also when nobody says anything any more: its last word was an event
// PDU, and the only other port has its quality from the operator.
TEST_F(guard, a_silent_source_is_left_at_once) {
    locked_to(1, 2);
    hear(1, QL_DNU);
    pass(6000);
    hear(1, {.quality = QL_PRC, .event = true, .extended = true, .clock_id = MASTER, .hops = 2});
    ASSERT_EQ(ssm_opts_set_port_quality(intf(3), 1, "eec1"), 0);
    EXPECT_EQ(source_after(advance(4999)), 1U);
    EXPECT_EQ(source_after(advance(1)), 3U);
}

// What is over the burst leaves ten times a second, with what is true then.
TEST_F(guard, event_pdus_are_bounded) {
    const auto told_in_storm = [this](int changes) {
        for (int i = 0; i < changes; ++i) offer(1, 0, i % 2 ? QL_PRC : QL_SSU_A);
        return std::ranges::count_if(take_sent(),
                                     [](const sent_pdu& pdu) { return pdu.port == 2 && pdu.event; });
    };
    dpll(SSM_DPLL_LOCK);
    pass(3000);
    take_sent();
    EXPECT_EQ(told_in_storm(50), 20);
    slow_port_stats stats;
    ASSERT_TRUE(slow_socket_port_stats(2, &stats));
    EXPECT_EQ(stats.held_back, 30U);
    offer(1, 0, QL_SSU_B);
    pass(99);
    EXPECT_EQ(take_sent().size(), 0U);
    pass(1);
    EXPECT_EQ(told_at_once(), (qualities{{1, QL_DNU}, {2, QL_SSU_B}, {3, QL_SSU_B}}));
    daemon->in_event([] { EXPECT_EQ(ssm_opts_set_loop_guard(0), 0); });
    pass(60'000, {{1, QL_PRC}});
    take_sent();
    EXPECT_EQ(told_in_storm(600), 500);
    daemon->in_event([] { EXPECT_EQ(ssm_opts_set_loop_guard(1), 0); });
    advance(100);
    offer(1, 0, QL_SSU_B);
    advance(100);
    EXPECT_EQ(take_sent().back().quality, QL_SSU_B);  // not when 500 are earned
}

TEST(guard_distances, what_has_no_room_is_not_forgotten_before_its_time) {
    ssm_distances told = {};
    std::array<std::uint8_t, 8> id = MASTER;
    for (id[7] = 0; id[7] < 32; ++id[7]) {
        ssm_distance_tell(&told, id.data(), 4, 1000);
        ssm_distance_end(&told, nullptr, 2000 + id[7]);
    }
    ssm_distance_tell(&told, OTHER.data(), 4, 1500);
    id[7] = 0;  // it ended first
    EXPECT_EQ(ssm_distance_limit(&told, id.data(), 1999), 0U);
    EXPECT_EQ(ssm_distance_limit(&told, id.data(), 2000), 256U);
    id[7] = 9;
    EXPECT_EQ(ssm_distance_limit(&told, id.data(), 2008), 4U);
    EXPECT_EQ(ssm_distance_limit(&told, id.data(), 2009), 256U);
    ssm_distance_extend(&told, 3000);
    EXPECT_EQ(ssm_distance_forget(&told, 2500), 3000U);
    EXPECT_EQ(ssm_distance_forget(&told, 3000), 0U);
    EXPECT_EQ(told.count, 1U);  // the one that is still told
}

}  // namespace
