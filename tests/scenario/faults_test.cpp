// The daemon when the machine fails it: memory that runs out at any single place or altogether, ports that
// can't send, a clock that jumps, a process that was stopped. Nothing crashes or leaks, the rest works on,
// and once the fault is over all is as if it had not been. Broken rules end the process; the run is in the
// trace.
#include <gtest/gtest.h>

#include "cli/commands.h"
#include "core/result.h"
#include "core/select.h"
#include "esmcd/board.h"
#include "esmcd/install.h"
#include "fuzz/fuzz.h"
#include "fuzz/world.h"
#include "suite/host/host.h"
#include "suite/host/state.h"

namespace {

constexpr std::uint32_t PORTS = 70;  // more than the first blocks of events, timers, links and requests hold

ssm_port* port(std::uint32_t index) {
    return ssm_if_port(if_lookup_by_index(g_p_esmcd->ifm, index));
}

class faults : public ::testing::Test {
  protected:
    virtual_daemon w;

    void begin(std::uint32_t ports) {
        w = virtual_daemon();
        w.nsm_answers = true;
        for (std::uint32_t i = 1; i <= ports; ++i) w.links.push_back(link_body(i, true));
        w.start(false);
        w.with_link = true;  // found at the next try
    }
    void enable() {
        w.in_event([] {
            (void)ssm_opts_set_global_enable(1);
            (void)ssm_opts_set_ssm_enable(1);
            for (interface* intf : if_list(g_p_esmcd->ifm))
                if (ssm_if_port(intf)) (void)ssm_opts_set_port_synce(intf, 1);
        });
    }
    void hear(std::uint32_t index, std::uint8_t quality, bool settled = true) {
        w.hear(index + 1000, esmc_frame({.quality = quality}), settled);
    }
    // Seconds in which port 1 goes on talking.
    void pass_with_source(unsigned seconds) {
        for (; seconds > 0; --seconds) {
            w.pass(1000);
            hear(1, QL_PRC);
        }
    }
    void start_switch(std::uint32_t ports) {
        begin(ports);
        w.pass(1000);
        enable();
        hear(1, QL_PRC);
        w.pass(900);
        hear(1, QL_PRC);
        expect_all_talk(ports);
    }
    // All is well: port 1 is the source, and each port sends one information PDU in a second.
    void expect_all_talk(std::uint32_t ports) {
        std::memset(w.sent, 0, sizeof w.sent);
        pass_with_source(1);
        for (std::uint32_t i = 1; i <= ports; ++i) ASSERT_EQ(w.sent[i], 1U) << "port " << i;
        ASSERT_EQ(g_s_master->selected_port, port(1))
            << "refusal " << static_cast<int>(ssm_candidate_check(port(1)));
    }
    static bool synchronised() { return nsm_client_get_stats(ssm_instance->nsm_client).synchronised; }
};

// ---- Memory ----

class memory_faults : public faults {
  protected:
    // Start of the link, ports, configuration, lock, switch, time-outs, loss and return of NSM, removals.
    void life() {
        w.pass(1000);
        enable();
        hear(1, QL_SSU_A);
        w.pass(900);
        w.hear(1002, esmc_frame({.event = true}));
        w.deliver(NSM_MSG_SSM_SEND_BACK_CLOCK_STATE, be_words({4, 2}));
        w.in_event([] {
            (void)ssm_opts_set_ssm_extend(1);
            (void)ssm_opts_set_local_quality(QL_EEC1, SSM_OPTION_1);
            if (ssm_port* p = port(3)) {
                (void)ssm_opts_set_port_quality(p->intf, 1, "ssu-b");
                (void)ssm_opts_set_gephy_role(p->intf, 1, SSM_GEPHY_SLAVE);
                (void)ssm_opts_set_force_port(p);
            }
            (void)ssm_opts_clear_force();
        });
        w.check_records_after_faults();
        w.deliver(NSM_MSG_LINK_DOWN, be_words({2}));
        w.pass(6000);  // time-outs, holdover
        w.end_link();
        w.pass(1200);
        hear(2, QL_PRC);
        w.deliver(NSM_MSG_LINK_DELETE, be_words({3, 1}));
        w.deliver(NSM_MSG_LINK_DELETE, be_words({4, 0}));
        w.deliver(NSM_MSG_LINK_ADD, link_body(4, true));
        w.deliver(NSM_MSG_LINK_ADD, link_body(200, true));
        w.check_records_after_faults();
    }

    void must_recover() {
        // NSM states again what the fault may have lost, and the operator touches what concerns timers.
        w.end_link();
        w.pass(1500);
        w.in_event([] { (void)ssm_opts_set_ssm_enable(0); });
        enable();
        ASSERT_TRUE(synchronised());
        for (std::uint32_t i = 1; i <= PORTS; ++i) ASSERT_NE(port(i), nullptr) << "port " << i;
        pass_with_source(2);
        expect_all_talk(PORTS);
        w.check_records();
    }
};

TEST_F(memory_faults, every_allocation_of_a_life_fails_once) {
    std::uint64_t nth = 1;
    for (bool reached = true; reached; ++nth) {
        SCOPED_TRACE("allocation " + std::to_string(nth));
        begin(PORTS);
        const std::uint64_t before = memmgr_allocations();
        memmgr_fail_at(nth);
        life();
        reached = memmgr_allocations() - before >= nth;
        memmgr_fail_at(0);
        must_recover();
        if (HasFatalFailure()) return;
        w.stop();
    }
    EXPECT_GT(nth, 2 * PORTS) << "the life is too poor";
}

// ---- Memory, commands ----

constexpr const char* CONFIGURATION =
    "hostname fault\nclock synce global-enable\nclock synce ssm enable\nclock synce local-priority 9\n"
    "interface p01\n clock synce enable\n clock synce priority 3\n clock synce quality-eth rx ssu-a\n"
    "interface p02\n clock synce enable\nno such line\nclock synce switch-force p01\n";

class command_faults : public faults {
  protected:
    command_faults() { ssm_board_use_file(board.path); }
    ~command_faults() override { ssm_board_use_file(nullptr); }

    static int print(void* printed, const char*, ...) {
        ++*static_cast<unsigned*>(printed);
        return 0;
    }
    static void install() {
        if (host_vty_init(g_p_esmcd) != 0) return;
        (void)ssm_install_commands(g_p_esmcd->ctree);
        (void)memmgr_cli_init(g_p_esmcd);
    }
    // Reads the file, binds the ports for which lines wait, writes all back, shows.
    void use() {
        if (!g_p_esmcd->host) return;
        host_config_start(g_p_esmcd, configuration.path, 0);
        for (std::uint32_t i : {1U, 2U}) w.deliver(NSM_MSG_LINK_ADD, link_body(i, true));
        text_buffer text;
        (void)host_running_text(g_p_esmcd->host, &text);
        text_free(&text);
        printed = accepted = 0;
        cli session = {};
        session.zg = g_p_esmcd;
        session.ifm = g_p_esmcd->ifm;
        session.out_func = print;
        session.out_val = &printed;
        session.privilege = PRIVILEGE_MAX;
        session.mode = EXEC_MODE;
        session.line = this;  // a terminal
        for (const char* line : {"show running-config", "show clock synce", "show clock synce brief",
                                 "show clock synce p01", "show memory", "show running-config diff"})
            accepted += cli_run_line(g_p_esmcd->ctree, &session, line) == cli_result::ok;
    }
    // One life with the nth allocation refused, counted from the installation or from after it. False when
    // there were not so many.
    bool run(std::uint64_t nth, bool while_installing) {
        w = virtual_daemon();
        w.start(false);
        if (!while_installing) install();
        const std::uint64_t before = memmgr_allocations();
        memmgr_fail_at(nth);
        while_installing ? install() : use();
        const std::uint64_t count = memmgr_allocations() - before;
        if (while_installing) use();
        memmgr_fail_at(0);
        w.check_records_after_faults();
        w.stop();
        return count >= nth;
    }
    const memory_file board{"synce_support 1\n"}, configuration{CONFIGURATION};
    unsigned printed = 0, accepted = 0;  // calls that printed something, lines that did what they should
};

TEST_F(command_faults, every_allocation_of_reading_and_showing_fails_once) {
    std::uint64_t nth = 1;
    while (run(nth, false)) ++nth;
    EXPECT_GT(nth, 20U);
    // The last run, in which nothing failed.
    EXPECT_EQ(accepted, 6U);
    EXPECT_GT(printed, 20U);
}

// The command tree is thousands of equal nodes: a sample of them has to do.
TEST_F(command_faults, an_installation_that_runs_out_of_memory_leaks_nothing) {
    std::uint64_t nth = 1;
    while (run(nth, true)) nth += nth < 20 ? 1 : 37;
    EXPECT_GT(nth, 100U);
}

// ---- Sending ----

// ---- Time ----

TEST_F(faults, a_stop_of_ten_seconds_ends_without_a_burst) {
    start_switch(4);
    std::memset(w.sent, 0, sizeof w.sent);
    std::memset(w.events, 0, sizeof w.events);
    // What the neighbour sent meanwhile waits in the socket.
    for (int i = 0; i < 10; ++i) hear(1, QL_PRC, false);
    w.jump(10'000);
    w.settle();
    for (std::uint32_t i = 1; i <= 4; ++i) {
        EXPECT_EQ(w.sent[i], 1U) << "port " << i;
        EXPECT_LE(w.events[i], 3U) << "port " << i;  // the source was lost and found
    }
    EXPECT_FALSE(g_s_master->holdover);
    for (int second = 0; second < 2; ++second) expect_all_talk(4);
    w.stop();
}

TEST_F(faults, a_clock_that_jumps_by_hours_keeps_the_period) {
    for (const std::int64_t hours : {3, -3, 3000, -3000}) {
        SCOPED_TRACE(hours);
        start_switch(3);
        w.jump(4000 * 3'600'000LL);  // far enough from zero to go back
        w.settle();
        pass_with_source(2);
        std::memset(w.sent, 0, sizeof w.sent);
        w.jump(hours * 3'600'000);
        hear(1, QL_PRC);
        w.settle();
        for (std::uint32_t i = 1; i <= 3; ++i) EXPECT_LE(w.sent[i], 1U) << "port " << i;
        pass_with_source(2);
        expect_all_talk(3);
        w.stop();
    }
}

}  // namespace
