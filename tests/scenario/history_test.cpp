// What is remembered of changes, why they are said to have happened, and the ports' counters.
#include "core/history.h"

#include "core/supervision.h"
#include "scenario/sim.h"

namespace {

class history : public sim {
  protected:
    void SetUp() override {
        sim::SetUp();
        daemon->as_the_daemon = true;
        add_ports({1, 2});
        pass(1);
    }
    // The newest entry of the kind, as "FROM > TO: WHY".
    static std::string last(ssm_change_kind kind) {
        const ssm_change* change = nullptr;
        for (std::size_t back = 0; (change = ssm_history_get(back)); ++back)
            if (change->kind == kind)
                return std::string(change->from) + " > " + change->to + ": " + change->why;
        return {};
    }
    static std::string source_change() { return last(ssm_change_kind::source); }
};

TEST_F(history, each_change_has_its_reason) {
    hear(1, QL_SSU_A);
    EXPECT_EQ(source_change(), "none > p1: offers SSU-A");
    EXPECT_EQ(last(ssm_change_kind::quality), "DNU > SSU-A: offers SSU-A");
    EXPECT_EQ(last(ssm_change_kind::state), "free-run > locked: offers SSU-A");
    hear(2, QL_PRC);
    EXPECT_EQ(source_change(), "p1 > p2: better quality");
    const ssm_change* newest = ssm_history_get(0);
    EXPECT_EQ(newest->monotonic, thread_now(g_p_esmcd));
    hear(2, QL_SSU_A);
    EXPECT_EQ(source_change(), "p2 > p1: better interface index");
    hear(1, QL_SSU_B);
    hear(2, QL_SSU_B);
    hear(1, QL_SSU_A);
    link_down(1);
    EXPECT_EQ(source_change(), "p1 > p2: link down");
    unbind(2);
    EXPECT_EQ(source_change(), "p2 > none: the port is gone");
    EXPECT_EQ(last(ssm_change_kind::state), "locked > holdover: the port is gone");
    link_up(1);
    hear(1, QL_PRC);
    daemon->in_event([this] { EXPECT_EQ(ssm_opts_set_force_port(port(1)), 0); });
    EXPECT_EQ(last(ssm_change_kind::command), "p1 > forced switch: the operator");
}

TEST_F(history, the_clock_hardware_tells_of_itself) {
    const auto tell = [&](std::initializer_list<std::uint32_t> words, const char* label = "") {
        message body = be_words(words);
        body.resize(nsm_detail_body::SIZE);
        std::copy_n(label, std::strlen(label), body.begin() + nsm_detail_body::LABEL);
        return nsm_says(NSM_MSG_SSM_CLOCK_DETAIL, body);
    };
    const auto own = [] { return std::pair(g_s_master->local_quality, g_s_master->local_quality_set); };
    tell({0, 3, 3, 4});
    EXPECT_EQ(last(ssm_change_kind::hardware), "none > media-down: lock error");
    EXPECT_EQ(own(), std::pair(std::uint32_t{QL_EEC1}, false));
    ASSERT_EQ(ssm_opts_set_local_quality(QL_EEC1, SSM_OPTION_1), 0);
    EXPECT_TRUE(g_s_master->local_quality_set) << "configured as what is there already";
    tell({0, 3, 1, 1});
    EXPECT_EQ(last(ssm_change_kind::hardware), "media-down > none: lock error");
    EXPECT_EQ(own(), std::pair(std::uint32_t{QL_EEC1}, true)) << "what is configured counts";
    ASSERT_EQ(ssm_opts_set_local_quality(QL_DNU, SSM_OPTION_1), 0);
    EXPECT_EQ(own(), std::pair(std::uint32_t{QL_PRC}, false));
    tell({1, 28, 0, 0, 3, 0, 0xffffffff, 0xfffffffb, 0, 7}, "SWP0");
    tell({99, 28, 0, 0, 77});  // no such port
    const ssm_pin& pin = *port(1)->pin;
    EXPECT_EQ(std::string(ssm_pin_state_word(&pin)) + pin.label, "no-signalSWP0");
    EXPECT_EQ(std::pair(pin.offset_ppt, pin.frequency_mhz), std::pair(std::int64_t{-5}, std::uint64_t{7}));
    EXPECT_EQ(port(2)->pin, nullptr);
    ssm_hardware_recv(nullptr);
    EXPECT_EQ(port(1)->pin, nullptr);
    EXPECT_EQ(own(), std::pair(std::uint32_t{QL_DNU}, false));
}

TEST_F(history, the_ring_keeps_the_newest_and_flapping_is_seen) {
    hear(2, QL_SSU_A);
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(ssm_flapping(port(1)));
        hear(1, QL_PRC);
        hear(1, QL_SSU_B);
    }
    EXPECT_TRUE(ssm_flapping(port(1)));
    EXPECT_EQ(port(1)->statistics->sources, 3U);
    for (int i = 0; i < 100; ++i) hear(1, i % 2 ? QL_PRC : QL_SSU_B);
    EXPECT_NE(ssm_history_get(SSM_HISTORY_SIZE - 1), nullptr);
    EXPECT_EQ(ssm_history_get(SSM_HISTORY_SIZE), nullptr);
    pass(1'800'000, {{1, QL_PRC}});
    EXPECT_FALSE(ssm_flapping(port(1)));
}

TEST_F(history, counters_of_a_port) {
    pass(3000, {{1, QL_PRC}});
    advance(1500);
    hear(1, QL_PRC);
    hear(1, {.quality = QL_PRC, .event = true});
    hear(1, QL_DNU);
    hear(1, std::uint8_t{9});
    hear_raw(1, message(20));
    const ssm_statistics& s = *port(1)->statistics;
    EXPECT_EQ(std::tuple(s.information_in, s.events_in, s.dnu_in), std::tuple(5U, 1U, 1U));
    EXPECT_EQ(std::tuple(s.bad_qualities, s.short_frames), std::tuple(1U, 1U));
    EXPECT_EQ(std::tuple(s.shortest, s.longest, ssm_mean_interval(s)),
              std::tuple(0U, 1500 * NS_PER_MS, 875 * NS_PER_MS));
    EXPECT_EQ(s.information_out, 4U);
    EXPECT_EQ(s.events_out, 1U);
    EXPECT_EQ(s.dnu_out, 5U);
    advance(5000);
    EXPECT_EQ(s.timeouts, 1U);
    daemon->in_event([] { ssm_statistics_clear(nullptr); });
    EXPECT_EQ(std::pair(s.information_in, s.cleared), std::pair(std::uint64_t{0}, thread_now(g_p_esmcd)));
}

}  // namespace
