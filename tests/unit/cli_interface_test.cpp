// Port commands through the real engine: effect, trace, refusal, and the life of the interface under the
// session.
#include "daemon_fixture.h"

namespace {

using lines = std::vector<std::string>;

class interface_commands : public daemon_test {
  protected:
    void SetUp() override {
        daemon_test::SetUp();
        port_ = add_port("p1", 1);
        interface_mode("p1");
    }
    ssm_port* port_ = nullptr;
};

TEST_F(interface_commands, each_changes_its_field) {
    quiet("clock synce enable");
    EXPECT_EQ(port_->synce_enable, 1U);
    quiet("no clock synce enable");
    EXPECT_EQ(port_->synce_enable, 0U);
    quiet("clock synce priority 10");
    EXPECT_EQ(port_->priority, 10);
    quiet("no clock synce priority");
    EXPECT_EQ(port_->priority, 255);
    quiet("clock synce dnu-group 255");
    EXPECT_EQ(port_->dnu_group, 255);
    quiet("no clock synce dnu-group");
    EXPECT_EQ(port_->dnu_group, 0);
    quiet("clock synce extend replace-clockid");
    EXPECT_EQ(port_->replace_clockid, 1U);
    quiet("no clock synce extend replace-clockid");
    EXPECT_EQ(port_->replace_clockid, 0U);
}

TEST_F(interface_commands, directions_are_taken_away_and_given_back) {
    quiet("no clock synce ssm enable tx");
    EXPECT_EQ(port_->esmc_mode, 1U);
    quiet("no clock synce ssm enable rx");
    EXPECT_EQ(port_->esmc_mode, 4U);
    quiet("clock synce ssm enable tx");
    EXPECT_EQ(port_->esmc_mode, 2U);
    quiet("clock synce ssm enable all");
    EXPECT_EQ(port_->esmc_mode, 3U);
    quiet("no clock synce ssm enable all");
    EXPECT_EQ(port_->esmc_mode, 4U);
}

TEST_F(interface_commands, forced_quality_knows_the_option_in_force) {
    quiet("clock synce quality-eth rx prc");
    quiet("clock synce quality-eth tx ssu-a");
    EXPECT_EQ(port_->force_rx_quality, QL_PRC);
    EXPECT_EQ(port_->force_tx_quality, QL_SSU_A);
    refused("clock synce quality-eth rx prs", "% Can't configure QL value prs under option1 mode\n");
    EXPECT_EQ(port_->force_rx_quality, QL_PRC);
    quiet("no clock synce quality-eth rx");
    quiet("no clock synce quality-eth tx");
    EXPECT_EQ(port_->force_rx_quality, QL_NONE);
    EXPECT_EQ(port_->force_tx_quality, QL_NONE);
    config_mode();
    quiet("clock synce local-quality option2 dus");
    interface_mode("p1");
    refused("clock synce quality-eth rx prc", "% Can't configure QL value prc under option2 mode\n");
    for (const char* word : {"prs", "stu", "st2", "tnc", "smc", "st3e", "prov", "eec2", "dus"})
        quiet((std::string("clock synce quality-eth tx ") + word).c_str());
    EXPECT_EQ(port_->force_tx_quality, QL_DNU);
}

TEST_F(interface_commands, manual_roles_are_counted_a_port_once) {
    ssm_port* other = add_port("p2", 2);
    quiet("clock synce gephy master");
    EXPECT_EQ(port_->gephy_role, static_cast<std::uint32_t>(SSM_GEPHY_MASTER));
    quiet("clock synce gephy slave");
    EXPECT_EQ(clock_.gephy_manual_count, 1U);
    interface_mode("p2");
    quiet("no clock synce gephy");  // has none
    EXPECT_EQ(clock_.gephy_manual_count, 1U);
    quiet("clock synce gephy slave");
    EXPECT_EQ(clock_.gephy_manual_count, 2U);
    EXPECT_EQ(other->gephy_role, static_cast<std::uint32_t>(SSM_GEPHY_SLAVE));
    quiet("no clock synce gephy");
    interface_mode("p1");
    quiet("no clock synce gephy");
    EXPECT_EQ(clock_.gephy_manual_count, 0U);
    config_mode();
    quiet("clock synce ssm enable");
}

TEST_F(interface_commands, removed_port_takes_its_role_off_the_count) {
    quiet("clock synce gephy master");
    if_unbind(&ctx_->ifm, if_lookup_by_name(&ctx_->ifm, "p1"));
    EXPECT_EQ(clock_.gephy_manual_count, 0U);
}

TEST_F(interface_commands, roles_are_refused_while_ssm_is_on) {
    config_mode();
    quiet("clock synce ssm enable");
    interface_mode("p1");
    const char* text = " % Synce ssm is enabled, it can't configure port gephy role\n";
    refused("clock synce gephy master", text);
    refused("no clock synce gephy", text);
    EXPECT_EQ(clock_.gephy_manual_count, 0U);
    EXPECT_EQ(port_->gephy_role_enable, 0U);
}

TEST_F(interface_commands, unsuitable_interface_is_entered_and_then_refused) {
    add_interface("lo", 9, 1);
    for (const char* name : {"lo", "nowhere"}) {
        interface_mode(name);
        for (const char* line :
             {"clock synce enable", "no clock synce enable", "clock synce ssm enable rx",
              "no clock synce ssm enable all", "clock synce priority 1", "no clock synce priority",
              "clock synce dnu-group 1", "no clock synce dnu-group", "clock synce extend replace-clockid",
              "no clock synce extend replace-clockid"})
            refused(line, "% Cannot configure on this interface\n");
        refused("clock synce quality-eth rx prc", "% Invalid interface\n");
        for (const char* line :
             {"no clock synce quality-eth rx", "clock synce gephy master", "no clock synce gephy"})
            refused(line, "");
    }
    EXPECT_EQ(clock_.gephy_manual_count, 0U);
}

TEST_F(interface_commands, session_outlives_its_interface) {
    if_remove(&ctx_->ifm, if_lookup_by_name(&ctx_->ifm, "p1"));
    refused("clock synce enable", "% Cannot configure on this interface\n");
    ssm_port* port = add_port("p1", 1);  // and finds it again
    quiet("clock synce enable");
    EXPECT_EQ(port->synce_enable, 1U);
}

TEST_F(interface_commands, number_outside_its_range_is_named) {
    char text[] = "300";
    char* argv[] = {text};
    EXPECT_EQ(ssm_if_priority_cmd.handler(&session_, 1, argv), CLI_ERROR);
    EXPECT_EQ(output(), "% Invalid priority value\n");
    EXPECT_EQ(ssm_if_dnu_group_cmd.handler(&session_, 1, argv), CLI_ERROR);
    EXPECT_EQ(output(), "% Invalid dnu group id value\n");
    EXPECT_EQ(port_->priority, 255);
    EXPECT_EQ(port_->dnu_group, 0);
}

TEST_F(interface_commands, each_is_traced_under_its_own_words) {
    ssm_debug = SSM_DEBUG_CLI;
    constexpr struct {
        const char* line;
        const char* trace;
    } expected[] = {
        {"clock synce enable", ": interface clock synce enable"},
        {"no clock synce enable", ": interface no clock synce enable"},
        {"clock synce ssm enable rx", ": interface clock synce ssm enable rx"},
        {"no clock synce ssm enable rx", ": interface no clock synce ssm enable"},
        {"clock synce priority 3", ": interface clock synce priority 3"},
        {"no clock synce priority", ": interface no clock synce priority"},
        {"clock synce dnu-group 4", ": interface clock synce dnu group 4"},
        {"no clock synce dnu-group", nullptr},
        {"clock synce extend replace-clockid", ": clock synce extend replace-clockid"},
        {"no clock synce extend replace-clockid", ": no clock synce extend replace-clockid"},
        {"clock synce quality-eth tx ee", nullptr},  // eec1 or eec2
        {"clock synce quality-eth tx eec1", ": interface clock synce quality-level tx eec1"},
        {"no clock synce quality-eth tx", ": no interface clock synce quality-level tx"},
        {"clock synce gephy mas", ": clock synce gephy master"},
        {"no clock synce gephy", ": no clock synce gephy"},
    };
    for (const auto& entry : expected) {
        run(entry.line);
        EXPECT_EQ(logged(), entry.trace ? lines{entry.trace} : lines{}) << entry.line;
    }
}

}  // namespace
