// What leaves when, what is forgotten when, and which frames are taken at all.
#include "scenario/sim.h"

namespace {

class timers : public sim {
  protected:
    void SetUp() override {
        sim::SetUp();
        enable();
    }
};

TEST_F(timers, first_pdu_a_second_after_the_start_then_one_a_second) {
    const std::uint64_t start = now_ms();
    add_port(1);
    EXPECT_TRUE(take_sent().empty());
    advance(5500);
    const auto pdus = take_sent();
    ASSERT_EQ(pdus.size(), 5U);
    for (std::size_t i = 0; i < pdus.size(); ++i) {
        EXPECT_EQ(pdus[i].at_ms, start + 1000 * (i + 1));
        EXPECT_FALSE(pdus[i].event);
        EXPECT_EQ(pdus[i].quality, QL_DNU);
    }
}

TEST_F(timers, directions_decide_what_is_sent_and_taken) {
    add_port(1);
    ASSERT_EQ(ssm_opts_unset_port_esmc(intf(1), SSM_ESMC_TX), 0);
    EXPECT_EQ(port(1)->esmc_mode, SSM_ESMC_RX);
    hear(1, QL_PRC);
    EXPECT_EQ(selected(), 1U);
    advance(2000);
    EXPECT_TRUE(take_sent().empty());

    ASSERT_EQ(ssm_opts_set_port_esmc(intf(1), SSM_ESMC_TX), 0);  // added to rx: both
    EXPECT_EQ(port(1)->esmc_mode, SSM_ESMC_ALL);
    ASSERT_EQ(ssm_opts_unset_port_esmc(intf(1), SSM_ESMC_RX), 0);
    EXPECT_EQ(port(1)->esmc_mode, SSM_ESMC_TX);
    hear(1, QL_SSU_B);
    EXPECT_EQ(port(1)->recv_quality, QL_PRC) << "a transmit-only port must not take PDUs";
    advance(1000);
    EXPECT_EQ(take_sent().size(), 1U);

    ASSERT_EQ(ssm_opts_unset_port_esmc(intf(1), SSM_ESMC_ALL), 0);
    EXPECT_EQ(port(1)->recv_quality, QL_NONE);
    EXPECT_EQ(port(1)->timeout_timer, nullptr);
    EXPECT_EQ(ssm_opts_set_port_esmc(intf(1), 5), SSM_CLI_E_INVALID_INPUT);
}

struct esmc_transition {
    std::uint32_t before, value, after_add, after_remove;
};

TEST_F(timers, directions_add_and_remove_by_the_table) {
    add_port(1);
    const esmc_transition table[] = {{1, 1, 1, 4}, {1, 2, 3, 1}, {1, 3, 3, 4}, {2, 1, 3, 2},
                                     {2, 2, 2, 4}, {2, 3, 3, 4}, {3, 1, 3, 2}, {3, 2, 3, 1},
                                     {3, 3, 3, 4}, {4, 1, 1, 4}, {4, 2, 2, 4}, {4, 3, 3, 4}};
    for (const esmc_transition& t : table) {
        port(1)->esmc_mode = t.before;
        ASSERT_EQ(ssm_opts_set_port_esmc(intf(1), t.value), 0);
        EXPECT_EQ(port(1)->esmc_mode, t.after_add) << t.before << " add " << t.value;
        port(1)->esmc_mode = t.before;
        ASSERT_EQ(ssm_opts_unset_port_esmc(intf(1), t.value), 0);
        EXPECT_EQ(port(1)->esmc_mode, t.after_remove) << t.before << " remove " << t.value;
    }
}

TEST_F(timers, silence_of_five_seconds_ends_in_holdover) {
    add_port(1);
    lock_to(1);
    advance(4999);
    EXPECT_EQ(selected(), 1U);
    take_sent();
    advance(1);
    EXPECT_EQ(port(1)->recv_pdu, 0U);
    EXPECT_EQ(port(1)->recv_quality, QL_NONE);
    EXPECT_EQ(selected(), 0U);
    EXPECT_EQ(g_s_master->current_quality, QL_EEC1);
    EXPECT_EQ(take_requests(), std::vector{holdover_request(true)});
    const auto pdus = take_sent();
    ASSERT_FALSE(pdus.empty());
    EXPECT_TRUE(std::any_of(pdus.begin(), pdus.end(),
                            [](const sent_pdu& p) { return p.event && p.quality == QL_EEC1; }));

    hear(1, QL_PRC);
    EXPECT_EQ(selected(), 1U);
    EXPECT_EQ(take_requests(), (std::vector{holdover_request(false), select_request(1)}));
}

TEST_F(timers, a_lost_source_gives_way_to_the_next_with_that_ones_next_pdu) {
    add_port(1);
    add_port(2);
    hear(1, QL_PRC);
    pass(5000, {{2, QL_SSU_A}});
    EXPECT_EQ(selected(), 2U);
    EXPECT_EQ(g_s_master->current_quality, QL_SSU_A);
    const auto requests_made = take_requests();
    EXPECT_EQ(requests_made.back(), select_request(2));
    EXPECT_EQ(std::count(requests_made.begin(), requests_made.end(), holdover_request(true)), 0);
}

TEST_F(timers, event_pdus_do_not_keep_a_port_alive_and_push_its_own_pdu_back) {
    add_port(1);
    hear(1, QL_PRC);
    take_sent();
    for (int i = 0; i < 12; ++i) {
        advance(400);
        hear(1, {.quality = QL_PRC, .event = true});
    }
    EXPECT_TRUE(take_sent().empty()) << "each event PDU restarts the send timer";
    EXPECT_EQ(port(1)->recv_pdu, 1U);
    const std::uint64_t last_event = now_ms();
    advance(200);
    EXPECT_EQ(port(1)->timeout_timer, nullptr);
    EXPECT_EQ(port(1)->recv_quality, QL_NONE);
    take_sent();
    advance(900);
    const auto pdus = take_sent();
    ASSERT_EQ(pdus.size(), 1U);
    EXPECT_EQ(pdus[0].at_ms, last_event + 1000);
}

TEST_F(timers, dnu_marks_the_port_without_restarting_its_time_out) {
    add_port(1);
    lock_to(1);
    for (int i = 0; i < 4; ++i) {
        advance(1000);
        hear(1, QL_DNU);
    }
    EXPECT_EQ(port(1)->recv_quality, QL_DNU);
    EXPECT_EQ(port(1)->recv_pdu, 1U);
    EXPECT_EQ(selected(), 1U) << "a DNU alone runs no selection";
    advance(1000);
    EXPECT_EQ(selected(), 0U);
    EXPECT_EQ(port(1)->recv_quality, QL_NONE);
}

TEST_F(timers, frames_that_must_not_count) {
    add_port(1);
    const auto untouched = [this] { return port(1)->recv_pdu == 0 && port(1)->timeout_timer == nullptr; };
    std::vector<std::uint8_t> good = {0x01, 0x80, 0xC2, 0,    0, 2,    2,    0, 0, 0,   0,
                                      1,    0x88, 0x09, 0x0A, 0, 0x19, 0xA7, 0, 1, 0x10};
    good.resize(60);
    good[14 + 13] = QL_PRC;

    auto frame = good;
    frame[5] = 3;  // another destination
    raw_frame(1, frame);
    EXPECT_TRUE(untouched());
    raw_frame(77, good);  // no such port
    EXPECT_TRUE(untouched());
    frame = good;
    frame.resize(14 + 13);  // no quality octet
    const std::uint64_t short_before = slow_socket_stats().short_frames;
    raw_frame(1, frame);
    EXPECT_TRUE(untouched());
    EXPECT_EQ(slow_socket_stats().short_frames, short_before + 1);
    for (int code = 0; code < 256; ++code) {
        if (ssm_ql_receivable(static_cast<std::uint8_t>(code)) || code == QL_DNU) continue;
        frame = good;
        frame[14 + 13] = static_cast<std::uint8_t>(code);
        raw_frame(1, frame);
        EXPECT_TRUE(untouched()) << code;
    }
    for (std::uint32_t* gate :
         {&port(1)->synce_enable, &g_s_master->ssm_enable, &g_s_master->global_enable}) {
        *gate = 0;
        raw_frame(1, good);
        EXPECT_TRUE(untouched());
        *gate = 1;
    }
    frame = good;
    frame.resize(14 + 14);  // just long enough
    raw_frame(1, frame);
    EXPECT_FALSE(untouched());
}

TEST_F(timers, short_extended_frame_reads_zero_where_octets_are_missing) {
    add_port(1);
    hear(1, {.extended = true, .clock_id = {1, 2, 3, 4, 5, 6, 7, 8}, .hops = 7});
    EXPECT_EQ(port(1)->recv_hop_count, 7);
    std::vector<std::uint8_t> frame = {0x01, 0x80, 0xC2, 0, 0, 2, 2, 0, 0, 0, 0, 1, 0x88, 0x09};
    frame.resize(14 + 20);
    frame[14 + 13] = QL_PRC;
    frame[14 + 14] = 2;
    frame[14 + 17] = 0xAA;
    raw_frame(1, frame);
    EXPECT_EQ(port(1)->recv_clockid[0], 0xAA);
    EXPECT_EQ(port(1)->recv_clockid[7], 0);
    EXPECT_EQ(port(1)->recv_hop_count, 0);
}

TEST_F(timers, indexes_above_eight_bits_are_looked_up_by_their_low_octet) {
    add_port(300);
    hear(300, QL_PRC);
    EXPECT_EQ(port(300)->recv_pdu, 0U);
    EXPECT_EQ(ssm_port_lookup_by_ifindex(300), nullptr);
    add_port(44);
    EXPECT_EQ(ssm_port_lookup_by_ifindex(300), port(44));
    unbind(300);  // the list moves; the lookup must follow
    EXPECT_EQ(ssm_port_lookup_by_ifindex(44), port(44));
    unbind(44);
    EXPECT_EQ(ssm_port_lookup_by_ifindex(44), nullptr);
}

TEST_F(timers, a_port_that_brings_too_many_frames_costs_nothing_and_others_are_heard) {
    slow_socket_set_rate_limit(SLOW_RATE_DEFAULT);
    add_port(1);
    add_port(2);
    const auto limited = [](std::uint32_t index) {
        slow_port_stats stats = {};
        EXPECT_TRUE(slow_socket_port_stats(index, &stats));
        return stats.limited;
    };
    // What the protocol allows passes for ever: an information PDU and nine event PDUs a second.
    for (int i = 0; i < 600; ++i) {
        advance(100);
        hear(1, {.quality = i % 2 ? QL_PRC : QL_SSU_A, .event = i % 10 != 0});
    }
    EXPECT_EQ(limited(1), 0U);
    for (std::uint32_t i = 0; i < SLOW_BURST; ++i) hear(2, QL_SSU_B);  // a burst passes, too
    EXPECT_EQ(limited(2), 0U);

    hear(1, QL_PRC);
    for (int i = 0; i < 5000; ++i) hear(2, i % 2 ? QL_PRC : QL_SSU_A);
    EXPECT_EQ(limited(2), 5000U);
    EXPECT_EQ(port(2)->recv_quality, QL_SSU_B);
    EXPECT_EQ(selected(), 1U);
    advance(1000);
    for (int i = 0; i < 50; ++i) hear(2, QL_PRC);
    EXPECT_EQ(limited(2), 5040U) << "ten more a second";
    EXPECT_EQ(port(2)->recv_quality, QL_PRC);
}

// Memory that runs out for one timer must stop neither the daemon nor, for good, the port.
TEST_F(timers, a_timer_that_can_not_be_armed_is_armed_by_the_next_update) {
    add_port(1, true, false);
    for (std::uint64_t nth = 1; nth < 4; ++nth) {
        memmgr_fail_at(nth);
        (void)ssm_opts_set_port_synce(intf(1), 1);
        memmgr_fail_at(0);
        (void)ssm_opts_set_port_esmc(intf(1), SSM_ESMC_NONE);
        (void)ssm_opts_set_port_esmc(intf(1), SSM_ESMC_ALL);
        EXPECT_NE(port(1)->send_timer, nullptr);
        (void)ssm_opts_set_port_synce(intf(1), 0);
    }
}

}  // namespace
