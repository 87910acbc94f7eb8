// What leaves when, what is forgotten when, and which frames are taken at all.
#include "core/neighbour.h"
#include "scenario/sim.h"

namespace {

using timers = sim;

TEST_F(timers, first_pdu_a_second_after_the_start_then_one_a_second) {
    const std::uint64_t start = daemon->now_ms();
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
    EXPECT_EQ(source_after(hear(1, QL_PRC)), 1U);
    advance(2000);
    EXPECT_TRUE(take_sent().empty());

    ASSERT_EQ(ssm_opts_set_port_esmc(intf(1), SSM_ESMC_TX), 0);  // added to rx: both
    ASSERT_EQ(ssm_opts_unset_port_esmc(intf(1), SSM_ESMC_RX), 0);
    hear(1, QL_SSU_B);
    EXPECT_EQ(port(1)->recv_quality, QL_PRC) << "a transmit-only port must not take PDUs";
    advance(1000);
    EXPECT_EQ(take_sent().size(), 1U);

    ASSERT_EQ(ssm_opts_unset_port_esmc(intf(1), SSM_ESMC_ALL), 0);
    EXPECT_EQ(port(1)->recv_quality, QL_NONE);
    EXPECT_EQ(port(1)->timeout_timer, nullptr);
    EXPECT_EQ(ssm_opts_set_port_esmc(intf(1), 5), SSM_CLI_E_INVALID_INPUT);
}

TEST_F(timers, silence_of_five_seconds_ends_in_holdover) {
    add_port(1);
    lock_to(1);
    EXPECT_EQ(source_after(advance(4999)), 1U);
    take_sent();
    EXPECT_EQ(after(advance(1)), outcome(0, QL_EEC1, {holdover(true)}));
    EXPECT_EQ(port(1)->recv_pdu, 0U);
    EXPECT_EQ(port(1)->recv_quality, QL_NONE);
    const auto pdus = take_sent();
    EXPECT_TRUE(std::any_of(pdus.begin(), pdus.end(),
                            [](const sent_pdu& p) { return p.event && p.quality == QL_EEC1; }));
    EXPECT_EQ(after(hear(1, QL_PRC)), outcome(1, QL_PRC, {holdover(false), source(1)}));
    // Where there is another, it follows with that one's next PDU.
    add_port(2);
    EXPECT_EQ(after(pass(5000, {{2, QL_SSU_A}})), outcome(2, QL_SSU_A, {source(2)})) << "without holdover";
}

TEST_F(timers, event_pdus_do_not_keep_a_port_alive_and_push_its_own_pdu_back) {
    add_port(1);
    lock_to(1);
    for (int i = 0; i < 12; ++i) {
        advance(400);
        hear(1, {.quality = QL_PRC, .event = true});
    }
    EXPECT_TRUE(take_sent().empty()) << "each event PDU restarts the send timer";
    EXPECT_EQ(port(1)->recv_pdu, 1U);
    const std::uint64_t last_event = daemon->now_ms();
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
    pass(4000, {{1, QL_DNU}});
    EXPECT_EQ(port(1)->recv_quality, QL_DNU);
    EXPECT_EQ(port(1)->recv_pdu, 1U);
    EXPECT_EQ(selected(), 1U) << "a DNU alone runs no selection";
    EXPECT_EQ(source_after(advance(1000)), 0U);
    EXPECT_EQ(port(1)->recv_quality, QL_NONE);
}

TEST_F(timers, frames_that_must_not_count) {
    add_port(1);
    const message good = esmc_frame({.quality = QL_PRC});
    const auto taken = [this](message frame, std::uint32_t index = 1) {
        hear_raw(index, std::move(frame));
        return port(1)->recv_pdu != 0 || port(1)->timeout_timer != nullptr;
    };
    const auto with = [&](std::size_t at, int octet) {
        message frame = good;
        frame[at] = static_cast<std::uint8_t>(octet);
        return frame;
    };
    const auto cut = [&](std::size_t size) {
        return message(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(PDU_AT + size));
    };

    EXPECT_FALSE(taken(with(5, 3))) << "another destination";
    EXPECT_FALSE(taken(good, 77)) << "no such port";
    const std::uint64_t short_before = slow_socket_stats().short_frames;
    EXPECT_FALSE(taken(cut(13))) << "no quality octet";
    EXPECT_EQ(slow_socket_stats().short_frames, short_before + 1);
    for (int code = 0; code < 256; ++code) {
        if (ssm_ql_receivable(static_cast<std::uint8_t>(code)) || code == QL_DNU) continue;
        EXPECT_FALSE(taken(with(PDU_AT + 13, code))) << code;
    }
    for (auto* gate : {&port(1)->synce_enable, &g_s_master->ssm_enable, &g_s_master->global_enable}) {
        *gate = 0;
        EXPECT_FALSE(taken(good));
        *gate = 1;
    }
    EXPECT_TRUE(taken(cut(14))) << "just long enough";

    // A short one reads zero where octets are missing.
    message extended = esmc_frame({.extended = true, .clock_id = {0xAA, 1, 2, 3, 4, 5, 6, 7}, .hops = 9});
    hear_raw(1, extended);
    EXPECT_EQ(port(1)->recv_hop_count, 9);
    extended.resize(PDU_AT + 20);
    hear_raw(1, extended);
    EXPECT_EQ(port(1)->recv_hop_count, 0);
    const std::array<std::uint8_t, 8> id = {0xAA, 1, 2};
    EXPECT_TRUE(std::equal(id.begin(), id.end(), port(1)->recv_clockid));
}

TEST_F(timers, a_port_that_brings_too_many_frames_costs_nothing_and_others_are_heard) {
    slow_socket_set_rate_limit(SLOW_RATE_DEFAULT);
    add_ports({1, 2});
    const auto limited = [](std::uint32_t index) {
        slow_port_stats stats = {};
        return slow_socket_port_stats(index, &stats) ? stats.limited : 1;
    };
    // What the protocol allows passes for ever: an information PDU and nine event PDUs a second.
    for (int i = 0; i < 600; ++i) {
        advance(100);
        hear(1, {.quality = i % 2 ? QL_PRC : QL_SSU_A, .event = i % 10 != 0});
    }
    for (std::uint32_t i = 0; i < SLOW_BURST; ++i) hear(2, QL_SSU_B);  // a burst passes, too
    EXPECT_EQ(limited(1) + limited(2), 0U);

    for (int i = 0; i < 5000; ++i) hear(2, QL_PRC);
    EXPECT_EQ(limited(2), 5000U);
    EXPECT_EQ(port(2)->recv_quality, QL_SSU_B);
    advance(1000);
    for (int i = 0; i < 50; ++i) hear(2, QL_PRC);
    EXPECT_EQ(limited(2), 5040U) << "ten more a second";
    EXPECT_EQ(port(2)->recv_quality, QL_PRC);
}

class neighbours : public logged_sim {
  protected:
    int hear_from(int station, std::uint8_t quality = QL_PRC, std::uint32_t index = 1, int first = 2) {
        message frame = esmc_frame({.quality = quality});
        const message source = {static_cast<std::uint8_t>(first),  0, 0, 0, 0,
                                static_cast<std::uint8_t>(station)};
        std::ranges::copy(source, frame.begin() + 6);
        return hear_raw(index, std::move(frame));
    }
    std::string shown() {
        const std::uint8_t* neighbour = ssm_neighbour(port(1));
        return neighbour ? ssm_address_str(neighbour).text : "none";
    }
};

TEST_F(neighbours, are_known_as_long_as_what_they_said_counts) {
    const std::function<int()> ends[] = {
        [&] { return link_down(1) + link_up(1); },
        [&] { return ssm_opts_set_port_synce(intf(1), 0) + ssm_opts_set_port_synce(intf(1), 1); },
        [&] { return ssm_opts_set_global_enable(0) + ssm_opts_set_global_enable(1); },
        [&] { return ssm_opts_set_device_type(SSM_SLAVE_ONLY); },
        [&] { return ssm_opts_unset_port_esmc(intf(1), SSM_ESMC_ALL) + ssm_opts_set_port_esmc(intf(1), 3); },
        [&] { return advance(5000); },
        [&] { return unbind(1) + (add_port(1) ? 0 : 1); },
        [&] { return hear_from(7, QL_PRC, 1, 3) /* a group's address */; },
        [&] { return hear_from(0, QL_PRC, 1, 0); },
        [&] { return link_down(1) + link_up(1) + hear_from(7, QL_ST2) /* not of this option */; },
    };
    add_port(1);
    for (const auto& end : ends) {
        hear_from(7);
        EXPECT_EQ(shown(), "02:00:00:00:00:07") << &end - ends;
        EXPECT_EQ(end(), 0);
        EXPECT_EQ(shown(), "none") << &end - ends;
    }
    EXPECT_EQ(said("neighbour of"), 0) << "it was the same all the time";
    hear_from(8, QL_DNU);  // what who follows this switch says
    EXPECT_EQ(shown(), "02:00:00:00:00:08");
}

TEST_F(neighbours, that_change_are_logged_but_not_for_ever_and_the_last_one_in_the_end) {
    add_ports({1, 2});
    for (int station : {1, 2}) EXPECT_EQ(hear_from(station) + link_down(1) + link_up(1), 0);
    EXPECT_EQ(said("info : neighbour of p1 is now 02:00:00:00:00:02 (was 02:00:00:00:00:01)"), 1);
    for (int i = 0; i < 999; ++i) hear_from(i % 2 ? 2 : 3);
    for (int station : {8, 9}) hear_from(station, QL_DNU, 2);
    EXPECT_EQ(said("neighbour of p2"), 1) << "another port's flood mutes nobody";
    EXPECT_EQ(said("neighbour of"), 2);
    for (int i = 0; i < 120; ++i) advance(1000), hear_from(3);
    EXPECT_EQ(said("now 02:00:00:00:00:03 (was 02:00:00:00:00:02) (499 like it since the last line)"), 1);
    EXPECT_EQ(said("neighbour of"), 3);
}

}  // namespace
