// Switch-wide commands through the real engine: effect, trace, refusal.
#include "daemon_fixture.h"

namespace {

using lines = std::vector<std::string>;

class global_commands : public daemon_test {
  protected:
    void SetUp() override {
        daemon_test::SetUp();
        config_mode();
    }
};

TEST_F(global_commands, each_changes_its_field) {
    quiet("clock synce global-enable");
    EXPECT_EQ(clock_.global_enable, 1U);
    quiet("no clock synce global-enable");
    EXPECT_EQ(clock_.global_enable, 0U);

    quiet("clock synce ssm enable");
    EXPECT_EQ(clock_.ssm_enable, 1U);
    quiet("no clock synce ssm enable");
    EXPECT_EQ(clock_.ssm_enable, 0U);

    quiet("clock synce ssm extend");
    EXPECT_EQ(clock_.ssm_extend, 1U);
    quiet("no clock synce ssm extend");
    EXPECT_EQ(clock_.ssm_extend, 0U);

    quiet("clock synce local-priority 7");
    EXPECT_EQ(clock_.local_priority, 7);
    quiet("no clock synce local-priority");
    EXPECT_EQ(clock_.local_priority, 255);

    quiet("clock synce master-only");
    EXPECT_EQ(clock_.device_type, 1U);
    quiet("no clock synce slave-only");  // whatever the role is
    EXPECT_EQ(clock_.device_type, 3U);
    quiet("clock synce slave-only");
    EXPECT_EQ(clock_.device_type, 2U);
    quiet("no clock synce master-only");
    EXPECT_EQ(clock_.device_type, 3U);
}

TEST_F(global_commands, local_quality_sets_level_and_option) {
    constexpr struct {
        const char* line;
        std::uint32_t quality;
        int option;
    } forms[] = {
        {"clock synce local-quality option1 prc", 2, 1},
        {"clock synce local-quality option1 eec1", 11, 1},
        {"clock synce local-quality option1 dnu", 15, 1},
        {"clock synce local-quality option2 prs", 1, 2},
        {"clock synce local-quality option2 eec2", 10, 2},
        {"clock synce local-quality option2 dus", 15, 2},
        {"clock synce local-quality option2 prs", 1, 2},
        {"no clock synce local-quality", 15, 1},
        {"cl sy local-q option2 e", 10, 2},
    };
    for (const auto& form : forms) {
        quiet(form.line);
        EXPECT_EQ(clock_.local_quality, form.quality) << form.line;
        EXPECT_EQ(clock_.ql_option, form.option) << form.line;
    }
}

TEST_F(global_commands, option_change_is_refused_while_qualities_of_the_other_are_forced) {
    add_port("p1", 1);
    quiet("clock synce local-quality option2 eec2");
    interface_mode("p1");
    quiet("clock synce quality-eth rx prs");
    config_mode();
    refused("clock synce local-quality option1 eec1",
            "% Can't configure QL value,option collision between force quality and local quality \n");
    refused("no clock synce local-quality", "% General error\n");
    EXPECT_EQ(clock_.ql_option, 2);
    EXPECT_EQ(clock_.local_quality, static_cast<std::uint32_t>(QL_EEC2));
    quiet("clock synce local-quality option2 prs");
}

TEST_F(global_commands, number_outside_its_range_never_reaches_the_clock) {
    for (const char* line : {"clock synce local-priority 256", "clock synce local-priority -1",
                             "clock synce local-priority x", "clock synce local-priority 0"})
        EXPECT_EQ(run(line), cli_result::unknown) << line;
    output();
    EXPECT_EQ(clock_.local_priority, 255);
    // The handler's own check, for a platform whose ranges are looser.
    char text[] = "256";
    char* argv[] = {text};
    ssm_debug = SSM_DEBUG_CLI;
    EXPECT_EQ(ssm_local_priority_cmd.handler(&session_, 1, argv), CLI_ERROR);
    EXPECT_EQ(output(), "% Invalid local-priority value\n");
    EXPECT_EQ(logged(), lines{});
}

TEST_F(global_commands, ssm_enable_with_and_without_roles_of_copper_ports) {
    ssm_port* port = add_port("p1", 1);
    quiet("clock synce ssm enable gephy");
    EXPECT_EQ(clock_.gephy_dynamic, 1U);
    ASSERT_EQ(ssm_opts_set_gephy_role(port->intf, 1, SSM_GEPHY_SLAVE), 0);  // as selection does
    quiet("clock synce ssm enable");
    EXPECT_EQ(clock_.gephy_dynamic, 0U);
    EXPECT_EQ(port->gephy_role_enable, 0U);
    quiet("clock synce ssm enable g");
    EXPECT_EQ(clock_.gephy_dynamic, 1U);
    quiet("no clock synce ssm enable");
    EXPECT_EQ(clock_.gephy_dynamic, 0U);
    EXPECT_EQ(clock_.ssm_enable, 0U);
}

TEST_F(global_commands, ssm_enable_is_refused_while_a_role_is_set_by_hand) {
    add_port("p1", 1);
    interface_mode("p1");
    quiet("clock synce gephy master");
    config_mode();
    ssm_debug = SSM_DEBUG_CLI;
    const char* text = " % Port gephy role is configured manually, it can't enable ssm\n";
    refused("clock synce ssm enable", text);
    refused("clock synce ssm enable gephy", text);
    refused("no clock synce ssm enable", text);
    EXPECT_EQ(clock_.ssm_enable, 0U);
    EXPECT_EQ(clock_.gephy_dynamic, 0U);
    EXPECT_EQ(logged(), lines{});
}

TEST_F(global_commands, each_is_traced_under_its_own_words) {
    ssm_debug = SSM_DEBUG_CLI;
    constexpr struct {
        const char* line;
        const char* trace;
    } expected[] = {
        {"clock synce global-enable", ": clock synce global-enable"},
        {"no clock synce global-enable", ": no clock synce global-enable"},
        {"clock synce ssm enable gephy", ": clock synce ssm enable and setting gephy role dynamically"},
        {"clock synce ssm enable", ": clock synce ssm enable"},
        {"no clock synce ssm enable", ": no clock synce ssm enable"},
        {"clock synce local-quality option1 eec1", ": clock synce local-quality eec1 under option1 mode"},
        {"no clock synce local-quality", ": no clock synce local-quality"},
        {"clock synce local-quality option2 dus", ": clock synce local-quality dus under option2 mode"},
        {"clock synce local-priority 007", ": clock synce local-priority 007"},  // as typed
        {"no clock synce local-priority", ": no clock synce local-priority"},
        {"clock synce master-only", ": clock synce master-only"},
        {"no clock synce master-only", ": no clock synce master-only"},
        {"clock synce slave-only", ": clock synce slave-only"},
        {"no clock synce slave-only", ": no clock synce slave-only"},
        {"clock synce ssm extend", ": clock synce ssm extend"},
        {"no clock synce ssm extend", ": no clock synce ssm extend"},
    };
    for (const auto& entry : expected) {
        quiet(entry.line);
        EXPECT_EQ(logged(), lines{entry.trace}) << entry.line;
    }
}

}  // namespace
