// Configuration commands through the real engine: what each leaves in the running configuration, what it
// traces, what it refuses, and the life of the interface under the session.
#include "daemon_fixture.h"

namespace {

using lines = std::vector<std::string>;

// A line that is taken, what the configuration then holds, and the trace where it is not the line itself.
struct taken {
    const char* line;
    const char* written;
    const char* trace = nullptr;
};

class config_commands : public daemon_test {
  protected:
    void SetUp() override {
        daemon_test::SetUp();
        port_ = add_port("p1", 1);
        add_interface("lo", 9, 1);
        add_interface("unbound", 10);
        config_mode();
        session_.line = this;  // a terminal's, no configuration file's
    }
    // What the writer makes of the configuration.
    std::string written(int (*writer)(cli*)) {
        EXPECT_EQ(writer(&session_), 0);
        return output();
    }
    std::string global() { return written(ssm_config_write); }
    std::string interfaces() { return written(ssm_interface_config_write); }
    void take(const taken& row) {
        ssm_debug = SSM_DEBUG_CLI;
        quiet(row.line);
        const std::string trace = row.trace ? row.trace : row.line;
        EXPECT_EQ(logged(), trace.empty() ? lines{} : lines{": " + trace}) << row.line;
    }
    ssm_port* port_ = nullptr;
};

TEST_F(config_commands, of_the_switch_are_traced_and_written) {
    const taken rows[] = {
        {"clock synce global-enable", "clock synce global-enable\n"},
        {"no clock synce global-enable", ""},
        {"clock synce ssm enable gephy", "clock synce ssm enable gephy\n",
         "clock synce ssm enable and setting gephy role dynamically"},
        {"clock synce ssm enable", "clock synce ssm enable\n"},
        {"no clock synce ssm enable", ""},
        {"clock synce local-quality option1 eec1", "clock synce local-quality option1 eec1\n",
         "clock synce local-quality eec1 under option1 mode"},
        {"clock synce local-quality option1 dnu", "", "clock synce local-quality dnu under option1 mode"},
        {"cl sy local-q option2 eec", "clock synce local-quality option2 eec2\n",
         "clock synce local-quality eec2 under option2 mode"},
        {"clock synce local-quality option2 dus", "clock synce local-quality option2 dus\n",
         "clock synce local-quality dus under option2 mode"},
        {"no clock synce local-quality", ""},
        {"clock synce local-priority 007", "clock synce local-priority 7\n"},
        {"no clock synce local-priority", ""},
        {"clock synce master-only", "clock synce master-only\n"},
        {"no clock synce slave-only", ""},  // whatever the role is
        {"clock synce slave-only", "clock synce slave-only\n"},
        {"no clock synce master-only", ""},
        {"clock synce ssm extend", "clock synce ssm extend\n"},
        {"no clock synce ssm extend", ""},
        {"clock synce loop-guard hold 5000", "clock synce loop-guard hold 5000\n"},
        {"no clock synce loop-guard hold", ""},
        {"clock synce loop-guard hops 254", "clock synce loop-guard hops 254\n"},
        {"no clock synce loop-guard hops", ""},
        {"clock synce local-quality option1 eprtc", "clock synce local-quality option1 eprtc\n",
         "clock synce local-quality eprtc under option1 mode"},
        {"clock synce local-quality option1 dnu", "", "clock synce local-quality dnu under option1 mode"},
        {"clock synce ssm extend standard", "clock synce ssm extend standard\n"},
        {"clock synce ssm extend", "clock synce ssm extend\n"},
        {"no clock synce ssm extend", ""},
        {"clock synce clock-type eeec", "clock synce clock-type eeec\n"},
        {"no clock synce clock-type", ""},
        {"clock synce hold-off 1800", "clock synce hold-off 1800\n"},
        {"no clock synce hold-off", ""},
        {"clock synce wait-to-restore 720", "clock synce wait-to-restore 720\n"},
        {"no clock synce wait-to-restore", ""},
        {"clock synce non-revertive", "clock synce non-revertive\n"},
        {"no clock synce non-revertive", ""},
        {"clock synce advertise when-locked", "clock synce advertise when-locked\n"},
        {"no clock synce advertise", ""},
        {"state keep", "state keep\n"},
        {"no state keep", ""},
        {"clock synce switch-force p1", "clock synce switch-force p1\n"},
        {"no clock synce switch-force", ""},
        {"clock recovery-select bits bits2", "clock recovery-select bits bits2\n"},
        {"no clock recovery-select", ""},
    };
    for (const taken& row : rows) {
        take(row);
        EXPECT_EQ(global(), row.written + std::string("!\n")) << row.line;
    }
}

// Neither number switches it on, and nobody believes to be guarded without the extension.
TEST_F(config_commands, loop_guard_says_that_it_needs_the_extension) {
    const std::string note = "Note: the loop guard has no effect without \"clock synce ssm extend\"\n";
    quiet("clock synce loop-guard hold 100");
    EXPECT_EQ(g_s_master->guard.enable, 0U);
    EXPECT_EQ(shown("clock synce loop-guard"), note);
    quiet("clock synce ssm extend");
    quiet("clock synce loop-guard");
    quiet("clock synce loop-guard hops 1");
    EXPECT_EQ(global(),
              "clock synce ssm extend\nclock synce loop-guard\nclock synce loop-guard hold 100\n"
              "clock synce loop-guard hops 1\n!\n");
    EXPECT_EQ(shown("no clock synce ssm extend"), note);
    quiet("no clock synce loop-guard");
    quiet("no clock synce ssm extend");
}

TEST_F(config_commands, of_a_port_are_traced_and_written) {
    const taken rows[] = {
        {"clock synce enable", " clock synce enable\n", "interface clock synce enable"},
        {"no clock synce enable", "", "interface no clock synce enable"},
        {"clock synce priority 3", " clock synce priority 3\n", "interface clock synce priority 3"},
        {"no clock synce priority", "", "interface no clock synce priority"},
        {"no clock synce ssm enable tx", " no clock synce ssm enable tx\n",
         "interface no clock synce ssm enable"},
        {"no clock synce ssm enable rx", " no clock synce ssm enable all\n",
         "interface no clock synce ssm enable"},
        {"clock synce ssm enable tx", " no clock synce ssm enable rx\n",
         "interface clock synce ssm enable tx"},
        {"clock synce ssm enable all", "", "interface clock synce ssm enable all"},
        {"clock synce dnu-group 255", " clock synce dnu-group 255\n", "interface clock synce dnu group 255"},
        {"no clock synce dnu-group", "", ""},
        {"clock synce extend replace-clockid", " clock synce extend replace-clockid\n"},
        {"no clock synce extend replace-clockid", ""},
        {"clock synce quality-eth rx prc", " clock synce quality-eth rx prc \n",
         "interface clock synce quality-level rx prc"},
        {"no clock synce quality-eth rx", "", "no interface clock synce quality-level rx"},
        {"clock synce quality-eth tx ssu-a", " clock synce quality-eth tx ssu-a \n",
         "interface clock synce quality-level tx ssu-a"},
        {"no clock synce quality-eth tx", "", "no interface clock synce quality-level tx"},
        {"clock synce quality-eth minimum eeec", " clock synce quality-eth minimum eeec\n",
         "interface clock synce quality-eth rx minimum eeec"},
        {"no clock synce quality-eth minimum", "", "interface clock synce quality-eth rx minimum na"},
        {"clock synce quality-eth tx maximum prtc", " clock synce quality-eth tx maximum prtc\n",
         "interface clock synce quality-eth tx maximum prtc"},
        {"no clock synce quality-eth tx maximum", "", "interface clock synce quality-eth tx maximum na"},
        {"clock synce lockout", " clock synce lockout\n", "interface clock synce lockout"},
        {"no clock synce lockout", "", "interface no clock synce lockout"},
        {"clock synce hold-off 300", " clock synce hold-off 300\n", "interface clock synce hold-off 300"},
        {"no clock synce hold-off", "", "interface no clock synce hold-off"},
        {"clock synce wait-to-restore 0", " clock synce wait-to-restore 0\n",
         "interface clock synce wait-to-restore 0"},
        {"no clock synce wait-to-restore", "", "interface no clock synce wait-to-restore"},
        {"clock synce extend form own", " clock synce extend form own\n"},
        {"clock synce extend form standard", " clock synce extend form standard\n"},
        {"no clock synce extend form", ""},
        {"clock synce gephy mas", " clock synce gephy master\n", "clock synce gephy master"},
        {"clock synce gephy slave", " clock synce gephy slave\n"},
        {"no clock synce gephy", ""},
    };
    interface_mode("p1");
    for (const taken& row : rows) {
        take(row);
        EXPECT_EQ(interfaces(), std::string("interface p1\n") + row.written + "!\n!\n") << row.line;
    }
}

TEST_F(config_commands, refuse_with_the_reason_and_change_nothing) {
    refused("clock synce switch-force nowhere", "% Unknown interface nowhere\n");
    refused("clock synce switch-force lo", "% Interface lo is not a SyncE port\n");
    refused("clock synce switch-force unbound", "% Interface unbound is not a SyncE port\n");
    quiet("clock synce local-quality option2 eec2");
    interface_mode("p1");
    refused("clock synce quality-eth rx prc", "% Can't configure QL value prc under option2 mode\n");
    quiet("clock synce quality-eth maximum prs");
    refused("clock synce hold-off 350", "% The hold-off time is 300 to 1800 ms in steps of 100\n");
    config_mode();
    refused("clock synce hold-off 1799", "% The hold-off time is 300 to 1800 ms in steps of 100\n");
    refused("no clock synce local-quality", "% General error\n");  // the limit is of option 2
    exec_mode();
    session_.line = nullptr;
    refused("clear clock synce switch", "% Only at a terminal\n");  // nothing for a configuration file
    session_.line = this;
    refused("clock synce manual-switch p1", "% Can't switch to p1: SyncE and SSM are not both on\n");
    refused("clear clock synce wait-to-restore lo", "% Interface lo is not a SyncE port\n");
    quiet("clear clock synce switch");
    interface_mode("p1");
    quiet("no clock synce quality-eth maximum");
    quiet("clock synce quality-eth rx prs");
    g_s_master->force_port = port_;
    g_s_master->force_e1 = 1;
    config_mode();
    refused("clock synce local-quality option1 eec1",
            "% Can't configure QL value,option collision between force quality and local quality \n");
    refused("no clock synce local-quality", "% General error\n");
    EXPECT_EQ(interfaces(), "interface p1\n clock synce quality-eth rx prs \n!\n!\n");
    refused("no clock synce switch-force",
            "% Both a port and the E1 input are forced, nothing was cleared\n");
    EXPECT_EQ(global(), "clock synce local-quality option2 eec2\nclock synce switch-force p1\n!\n");
}

TEST_F(config_commands, roles_by_hand_and_ssm_exclude_each_other) {
    interface_mode("p1");
    quiet("clock synce gephy master");
    config_mode();
    for (const char* line : {"clock synce ssm enable", "no clock synce ssm enable"})
        refused(line, " % Port gephy role is configured manually, it can't enable ssm\n");
    EXPECT_EQ(global(), "!\n");
    interface_mode("p1");
    quiet("no clock synce gephy");
    config_mode();
    quiet("clock synce ssm enable gephy");
    interface_mode("p1");
    for (const char* line : {"clock synce gephy master", "no clock synce gephy"})
        refused(line, " % Synce ssm is enabled, it can't configure port gephy role\n");
    EXPECT_EQ(port_->gephy_role_enable, 0U);
    // A role of selection's is no configuration, and ends with it.
    ASSERT_EQ(ssm_opts_set_gephy_role(port_->intf, 1, SSM_GEPHY_SLAVE), 0);
    EXPECT_EQ(interfaces(), "interface p1\n!\n!\n");
    config_mode();
    quiet("clock synce ssm enable");
    EXPECT_EQ(port_->gephy_role_enable, 0U);
}

TEST_F(config_commands, roles_by_hand_are_counted_a_port_once) {
    add_port("p2", 2);
    interface_mode("p1");
    quiet("clock synce gephy master");
    quiet("clock synce gephy slave");
    interface_mode("p2");
    quiet("no clock synce gephy");  // has none
    EXPECT_EQ(g_s_master->gephy_manual_count, 1U);
    if_unbind(ctx_->ifm, port_->intf);
    EXPECT_EQ(g_s_master->gephy_manual_count, 0U);
}

TEST_F(config_commands, unsuitable_interface_is_entered_and_then_refused) {
    for (const std::string name : {"lo", "nowhere", "p1"}) {
        interface_mode(name);
        if (name == "p1") if_remove(ctx_->ifm, port_->intf);  // the session outlives it
        for (const char* line :
             {"clock synce enable", "no clock synce ssm enable all", "clock synce ssm enable rx",
              "no clock synce priority", "no clock synce dnu-group", "clock synce extend replace-clockid"})
            refused(line, "% Cannot configure on this interface\n");
        refused("clock synce quality-eth rx prc", "% Invalid interface\n");
        for (const char* line :
             {"no clock synce quality-eth rx", "clock synce gephy master", "no clock synce gephy"})
            refused(line, "");
    }
    EXPECT_EQ(g_s_master->gephy_manual_count, 0U);
    port_ = add_port("p1", 1);  // and finds it again
    quiet("clock synce enable");
    EXPECT_EQ(port_->synce_enable, 1U);
}

}  // namespace
