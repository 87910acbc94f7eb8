// Which port becomes the source: every key of the order, every role, every reason to be no candidate.
#include <algorithm>

#include "scenario/sim.h"

namespace {

class selection : public sim {
  protected:
    // Whatever the order in which they are compared.
    void expect_winner(std::uint32_t winner, std::uint32_t loser, std::string_view key) {
        EXPECT_EQ(selected(), winner);
        const ssm_order forth = ssm_candidate_compare(port(winner), port(loser));
        const ssm_order back = ssm_candidate_compare(port(loser), port(winner));
        ASSERT_TRUE(forth.winner < 0 && back.winner > 0);
        EXPECT_TRUE(forth.key == key && back.key == key) << key;
    }
};

TEST_F(selection, quality_then_priority_then_hops_then_index) {
    const struct {
        const char* key;
        std::uint32_t winner;
        std::uint8_t quality[2], priority[2], hops[2];  // of ports 3 and 4
    } cases[] = {
        {"quality", 4, {QL_SSU_A, QL_PRC}, {1, 20}, {1, 3}},
        {"priority", 4, {QL_PRC, QL_PRC}, {20, 10}, {1, 3}},
        {"hop count", 4, {QL_PRC, QL_PRC}, {20, 20}, {3, 1}},
        {"interface index", 3, {QL_PRC, QL_PRC}, {20, 20}, {1, 1}},
    };
    ASSERT_EQ(ssm_opts_set_ssm_extend(1), 0);
    add_ports({3, 4});
    for (const auto& c : cases) {
        for (std::uint32_t i : {0U, 1U}) {
            ASSERT_EQ(ssm_opts_set_port_priority(intf(3 + i), c.priority[i]), 0);
            hear(3 + i, {.quality = c.quality[i],
                         .extended = true,
                         .clock_id = {1, 2, 3, 0xFF, 0xFE, 4, 5, 6},
                         .hops = c.hops[i]});
        }
        expect_winner(c.winner, 7 - c.winner, c.key);
    }
    ASSERT_EQ(ssm_opts_set_ssm_extend(0), 0);
    hear(3, {.extended = true, .hops = 9});
    hear(4, {.extended = true, .hops = 1});
    expect_winner(3, 4, "interface index");  // hops do not count without the extension
}

TEST_F(selection, master_only_selects_nothing_and_advertises_its_own_quality) {
    add_port(1);
    lock_to(1);
    ASSERT_EQ(ssm_opts_set_local_quality(QL_EEC1, SSM_OPTION_1), 0);
    EXPECT_EQ(after(ssm_opts_set_device_type(SSM_MASTER_ONLY)), outcome(0, QL_EEC1, {holdover(true)}));
    EXPECT_EQ(port(1)->timeout_timer, nullptr);
    EXPECT_EQ(port(1)->send_quality, QL_EEC1);
    hear(1, QL_PRC);
    EXPECT_EQ(port(1)->recv_pdu, 0U);
    pass(1000);
    EXPECT_EQ(last_qualities()[1], QL_EEC1);
}

TEST_F(selection, own_clock_and_what_a_replacing_port_receives_are_never_a_source) {
    const auto extended = [](std::array<std::uint8_t, 8> id, std::uint8_t quality = QL_PRC) {
        return neighbour_pdu{.quality = quality, .extended = true, .clock_id = id};
    };
    ASSERT_EQ(ssm_opts_set_ssm_extend(1), 0);
    bridge({0x00, 0x11, 0x22, 0x33, 0x44, 0x55});
    add_ports({1, 2});
    EXPECT_EQ(source_after(hear(1, extended({0x00, 0x11, 0x22, 0xFF, 0xFE, 0x33, 0x44, 0x55}))), 0U);
    EXPECT_EQ(ssm_candidate_check(port(1)), ssm_refusal::own_clock_id);
    EXPECT_EQ(source_after(hear(1, extended({0x00, 0x11, 0x22, 0xFF, 0xFE, 0x33, 0x44, 0x56}))), 1U);

    ASSERT_EQ(ssm_opts_set_port_replace_clockid(intf(2), 1), 0);
    hear(2, QL_SSU_A);  // worse, but both receive the zero identity
    EXPECT_EQ(source_after(hear(1, QL_PRC)), 2U);
    EXPECT_EQ(ssm_candidate_check(port(1)), ssm_refusal::replaced_clock_id);
    EXPECT_EQ(source_after(hear(1, extended({9, 9, 9, 0xFF, 0xFE, 9, 9, 9}))), 1U);

    // Many that would win but for a replacing port: all of them are passed over.
    for (std::uint32_t i = 3; i < 120; ++i) {
        add_port(i);
        ASSERT_EQ(ssm_opts_set_port_replace_clockid(intf(i), i % 2), 0);
        ASSERT_EQ(ssm_opts_set_port_priority(intf(i), i % 2 ? 20 : 10), 0);
        hear(i, extended({1, 2, 3, 0xFF, 0xFE, 0, 0, static_cast<std::uint8_t>(i / 4)}));
    }
    const ssm_port* expected = nullptr;
    ssm_port_walk([&](const ssm_port* p) {
        if (ssm_candidate_check(p) != ssm_refusal::none) return;
        if (!expected || ssm_candidate_compare(p, expected).winner < 0) expected = p;
    });
    EXPECT_EQ(ssm_best_candidate(), expected);
}

TEST_F(selection, a_change_of_source_tells_nsm_once_and_the_neighbours_at_once) {
    add_ports({1, 2, 3});
    take_requests();
    EXPECT_EQ(after(hear(1, QL_SSU_A)), outcome(1, QL_SSU_A, {source(1)}));
    EXPECT_EQ(told_at_once(), (qualities{{1, QL_DNU}, {2, QL_SSU_A}, {3, QL_SSU_A}}));
    EXPECT_EQ(after(hear(1, QL_SSU_A)), outcome(1, QL_SSU_A, {})) << "nothing new";
    EXPECT_EQ(told_at_once(), qualities{});
    EXPECT_EQ(after(hear(2, QL_PRC)), outcome(2, QL_PRC, {source(2)}));
    EXPECT_EQ(told_at_once(), (qualities{{1, QL_PRC}, {2, QL_DNU}, {3, QL_PRC}}));
}

// What the daemon says at debug level about ports that are not chosen.
using selection_log = logged_sim;

TEST_F(selection_log, each_run_says_why_it_refuses_and_a_replaced_identity_is_said_once) {
    ASSERT_EQ(ssm_opts_set_ssm_extend(1), 0);
    add_ports({1, 2, 3});
    daemon->as_the_daemon = true;
    ASSERT_EQ(ssm_opts_set_port_replace_clockid(intf(2), 1), 0);
    const neighbour_pdu offer = {.extended = true, .clock_id = {9, 9, 9, 0xFF, 0xFE, 9, 9, 9}};
    hear(2, offer);
    for (int i = 0; i < 3; ++i) hear(1, offer);
    EXPECT_EQ(said("don't compare replace clockid on port"), 1);
    EXPECT_EQ(said("don't select clock on port"), 0);
    ssm_debug = SSM_DEBUG_EVENT;
    for (int i = 0; i < 3; ++i) hear(1, offer);  // repeated PDUs too
    EXPECT_EQ(said("port  1, replace_clockid 1"), 3);
    EXPECT_EQ(said("port  3, synce_enable  1, link_up  1,recv_pdu  0"), 3);
    EXPECT_EQ(said("port  2"), 1) << "the one line that names it as replacing";
    ssm_debug = 0;
}

// Repeated PDUs skip the walk over the ports only as long as nothing else happened.
TEST_F(selection, a_repeated_pdu_selects_again_after_anything_that_matters) {
    add_ports({1, 2});
    daemon->as_the_daemon = true;
    const auto again = [this] {
        hear(1, QL_PRC);
        hear(2, QL_SSU_A);
        hear(2, QL_SSU_A);
        ASSERT_EQ(selected(), 1U);
    };
    again();
    hear(1, QL_DNU);
    EXPECT_EQ(source_after(hear(2, QL_SSU_A)), 2U) << "a DNU";
    again();
    daemon->in_event([this] { EXPECT_EQ(ssm_opts_set_local_quality(QL_SSU_A, SSM_OPTION_1), 0); });
    daemon->in_event([this] { EXPECT_EQ(ssm_opts_set_port_quality(intf(1), SSM_ESMC_RX, "ssu-b"), 0); });
    EXPECT_EQ(source_after(hear(2, QL_SSU_A)), 0U) << "a command";
    daemon->in_event([this] { EXPECT_EQ(ssm_opts_set_port_quality(intf(1), SSM_ESMC_RX, "na"), 0); });
    again();
    EXPECT_EQ(source_after(pass(5000, {{2, QL_SSU_A}})), 0U)
        << "a time-out; port 2 is no better than the switch";
    again();
    dpll(SSM_DPLL_FREERUN);
    EXPECT_EQ(g_s_master->current_quality, QL_SSU_A);
    hear(2, QL_SSU_A);
    EXPECT_EQ(g_s_master->current_quality, QL_PRC) << "a report of the hardware";
}

TEST_F(selection, without_ssm_priorities_alone_decide) {
    ASSERT_EQ(ssm_opts_set_ssm_enable(0), 0);
    add_ports({1, 2});
    EXPECT_EQ(selected(), 0U);  // 255 is not below the switch's own 255
    EXPECT_EQ(source_after(ssm_opts_set_port_priority(intf(2), 9)), 2U);
    EXPECT_STREQ(ssm_candidate_compare(port(2), port(1)).key, "priority");
    EXPECT_EQ(source_after(ssm_opts_set_port_priority(intf(1), 9)), 1U) << "equal: the smaller index";
    EXPECT_STREQ(ssm_candidate_compare(port(2), port(1)).key, "interface index");
    EXPECT_EQ(source_after(ssm_opts_set_local_priority(5)), 0U);
    EXPECT_EQ(source_after(ssm_opts_set_device_type(SSM_SLAVE_ONLY)), 1U);
    EXPECT_EQ(source_after(link_down(1)), 2U);
    pass(3000);
    EXPECT_TRUE(take_sent().empty());
}

TEST_F(sim, quality_of_the_source_is_advertised_when_locked_if_so_configured) {
    ASSERT_EQ(ssm_opts_set_advertise_when_locked(1), 0);
    add_ports({1, 2});
    advance(1000);
    take_sent();
    EXPECT_EQ(source_after(hear(1, QL_PRC)), 1U);
    EXPECT_TRUE(told_at_once().empty());
    EXPECT_EQ(g_s_master->current_quality, std::uint32_t{QL_DNU});  // the local quality
    dpll(SSM_DPLL_LOCK);
    EXPECT_EQ(told_at_once(), (qualities{{1, QL_DNU}, {2, QL_PRC}}));
    // The lock is lost, and PDUs go on coming.
    dpll(SSM_DPLL_FREERUN);
    EXPECT_EQ(told_at_once(), (qualities{{1, QL_DNU}, {2, QL_DNU}}));
    pass(3000, {{1, QL_PRC}});
    EXPECT_EQ(last_qualities()[2], QL_DNU);
    dpll(SSM_DPLL_HOLDOVER);
    hear(1, QL_PRC);
    EXPECT_EQ(told_at_once(), (qualities{{1, QL_DNU}, {2, QL_EEC1}}));
    dpll(SSM_DPLL_LOCK);
    EXPECT_EQ(told_at_once()[2], QL_PRC);

    // A forced switch is no other matter; what the operator says of the port is.
    ASSERT_EQ(ssm_opts_set_force_port(port(1)), 0);
    dpll(SSM_DPLL_FREERUN);
    take_sent();
    pass(1000, {{1, QL_PRC}});
    EXPECT_EQ(last_qualities()[2], QL_DNU);
    ASSERT_EQ(ssm_opts_set_port_quality(intf(1), SSM_ESMC_RX, "ssu-a"), 0);
    pass(1000, {{1, QL_PRC}});
    EXPECT_EQ(last_qualities()[2], QL_SSU_A);
    ASSERT_EQ(ssm_opts_set_port_quality(intf(1), SSM_ESMC_RX, "na"), 0);
    ASSERT_EQ(ssm_opts_set_advertise_when_locked(0), 0);
    pass(1000, {{1, QL_PRC}});
    EXPECT_EQ(last_qualities()[2], QL_PRC);
}

}  // namespace
