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
    EXPECT_EQ(selected(), 0U);
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
