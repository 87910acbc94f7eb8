// The simulated clock in virtual time, and nsmd's core around it: requests through a session, links through
// the kernel's messages, reports back to the client.
#include "nsmd/dpll_sim.h"

#include <sys/stat.h>

#include "nsmd/nsm_server.h"
#include "nsmd/nsmd.h"
#include "nsmd_support.h"

namespace {

constexpr std::uint32_t FREE = 2, HOLD = 3, LOCK = 4;

struct core : testing::Test {
    log_lines log;
    virtual_loop loop;
    fake_kernel kernel;
    nsmd_options options{};
    nsmd* n = nullptr;
    std::string state_file;

    void SetUp() override {
        kernel.attach(&loop);
        kernel.links = {port(1), port(2), port(26)};
        options.patterns[0] = "sw*";
        options.pattern_count = 1;
        options.dpll = dpll_kind::simulated;
        options.grace_s = 10;
        options.poll = {0, 0};
    }
    void TearDown() override {
        nsmd_stop(n);
        if (!state_file.empty()) unlink(state_file.c_str());
    }
    void start() {
        kernel.queue.clear();
        n = nsmd_start(&loop.ctx, options, {kernel.edge(), nullptr, 1000});
        ASSERT_NE(n, nullptr);
        loop.run(1);
    }
    static fake_link port(int index, bool up = true) {
        fake_link l;
        l.index = index;
        l.name = "sw" + std::to_string(index);
        l.kind = "veth";
        l.up = up;
        l.mac_last = static_cast<std::uint8_t>(index);
        return l;
    }
    void connect(nsm_test_client* c) {
        const int fd = c->make_pair();
        loop.descriptors.push_back(fd);
        ASSERT_NE(nsm_server_adopt(nsmd_server(n), fd), nullptr);
        c->sequence = c->expected = 0;
        c->hello();
        loop.run(1);
    }
    void connect_quietly(nsm_test_client* c) {
        connect(c);
        (void)c->take_all();
    }
    void lock_to(nsm_test_client* c, std::uint32_t ifindex) {
        c->say(206, {1});
        c->say(209, {ifindex, 0});
        loop.run(400);
        EXPECT_EQ(c->take_all().back(), "clock 4 " + std::to_string(ifindex == 26 ? 1 : 0));
    }
    void keep_registers() {
        state_file = "/tmp/nsmd-sim-" + std::to_string(getpid());
        unlink(state_file.c_str());
        options.sim.state_file = state_file.c_str();
    }
};

TEST_F(core, the_dump_is_bridge_ports_clock_end) {
    start();
    nsm_test_client c;
    connect(&c);
    EXPECT_EQ(c.take_all(), (texts{"ack 0", "bridge sw1 1", "add 1 1 sw1 up", "add 2 2 sw2 up",
                                   "add 26 26 sw26 up", "clock 2 0", "sync"}));
}

TEST_F(core, links_are_told_as_they_change) {
    start();
    nsm_test_client c;
    connect_quietly(&c);
    kernel.set(port(1, false));
    loop.run(1);
    kernel.remove(2);
    kernel.set(port(7, false));
    loop.run(1);
    EXPECT_EQ(c.take_all(), (texts{"down 1", "delete 2 1", "add 7 7 sw7 down"}));
}

TEST_F(core, a_source_is_locked_to_after_the_lock_time) {
    start();
    nsm_test_client c;
    connect_quietly(&c);
    c.say(206, {1});
    c.say(209, {26, 0});
    loop.run(300);  // the settling comes on top
    EXPECT_TRUE(c.take_all().empty());
    loop.run(20);
    EXPECT_EQ(c.take_all(), (texts{"clock 4 1"}));
    EXPECT_EQ(log.count("request: SyncE enabled"), 1);
    EXPECT_EQ(log.count("request: the clock source is port 26 (sw26)"), 1);
}

TEST_F(core, a_lost_reference_is_holdover_until_it_is_locked_to_again) {
    start();
    nsm_test_client c;
    connect_quietly(&c);
    lock_to(&c, 26);
    kernel.set(port(26, false));
    loop.run(1);
    EXPECT_EQ(c.take_all(), (texts{"down 26", "clock 3 0"}));  // in this order
    kernel.set(port(26));
    loop.run(299);
    EXPECT_EQ(c.take_all(), (texts{"up 26"}));
    loop.run(2);
    EXPECT_EQ(c.take_all(), (texts{"clock 4 1"}));
}

TEST_F(core, a_reference_that_was_cut_while_being_locked_to_starts_over) {
    start();
    nsm_test_client c;
    connect_quietly(&c);
    c.say(206, {1});
    c.say(209, {26, 0});
    loop.run(200);
    fake_link flapped = port(26);
    flapped.carrier_downs = 1;
    kernel.set(flapped);
    loop.run(299);
    EXPECT_EQ(c.take_all(), (texts{"down 26", "up 26"}));  // never locked: free-running all the time
    loop.run(2);
    EXPECT_EQ(c.take_all(), (texts{"clock 4 1"}));
}

TEST_F(core, changing_between_live_references_is_hitless) {
    start();
    nsm_test_client c;
    connect_quietly(&c);
    lock_to(&c, 26);
    c.say(209, {1, 0});
    loop.run(400);
    EXPECT_EQ(c.take_all(), (texts{"clock 4 0"}));
    c.say(209, {26, 0});
    loop.run(100);
    kernel.set(port(1, false));  // the one that is still followed goes before the next is locked to
    loop.run(1);
    EXPECT_EQ(c.take_all(), (texts{"down 1", "clock 3 0"}));
    loop.run(300);
    EXPECT_EQ(c.take_all(), (texts{"clock 4 1"}));
}

TEST_F(core, the_holdover_request_is_inverted_on_the_wire) {
    start();
    nsm_test_client c;
    connect_quietly(&c);
    lock_to(&c, 26);
    c.say(208, {0});
    loop.run(20);
    EXPECT_EQ(c.take_all(), (texts{"clock 3 0"}));
    EXPECT_EQ(log.count("request: enter holdover"), 1);
    loop.run(5000);
    EXPECT_TRUE(c.take_all().empty());
    c.say(208, {1});
    loop.run(400);
    EXPECT_EQ(c.take_all(), (texts{"clock 4 1"}));
    EXPECT_EQ(log.count("request: leave holdover"), 1);
}

TEST_F(core, external_input_without_signal_is_holdover_and_switched_off_is_free_running) {
    start();
    nsm_test_client c;
    connect_quietly(&c);
    lock_to(&c, 26);
    c.say(207, {1});
    loop.run(20);
    EXPECT_EQ(c.take_all(), (texts{"clock 3 0"}));
    c.say(207, {0});
    loop.run(400);
    EXPECT_EQ(c.take_all(), (texts{"clock 4 1"}));
    c.say(206, {0});
    loop.run(20);
    EXPECT_EQ(c.take_all(), (texts{"clock 2 0"}));
    kernel.set(port(26, false));  // what is off loses nothing
    loop.run(20);
    EXPECT_EQ(c.take_all(), (texts{"down 26"}));
}

TEST_F(core, holdover_decays_to_free_running_when_told_so) {
    options.sim.holdover_s = 60;
    start();
    nsm_test_client c;
    connect_quietly(&c);
    lock_to(&c, 26);
    kernel.set(port(26, false));
    loop.run(59900);
    EXPECT_EQ(c.take_all(), (texts{"down 26", "clock 3 0"}));
    loop.run(200);
    EXPECT_EQ(c.take_all(), (texts{"clock 2 0"}));
    kernel.set(port(26));
    loop.run(400);
    EXPECT_EQ(c.take_all(), (texts{"up 26", "clock 4 1"}));
    loop.run(120000);  // a decay that was under way is over with the lock
    EXPECT_TRUE(c.take_all().empty());
}

TEST_F(core, requests_that_make_no_sense_are_said_and_change_nothing) {
    start();
    nsm_test_client c;
    connect_quietly(&c);
    lock_to(&c, 26);
    for (const auto& [type, words] :
         std::vector<std::pair<std::uint16_t, std::vector<std::uint32_t>>>{{206, {2}},
                                                                           {207, {3}},
                                                                           {208, {2}},
                                                                           {209, {0, 0}},
                                                                           {209, {9999, 0}},
                                                                           {210, {1, 2, 0}},
                                                                           {210, {1, 1, 3}}})
        c.say(type, words);
    loop.run(1000);
    EXPECT_EQ(log.count("request ignored"), 7);
    EXPECT_TRUE(c.take_all().empty());
    c.say(209, {77, 0});  // a port that is not there has no signal
    loop.run(20);
    EXPECT_EQ(c.take_all(), (texts{"clock 3 0"}));
}

TEST_F(core, all_that_is_restated_moves_the_clock_once) {
    start();
    nsm_test_client c;
    connect_quietly(&c);
    lock_to(&c, 26);
    c.say(208, {0});
    c.say(209, {1, 0});
    c.say(208, {1});
    c.say(209, {26, 0});
    loop.run(1000);
    EXPECT_TRUE(c.take_all().empty());
}

TEST_F(core, a_daemon_that_vanishes_is_waited_for) {
    start();
    nsm_test_client c;
    connect_quietly(&c);
    lock_to(&c, 26);
    c.hang_up();
    loop.run(9900);
    nsm_test_client again;
    connect(&again);
    EXPECT_EQ(again.take_all()[5], "clock 4 1");
    again.say(206, {1});
    again.say(209, {26, 0});
    loop.run(30000);
    EXPECT_TRUE(again.take_all().empty());
    again.hang_up();
    loop.run(9990);
    EXPECT_EQ(log.count("goes to holdover"), 0);
    loop.run(20);
    EXPECT_EQ(log.count("goes to holdover"), 1);
    nsm_test_client third;
    connect(&third);
    EXPECT_EQ(third.take_all()[5], "clock 3 0");
}

// A fresh daemon begins without a source and does not say so: being connected is no watch.
TEST_F(core, a_daemon_that_names_no_source_is_not_waited_for_longer) {
    start();
    nsm_test_client c;
    connect_quietly(&c);
    lock_to(&c, 26);
    c.hang_up();
    loop.run(2000);
    nsm_test_client fresh;
    connect_quietly(&fresh);
    fresh.say(206, {1});
    loop.run(7900);
    EXPECT_TRUE(fresh.take_all().empty());
    loop.run(200);
    EXPECT_EQ(fresh.take_all(), (texts{"clock 3 0"}));
    fresh.say(209, {26, 0});
    loop.run(400);
    EXPECT_EQ(fresh.take_all(), (texts{"clock 4 1"}));
}

TEST_F(core, goodbye_is_holdover_at_once) {
    start();
    nsm_test_client c, observer;
    connect_quietly(&c);
    lock_to(&c, 26);
    c.say(NSM_MSG_BYE);
    c.hang_up();
    loop.run(1);
    connect(&observer);
    EXPECT_EQ(observer.take_all()[5], "clock 3 0");
}

// The holdover of the daemon before was never ended by anybody; choosing a source does it.
TEST_F(core, a_fresh_daemons_choice_ends_what_the_one_before_left) {
    start();
    nsm_test_client c;
    connect_quietly(&c);
    lock_to(&c, 26);
    c.say(207, {1});
    c.say(208, {0});
    loop.run(20);
    c.hang_up();
    loop.run(1000);
    nsm_test_client fresh;
    connect_quietly(&fresh);
    fresh.say(206, {1});
    fresh.say(209, {1, 0});
    loop.run(400);
    EXPECT_EQ(fresh.take_all(), (texts{"clock 4 0"}));
}

TEST_F(core, a_restarted_nsmd_finds_its_clock_as_it_was) {
    keep_registers();
    start();
    nsm_test_client c;
    connect_quietly(&c);
    lock_to(&c, 26);
    nsmd_stop(n);
    start();
    nsm_test_client again;
    connect(&again);
    EXPECT_EQ(again.take_all()[5], "clock 4 1");
    again.say(206, {1});  // half of what is restated, and the rest late
    loop.run(100);
    again.say(209, {26, 0});
    loop.run(5000);
    EXPECT_TRUE(again.take_all().empty());
    nsmd_stop(n);
    kernel.set(port(26, false), false);  // lost while nobody looked
    start();
    nsm_test_client third;
    connect(&third);
    EXPECT_EQ(third.take_all()[5], "clock 3 0");
}

TEST_F(core, registers_that_make_no_sense_are_as_none) {
    keep_registers();
    for (const char* text : {"", "4", "9 1 1 0 0 1", "x y z a b c", "4294967295 1 1 0 0 1"}) {
        FILE* f = fopen(state_file.c_str(), "w");
        fputs(text, f);
        fclose(f);
        start();
        nsm_test_client c;
        connect(&c);
        EXPECT_EQ(c.take_all()[5], "clock 2 0") << text;
        nsmd_stop(n);
        n = nullptr;
    }
}

TEST_F(core, without_hardware_it_runs_free_whatever_is_asked) {
    options.dpll = dpll_kind::none;
    start();
    nsm_test_client c;
    connect_quietly(&c);
    c.say(206, {1});
    c.say(209, {26, 0});
    loop.run(5000);
    EXPECT_TRUE(c.take_all().empty());
    EXPECT_EQ(log.count("request:"), 2);
}

TEST_F(core, source_codes_by_the_table_and_by_configuration) {
    for (const auto& [ifindex, code] : std::vector<std::pair<std::uint32_t, std::uint32_t>>{
             {26, 1}, {25, 2}, {24, 3}, {20, 4}, {9999, 8}, {1, 0}, {0, 0}})
        EXPECT_EQ(nsmd_source_code(options, ifindex), code);
    options.source_codes[0] = {26, 7};
    options.source_codes[1] = {1, 2};
    options.source_codes[2] = {1, 3};
    options.source_code_count = 3;
    EXPECT_EQ(nsmd_source_code(options, 26), 7U);
    EXPECT_EQ(nsmd_source_code(options, 1), 3U);
}

TEST_F(core, the_status_names_clock_requests_and_ports) {
    start();
    nsm_test_client c;
    connect_quietly(&c);
    lock_to(&c, 26);
    text_buffer text;
    ASSERT_TRUE(nsmd_status(n, &text));
    const std::string all(text.view());
    text_free(&text);
    for (const char* part :
         {"clock state: locked, source 26, code 1", "clock: simulated", "requests: 2; enable 1",
          "port 26 sw26: kernel index 26, up", "clients: 1 connected"})
        EXPECT_NE(all.find(part), std::string::npos) << part << " in\n" << all;
}

// Whatever allocation fails: an orderly refusal to start, or a start that serves.
TEST_F(core, memory_that_runs_out_at_the_start) {
    for (std::uint64_t nth = 1; nth < 40; ++nth) {
        virtual_loop fresh;
        fake_kernel k;
        k.attach(&fresh);
        k.links = {port(1), port(2)};
        memmgr_fail_at(nth);
        nsmd* started = nsmd_start(&fresh.ctx, options, {k.edge(), nullptr, 50});
        memmgr_fail_at(0);
        if (started) fresh.run(10);
        nsmd_stop(started);
    }
    EXPECT_EQ(memmgr_type_stats(MTYPE_NSMD).blocks, 0U);
}

}  // namespace
