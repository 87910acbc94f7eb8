// Hold-off, wait-to-restore, lockout, limits, manual switch and non-revertive operation, to the millisecond;
// and which of two of them wins.
#include "core/supervision.h"

#include "scenario/sim.h"

namespace {

class supervision : public sim {
  protected:
    void SetUp() override {
        sim::SetUp();
        add_ports({1, 2, 3});
    }
    // Ports 1 and 2 offer these, for `ms`; port 1 is the source.
    void both(std::uint32_t ms = 1000, std::uint8_t first = QL_PRC, std::uint8_t second = QL_PRC) {
        hear(1, first);
        hear(2, second);
        pass(ms, {{1, first}, {2, second}});
    }
    const char* manual(std::uint32_t index) {
        const char* why = nullptr;
        (void)ssm_opts_manual_switch(intf(index), &why);
        return why;
    }
};

TEST_F(supervision, hold_off_lets_short_failures_pass) {
    ASSERT_EQ(ssm_opts_set_hold_off(299), SSM_CLI_E_INVALID_INPUT);
    ASSERT_EQ(ssm_opts_set_hold_off(600), 0);
    both();
    EXPECT_EQ(source_after(link_down(1)), 1U);
    advance(599);
    EXPECT_EQ(source_after(link_up(1)), 1U);
    advance(5000 - 599);
    hear(2, QL_PRC);
    EXPECT_EQ(selected(), 1U);  // silent for 5 s: the same time again
    advance(599);
    EXPECT_EQ(selected(), 1U);
    hear(1, QL_PRC);
    hear(1, QL_DNU);  // what is heard passes at once
    EXPECT_EQ(source_after(hear(2, QL_SSU_A)), 2U);

    ASSERT_EQ(ssm_opts_set_port_hold_off(intf(2), 300), 0);  // the port's own is stronger
    link_down(2);
    advance(299);
    EXPECT_EQ(std::pair(selected(), port(2)->link_up), std::pair(2U, 1U));
    advance(1);
    EXPECT_EQ(std::pair(selected(), port(2)->link_up), std::pair(0U, 0U));
    link_down(3);  // offers nothing
    EXPECT_EQ(port(3)->link_up, 0U);
    lock_to(1);
    link_down(1);
    EXPECT_EQ(source_after(unbind(1)), 0U);
}

TEST_F(supervision, restored_sources_wait) {
    ASSERT_EQ(ssm_opts_set_restore(721), SSM_CLI_E_INVALID_INPUT);
    ASSERT_EQ(ssm_opts_set_restore(60), 0);
    both();
    EXPECT_EQ(selected(), 1U);  // not at start
    hear(1, QL_DNU);
    hear(2, QL_PRC);
    EXPECT_EQ(source_after(hear(1, QL_PRC)), 1U);  // not after a quality
    link_down(1);
    EXPECT_EQ(selected(), 2U);
    link_up(1);
    both(58'000);
    EXPECT_EQ(ssm_candidate_check(port(1)), ssm_refusal::waiting_to_restore);
    link_down(1);
    link_up(1);
    hear(1, QL_PRC);  // without a fault from here on
    both(59'000);
    advance(999);
    EXPECT_EQ(selected(), 2U);
    advance(1);
    EXPECT_EQ(selected(), 1U);

    link_down(2);
    link_up(2);
    hear(2, QL_PRC);
    ASSERT_EQ(ssm_candidate_check(port(2)), ssm_refusal::waiting_to_restore);
    ASSERT_EQ(ssm_opts_end_restore(nullptr), 0);
    EXPECT_EQ(ssm_candidate_check(port(2)), ssm_refusal::none);
    ASSERT_EQ(ssm_opts_set_port_restore(intf(2), 0), 0);
    link_down(2);
    link_up(2);
    hear(2, QL_PRC);
    EXPECT_EQ(ssm_candidate_check(port(2)), ssm_refusal::none);
}

TEST_F(supervision, what_is_a_failure_and_when_it_is_over) {
    ASSERT_EQ(ssm_opts_set_restore(60), 0);
    both();
    link_down(1);
    hear(1, QL_PRC);  // had been on its way
    advance(60'000);
    link_up(1);
    hear(1, QL_PRC);
    EXPECT_EQ(ssm_restore_left_s(port(1)), 60U);
    ASSERT_EQ(ssm_opts_end_restore(port(1)), 0);
    // Whose quality is the operator's word need not speak, and a port that failed begins to wait with it.
    ASSERT_EQ(ssm_opts_set_port_quality(intf(1), 1, "prc"), 0);
    advance(5000);
    EXPECT_EQ(ssm_candidate_check(port(1)), ssm_refusal::none);
    EXPECT_EQ(ssm_candidate_check(port(2)), ssm_refusal::nothing_received);
    ASSERT_EQ(ssm_opts_set_port_quality(intf(2), 1, "prc"), 0);
    EXPECT_EQ(ssm_restore_left_s(port(2)), 60U);
}

TEST_F(supervision, limits) {
    both(1000, QL_PRC, QL_SSU_A);
    ASSERT_EQ(ssm_opts_set_port_limit(intf(1), SSM_ESMC_RX, ssm_limit::maximum, "ssu-b"), 0);
    EXPECT_EQ(selected(), 2U);
    ASSERT_EQ(ssm_opts_set_port_limit(intf(2), SSM_ESMC_RX, ssm_limit::minimum, "prc"), 0);
    EXPECT_EQ(std::pair(selected(), g_s_master->current_quality), std::pair(1U, std::uint32_t{QL_SSU_B}));
    ASSERT_EQ(ssm_opts_set_port_limit(intf(2), SSM_ESMC_TX, ssm_limit::minimum, "ssu-a"), 0);
    take_sent();
    pass(1000);
    EXPECT_EQ(last_qualities(), (qualities{{1, QL_DNU}, {2, QL_DNU}, {3, QL_SSU_B}}));
    ASSERT_EQ(ssm_opts_set_port_limit(intf(3), SSM_ESMC_TX, ssm_limit::maximum, "eec1"), 0);
    ASSERT_EQ(ssm_opts_set_port_limit(intf(2), SSM_ESMC_TX, ssm_limit::minimum, "na"), 0);
    pass(1000);
    EXPECT_EQ(last_qualities(), (qualities{{1, QL_DNU}, {2, QL_SSU_B}, {3, QL_EEC1}}));
}

TEST_F(supervision, a_port_that_may_not_be_chosen_keeps_no_silent_source) {
    for (const bool locked_out : {true, false}) {
        both();
        ASSERT_EQ(ssm_opts_set_port_quality(intf(3), 1, "eec1"), 0);
        ASSERT_EQ(ssm_opts_set_port_lockout(intf(3), locked_out), 0);
        ASSERT_EQ(
            ssm_opts_set_port_limit(intf(3), SSM_ESMC_RX, ssm_limit::minimum, locked_out ? "na" : "prc"), 0);
        EXPECT_EQ(selected(), 1U);
        EXPECT_EQ(source_after(advance(5000)), 0U) << locked_out;
    }
}

TEST_F(supervision, lockout_then_force_then_quality_then_manual) {
    both();
    EXPECT_EQ(manual(2), nullptr);
    EXPECT_EQ(selected(), 2U);  // against the priority
    EXPECT_STREQ(manual(3), "nothing received");
    hear(1, QL_PRC);
    EXPECT_EQ(selected(), 2U);
    hear(2, QL_SSU_A);
    EXPECT_EQ(selected(), 1U);  // not against the quality
    EXPECT_EQ(g_s_master->manual_port, nullptr);
    EXPECT_STREQ(manual(2), "another port offers a better quality");

    hear(2, QL_PRC);
    EXPECT_EQ(manual(2), nullptr);
    ASSERT_EQ(ssm_opts_set_force_port(port(1)), 0);
    EXPECT_EQ(std::pair(selected(), g_s_master->manual_port), std::pair(1U, static_cast<ssm_port*>(nullptr)));
    EXPECT_STREQ(manual(2), "the source is forced");
    ASSERT_EQ(ssm_opts_set_port_lockout(intf(1), 1), 0);
    EXPECT_EQ(selected(), 0U);
    ASSERT_EQ(ssm_opts_clear_switch(), 0);
    EXPECT_EQ(selected(), 2U);
    ASSERT_EQ(ssm_opts_set_port_lockout(intf(1), 0), 0);
    EXPECT_EQ(selected(), 1U);
    EXPECT_EQ(manual(2), nullptr);
    link_down(2);
    EXPECT_EQ(std::pair(selected(), g_s_master->manual_port), std::pair(1U, static_cast<ssm_port*>(nullptr)));
    EXPECT_EQ(ssm_opts_clear_switch(), 0);  // with nothing set
}

TEST_F(supervision, non_revertive_stays_but_never_below_a_better_quality) {
    ASSERT_EQ(ssm_opts_set_non_revertive(1), 0);
    lock_to(2);
    EXPECT_EQ(source_after(hear(1, QL_PRC)), 2U);
    ASSERT_EQ(ssm_opts_set_port_priority(intf(1), 1), 0);
    EXPECT_EQ(source_after(hear(1, QL_PRC)), 2U);
    hear(2, QL_SSU_A);
    EXPECT_EQ(selected(), 1U);
    EXPECT_EQ(source_after(hear(2, QL_PRC)), 1U);
    EXPECT_EQ(manual(2), nullptr);
    EXPECT_EQ(selected(), 2U);
    ASSERT_EQ(ssm_opts_clear_switch(), 0);
    EXPECT_EQ(selected(), 2U);
    ASSERT_EQ(ssm_opts_set_non_revertive(0), 0);
    EXPECT_EQ(selected(), 1U);
}

}  // namespace
