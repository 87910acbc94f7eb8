// What each port advertises: the layers of overrides, the extension, and the octets on the wire.
#include "scenario/sim.h"

namespace {

class transmit : public sim {
  protected:
    void SetUp() override {
        sim::SetUp();
        add_ports({1, 2, 3, 4});
        take_requests();
    }
};

TEST_F(transmit, plain_pdu_octet_by_octet) {
    hear(1, QL_SSU_A);
    std::vector<std::uint8_t> expected = {0x0A, 0x00, 0x19, 0xA7, 0x00, 0x01, 0x18,
                                          0,    0,    0,    0x01, 0x00, 0x04, 0x04};
    expected.resize(46);
    EXPECT_EQ(take_sent().back().payload, expected);
    pass(1000);
    expected[6] = 0x10;
    EXPECT_EQ(take_sent().back().payload, expected);
}

TEST_F(transmit, extension_says_whose_clock_it_is_and_how_far) {
    // The last 32 octets of the next PDU, and what they must be: head, identity, hop count, zeros.
    const auto sent_extension = [this] {
        pass(1000);
        const auto payload = take_sent().back().payload;
        return std::vector<std::uint8_t>(payload.begin() + 14, payload.end());
    };
    const auto extension = [](std::array<std::uint8_t, 8> id, std::uint8_t hops) {
        std::vector<std::uint8_t> all(32);
        std::copy(id.begin(), id.end(), all.begin() + 3);
        all[0] = 2;
        all[2] = 12;
        all[11] = hops;
        return all;
    };
    constexpr std::array<std::uint8_t, 8> own = {0x00, 0x11, 0x22, 0xFF, 0xFE, 0x33, 0x44, 0x55},
                                          theirs = {9, 8, 7, 0xFF, 0xFE, 6, 5, 4};
    bridge({2, 3, 4, 5, 6, 7});
    ASSERT_EQ(ssm_opts_set_ssm_extend(1), 0);
    EXPECT_EQ(sent_extension(), extension({2, 3, 4, 0xFF, 0xFE, 5, 6, 7}, 0));
    bridge({0x00, 0x11, 0x22, 0x33, 0x44, 0x55});
    EXPECT_EQ(sent_extension(), extension(own, 0));
    hear(1, {.extended = true, .clock_id = theirs, .hops = 254});
    EXPECT_EQ(sent_extension(), extension(theirs, 255));
    hear(1, {.extended = true, .clock_id = theirs, .hops = 255});
    EXPECT_EQ(sent_extension(), extension(theirs, 0));
    ASSERT_EQ(ssm_opts_set_port_replace_clockid(intf(1), 1), 0);
    EXPECT_EQ(sent_extension(), extension(own, 0));
    ASSERT_EQ(ssm_opts_set_port_replace_clockid(intf(1), 0), 0);
    // The fourth octet alone tells a real identity from none.
    hear(1, {.extended = true, .clock_id = {9, 8, 7, 0, 0xFE, 6, 5, 4}, .hops = 3});
    EXPECT_EQ(sent_extension(), extension(own, 4));
    EXPECT_EQ(ssm_pdu_format_ssmdu(nullptr, 1), -1);
}

TEST_F(transmit, master_only_tells_a_new_quality_at_once) {
    ASSERT_EQ(ssm_opts_set_device_type(SSM_MASTER_ONLY), 0);
    pass(1000);
    take_sent();
    ASSERT_EQ(ssm_opts_set_local_quality(QL_PRC, SSM_OPTION_1), 0);
    EXPECT_EQ(told_at_once(), (qualities{{1, QL_PRC}, {2, QL_PRC}, {3, QL_PRC}, {4, QL_PRC}}));
    EXPECT_EQ(after(ssm_opts_set_ssm_enable(0)), outcome(0, QL_DNU, {}));
    EXPECT_EQ(after(ssm_opts_set_local_quality(QL_EEC1, SSM_OPTION_1)), outcome(0, QL_DNU, {}));
    EXPECT_TRUE(take_sent().empty());
}

TEST_F(transmit, leaving_master_only_forgets_and_takes_a_forced_quality_at_once) {
    EXPECT_EQ(source_after(ssm_opts_set_port_quality(intf(2), SSM_ESMC_RX, "ssu-a")), 2U)
        << "a forced quality needs no PDU";
    EXPECT_EQ(source_after(ssm_opts_set_device_type(SSM_MASTER_ONLY)), 0U);
    EXPECT_EQ(source_after(ssm_opts_set_device_type(SSM_DEFAULT_ROLE)), 2U);
    EXPECT_EQ(g_s_master->current_quality, QL_SSU_A);
    EXPECT_EQ(port(1)->recv_quality, QL_NONE);
}

TEST_F(transmit, option_can_not_change_under_forced_qualities) {
    const auto force = [this](ssm_esmc_mode direction, const char* token) {
        return ssm_opts_set_port_quality(intf(1), direction, token);
    };
    ASSERT_EQ(force(SSM_ESMC_RX, "prc"), 0);
    ASSERT_EQ(force(SSM_ESMC_TX, "ssu-a"), 0);
    EXPECT_EQ(ssm_opts_set_local_quality(QL_PRS, SSM_OPTION_2), SSM_CLI_E_OPTION_COLLISION);
    EXPECT_EQ(g_s_master->ql_option, SSM_OPTION_1);
    EXPECT_EQ(force(SSM_ESMC_RX, "prs"), SSM_CLI_E_QL_OPTION1);
    for (const auto direction : {SSM_ESMC_RX, SSM_ESMC_TX}) ASSERT_EQ(force(direction, "na"), 0);
    EXPECT_EQ(ssm_opts_set_local_quality(QL_PRS, SSM_OPTION_2), 0);
    EXPECT_EQ(force(SSM_ESMC_RX, "ssu-a"), SSM_CLI_E_QL_OPTION2);
    ASSERT_EQ(force(SSM_ESMC_RX, "tnc"), 0);
    EXPECT_EQ(ssm_opts_set_local_quality(QL_DNU, SSM_OPTION_1), SSM_CLI_E_OPTION_COLLISION);
}

}  // namespace
