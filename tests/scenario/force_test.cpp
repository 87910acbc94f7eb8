// Force switch, holdover, free-run, and what the DPLL's reports do to the advertised quality.
#include "scenario/sim.h"

namespace {

class force : public sim {
  protected:
    void SetUp() override {
        sim::SetUp();
        add_ports({1, 2});
        take_requests();
    }
};

TEST_F(force, free_run_knows_no_holdover) {
    link_down(1);
    link_down(2);
    pass(6000);
    EXPECT_EQ(take_requests(), requests{});
    EXPECT_STREQ(ssm_clock_state_str(), "FreeRun");
    link_up(1);
    lock_to(1);
    EXPECT_STREQ(ssm_clock_state_str(), "Lock");
    link_down(1);
    EXPECT_STREQ(ssm_clock_state_str(), "Holdover");
    link_down(1);
    pass(6000);
    EXPECT_EQ(take_requests(), requests{holdover(true)}) << "holdover is requested once";
}

TEST_F(force, forced_port_wins_over_a_better_one_until_cleared) {
    hear(1, QL_PRC);
    EXPECT_EQ(after(hear(2, QL_SSU_A)), outcome(1, QL_PRC, {source(1)}));
    EXPECT_EQ(after(ssm_opts_set_force_port(port(2))), outcome(2, QL_SSU_A, {source(2)}));
    ASSERT_EQ(ssm_opts_set_force_port(port(2)), 0);
    EXPECT_EQ(after(hear(1, QL_PRC)), outcome(2, QL_SSU_A, {}));

    EXPECT_EQ(source_after(ssm_opts_clear_force()), 0U);
    EXPECT_EQ(after(hear(1, QL_PRC)), outcome(1, QL_PRC, {holdover(true), holdover(false), source(1)}));
    EXPECT_EQ(after(ssm_opts_clear_force()), outcome(1, QL_PRC, {}));
}

TEST_F(force, forced_port_without_quality_is_selected_and_silences_the_switch) {
    EXPECT_EQ(after(ssm_opts_set_force_port(port(1))), outcome(1, QL_DNU, {source(1)}));
    take_sent();
    pass(3000);
    EXPECT_TRUE(take_sent().empty());
    EXPECT_EQ(port(2)->send_quality, QL_NONE);
    hear(1, QL_SSU_A);
    pass(1000);
    EXPECT_EQ(last_qualities(), (qualities{{1, QL_DNU}, {2, QL_SSU_A}}));
}

TEST_F(force, forced_port_that_says_dnu_or_goes_down_means_holdover) {
    lock_to(1);
    hear(2, QL_DNU);
    EXPECT_EQ(after(ssm_opts_set_force_port(port(2))), outcome(0, QL_DNU, {holdover(true)}));
    EXPECT_EQ(after(hear(2, QL_SSU_B)), outcome(2, QL_SSU_B, {holdover(false), source(2)}));
    EXPECT_EQ(std::get<requests>(after(link_down(2))).back(), holdover(true))
        << "nobody chose the other port";
    EXPECT_EQ(after(0), outcome(0, QL_DNU, {}));
    ASSERT_EQ(ssm_opts_set_ssm_enable(0), 0);
    link_up(2);
    EXPECT_EQ(source_after(ssm_opts_set_force_port(port(2))), 2U) << "without SSM";
    EXPECT_EQ(g_s_master->current_quality, QL_DNU) << "nothing is claimed";
}

TEST_F(force, e1_input) {
    ASSERT_EQ(ssm_opts_set_e1_quality("ssu-b"), 0);
    lock_to(1);
    EXPECT_EQ(after(ssm_opts_force_e1(1)), outcome(0, QL_SSU_B, {}))
        << "the external input is no interface to name to NSM";
    EXPECT_EQ(source_after(hear(1, QL_PRC)), 0U);
    take_sent();
    pass(1000);
    EXPECT_EQ(last_qualities()[2], QL_SSU_B);

    g_s_master->force_port = port(1);
    EXPECT_EQ(ssm_opts_clear_force(), SSM_CLI_E_FORCE_CONFLICT);
    g_s_master->force_port = nullptr;
    EXPECT_EQ(ssm_opts_clear_force(), 0);
    EXPECT_EQ(g_s_master->force_e1, 0U);
    ASSERT_EQ(ssm_opts_set_local_quality(QL_DNU, SSM_OPTION_2), 0);
    EXPECT_EQ(ssm_opts_set_e1_quality("prs"), SSM_CLI_E_QL_OPTION2);
}

TEST_F(force, dpll_in_holdover_keeps_a_received_quality_from_being_advertised) {
    lock_to(1);
    EXPECT_EQ(after(dpll(SSM_DPLL_HOLDOVER)), outcome(1, QL_EEC1, {}));
    EXPECT_TRUE(take_sent().empty()) << "a report sends nothing by itself";
    EXPECT_EQ(after(hear(1, QL_PRC)), outcome(1, QL_EEC1, {}));
    EXPECT_EQ(after(ssm_opts_set_port_quality(intf(1), SSM_ESMC_RX, "ssu-a")), outcome(1, QL_SSU_A, {}))
        << "a forced quality is the operator's word";
    ASSERT_EQ(ssm_opts_set_port_quality(intf(1), SSM_ESMC_RX, "na"), 0);

    dpll(SSM_DPLL_LOCK, 2);
    EXPECT_EQ(g_s_master->nsm_source_ifindex, 25U);
    EXPECT_EQ(after(hear(1, QL_PRC)), outcome(1, QL_PRC, {}));
    EXPECT_EQ(after(dpll(SSM_DPLL_FREERUN, 8)), outcome(1, QL_DNU, {}));
    EXPECT_EQ(g_s_master->nsm_source_ifindex, SSM_IFINDEX_E1);
    dpll(5, 77);
    EXPECT_EQ(g_s_master->nsm_source_ifindex, 0U);
}

TEST_F(force, holdover_quality_follows_the_option_and_reports_without_ssm_are_only_recorded) {
    ASSERT_EQ(ssm_opts_set_local_quality(QL_DNU, SSM_OPTION_2), 0);
    lock_to(1, QL_ST2);
    EXPECT_EQ(after(link_down(1)), outcome(0, QL_EEC2, {holdover(true)}));
    const outcome before = after(ssm_opts_set_ssm_enable(0));
    EXPECT_EQ(after(dpll(SSM_DPLL_HOLDOVER)), before);
    EXPECT_EQ(g_s_master->dpll_state, SSM_DPLL_HOLDOVER);
}

TEST_F(force, gephy_role_follows_the_source) {
    const auto slave = [](std::uint32_t index) { return gephy(index, 1, SSM_GEPHY_SLAVE); };
    g_s_master->gephy_dynamic = 1;
    hear(1, QL_SSU_A);
    EXPECT_EQ(take_requests(), (requests{source(1), slave(1)}));
    EXPECT_EQ(g_s_master->gephy_dynamic_intf, intf(1));
    EXPECT_EQ(source_after(link_down(1)), 1U) << "the role change causes it";
    EXPECT_EQ(port(1)->event_skip, 0);
    hear(2, QL_PRC);
    EXPECT_EQ(take_requests(), (requests{source(2), gephy(1, 0, 0), slave(2)}));
    dpll(SSM_DPLL_LOCK, 0);
    EXPECT_EQ(g_s_master->gephy_dynamic_intf, intf(2));
    dpll(SSM_DPLL_HOLDOVER, 0);
    EXPECT_EQ(take_requests(), requests{gephy(2, 0, 0)});
    EXPECT_EQ(g_s_master->gephy_dynamic_intf, nullptr);
}

TEST_F(force, a_gephy_role_set_by_command_is_not_taken_for_the_one_that_selection_set) {
    g_s_master->gephy_dynamic = 1;
    hear(1, QL_PRC);
    ASSERT_EQ(g_s_master->gephy_dynamic_intf, intf(1));
    g_s_master->gephy_dynamic = 0;  // "no clock synce ssm enable"
    ASSERT_EQ(ssm_opts_set_ssm_enable(0), 0);
    ASSERT_EQ(ssm_opts_set_gephy_role(intf(1), 1, SSM_GEPHY_MASTER), 0);
    dpll(SSM_DPLL_HOLDOVER);
    EXPECT_EQ(port(1)->gephy_role_enable, 1U);
}

TEST_F(force, gephy_roles_are_cleared_when_ssm_starts_without_them) {
    ASSERT_EQ(ssm_opts_set_ssm_enable(0), 0);
    ASSERT_EQ(ssm_opts_set_gephy_role(intf(1), 1, SSM_GEPHY_MASTER), 0);
    port(1)->gephy_by_command = 1;
    g_s_master->gephy_manual_count = 1;
    ASSERT_EQ(ssm_opts_set_gephy_role(intf(1), 1, SSM_GEPHY_MASTER), 0);
    ASSERT_EQ(ssm_opts_set_ssm_enable(1), 0);
    EXPECT_EQ(take_requests(), (requests{gephy(1, 1, SSM_GEPHY_MASTER), gephy(1, 0, 0)}));
    EXPECT_EQ(g_s_master->gephy_manual_count, 0U);
}

}  // namespace
