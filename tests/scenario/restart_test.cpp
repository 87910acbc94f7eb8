// What a restart goes on with, to the millisecond: times that ran before it end when they would have ended,
// and nobody is told anything twice.
#include "restart/snapshot.h"

#include "core/guard.h"
#include "restart/state_file.h"
#include "scenario/sim.h"

namespace {

class restart : public sim {
  protected:
    static constexpr std::array<std::uint8_t, 8> MASTER = {0xA, 0xB, 0xC, 0xFF, 0xFE, 1, 2, 3};

    void SetUp() override {
        sim::SetUp();
        configure();
        add_ports({1, 2, 3});
        dpll(SSM_DPLL_LOCK);
    }
    static void configure() {
        ASSERT_EQ(ssm_opts_set_hold_off(1000), 0);
        ASSERT_EQ(ssm_opts_set_restore(60), 0);
        ASSERT_EQ(ssm_opts_set_ssm_extend(1), 0);
        ASSERT_EQ(ssm_opts_set_loop_guard(1), 0);
    }
    static neighbour_pdu offer(std::uint8_t hops) { return {QL_PRC, false, true, MASTER, hops}; }
    const_octets octets_of_state() const {
        return {reinterpret_cast<const std::uint8_t*>(state_.data()), state_.size()};
    }
    // The daemon ends, and `ms` later another one has the same configuration and hears of the same ports,
    // with these links.
    void begin_anew(std::uint32_t ms, std::initializer_list<std::pair<std::uint32_t, bool>> links) {
        text_buffer written;
        ASSERT_TRUE(snapshot_write({"a boot", thread_now(g_p_esmcd), 7}, &written));
        state_ = written.view();
        text_free(&written);
        const std::uint64_t now_ms = daemon->now_ms();
        daemon->stop();
        sim::SetUp();
        daemon->jump(static_cast<std::int64_t>(now_ms + ms - daemon->now_ms()));
        g_s_master->resuming = true;
        configure();
        for (const auto& [index, up] : links) add_port(index, up);
        dpll(SSM_DPLL_LOCK);
        take_sent();
        take_requests();
    }
    std::string difference() const {
        snapshot_difference found = {};
        return snapshot_agrees(octets_of_state(), &found) ? "" : found.text;
    }
    void go_on() {
        ASSERT_EQ(difference(), "");
        snapshot_apply(octets_of_state());
        g_s_master->resuming = false;
        ssm_socket_arm_read();
    }

    std::string state_;
};

TEST_F(restart, goes_on_where_the_daemon_was) {
    hear(1, offer(1));
    hear(2, offer(4));
    hear(3, offer(5));
    link_down(3);  // held off for a second, then failed
    advance(1000);
    link_up(3);
    hear(3, offer(5));  // waits for 60 s from now on
    pass(300, {});
    hear(1, offer(1));
    hear(2, offer(4));
    ASSERT_EQ(selected(), 1U);
    link_down(2);
    advance(400);
    const std::uint64_t counted = port(1)->statistics->information_in;
    const std::uint64_t changes = g_s_master->history.count;
    take_sent();

    begin_anew(250, {{1, true}, {2, false}, {3, true}});
    EXPECT_EQ(selected(), 0U);
    go_on();
    EXPECT_EQ(outcome(selected(), g_s_master->current_quality, take_requests()),
              outcome(1, QL_PRC, {source(1)}));
    EXPECT_EQ(port(1)->statistics->information_in, counted);
    EXPECT_EQ(g_s_master->history.count, changes + 1);
    EXPECT_EQ(ssm_distance_limit(&g_s_master->guard.distances, MASTER.data(), thread_now(g_p_esmcd)), 2U);
    // Hold-off of 2: 650 of 1000 ms are over. It still counts as up until then.
    advance(349);
    EXPECT_EQ(port(2)->link_up, 1U);
    advance(1);
    EXPECT_EQ(port(2)->link_up, 0U);
    // Wait-to-restore of 3: began 300 + 400 + 250 + 350 ms ago.
    for (std::uint32_t left = 60'000 - 1300 - 1; left > 0; left -= std::min(left, 1000U)) {
        advance(std::min(left, 1000U));
        hear(1, offer(1));
        hear(3, offer(0));
        ASSERT_EQ(selected(), 1U) << left;
    }
    advance(1);
    EXPECT_EQ(selected(), 3U);
    for (const sent_pdu& pdu : take_sent()) EXPECT_TRUE(!pdu.event || selected() == 3) << pdu.at_ms;
}

TEST_F(restart, first_pdus_are_due_a_second_after_the_last_and_silence_counts_from_the_restart) {
    hear(1, offer(1));
    pass(3000, {});
    const auto last = take_sent();
    ASSERT_FALSE(last.empty());
    advance(300);
    begin_anew(300, {{1, true}, {2, true}, {3, true}});
    go_on();
    advance(399);
    EXPECT_TRUE(take_sent().empty());
    advance(1);
    const auto first = take_sent();
    ASSERT_EQ(first.size(), 3U);
    for (const sent_pdu& pdu : first) {
        EXPECT_FALSE(pdu.event);
        EXPECT_EQ(pdu.quality, pdu.port == 1 ? QL_DNU : QL_PRC);
    }
    // 1400 ms of the time-out were left, but nobody listened: two seconds from the restart.
    advance(1599);
    EXPECT_EQ(selected(), 1U);
    advance(1);
    advance(1000);  // the hold-off
    EXPECT_EQ(selected(), 0U);
}

TEST_F(restart, holdover_and_manual_switch_stay) {
    for (const std::uint32_t index : {1U, 2U}) hear(index, offer(1));
    const char* why = nullptr;
    ASSERT_EQ(ssm_opts_manual_switch(intf(2), &why), 0);
    ASSERT_EQ(selected(), 2U);
    begin_anew(100, {{1, true}, {2, true}, {3, true}});
    go_on();
    EXPECT_EQ(source_after(hear(1, offer(1))), 2U);
    EXPECT_EQ(g_s_master->manual_port, port(2));

    for (const std::uint32_t index : {1U, 2U}) link_down(index);
    advance(1000);
    ASSERT_EQ(g_s_master->holdover, 1U);
    begin_anew(100, {{1, false}, {2, false}, {3, true}});
    go_on();
    EXPECT_EQ(take_requests(), requests{holdover(true)});
    EXPECT_EQ(g_s_master->current_quality, std::uint32_t{QL_EEC1});
}

TEST_F(restart, what_differs_is_said) {
    hear(1, offer(1));
    begin_anew(100, {{1, true}, {2, true}});
    EXPECT_EQ(difference(), "p3 is gone");
    add_port(3, false);
    EXPECT_EQ(difference(), "p3: its link changed");
    link_up(3);
    EXPECT_EQ(difference(), "");
    add_port(4);
    EXPECT_EQ(difference(), "there are more ports");
    unbind(4);
    dpll(SSM_DPLL_HOLDOVER);
    EXPECT_EQ(difference(), "the clock hardware reports another state");
    bridge({1, 2, 3, 4, 5, 6});
    EXPECT_EQ(difference(), "the switch's identity is another");

    // Whatever its octets are: no state, or one whose records can all be read.
    snapshot_origin origin;
    for (std::size_t at = 0; at < state_.size(); ++at) {
        const char before = std::exchange(state_[at], '\xFF');
        if (snapshot_read_origin(octets_of_state(), &origin)) (void)difference();
        state_[at] = before;
        EXPECT_FALSE(snapshot_read_origin(octets_of_state().first(at), &origin));
    }
}

// The file: the place that was written before stands whatever becomes of the one that is being written.
TEST(state_file_test, newest_whole_place_is_taken_once) {
    const std::string path = testing::TempDir() + "state_" + std::to_string(getpid());
    state_file_use(path.c_str());
    state_file file;
    text_buffer found;
    const auto write = [&file](std::string_view text) {
        return state_file_write(&file, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
    };
    EXPECT_EQ(state_file_take(&found), -ENOENT);
    for (const std::string_view text : {"first", "second", "third"}) ASSERT_EQ(write(text), 0);
    ASSERT_EQ(pwrite(file.fd, "X", 1, 25), 1);  // the third one's second octet
    ASSERT_EQ(state_file_take(&found), 0);
    EXPECT_EQ(found.view(), "second");
    EXPECT_EQ(state_file_take(&found), -ENOENT);

    close(file.fd);
    file = {};
    ASSERT_EQ(write("again"), 0);
    ASSERT_EQ(ftruncate(file.fd, 26), 0);
    EXPECT_EQ(state_file_take(&found), -EBADMSG);
    close(file.fd);
    file = {};
    ASSERT_EQ(write("others"), 0);
    ASSERT_EQ(fchmod(file.fd, 0622), 0);
    EXPECT_EQ(state_file_take(&found), -EPERM);
    state_file_discard(&file);
    EXPECT_NE(access(path.c_str(), F_OK), 0);
    text_free(&found);
    state_file_use(nullptr);
}

}  // namespace
