// The simulated clock in virtual time, and nsmd's core around it: requests through a session, links through
// the kernel's messages, reports back to the client.
#include "nsmd/control.h"
#include "nsmd_support.h"

namespace {

struct sim_session : nsmd_session {
    sim_session() {
        act("quiet sw1 1, quiet sw2 2, quiet sw26 26");
        options.dpll = dpll_kind::simulated;
    }
};
struct core : testing::Test, sim_session {};

TEST_F(core, the_dump_is_bridge_ports_clock_end_and_changes_follow) {
    start_alone();
    EXPECT_EQ(connect(), "ack 0, bridge, add 1 1 1, add 2 2 1, add 26 26 1, clock 2 0, sync");
    play({{"sw1 1 down, gone 2, sw7 7 down", 1, "down 1, gone 2 1, add 7 7 0"}});
}

// The code of port 26 is 1.
const std::vector<step> LOCKED = {{"enable 1, select 26", 400, "clock 4 1"}};

// Each begins with a fresh nsmd that is locked to port 26.
const struct {
    const char* fault;  // what it would be
    std::vector<step> steps;
    const char* said = "can't";
    long times = 0;
} stories[] = {
    {"a lost reference is no holdover, or is locked to again too early",
     {{"enable 0", 20, "clock 2 0"},
      {"enable 1, select 26", 300, ""},  // the settling comes on top of the lock time
      {"", 20, "clock 4 1"},
      {"sw26 26 down", 1, "down 26, clock 3 0"},  // in this order
      {"sw26 26", 299, "up 26"},
      {"", 2, "clock 4 1"}}},
    {"a reference that was cut while being locked to does not start over",
     {{"enable 0", 20, "clock 2 0"},
      {"enable 1, select 26", 200, ""},
      {"sw26 26 downs 1", 299, "down 26, up 26"},  // never locked: free-running all the time
      {"", 2, "clock 4 1"}}},
    {"changing between live references is not hitless",
     {{"select 1", 400, "clock 4 0"},
      {"select 26", 100, ""},
      {"sw1 1 down", 1, "down 1, clock 3 0"},  // still followed, and gone before the next is locked to
      {"", 300, "clock 4 1"}}},
    {"a request does not move the clock",
     {{"holdover 0", 20, "clock 3 0"},
      {"", 5000, ""},
      {"holdover 1", 400, "clock 4 1"},
      {"recover 1", 20, "clock 3 0"},  // nothing is connected there
      {"recover 0", 400, "clock 4 1"},
      {"select 77", 20, "clock 3 0"},  // a port that is not there has no signal
      {"enable 0", 20, "clock 2 0"},
      {"sw26 26 down", 20, "down 26"}}},  // what is off loses nothing
    {"a request that makes no sense changes something",
     {{"enable 2, recover 3, holdover 2, select 0, select 9999, role 1 2 0, role 1 1 3", 1000, ""}},
     "request ignored",
     7},
    {"all that is restated moves the clock more than once",
     {{"holdover 0, select 1, holdover 1, select 26", 1000, ""}}},
    {"a daemon that vanishes is not waited for, or for ever",
     {{"hang-up", 9900, ""},
      {"connect", 0, "clock 4 1"},
      {"enable 1, select 26", 30000, ""},
      {"hang-up", 9980, ""},
      {"connect", 0, "clock 4 1"},
      {"enable 1, select 26", 1, ""},
      {"hang-up", 10010, ""},
      {"connect", 0, "clock 3 0"}},
     "goes to holdover",
     1},
    // A fresh daemon begins without a source and does not say so: being connected is no watch.
    {"a daemon that names no source is waited for longer",
     {{"hang-up", 2000, ""},
      {"connect, enable 1", 7900, "clock 4 1"},
      {"", 200, "clock 3 0"},
      {"select 26", 400, "clock 4 1"}}},
    {"a daemon that said goodbye is waited for", {{"bye, hang-up", 1, ""}, {"connect", 0, "clock 3 0"}}},
    // The holdover of the daemon before was never ended by anybody; choosing a source does it.
    {"what the daemon before has left outlives a fresh one's choice",
     {{"recover 1, holdover 0", 20, "clock 3 0"},
      {"hang-up", 1000, ""},
      {"connect, enable 1, select 1", 400, "clock 3 0, clock 4 0"}}},
};

TEST(sim, stories) {
    for (const auto& s : stories) {
        SCOPED_TRACE(s.fault);
        sim_session fresh;
        fresh.start();
        fresh.play(LOCKED);
        fresh.play(s.steps);
        EXPECT_EQ(fresh.log.count(s.said), s.times);
    }
}

TEST_F(core, holdover_decays_to_free_running_when_told_so) {
    options.sim.holdover_s = 60;
    options.sim.state_file = "/nowhere/registers";
    start();
    play(LOCKED);
    play({{"sw26 26 down", 59900, "down 26, clock 3 0"},
          {"", 200, "clock 2 0"},
          {"sw26 26", 400, "up 26, clock 4 1"},
          {"sw26 26 down", 30000, "down 26, clock 3 0"},
          {"sw26 26", 400, "up 26, clock 4 1"},
          {"", 120000, ""}});  // a decay that was under way is over with the lock
    EXPECT_EQ(log.count("can't write /nowhere/registers"), 1);
}

TEST_F(core, a_restarted_nsmd_finds_its_clock_as_it_was) {
    const std::string file = "/tmp/nsmd-sim-" + std::to_string(getpid());
    options.sim.state_file = file.c_str();
    start();
    play(LOCKED);
    stop();
    start_alone();
    // Half of what is restated, and the rest late.
    play({{"connect", 0, "clock 4 1"}, {"enable 1", 100, ""}, {"select 26", 5000, ""}});
    stop();
    act("quiet sw26 26 down");  // lost while nobody looked
    start_alone();
    play({{"connect", 0, "clock 3 0"}});
    stop();
    unlink(file.c_str());
}

TEST_F(core, without_hardware_it_runs_free_whatever_is_asked) {
    options.dpll = dpll_kind::none;
    start();
    play({{"enable 1, select 26", 5000, ""}});
    EXPECT_EQ(log.count("request:"), 2);
}

TEST_F(core, source_codes_by_the_table_and_by_configuration) {
    for (const auto& [port, code] : {std::pair{26, 1U}, {25, 2}, {24, 3}, {20, 4}, {9999, 8}, {1, 0}})
        EXPECT_EQ(nsmd_source_code(options, static_cast<std::uint32_t>(port)), code) << port;
    const source_code given[] = {{26, 7}, {1, 2}, {1, 3}};  // the last one given counts
    std::copy(std::begin(given), std::end(given), options.source_codes);
    options.source_code_count = 3;
    EXPECT_EQ(nsmd_source_code(options, 26), 7U);
    EXPECT_EQ(nsmd_source_code(options, 1), 3U);
}

// A grace time without an end would follow a source that nobody watches.
TEST_F(core, without_memory_for_the_grace_time_holdover_comes_at_once) {
    struct {
        bool holdover = false;
    } seen;
    dpll_backend clock = dpll_none();
    clock.self = &seen;
    clock.apply = [](void* s, const dpll_wanted& w) {
        static_cast<decltype(seen)*>(s)->holdover = w.holdover;
    };
    clock_control control;
    clock_control_start(&control, &loop.ctx, clock, 10);
    clock_control_clients(&control, 1, false);
    clock_control_wanted(&control, true);
    loop.run(20);
    do memmgr_fail_at(1);
    while (thread_add_timer_msec(
        &loop.ctx, [](thread*) { return 0; }, nullptr, 1));
    memmgr_fail_at(1);
    clock_control_clients(&control, 0, false);
    memmgr_fail_at(0);
    EXPECT_TRUE(seen.holdover);
    clock_control_stop(&control);
}

// Whatever allocation fails: an orderly refusal to start, or a start that serves.
TEST_F(core, memory_that_runs_out_at_the_start) {
    for (std::uint64_t nth = 1; nth < 40; ++nth) {
        virtual_loop fresh;
        kernel.attach(&fresh);
        kernel.queues.clear();
        memmgr_fail_at(nth);
        nsmd* started = nsmd_start(&fresh.ctx, options, {kernel.edge(), nullptr, 50});
        memmgr_fail_at(0);
        if (started) fresh.run(10);
        nsmd_stop(started);
    }
    EXPECT_EQ(memmgr_type_stats(MTYPE_NSMD).blocks, 0U);
}

}  // namespace
