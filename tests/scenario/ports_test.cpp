// Ports that come, flap and go, and an NSM that does the same: nothing that was freed stays reachable, counts
// stay true, and the neighbours see only what really changed.
#include "scenario/sim.h"

namespace {

using ports = sim;

TEST_F(ports, unbound_ports_keep_their_place_and_start_from_defaults) {
    add_ports({1, 2});
    ASSERT_EQ(ssm_opts_set_port_priority(intf(1), 7), 0);
    unbind(1, false);
    ASSERT_NE(intf(1), nullptr);
    EXPECT_EQ(port(1), nullptr);
    EXPECT_EQ(ssm_opts_set_port_priority(intf(1), 7), SSM_CLI_E_INVALID_IF);
    EXPECT_EQ(add_port(1, true, false)->priority, SSM_PRIORITY_NONE);
    EXPECT_EQ(g_p_esmcd->ifm->items[0], intf(1)) << "the list keeps the order of first addition";
    EXPECT_EQ(ssm_port_create(intf(1)), SSM_E_HAVE_EXIST);
}

TEST_F(ports, link_events_that_change_nothing_change_nothing) {
    EXPECT_EQ(_ssm_nsm_recv_interface_up(nullptr), 0);
    add_port(1);
    lock_to(1);
    EXPECT_EQ(source_after(link_up(1)), 1U);
    link_down(1);
    EXPECT_EQ(port(1)->send_timer, nullptr);
    EXPECT_EQ(port(1)->recv_quality, QL_NONE);
    take_requests();
    link_down(1);
    EXPECT_TRUE(take_requests().empty());
    link_up(1);
    EXPECT_NE(port(1)->send_timer, nullptr);
    EXPECT_EQ(selected(), 0U);
    port(1)->link_up = 0;  // as a send timer may find it
    take_sent();
    advance(1000);
    EXPECT_TRUE(port(1)->send_timer == nullptr && take_sent().empty());
    interface* other = if_add(g_p_esmcd->ifm, "mgmt0", 99, 1);
    EXPECT_EQ(ssm_port_create(other), 0);
    EXPECT_EQ(other->port, nullptr);
    interface* bare = if_add(g_p_esmcd->ifm, "p98", 98, IF_TYPE_SYNCE);
    EXPECT_EQ(_ssm_nsm_recv_interface_down(bare), SSM_E_NOT_EXIST);
}

TEST_F(ports, a_restarting_nsm_goes_unnoticed_and_is_told_again) {
    add_ports({1, 2});
    lock_to(1);
    daemon->end_link();
    daemon->turn();  // the client sees the end, closes its side, and finds a new one at its next try
    daemon->links = {port_body(1), port_body(2)};
    EXPECT_EQ(after(pass(4000, {{1, QL_PRC}})), outcome(1, QL_PRC, {global(1), source(1)}));
    const auto pdus = take_sent();
    EXPECT_EQ(pdus.size(), 8U);
    for (const sent_pdu& pdu : pdus) {
        EXPECT_FALSE(pdu.event);
        EXPECT_EQ(pdu.quality, pdu.port == 1 ? QL_DNU : QL_PRC);
    }
}

}  // namespace
