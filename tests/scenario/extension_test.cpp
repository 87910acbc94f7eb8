// The extended TLV in the standard's form: what is taken from it, how its qualities rank, and what is passed
// on.
#include "core/extension.h"

#include "scenario/sim.h"

namespace {

constexpr std::array<std::uint8_t, 8> THEIRS = {0x0A, 0x0B, 0x0C, 0xFF, 0xFE, 0x0D, 0x0E, 0x0F},
                                      OURS = {2, 3, 4, 0xFF, 0xFE, 5, 6, 7};

struct standard_tlv {
    std::uint8_t quality, enhanced;
    std::array<std::uint8_t, 8> id = THEIRS;
    std::uint8_t flags = 0, eeec = 0, eec = 0;
    std::uint16_t length = 20;
    bool operator==(const standard_tlv&) const = default;
};

class extension : public sim {
  protected:
    void SetUp() override {
        sim::SetUp();
        bridge({2, 3, 4, 5, 6, 7});
        add_ports({1, 2});
        ASSERT_EQ(ssm_opts_set_ssm_extend(1), 0);
        ASSERT_EQ(ssm_opts_set_extend_form(SSM_FORM_STANDARD), 0);
    }
    int hear_tlv(std::uint32_t index, const standard_tlv& tlv) {
        message frame = esmc_frame({.quality = tlv.quality,
                                    .extended = true,
                                    .clock_id = tlv.id,
                                    .standard = true,
                                    .enhanced = tlv.enhanced,
                                    .flags = tlv.flags,
                                    .eeec = tlv.eeec,
                                    .eec = tlv.eec});
        put_be16(octets(frame).subspan(PDU_AT), 15, tlv.length);
        return hear_raw(index, frame);
    }
    // Of the next PDU on port 2; what is reserved must be zero.
    standard_tlv told() {
        take_sent();
        pass(1000);
        for (const sent_pdu& pdu : take_sent()) {
            if (pdu.port != 2) continue;
            const auto& p = pdu.payload;
            standard_tlv tlv = {p[13], p[17], {}, p[26], p[27], p[28], get_be16(p, 15)};
            std::copy_n(p.begin() + 18, 8, tlv.id.begin());
            EXPECT_TRUE(p[14] == 2 && std::all_of(p.begin() + 29, p.end(), [](auto o) { return o == 0; }));
            return tlv;
        }
        return {};
    }
};

TEST_F(extension, what_the_source_says_is_passed_on_with_our_place_in_it) {
    EXPECT_EQ(told(), (standard_tlv{QL_DNU, 0xFF, OURS, 1, 0, 1}));
    hear_tlv(1, {QL_PRC, 0x20, THEIRS, 3, 2, 5});
    EXPECT_EQ(g_s_master->current_quality, ssm_quality_of(QL_PRC, QL_ENHANCED_PRTC));
    EXPECT_EQ(port(1)->recv_hop_count, 7);
    EXPECT_EQ(told(), (standard_tlv{QL_PRC, 0x20, THEIRS, 3, 2, 6}));
    ASSERT_EQ(ssm_opts_set_clock_type(SSM_CLOCK_EEEC), 0);
    hear_tlv(1, {QL_PRC, 0xFF, THEIRS, 0, 255, 255});
    EXPECT_EQ(port(1)->recv_hop_count, 255);
    EXPECT_EQ(told(), (standard_tlv{QL_PRC, 0xFF, THEIRS, 0, 255, 255}));
    hear(1, QL_PRC);  // no TLV: ours begins in the middle of the chain
    EXPECT_EQ(told(), (standard_tlv{QL_PRC, 0xFF, OURS, 3, 1, 0}));
    hear(1, {.quality = QL_PRC, .extended = true, .clock_id = THEIRS, .hops = 4});  // the own form
    EXPECT_EQ(told(), (standard_tlv{QL_PRC, 0xFF, THEIRS, 3, 1, 4}));
    ASSERT_EQ(ssm_opts_set_port_extend_form(intf(2), SSM_FORM_OWN), 0);
    hear_tlv(1, {QL_PRC, 0x23, THEIRS, 0, 2, 5});
    take_sent();
    pass(1000);
    const auto own = take_sent().back().payload;
    EXPECT_EQ(std::tuple(own[13], own[16], own[25]), std::tuple(QL_PRC, 12, 8));
    EXPECT_TRUE(std::equal(THEIRS.begin(), THEIRS.end(), own.begin() + 17));
}

TEST_F(extension, lengths_tell_the_forms_apart) {
    hear_tlv(1, {QL_PRC, 0x20, THEIRS, 0, 1, 1, 19});
    EXPECT_EQ(std::tuple(g_s_master->current_quality, port(1)->recv_hop_count, port(1)->statistics->bad_tlvs),
              std::tuple(std::uint32_t{QL_PRC}, 0, std::uint64_t{1}));
    EXPECT_FALSE(ssm_clock_id_named(port(1)->recv_clockid));
    hear_tlv(1, {QL_SSU_A, 0x20, THEIRS, 0, 1, 1});  // no such pair
    EXPECT_EQ(g_s_master->current_quality, std::uint32_t{QL_SSU_A});
    ASSERT_EQ(ssm_opts_set_ssm_extend(0), 0);
    hear_tlv(1, {QL_PRC, 0x20});
    EXPECT_EQ(g_s_master->current_quality, std::uint32_t{QL_PRC});
}

TEST_F(extension, enhanced_qualities_rank_before_their_ssm_code) {
    const auto ranked = [](std::initializer_list<const char*> tokens) {
        ssm_quality better = 0, quality = 0;
        for (const char* token : tokens) {
            EXPECT_EQ(ssm_ql_parse(token, &quality), 0);
            if (better) {
                EXPECT_EQ(ssm_ql_compare(better, quality), -1) << token;
            }
            EXPECT_STREQ(ssm_ql_to_token(quality), token);
            better = quality;
        }
    };
    ranked({"eprtc", "prtc", "eprc", "prc", "ssu-a", "ssu-b", "eeec", "eec1", "dnu"});
    hear_tlv(1, {QL_PRC, 0xFF});
    EXPECT_EQ(source_after(hear_tlv(2, {QL_PRC, 0x23})), 2U);
    ASSERT_EQ(ssm_opts_set_local_quality(QL_DNU, SSM_OPTION_2), 0);
    ranked(
        {"eprtc", "prtc", "eprc", "prs", "stu", "st2", "tnc", "st3e", "eeec", "eec2", "smc", "prov", "dus"});
}

}  // namespace
