// The simulated clock in virtual time, and nsmd's core around it: requests through a session, links through
// the kernel's messages, reports back to the client.
#include <fstream>

#include "nsmd_support.h"

namespace {

struct core : nsmd_session {
    void SetUp() override {
        nsmd_session::SetUp();
        kernel.links = {port(1), port(2), port(26)};
        options.patterns[0] = "sw*";
        options.pattern_count = 1;
        options.dpll = dpll_kind::simulated;
    }
    static fake_link port(int index, bool up = true) {
        fake_link l = sw_link(index, up);
        l.kind = "veth";
        return l;
    }
    // Started, and locked to port 26, whose code is 1; all that was told is taken.
    void start_locked() {
        start();
        lock();
    }
    void lock() {
        enable(true);
        select(26);
        ASSERT_EQ(after(400), texts{"clock 4 1"});
    }
    void hang_up(unsigned wait_ms) {
        c.hang_up();
        loop.run(wait_ms);
    }
    // The clock as a new session is told of it.
    std::string clock_at_connection() { return connect(&c)[5]; }
};

TEST_F(core, the_dump_is_bridge_ports_clock_end_and_changes_follow) {
    start_alone();
    EXPECT_EQ(connect(&c), (texts{"ack 0", "bridge sw1 1", "add 1 1 sw1 up", "add 2 2 sw2 up",
                                  "add 26 26 sw26 up", "clock 2 0", "sync"}));
    kernel.set(port(1, false));
    loop.run(1);
    kernel.remove(2);
    kernel.set(port(7, false));
    EXPECT_EQ(after(1), (texts{"down 1", "delete 2 1", "add 7 7 sw7 down"}));
}

TEST_F(core, a_lost_reference_is_holdover_until_it_is_locked_to_again) {
    start();
    enable(true);
    select(26);
    EXPECT_EQ(after(300), texts{});  // the settling comes on top of the lock time
    EXPECT_EQ(after(20), texts{"clock 4 1"});
    kernel.set(port(26, false));
    EXPECT_EQ(after(1), (texts{"down 26", "clock 3 0"}));  // in this order
    kernel.set(port(26));
    EXPECT_EQ(after(299), texts{"up 26"});
    EXPECT_EQ(after(2), texts{"clock 4 1"});
}

TEST_F(core, a_reference_that_was_cut_while_being_locked_to_starts_over) {
    start();
    enable(true);
    select(26);
    loop.run(200);
    fake_link flapped = port(26);
    flapped.carrier_downs = 1;
    kernel.set(flapped);
    EXPECT_EQ(after(299), (texts{"down 26", "up 26"}));  // never locked: free-running all the time
    EXPECT_EQ(after(2), texts{"clock 4 1"});
}

TEST_F(core, changing_between_live_references_is_hitless) {
    start_locked();
    select(1);
    EXPECT_EQ(after(400), texts{"clock 4 0"});
    select(26);
    loop.run(100);
    kernel.set(port(1, false));  // the one that is still followed goes before the next is locked to
    EXPECT_EQ(after(1), (texts{"down 1", "clock 3 0"}));
    EXPECT_EQ(after(300), texts{"clock 4 1"});
}

TEST_F(core, each_request_moves_the_clock) {
    start_locked();
    hold(true);
    EXPECT_EQ(after(20), texts{"clock 3 0"});
    EXPECT_EQ(after(5000), texts{});
    hold(false);
    EXPECT_EQ(after(400), texts{"clock 4 1"});
    recover_from(1);  // nothing is connected there
    EXPECT_EQ(after(20), texts{"clock 3 0"});
    recover_from(0);
    EXPECT_EQ(after(400), texts{"clock 4 1"});
    select(77);  // a port that is not there has no signal
    EXPECT_EQ(after(20), texts{"clock 3 0"});
    enable(false);
    EXPECT_EQ(after(20), texts{"clock 2 0"});
    kernel.set(port(26, false));  // what is off loses nothing
    EXPECT_EQ(after(20), texts{"down 26"});
}

TEST_F(core, holdover_decays_to_free_running_when_told_so) {
    options.sim.holdover_s = 60;
    start_locked();
    kernel.set(port(26, false));
    EXPECT_EQ(after(59900), (texts{"down 26", "clock 3 0"}));
    EXPECT_EQ(after(200), texts{"clock 2 0"});
    kernel.set(port(26));
    EXPECT_EQ(after(400), (texts{"up 26", "clock 4 1"}));
    kernel.set(port(26, false));
    loop.run(30000);
    kernel.set(port(26));
    (void)after(400);
    EXPECT_EQ(after(120000), texts{});  // a decay that was under way is over with the lock
}

TEST_F(core, requests_that_make_no_sense_are_said_and_change_nothing) {
    start_locked();
    const struct {
        std::uint16_t type;
        std::vector<std::uint32_t> words;
    } refused[] = {{NSM_MSG_SSM_GLOBAL_ENABLE, {2}},           {NSM_MSG_SSM_CLOCK_RECOVERY_SELECT, {3}},
                   {NSM_MSG_SSM_HOLDOVER_ENABLE, {2}},         {NSM_MSG_SSM_SELECTED_IF_INDEX, {0, 0}},
                   {NSM_MSG_SSM_SELECTED_IF_INDEX, {9999, 0}}, {NSM_MSG_SSM_SET_GEPHY_ROLE, {1, 2, 0}},
                   {NSM_MSG_SSM_SET_GEPHY_ROLE, {1, 1, 3}}};
    for (const auto& r : refused) c.say(r.type, r.words);
    EXPECT_EQ(after(1000), texts{});
    EXPECT_EQ(log.count("request ignored"), 7);
}

TEST_F(core, all_that_is_restated_moves_the_clock_once) {
    start_locked();
    hold(true);
    select(1);
    hold(false);
    select(26);
    EXPECT_EQ(after(1000), texts{});
}

TEST_F(core, a_daemon_that_vanishes_is_waited_for) {
    start_locked();
    hang_up(9900);
    EXPECT_EQ(clock_at_connection(), "clock 4 1");
    enable(true);
    select(26);
    EXPECT_EQ(after(30000), texts{});
    hang_up(9990);
    EXPECT_EQ(log.count("goes to holdover"), 0);
    loop.run(20);
    EXPECT_EQ(log.count("goes to holdover"), 1);
    EXPECT_EQ(clock_at_connection(), "clock 3 0");
}

// A fresh daemon begins without a source and does not say so: being connected is no watch.
TEST_F(core, a_daemon_that_names_no_source_is_not_waited_for_longer) {
    start_locked();
    hang_up(2000);
    (void)connect(&c);
    enable(true);
    EXPECT_EQ(after(7900), texts{});
    EXPECT_EQ(after(200), texts{"clock 3 0"});
    select(26);
    EXPECT_EQ(after(400), texts{"clock 4 1"});
}

TEST_F(core, goodbye_is_holdover_at_once) {
    start_locked();
    c.say(NSM_MSG_BYE);
    hang_up(1);
    EXPECT_EQ(clock_at_connection(), "clock 3 0");
}

// The holdover of the daemon before was never ended by anybody; choosing a source does it.
TEST_F(core, a_fresh_daemons_choice_ends_what_the_one_before_left) {
    start_locked();
    recover_from(1);
    hold(true);
    loop.run(20);
    hang_up(1000);
    (void)connect(&c);
    enable(true);
    select(1);
    EXPECT_EQ(after(400), texts{"clock 4 0"});
}

struct registers : core {
    std::string file = "/tmp/nsmd-sim-" + std::to_string(getpid());
    void SetUp() override {
        core::SetUp();
        options.sim.state_file = file.c_str();
    }
    void TearDown() override {
        core::TearDown();
        unlink(file.c_str());
    }
};

TEST_F(registers, a_restarted_nsmd_finds_its_clock_as_it_was) {
    start_locked();
    stop();
    start_alone();
    EXPECT_EQ(clock_at_connection(), "clock 4 1");
    enable(true);  // half of what is restated, and the rest late
    loop.run(100);
    select(26);
    EXPECT_EQ(after(5000), texts{});
    stop();
    kernel.set(port(26, false), false);  // lost while nobody looked
    start_alone();
    EXPECT_EQ(clock_at_connection(), "clock 3 0");
}

TEST_F(registers, that_make_no_sense_are_as_none) {
    for (const char* text : {"", "4", "9 1 1 0 0 1", "x y z a b c", "4294967295 1 1 0 0 1"}) {
        std::ofstream(file) << text;
        start_alone();
        EXPECT_EQ(clock_at_connection(), "clock 2 0") << text;
        stop();
    }
}

TEST_F(core, without_hardware_it_runs_free_whatever_is_asked) {
    options.dpll = dpll_kind::none;
    start();
    enable(true);
    select(26);
    EXPECT_EQ(after(5000), texts{});
    EXPECT_EQ(log.count("request:"), 2);
}

TEST_F(core, source_codes_by_the_table_and_by_configuration) {
    const auto codes = [&](std::vector<std::uint32_t> ports) {
        for (auto& p : ports) p = nsmd_source_code(options, p);
        return ports;
    };
    EXPECT_EQ(codes({26, 25, 24, 20, 9999, 1, 0}), (std::vector<std::uint32_t>{1, 2, 3, 4, 8, 0, 0}));
    const source_code given[] = {{26, 7}, {1, 2}, {1, 3}};
    std::copy(std::begin(given), std::end(given), options.source_codes);
    options.source_code_count = 3;
    EXPECT_EQ(codes({26, 1}), (std::vector<std::uint32_t>{7, 3}));  // the last one given counts
}

// Whatever allocation fails: an orderly refusal to start, or a start that serves.
TEST_F(core, memory_that_runs_out_at_the_start) {
    for (std::uint64_t nth = 1; nth < 40; ++nth) {
        virtual_loop fresh;
        kernel.attach(&fresh);
        kernel.queue.clear();
        memmgr_fail_at(nth);
        nsmd* started = nsmd_start(&fresh.ctx, options, {kernel.edge(), nullptr, 50});
        memmgr_fail_at(0);
        if (started) fresh.run(10);
        nsmd_stop(started);
    }
    EXPECT_EQ(memmgr_type_stats(MTYPE_NSMD).blocks, 0U);
}

}  // namespace
