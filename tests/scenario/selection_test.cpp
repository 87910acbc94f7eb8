// Which port becomes the source: every key of the order, every role, every reason to be no candidate.
#include <algorithm>

#include "scenario/sim.h"

namespace {

class selection : public sim {
  protected:
    void SetUp() override {
        sim::SetUp();
        enable();
    }
    // Both orders of hearing must end at the same port.
    void expect_winner(std::uint32_t winner, std::uint32_t loser) {
        EXPECT_EQ(selected(), winner);
        const ssm_order forth = ssm_candidate_compare(port(winner), port(loser));
        const ssm_order back = ssm_candidate_compare(port(loser), port(winner));
        EXPECT_LT(forth.winner, 0);
        EXPECT_GT(back.winner, 0);
        EXPECT_EQ(forth.key, back.key);
    }
};

TEST_F(selection, quality_beats_priority_and_index) {
    add_port(1);
    add_port(2);
    ASSERT_EQ(ssm_opts_set_port_priority(intf(1), 1), 0);
    hear(1, QL_SSU_A);
    EXPECT_EQ(selected(), 1U);
    hear(2, QL_PRC);
    expect_winner(2, 1);
    EXPECT_EQ(ssm_candidate_compare(port(1), port(2)).key, ssm_key::quality);
}

TEST_F(selection, equal_quality_is_decided_by_priority_then_hops_then_index) {
    ASSERT_EQ(ssm_opts_set_ssm_extend(1), 0);
    add_port(3);
    add_port(4);
    neighbour_pdu far = {.extended = true, .clock_id = {1, 2, 3, 0xFF, 0xFE, 4, 5, 6}, .hops = 3};
    neighbour_pdu near = far;
    near.hops = 1;

    ASSERT_EQ(ssm_opts_set_port_priority(intf(3), 20), 0);
    ASSERT_EQ(ssm_opts_set_port_priority(intf(4), 10), 0);
    hear(3, near);
    hear(4, far);
    expect_winner(4, 3);
    EXPECT_EQ(ssm_candidate_compare(port(3), port(4)).key, ssm_key::priority);

    ASSERT_EQ(ssm_opts_set_port_priority(intf(4), 20), 0);
    hear(4, far);
    expect_winner(3, 4);
    EXPECT_EQ(ssm_candidate_compare(port(3), port(4)).key, ssm_key::hop_count);

    hear(4, near);
    expect_winner(3, 4);
    EXPECT_EQ(ssm_candidate_compare(port(3), port(4)).key, ssm_key::ifindex);
}

TEST_F(selection, hops_do_not_count_without_the_extension) {
    add_port(3);
    add_port(4);
    hear(3, {.extended = true, .hops = 9});
    hear(4, {.extended = true, .hops = 1});
    EXPECT_EQ(selected(), 3U);
}

// The walk's order must never show: all orders in which five ports are added and heard choose the same one.
TEST_F(selection, no_order_of_ports_changes_the_choice) {
    const std::array<std::pair<std::uint32_t, std::uint8_t>, 4> offers = {
        {{7, QL_SSU_B}, {9, QL_PRC}, {5, QL_PRC}, {2, QL_SSU_A}}};
    std::array<std::size_t, 4> order = {0, 1, 2, 3};
    do {
        for (std::size_t i : order) add_port(offers[i].first);
        for (std::size_t i : order) hear(offers[i].first, offers[i].second);
        EXPECT_EQ(selected(), 5U);
        for (std::size_t i : order) unbind(offers[i].first);
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(selection, option_2_ranks_its_codes_by_the_standards_order_and_not_by_their_numbers) {
    ASSERT_EQ(ssm_opts_set_local_quality(QL_DNU, SSM_OPTION_2), 0);
    const std::array order = {QL_PRS, QL_STU, QL_ST2, QL_TNC, QL_ST3E, QL_EEC2, QL_SMC, QL_PROV, QL_DNU};
    for (std::size_t i = 0; i < order.size(); ++i)
        for (std::size_t j = 0; j < order.size(); ++j)
            EXPECT_EQ(ssm_ql_compare(order[i], order[j]), i < j   ? -1
                                                          : i > j ? 1
                                                                  : 0)
                << order[i] << " " << order[j];

    add_port(1);
    add_port(2);
    hear(1, QL_TNC);
    hear(2, QL_ST2);
    EXPECT_EQ(selected(), 2U);
    EXPECT_EQ(g_s_master->current_quality, QL_ST2);
}

TEST_F(selection, own_clock_beats_a_worse_or_equal_port_in_the_default_role_only) {
    add_port(1);
    lock_to(1, QL_SSU_A);
    ASSERT_EQ(ssm_opts_set_local_quality(QL_EEC1, SSM_OPTION_1), 0);
    hear(1, QL_EEC1);  // equal quality, port priority not below the switch's
    EXPECT_EQ(selected(), 0U);
    EXPECT_EQ(take_requests(), std::vector{holdover_request(true)});
    EXPECT_EQ(g_s_master->current_quality, QL_EEC1);

    ASSERT_EQ(ssm_opts_set_port_priority(intf(1), 254), 0);
    hear(1, QL_EEC1);
    EXPECT_EQ(selected(), 1U);
    EXPECT_EQ(take_requests(), (std::vector{holdover_request(false), select_request(1)}));

    ASSERT_EQ(ssm_opts_set_local_quality(QL_PRC, SSM_OPTION_1), 0);
    hear(1, QL_EEC1);  // worse than our own
    EXPECT_EQ(selected(), 0U);

    ASSERT_EQ(ssm_opts_set_device_type(SSM_SLAVE_ONLY), 0);
    hear(1, QL_EEC1);  // a slave never looks at itself
    EXPECT_EQ(selected(), 1U);
}

TEST_F(selection, master_only_selects_nothing_and_advertises_its_own_quality) {
    add_port(1);
    lock_to(1);
    ASSERT_EQ(ssm_opts_set_local_quality(QL_EEC1, SSM_OPTION_1), 0);
    ASSERT_EQ(ssm_opts_set_device_type(SSM_MASTER_ONLY), 0);
    EXPECT_EQ(selected(), 0U);
    EXPECT_EQ(g_s_master->current_quality, QL_EEC1);
    EXPECT_EQ(port(1)->timeout_timer, nullptr);
    EXPECT_EQ(port(1)->send_quality, QL_EEC1);
    EXPECT_EQ(take_requests(), std::vector{holdover_request(true)});

    hear(1, QL_PRC);
    EXPECT_EQ(port(1)->recv_pdu, 0U);
    pass(1000);
    EXPECT_EQ(last_qualities()[1], QL_EEC1);
}

struct refusal_case {
    ssm_refusal refusal;
    void (*make)(ssm_port*);
};

TEST_F(selection, each_refusal_keeps_a_better_port_from_being_chosen) {
    const refusal_case cases[] = {
        {ssm_refusal::synce_disabled, [](ssm_port* p) { p->synce_enable = 0; }},
        {ssm_refusal::link_down, [](ssm_port* p) { p->link_up = 0; }},
        {ssm_refusal::nothing_received, [](ssm_port* p) { p->recv_pdu = 0; }},
        {ssm_refusal::forced_dnu, [](ssm_port* p) { p->force_rx_quality = QL_DNU; }},
        {ssm_refusal::received_dnu, [](ssm_port* p) { p->recv_quality = QL_DNU; }},
    };
    add_port(1);
    add_port(2);
    for (const refusal_case& c : cases) {
        hear(2, QL_SSU_A);
        hear(1, QL_PRC);
        ASSERT_EQ(selected(), 1U);
        const ssm_port before = *port(1);
        c.make(port(1));
        EXPECT_EQ(ssm_candidate_check(port(1)), c.refusal);
        hear(2, QL_SSU_A);
        EXPECT_EQ(selected(), 2U) << ssm_refusal_text(c.refusal);
        *port(1) = before;
        hear(1, QL_PRC);
    }
}

TEST_F(selection, own_clock_coming_back_is_never_a_source) {
    ASSERT_EQ(ssm_opts_set_ssm_extend(1), 0);
    bridge({0x00, 0x11, 0x22, 0x33, 0x44, 0x55});
    add_port(1);
    hear(1, {.extended = true, .clock_id = {0x00, 0x11, 0x22, 0xFF, 0xFE, 0x33, 0x44, 0x55}});
    EXPECT_EQ(selected(), 0U);
    EXPECT_EQ(ssm_candidate_check(port(1)), ssm_refusal::own_clock_id);
    hear(1, {.extended = true, .clock_id = {0x00, 0x11, 0x22, 0xFF, 0xFE, 0x33, 0x44, 0x56}});
    EXPECT_EQ(selected(), 1U);
}

TEST_F(selection, an_identity_that_a_replacing_port_receives_is_no_source_elsewhere) {
    ASSERT_EQ(ssm_opts_set_ssm_extend(1), 0);
    bridge({0x00, 0x11, 0x22, 0x33, 0x44, 0x55});
    add_port(1);
    add_port(2);
    ASSERT_EQ(ssm_opts_set_port_replace_clockid(intf(2), 1), 0);
    hear(2, QL_SSU_A);
    hear(1, QL_PRC);  // better, but both receive the zero identity
    EXPECT_EQ(selected(), 2U);
    EXPECT_EQ(ssm_candidate_check(port(1)), ssm_refusal::replaced_clock_id);
    hear(1, {.extended = true, .clock_id = {9, 9, 9, 0xFF, 0xFE, 9, 9, 9}});
    EXPECT_EQ(selected(), 1U);

    // Many replacing ports: the set that selection builds must agree with the plain walk.
    for (std::uint32_t i = 3; i < 120; ++i) {
        add_port(i);
        ASSERT_EQ(ssm_opts_set_port_replace_clockid(intf(i), i % 2), 0);
        hear(i, {.quality = QL_SSU_B,
                 .extended = true,
                 .clock_id = {1, 2, 3, 0xFF, 0xFE, 0, 0, static_cast<std::uint8_t>(i / 4)}});
    }
    ssm_port* best = ssm_best_candidate();
    ssm_port* expected = nullptr;
    ssm_port_walk([&](ssm_port* p) {
        if (ssm_candidate_check(p) != ssm_refusal::none) return;
        if (!expected || ssm_candidate_compare(p, expected).winner < 0) expected = p;
    });
    EXPECT_EQ(best, expected);
}

TEST_F(selection, a_change_of_source_tells_nsm_once_and_the_neighbours_at_once) {
    add_port(1);
    add_port(2);
    add_port(3);
    take_requests();
    hear(1, QL_SSU_A);
    EXPECT_EQ(take_requests(), std::vector{select_request(1)});
    // Event PDUs on the transmitting ports: DNU to the source, its quality to the others.
    auto sent_now = take_sent();
    ASSERT_EQ(sent_now.size(), 3U);
    for (const sent_pdu& pdu : sent_now) {
        EXPECT_TRUE(pdu.event);
        EXPECT_EQ(pdu.quality, pdu.port == 1 ? QL_DNU : QL_SSU_A);
    }
    hear(1, QL_SSU_A);  // nothing new: neither request nor PDU
    EXPECT_TRUE(take_requests().empty());
    EXPECT_TRUE(take_sent().empty());

    hear(2, QL_PRC);
    EXPECT_EQ(take_requests(), std::vector{select_request(2)});
    EXPECT_EQ(last_qualities(),
              (std::map<std::uint32_t, std::uint8_t>{{1, QL_PRC}, {2, QL_DNU}, {3, QL_PRC}}));
}

// Repeated PDUs skip the walk over the ports only as long as nothing else happened.
TEST_F(selection, a_repeated_pdu_selects_again_after_anything_that_matters) {
    add_port(1);
    add_port(2);
    run_as_the_daemon();
    const auto again = [this] {
        hear(1, QL_PRC);
        hear(2, QL_SSU_A);
        hear(2, QL_SSU_A);
        ASSERT_EQ(selected(), 1U);
    };
    again();
    hear(1, QL_DNU);
    hear(2, QL_SSU_A);
    EXPECT_EQ(selected(), 2U) << "a DNU";
    again();
    in_event([this] { EXPECT_EQ(ssm_opts_set_local_quality(QL_SSU_A, SSM_OPTION_1), 0); });
    in_event([this] { EXPECT_EQ(ssm_opts_set_port_quality(intf(1), SSM_ESMC_RX, "ssu-b"), 0); });
    hear(2, QL_SSU_A);
    EXPECT_EQ(selected(), 0U) << "a command";
    in_event([this] { EXPECT_EQ(ssm_opts_set_port_quality(intf(1), SSM_ESMC_RX, "na"), 0); });
    again();
    pass(5000, {{2, QL_SSU_A}});
    EXPECT_EQ(selected(), 0U) << "a time-out; port 2 is no better than the switch";
    again();
    dpll(SSM_DPLL_FREERUN);
    EXPECT_EQ(g_s_master->current_quality, QL_SSU_A);
    hear(2, QL_SSU_A);
    EXPECT_EQ(g_s_master->current_quality, QL_PRC) << "a report of the hardware";
}

TEST_F(selection, without_ssm_priorities_alone_decide) {
    ASSERT_EQ(ssm_opts_set_ssm_enable(0), 0);
    add_port(1);
    add_port(2);
    EXPECT_EQ(selected(), 0U);  // 255 is not below the switch's own 255
    ASSERT_EQ(ssm_opts_set_port_priority(intf(2), 9), 0);
    EXPECT_EQ(selected(), 2U);
    ASSERT_EQ(ssm_opts_set_port_priority(intf(1), 9), 0);
    EXPECT_EQ(selected(), 1U);  // equal priorities: the smaller index
    ASSERT_EQ(ssm_opts_set_local_priority(5), 0);
    EXPECT_EQ(selected(), 0U);
    ASSERT_EQ(ssm_opts_set_device_type(SSM_SLAVE_ONLY), 0);
    EXPECT_EQ(selected(), 1U);
    link_down(1);
    EXPECT_EQ(selected(), 2U);
    pass(3000);
    EXPECT_TRUE(take_sent().empty());
}

}  // namespace
