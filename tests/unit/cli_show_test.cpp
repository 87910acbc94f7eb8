// The shows: their blocks to the last blank, since scripts cut them by column, and the reason that they name
// for each port that selection passed over.
#include <cstring>

#include "core/select.h"
#include "core/supervision.h"
#include "daemon_fixture.h"

namespace {

using show_commands = daemon_test;

TEST_F(show_commands, clock_block) {
    ssm_port* port = add_port("p%s", 1);  // a name is never a format
    const std::uint8_t id[] = {0x00, 0x1A, 0x2B, 0xFF, 0xFE, 0x3C, 0x4D, 0x5E};
    std::memcpy(g_s_master->clock_id, id, sizeof id);
    g_s_master->global_enable = g_s_master->ssm_enable = g_s_master->ssm_extend = g_s_master->gephy_dynamic =
        1;
    g_s_master->ql_option = SSM_OPTION_2;
    g_s_master->local_quality = g_s_master->current_quality = QL_EEC2;
    g_s_master->local_priority = 4;
    g_s_master->selected_port = g_s_master->force_port = port;
    g_s_master->freerun = 0;
    g_s_master->device_type = SSM_SLAVE_ONLY;
    g_s_master->dpll_state = SSM_DPLL_LOCK;
    EXPECT_EQ(shown("show clock synce"),
              "--------------------------  Global Synce Clock Configure  --------------------------\n"
              "Device ClockID                     : 00:1A:2B:FF:FE:3C:4D:5E\n"
              "Enable global synce                : enable (with gephy)\n"
              "Enable global ssm                  : enable (with gephy)\n"
              "SSM option mode                    : 2\n"
              "Device quality                     : EEC2\n"
              "Current quality                    : EEC2/ST3\n"
              "Device priority                    : 4\n"
              "Current selected interface         : p%s\n"
              "Switch force interface             : p%s\n"
              "Enable ssm extension               : enable (with gephy)\n"
              "Clock running state                : Lock\n"
              "Device type                        : Slave-only\n"
              "--------------  DPLL status  -------------\n"
              "Selected Clock Valid Status        : Valid\n"
              "DPLL running state                 : Lock\n");
}

TEST_F(show_commands, port_block_of_a_port_alone) {
    thread timer = {};
    ssm_port* port = add_port("p1", 1);
    port->synce_enable = port->link_up = 1;
    port->recv_quality = port->send_quality = port->force_rx_quality = QL_EEC1;
    port->priority = 9;
    port->dnu_group = 7;
    port->esmc_mode = SSM_ESMC_RX;
    port->send_timer = &timer;
    const std::string block = shown("show clock synce p1");
    port->send_timer = nullptr;
    EXPECT_EQ(block,
              "------------------------------------------------------------------------\n"
              "Interface                           : p1\n"
              "---------------------------  Port Configure  ---------------------------\n"
              "Synce enable                        : enable\n"
              "ESMC RX/TX                          : ESMC RX\n"
              "Port up                             : enable\n"
              "Receive quality                     : EEC1/SEC\n"
              "Send quality                        : EEC1\n"
              "Quality RX configured               : EEC1\n"
              "Quality TX configured               : N/A\n"
              "Port priority                       : 9\n"
              "DNU group                           : 7\n"
              "Replace clockid                     : disable\n"
              "Send timer running                  : enable\n"
              "Timeout timer running               : disable\n");
    add_interface("lo", 9, 1);
    add_interface("unbound", 10);
    for (const char* line : {"show clock synce nowhere", "show clock synce lo", "show clock synce unbound"})
        quiet(line);
}

class everyday : public daemon_test {
  protected:
    void SetUp() override {
        daemon_test::SetUp();
        g_s_master->global_enable = g_s_master->ssm_enable = 1;
    }
    ssm_port* candidate(const char* name, std::uint32_t ifindex, std::uint16_t quality,
                        std::uint8_t priority) {
        ssm_port* port = add_port(name, ifindex);
        port->synce_enable = port->link_up = port->recv_pdu = 1;
        port->recv_quality = quality;
        port->priority = priority;
        return port;
    }
    // The column of the port's line before the last, with the neighbour cut off.
    std::string why(const std::string& name) {
        const std::string table = shown("show clock synce brief");
        const std::size_t line = table.find("\n" + name + " ");
        if (line == std::string::npos) return "no line";
        constexpr std::size_t column = 60;
        const std::string reason = table.substr(line + column, 48);
        return reason.substr(0, reason.find_last_not_of(' ') + 1);
    }
    // The first line of the selection.
    std::string source() {
        const std::string table = shown("show clock synce selection");
        return table.substr(0, table.find('\n'));
    }
};

TEST_F(everyday, brief_names_the_reason_of_each_port) {
    std::fill_n((g_s_master->selected_port = candidate("p1", 1, QL_PRC, 10))->neighbour, 6, 0xa0);
    candidate("of sixteen chars", 2, QL_PRC, 10)->force_rx_quality = QL_PRC;
    const std::string blank(48, ' '), longest = "p1 has the better interface index";
    EXPECT_EQ(shown("show clock synce brief"),
              "Port             State  Rx       Tx     Prio  Forced       Why not the source" +
                  blank.substr(18) +
                  " Neighbour\np1               source PRC      N/A      10  -            " + blank +
                  " a0:a0:a0:a0:a0:a0\nof sixteen chars up     PRC      N/A      10  rx           " +
                  longest + blank.substr(longest.size()) + " -\n");
    for (std::uint32_t i : {1U, 2U}) if_remove(ctx_->ifm, if_lookup_by_index(ctx_->ifm, i));
    candidate("best", 1, QL_SSU_A, 10);
    candidate("worse", 2, QL_EEC1, 1);
    candidate("later", 3, QL_SSU_A, 20);
    candidate("same", 4, QL_SSU_A, 10);
    candidate("off", 5, QL_PRC, 1)->synce_enable = 0;
    candidate("down", 6, QL_PRC, 1)->link_up = 0;
    candidate("silent", 7, QL_NONE, 1)->recv_pdu = 0;
    candidate("dnu", 8, QL_DNU, 1);
    constexpr const char* reasons[][2] = {{"worse", "best has the better quality"},
                                          {"later", "best has the better priority"},
                                          {"same", "best has the better interface index"},
                                          {"off", "synce disabled"},
                                          {"down", "link down"},
                                          {"silent", "nothing received"},
                                          {"dnu", "received DNU"},
                                          {"best", "is chosen by the next selection"}};
    for (const auto& [port, reason] : reasons) EXPECT_EQ(why(port), reason) << port;
}

TEST_F(everyday, the_switchs_own_settings_are_reasons_too) {
    EXPECT_EQ(source(), "Source: none, no candidate");
    ssm_port* best = candidate("best", 1, QL_SSU_A, 10);
    g_s_master->local_quality = QL_PRC;
    EXPECT_EQ(why("best"), "own quality is better");
    EXPECT_EQ(source(), "Source: none, own quality is better");
    g_s_master->local_quality = QL_SSU_A;
    g_s_master->local_priority = 10;
    EXPECT_EQ(why("best"), "own priority is not worse");
    g_s_master->device_type = SSM_SLAVE_ONLY;
    EXPECT_EQ(why("best"), "is chosen by the next selection");
    g_s_master->device_type = SSM_MASTER_ONLY;
    g_s_master->force_port = best;  // is not looked at
    EXPECT_EQ(why("best"), "the switch is master-only");
    g_s_master->global_enable = 0;
    EXPECT_EQ(why("best"), "SyncE is off");
    g_s_master->global_enable = 1;
    g_s_master->device_type = SSM_DEFAULT_ROLE;
    g_s_master->force_port = nullptr;
    g_s_master->ssm_enable = 0;
    candidate("silent", 2, QL_NONE, 5)->recv_pdu = 0;
    EXPECT_EQ(why("best"), "silent has the better priority") << "alone counts without SSM";
}

TEST_F(everyday, force_switch_is_a_reason_only_while_it_is_in_effect) {
    candidate("best", 1, QL_PRC, 1);
    ssm_port* forced = candidate("forced", 2, QL_DNU, 1);
    g_s_master->force_port = forced;
    EXPECT_EQ(why("best"), "switched by force to forced");
    EXPECT_EQ(why("forced"), "forced, but carries DNU");
    EXPECT_EQ(source(), "Source: none, DNU on the forced port forced");
    forced->link_up = 0;
    EXPECT_EQ(why("best"), "is chosen by the next selection");
    EXPECT_EQ(why("forced"), "link down");
}

TEST_F(everyday, selection_lists_candidates_in_order_with_the_deciding_key) {
    candidate("third", 1, QL_SSU_A, 20);
    candidate("second", 2, QL_SSU_A, 10);
    candidate("first", 3, QL_PRC, 255);
    candidate("down", 4, QL_PRC, 1)->link_up = 0;
    ssm_opts_reselect();
    EXPECT_EQ(shown("show clock synce selection"),
              "Source: first\n"
              "Rank  Port             Quality  Prio Hops Index  Ahead of the next by\n"
              "   1  first            PRC       255    0     3  quality\n"
              "   2  second           SSU-A      10    0     2  priority\n"
              "   3  third            SSU-A      20    0     1  -\n"
              "\nPort             Why it is no candidate\n"
              "down             link down\n");
    memmgr_fail_at(1);
    refused("show clock synce selection", "% Out of memory\n");
    memmgr_fail_at(0);
}

// Where it is off nothing is said of it: the other cases see those shows whole.
TEST_F(everyday, loop_guard_says_what_it_has_against_an_offer) {
    candidate("far", 1, QL_PRC, 10)->recv_hop_count = 61;
    ssm_port* back = candidate("back", 2, QL_PRC, 20);
    back->recv_hop_count = 8;
    back->recv_clockid[3] = 0xFF;
    g_s_master->clock_id[0] = 2;
    g_s_master->freerun = 0;
    g_s_master->holdover = 1;
    candidate("own", 3, QL_EEC1, 30);
    g_s_master->guard.enable = 1;
    EXPECT_EQ(why("far"), "is chosen by the next selection");
    const std::string off = shown("show clock synce");
    EXPECT_NE(off.find("Loop guard in force                : no, it needs \"clock synce ssm extend\"\n"),
              off.npos);
    daemon_->in_event([&] {
        ASSERT_EQ(ssm_opts_set_ssm_extend(1), 0);
        ssm_distance_tell(&g_s_master->guard.distances, back->recv_clockid, 1, 1);
        ssm_clock_select();
    });
    constexpr const char* reasons[][2] = {{"far", "too many hops: 61, limit 60"},
                                          {"back", "holding for 500 ms: 8 hops, ours 1"},
                                          {"own", "own holdover as good"}};
    for (const auto& [port, reason] : reasons) EXPECT_EQ(why(port), reason) << port;
    EXPECT_EQ(source(), "Source: none, holding for 500 ms");
    const std::string block = shown("show clock synce");
    EXPECT_EQ(block.substr(block.find("--------------  Loop")),
              "--------------  Loop guard  --------------\n"
              "Loop guard in force                : yes\n"
              "Hold time                          : 500 ms\n"
              "Most hops                          : 60\n"
              "Offers refused                     : 3\n"
              "Holds                              : 1\n"
              "Longest hold                       : 0 ms\n"
              "Holding for                        : 500 ms\n");
    daemon_->pass(200);
    const std::string json = shown("show clock synce json");
    for (
        const char* part :
        {R"("loop_guard_in_force":true,"loop_guard_hold_ms":500,"loop_guard_hops":60,"loop_guard_refused":3,)"
         R"("loop_guard_holds":1,"loop_guard_longest_hold_ms":0,"loop_guard_holding":true,)"
         R"("loop_guard_hold_left_ms":300,)",
         R"("loop_guard_refused_ms":200,"held_back":0)"})
        EXPECT_NE(json.find(part), json.npos) << json;
    // The operator's hand ends a hold: it is not counted on.
    daemon_->in_event([&] { ASSERT_EQ(ssm_opts_set_force_port(back), 0); });
    EXPECT_EQ(std::pair(g_s_master->guard.holding_since, g_s_master->guard.longest_hold),
              std::pair(nanoseconds{0}, 200 * NS_PER_MS));
}

TEST_F(everyday, supervision_gives_its_reasons) {
    ssm_port* best = candidate("best", 1, QL_SSU_A, 10);
    ssm_port* other = candidate("other", 2, QL_SSU_A, 20);
    g_s_master->selected_port = other;
    g_s_master->freerun = 0;
    g_s_master->non_revertive = 1;
    EXPECT_EQ(why("best"), "the source stays (non-revertive)");
    g_s_master->non_revertive = 0;
    session_.line = this;
    quiet("clock synce manual-switch other");
    EXPECT_EQ(why("best"), "manual switch to other");
    candidate("low", 3, QL_EEC1, 1)->min_rx_quality = QL_SSU_A;
    EXPECT_EQ(why("low"), "below the minimum SSU-A");
    best->lockout = 1;
    EXPECT_EQ(why("best"), "locked out");
    const std::string brief = shown("show clock synce brief");
    EXPECT_EQ(brief.substr(brief.find("Note")),
              "Note: manual switch to other is active, \"clear clock synce switch\" ends it\n"
              "Note: best is locked out\n");
    ssm_port* restored = candidate("restored", 4, QL_PRC, 1);
    daemon_->in_event([&] {
        ASSERT_EQ(ssm_opts_set_restore(60), 0);
        ssm_source_failed(restored);
        ssm_source_recovered(restored);
    });
    daemon_->pass(1500);
    EXPECT_EQ(why("restored"), "waiting to restore, 59 s left");
    const std::string clock = shown("show clock synce"), port = shown("show clock synce restored");
    EXPECT_EQ(clock.substr(clock.find("--------------  Supervision")),
              "--------------  Supervision  -------------\n"
              "Wait to restore                    : 60 s\n"
              "Manual switch                      : other\n");
    EXPECT_EQ(port.substr(port.find("-----------------------------  Supervision")),
              "-----------------------------  Supervision  ----------------------------\n"
              "Wait to restore                     : 60 s\n"
              "Restored in                         : 59 s\n");
    const std::string history = shown("show clock synce history");
    EXPECT_NE(history.find("command  other            manual switch    the operator\n"), history.npos)
        << history;
    best->statistics->timeouts = 7;
    ssm_pin pin{true, false, 1, -5, 0, "SWP0"};
    best->pin = &pin;
    g_s_master->hardware.error = 4;
    const std::string json = shown("show clock synce json");
    best->pin = nullptr;
    for (const char* part : {R"("timeouts":7,)", R"("lock_error":"ffo-too-high","hardware_quality":null,)",
                             R"("pin_label":"SWP0","pin_state":"active","frequency_offset_ppt":-5,)"
                             R"("measured_frequency_millihertz":null})"})
        EXPECT_NE(json.find(part), std::string::npos) << json;
    quiet("clear clock synce statistics best");
    EXPECT_NE(shown("show clock synce statistics best").find("Time-outs                           : 0\n"),
              std::string::npos);
}

TEST_F(everyday, a_port_that_goes_and_comes_back_while_ports_are_listed_is_shown_once) {
    for (std::uint32_t i : {1U, 2U, 3U}) add_port(("p" + std::to_string(i)).c_str(), i);
    session_.full = [](const cli*) { return true; };
    std::string names;
    for (int part = 0; run("show clock synce json") == cli_result::more; part++) {
        if (part == 0) {
            for (std::uint32_t i : {1U, 2U}) if_remove(ctx_->ifm, if_lookup_by_index(ctx_->ifm, i));
            add_port("p1", 1);
            g_s_master->history.count++;
        }
        const std::string text = output();
        names += text.substr(text.find("\"name\":") + 7, 5);
    }
    EXPECT_EQ(names, R"("p1","p3",)");
    EXPECT_EQ(output(), R"(],"changed_meanwhile":true})"
                        "\n");
    EXPECT_EQ(session_.part.shown, 0U) << "the next listing begins anew";
}

TEST_F(everyday, quality_levels_of_the_metrics_are_in_the_order_of_each_option) {
    const auto level = [&] {
        const std::string text = shown("show clock synce metrics");
        return std::stoi(text.substr(text.find("\nesmcd_quality_level ") + 21));
    };
    for (const ssm_option option : {SSM_OPTION_1, SSM_OPTION_2}) {
        g_s_master->ql_option = option;
        std::vector<std::pair<ssm_quality, int>> known;
        for (const char* token : {"eprtc", "prtc", "eprc", "prc", "prs", "stu", "ssu-a", "st2", "tnc",
                                  "ssu-b", "st3e", "eeec", "eec1", "eec2", "smc", "prov", "dnu", "dus"}) {
            ssm_quality code = 0;
            if (ssm_ql_parse(token, &code) < 0) continue;
            g_s_master->current_quality = code;
            known.emplace_back(code, level());
        }
        EXPECT_GE(known.size(), 9U);
        for (const auto& [a, level_a] : known)
            for (const auto& [b, level_b] : known)
                EXPECT_EQ(ssm_ql_compare(a, b), (level_a > level_b) - (level_a < level_b)) << a << " " << b;
    }
}

// All samples of a family together, whatever parts they come in; a name in them may hold anything.
TEST_F(everyday, metrics_in_parts_are_those_of_one_piece) {
    ssm_port* odd = candidate("a\"\\\xff", 1, QL_PRC, 10);
    ssm_pin pin{true, true, 1, -5, 125'000'000'001, "SWP0"};
    odd->pin = &pin;
    odd->neighbour[5] = 9;
    candidate("p2", 2, QL_EEC1, 20)->link_up = 0;
    candidate("off", 3, QL_PRC, 1)->synce_enable = 0;
    g_s_master->hardware.error = 4;
    ssm_opts_reselect();
    g_s_master->history = {};  // moments depend on the wall clock
    g_s_master->history.count = 300;
    const std::string whole = shown("show clock synce metrics");
    for (const char* part :
         {R"(esmcd_source{port="a\"\\\\xff"} 1)", R"(esmcd_source{port="p2"} 0)", "# EOF\n",
          "esmcd_changes_total 300", R"(esmcd_port_usable{port="p2",reason="link down"} 0)",
          R"(esmcd_lock_error{error="ffo-too-high"} 1)", R"(esmcd_lock_error{error="none"} 0)",
          R"(_ratio{port="a\"\\\\xff"} -5e-12)", R"(_hertz{port="a\"\\\\xff"} 125000000.001)",
          R"(,neighbour="00:00:00:00:00:09"} 1)", R"(received",quality="eec1"} 1)",
          "\nesmcd_changed_meanwhile 0\n"})
        EXPECT_NE(whole.find(part), whole.npos) << part << "\n" << whole;
    EXPECT_EQ(whole.find("\"off\""), whole.npos) << "SyncE is not enabled there";
    session_.full = [](const cli*) { return true; };
    std::string parts;
    while (run("show clock synce metrics") == cli_result::more) parts += output();
    EXPECT_EQ(parts + output(), whole);
    run("show clock synce metrics");
    g_s_master->history.count++;
    while (run("show clock synce metrics") == cli_result::more) parts = output();
    odd->pin = nullptr;
    EXPECT_NE(output().find("\nesmcd_changed_meanwhile 1\n"), whole.npos);
}

// The names and kinds of all fields are held to the document (cli_commands_test); here are their values.
TEST_F(everyday, json_is_one_object) {
    const auto without_later_fields = [](std::string text) {
        for (std::size_t at; (at = text.find(R"(,"extend_form")")) != text.npos;)
            text.erase(at, std::min(text.find(R"(,"ports")", at), text.find('}', at)) - at);
        return text;
    };
    g_s_master->selected_port = candidate("p1", 1, QL_PRC, 10);
    g_s_master->freerun = 0;
    ssm_port* odd = candidate("a\"\\\x01", 2, QL_NONE, 255);
    odd->recv_pdu = odd->link_up = 0;
    for (std::uint8_t i = 0; i < 6; ++i) odd->intf->mac[i] = odd->neighbour[i] = std::uint8_t(0xf0 + i);
    g_s_master->selected_port->neighbour[5] = 9;
    EXPECT_EQ(
        without_later_fields(shown("show clock synce json")),
        R"({"clock_id":"00:00:00:00:00:00:00:00","synce_enabled":true,"ssm_enabled":true,)"
        R"("ssm_extended":false,"option":1,"local_quality":"dnu","local_priority":255,)"
        R"("current_quality":"dnu","device_type":"default","running_state":"lock",)"
        R"("dpll_state":"freerun","recovery_input":"synce","source":"p1","no_source_reason":null,)"
        R"("forced_port":null,"ports":[)"
        R"({"name":"p1","ifindex":1,"source":true,"not_source_reason":null,"synce_enabled":true,)"
        R"("link_up":true,"esmc":"all","received_quality":"prc","sent_quality":"none",)"
        R"("forced_received_quality":"none","forced_sent_quality":"none","priority":10,"dnu_group":0,)"
        R"("replace_clock_id":false,"received_clock_id":"00:00:00:00:00:00:00:00","hop_count":0,)"
        R"("sending":false,"receiving":false,"address":null,"neighbour":"00:00:00:00:00:09"},)"
        R"({"name":"a\u0022\u005c\u0001","ifindex":2,"source":false,"not_source_reason":"link down",)"
        R"("synce_enabled":true,"link_up":false,"esmc":"all","received_quality":"none",)"
        R"("sent_quality":"none","forced_received_quality":"none","forced_sent_quality":"none",)"
        R"("priority":255,"dnu_group":0,"replace_clock_id":false,"received_clock_id":null,"hop_count":0,)"
        R"("sending":false,"receiving":false,"address":"f0:f1:f2:f3:f4:f5","neighbour":null}]})"
        "\n");
}

}  // namespace
