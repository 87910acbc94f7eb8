// What each port advertises: the layers of overrides, the extension, and the octets on the wire.
#include "scenario/sim.h"

namespace {

class transmit : public sim {
  protected:
    void SetUp() override {
        sim::SetUp();
        enable();
        for (std::uint32_t i : {1U, 2U, 3U, 4U}) add_port(i);
    }
};

TEST_F(transmit, overrides_in_their_order) {
    ASSERT_EQ(ssm_opts_set_port_quality(intf(1), SSM_ESMC_TX, "prc"), 0);
    ASSERT_EQ(ssm_opts_set_port_quality(intf(2), SSM_ESMC_TX, "ssu-b"), 0);
    ASSERT_EQ(ssm_opts_set_port_quality(intf(3), SSM_ESMC_TX, "ssu-b"), 0);
    ASSERT_EQ(ssm_opts_set_port_dnu_group(intf(1), 5), 0);
    ASSERT_EQ(ssm_opts_set_port_dnu_group(intf(2), 5), 0);
    ASSERT_EQ(ssm_opts_set_port_dnu_group(intf(4), 6), 0);
    pass(1000);
    EXPECT_EQ(last_qualities(), (std::map<std::uint32_t, std::uint8_t>{
                                    {1, QL_PRC}, {2, QL_SSU_B}, {3, QL_SSU_B}, {4, QL_DNU}}));
    hear(1, QL_SSU_A);
    EXPECT_EQ(last_qualities(), (std::map<std::uint32_t, std::uint8_t>{
                                    {1, QL_DNU}, {2, QL_DNU}, {3, QL_SSU_B}, {4, QL_SSU_A}}));
    EXPECT_EQ(port(2)->send_quality, QL_DNU);
}

TEST_F(transmit, plain_pdu_octet_by_octet) {
    hear(1, QL_SSU_A);
    const auto event = take_sent();
    std::vector<std::uint8_t> expected = {0x0A, 0x00, 0x19, 0xA7, 0x00, 0x01, 0x18,
                                          0,    0,    0,    0x01, 0x00, 0x04, 0x04};
    expected.resize(46);
    EXPECT_EQ(event.back().payload, expected);
    pass(1000);
    expected[6] = 0x10;
    EXPECT_EQ(take_sent().back().payload, expected);
}

TEST_F(transmit, extension_says_whose_clock_it_is_and_how_far) {
    const std::array<std::uint8_t, 8> own = {0x00, 0x11, 0x22, 0xFF, 0xFE, 0x33, 0x44, 0x55};
    bridge({0x00, 0x11, 0x22, 0x33, 0x44, 0x55});
    ASSERT_EQ(ssm_opts_set_ssm_extend(1), 0);
    const auto sent_id = [this] {
        pass(1000);
        const auto payload = take_sent().back().payload;
        EXPECT_EQ(payload[14], 2);
        EXPECT_EQ(payload[15], 0);
        EXPECT_EQ(payload[16], 12);
        EXPECT_TRUE(std::all_of(payload.begin() + 26, payload.end(), [](auto o) { return o == 0; }));
        std::array<std::uint8_t, 9> id_and_hop;
        std::copy_n(payload.begin() + 17, 9, id_and_hop.begin());
        return id_and_hop;
    };
    const auto id_and_hop = [](std::array<std::uint8_t, 8> id, std::uint8_t hop) {
        std::array<std::uint8_t, 9> both;
        std::copy(id.begin(), id.end(), both.begin());
        both[8] = hop;
        return both;
    };
    EXPECT_EQ(sent_id(), id_and_hop(own, 0));

    const std::array<std::uint8_t, 8> theirs = {9, 8, 7, 0xFF, 0xFE, 6, 5, 4};
    hear(1, {.extended = true, .clock_id = theirs, .hops = 254});
    EXPECT_EQ(sent_id(), id_and_hop(theirs, 255));
    hear(1, {.extended = true, .clock_id = theirs, .hops = 255});
    EXPECT_EQ(sent_id(), id_and_hop(theirs, 0));
    ASSERT_EQ(ssm_opts_set_port_replace_clockid(intf(1), 1), 0);
    EXPECT_EQ(sent_id(), id_and_hop(own, 0));
    ASSERT_EQ(ssm_opts_set_port_replace_clockid(intf(1), 0), 0);
    // The fourth octet alone tells a real identity from none.
    hear(1, {.extended = true, .clock_id = {9, 8, 7, 0, 0xFE, 6, 5, 4}, .hops = 3});
    EXPECT_EQ(sent_id(), id_and_hop(own, 4));
    EXPECT_EQ(ssm_pdu_format_ssmdu(nullptr, 1), -1);
}

TEST_F(transmit, master_only_tells_a_new_quality_at_once) {
    ASSERT_EQ(ssm_opts_set_device_type(SSM_MASTER_ONLY), 0);
    pass(1000);
    take_sent();
    ASSERT_EQ(ssm_opts_set_local_quality(QL_PRC, SSM_OPTION_1), 0);
    const auto events = take_sent();
    ASSERT_EQ(events.size(), 4U);
    for (const sent_pdu& pdu : events) {
        EXPECT_TRUE(pdu.event);
        EXPECT_EQ(pdu.quality, QL_PRC);
    }
    ASSERT_EQ(ssm_opts_set_ssm_enable(0), 0);
    EXPECT_EQ(g_s_master->current_quality, QL_DNU);
    ASSERT_EQ(ssm_opts_set_local_quality(QL_EEC1, SSM_OPTION_1), 0);
    EXPECT_EQ(g_s_master->current_quality, QL_DNU);
    EXPECT_TRUE(take_sent().empty());
}

TEST_F(transmit, leaving_master_only_forgets_and_takes_a_forced_quality_at_once) {
    ASSERT_EQ(ssm_opts_set_port_quality(intf(2), SSM_ESMC_RX, "ssu-a"), 0);
    EXPECT_EQ(selected(), 2U) << "a forced quality needs no PDU";
    ASSERT_EQ(ssm_opts_set_device_type(SSM_MASTER_ONLY), 0);
    EXPECT_EQ(selected(), 0U);
    ASSERT_EQ(ssm_opts_set_device_type(SSM_DEFAULT_ROLE), 0);
    EXPECT_EQ(selected(), 2U);
    EXPECT_EQ(g_s_master->current_quality, QL_SSU_A);
    EXPECT_EQ(port(1)->recv_quality, QL_NONE);
}

TEST_F(transmit, option_can_not_change_under_forced_qualities) {
    ASSERT_EQ(ssm_opts_set_port_quality(intf(1), SSM_ESMC_RX, "prc"), 0);
    ASSERT_EQ(ssm_opts_set_port_quality(intf(1), SSM_ESMC_TX, "ssu-a"), 0);
    ASSERT_EQ(ssm_opts_set_port_quality(intf(1), SSM_ESMC_TX, "eec1"), 0);
    EXPECT_EQ(g_s_master->forced_ql_count_op1, 2U);
    EXPECT_EQ(ssm_opts_set_local_quality(QL_PRS, SSM_OPTION_2), SSM_CLI_E_OPTION_COLLISION);
    EXPECT_EQ(g_s_master->ql_option, SSM_OPTION_1);
    EXPECT_EQ(g_s_master->local_quality, QL_DNU);
    EXPECT_EQ(ssm_opts_set_port_quality(intf(1), SSM_ESMC_RX, "prs"), SSM_CLI_E_QL_OPTION1);
    ASSERT_EQ(ssm_opts_set_port_quality(intf(1), SSM_ESMC_RX, "na"), 0);
    ASSERT_EQ(ssm_opts_set_port_quality(intf(1), SSM_ESMC_TX, "na"), 0);
    EXPECT_EQ(g_s_master->forced_ql_count_op1, 0U);
    EXPECT_EQ(ssm_opts_set_local_quality(QL_PRS, SSM_OPTION_2), 0);
    EXPECT_EQ(ssm_opts_set_port_quality(intf(1), SSM_ESMC_RX, "ssu-a"), SSM_CLI_E_QL_OPTION2);
    ASSERT_EQ(ssm_opts_set_port_quality(intf(1), SSM_ESMC_RX, "tnc"), 0);
    EXPECT_EQ(g_s_master->forced_ql_count_op2, 1U);
    EXPECT_EQ(ssm_opts_set_local_quality(QL_DNU, SSM_OPTION_1), SSM_CLI_E_OPTION_COLLISION);
}

}  // namespace
