// Ports that come, flap and go, and an NSM that does the same: nothing that was freed stays reachable, counts
// stay true, and the neighbours see only what really changed.
#include "scenario/sim.h"

namespace {

class ports : public sim {
  protected:
    void SetUp() override {
        sim::SetUp();
        enable();
    }
};

TEST_F(ports, removal_leaves_no_reference_and_takes_its_counts_along) {
    add_port(1);
    add_port(2);
    ASSERT_EQ(ssm_opts_set_port_quality(intf(1), SSM_ESMC_RX, "prc"), 0);
    ASSERT_EQ(ssm_opts_set_port_quality(intf(1), SSM_ESMC_TX, "prc"), 0);
    g_s_master->gephy_dynamic = 1;
    hear(1, QL_PRC);
    ASSERT_EQ(ssm_opts_set_force_port(port(1)), 0);
    port(1)->gephy_by_command = 1;
    g_s_master->gephy_manual_count = 1;
    ASSERT_EQ(selected(), 1U);

    unbind(1);
    EXPECT_EQ(intf(1), nullptr);
    EXPECT_EQ(g_s_master->selected_port, nullptr);
    EXPECT_EQ(g_s_master->force_port, nullptr);
    EXPECT_EQ(g_s_master->gephy_dynamic_intf, nullptr);
    EXPECT_EQ(g_s_master->forced_ql_count_op1, 0U);
    EXPECT_EQ(g_s_master->gephy_manual_count, 0U);
    EXPECT_EQ(ssm_opts_set_local_quality(QL_PRS, SSM_OPTION_2), 0);
    advance(7000);  // a timer of the freed record would run now
}

TEST_F(ports, a_free_running_switch_may_lose_its_ports_too) {
    ASSERT_EQ(ssm_opts_set_global_enable(0), 0);
    add_port(1);
    g_s_master->selected_port = port(1);
    unbind(1);
    EXPECT_EQ(g_s_master->selected_port, nullptr);
}

TEST_F(ports, unbound_ports_keep_their_place_and_start_from_defaults) {
    add_port(1);
    add_port(2);
    ASSERT_EQ(ssm_opts_set_port_priority(intf(1), 7), 0);
    unbind(1, false);
    ASSERT_NE(intf(1), nullptr);
    EXPECT_EQ(port(1), nullptr);
    EXPECT_EQ(ssm_opts_set_port_priority(intf(1), 7), SSM_CLI_E_INVALID_IF);
    add_port(1, true, false);
    EXPECT_EQ(port(1)->priority, SSM_PRIORITY_NONE);
    EXPECT_EQ(g_p_esmcd->ifm.items[0], intf(1)) << "the list keeps the order of first addition";
    EXPECT_EQ(ssm_port_create(intf(1)), SSM_E_HAVE_EXIST);
}

TEST_F(ports, link_events_that_change_nothing_change_nothing) {
    EXPECT_EQ(_ssm_nsm_recv_interface_up(nullptr), 0);
    add_port(1);
    lock_to(1);
    link_up(1);
    EXPECT_EQ(selected(), 1U);
    link_down(1);
    EXPECT_EQ(port(1)->send_timer, nullptr);
    EXPECT_EQ(port(1)->recv_quality, QL_NONE);
    take_requests();
    link_down(1);
    EXPECT_TRUE(take_requests().empty());
    link_up(1);
    EXPECT_NE(port(1)->send_timer, nullptr);
    EXPECT_EQ(selected(), 0U);
    if_master* ifm = &g_p_esmcd->ifm;
    interface* other = if_add(ifm, "mgmt0", 99, 1);
    EXPECT_EQ(ssm_port_create(other), 0);
    EXPECT_EQ(other->port, nullptr);
    interface* bare = if_add(ifm, "p98", 98, IF_TYPE_SYNCE);
    EXPECT_EQ(_ssm_nsm_recv_interface_down(bare), SSM_E_NOT_EXIST);
    EXPECT_EQ(ssm_port_delete(bare), SSM_E_NOT_EXIST);
}

TEST_F(ports, a_send_timer_that_finds_its_link_down_stops) {
    add_port(1);
    port(1)->link_up = 0;
    advance(1000);
    EXPECT_EQ(port(1)->send_timer, nullptr);
    EXPECT_TRUE(take_sent().empty());
}

TEST_F(ports, bridge_address_becomes_the_clock_identity) {
    bridge({0x00, 0x11, 0x22, 0x33, 0x44, 0x55});
    EXPECT_STREQ(ssm_clock_id_str(g_s_master->clock_id), "00:11:22:FF:FE:33:44:55");
    bridge({0x02, 0x11, 0x22, 0x33, 0x44, 0x55});
    EXPECT_EQ(g_s_master->clock_id[0], 2);
}

TEST_F(ports, a_restarting_nsm_goes_unnoticed_and_is_told_again) {
    add_port(1);
    add_port(2);
    hear(1, QL_PRC);
    take_requests();
    take_sent();
    nsm_vanishes();
    daemon->links = {port_body(1), port_body(2)};
    pass(4000, {{1, QL_PRC}});
    EXPECT_EQ(selected(), 1U);
    EXPECT_EQ(g_s_master->current_quality, QL_PRC);
    const auto pdus = take_sent();
    EXPECT_EQ(pdus.size(), 8U);
    for (const sent_pdu& pdu : pdus) {
        EXPECT_FALSE(pdu.event);
        EXPECT_EQ(pdu.quality, pdu.port == 1 ? QL_DNU : QL_PRC);
    }
    EXPECT_EQ(take_requests(), (std::vector{enable_request(1), select_request(1)}));
}

}  // namespace
