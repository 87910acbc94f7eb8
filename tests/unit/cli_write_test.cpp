// The writers: only what differs from the defaults, in a fixed order, and readable back.
#include "daemon_fixture.h"

namespace {

class writers : public daemon_test {
  protected:
    std::string global() {
        EXPECT_EQ(ssm_config_write(&session_), 0);
        return output();
    }
    std::string interfaces() {
        EXPECT_EQ(ssm_interface_config_write(&session_), 0);
        return output();
    }
    // Types the text as configuration, in a session of its own.
    void type(const std::string& text) {
        config_mode();
        for (std::size_t at = 0; at < text.size();) {
            const std::size_t end = text.find('\n', at);
            const std::string line = text.substr(at, end - at);
            at = end + 1;
            if (line[0] != ' ') config_mode();
            const cli_result result = run(line.c_str());
            EXPECT_TRUE(result == cli_result::ok || result == cli_result::empty) << line << output();
        }
    }
};

TEST_F(writers, defaults_are_not_written) {
    EXPECT_EQ(global(), "!\n");
    EXPECT_EQ(interfaces(), "");
    add_interface("lo", 9, 1);  // no SyncE: nothing at all
    add_port("p1", 1);
    add_interface("unbound", 2);
    EXPECT_EQ(interfaces(), "interface p1\n!\n!\n");
}

TEST_F(writers, every_global_line_in_its_place) {
    clock_.force_port = add_port("p1", 1);
    clock_.global_enable = clock_.ssm_enable = clock_.gephy_dynamic = clock_.ssm_extend = 1;
    clock_.recovery_select = 2;
    clock_.local_quality = QL_PRC;
    clock_.local_priority = 0;
    clock_.device_type = SSM_MASTER_ONLY;
    EXPECT_EQ(global(),
              "clock synce global-enable\nclock recovery-select bits bits2\nclock synce ssm enable gephy\n"
              "clock synce local-quality option1 prc\nclock synce local-priority 0\nclock synce master-only\n"
              "clock synce ssm extend\nclock synce switch-force p1\n!\n");
    clock_ = {};
    ASSERT_EQ(ssm_master_init(), 0);
    clock_.ssm_enable = 1;
    clock_.recovery_select = 1;
    clock_.ql_option = SSM_OPTION_2;  // written whatever the quality is
    clock_.device_type = SSM_SLAVE_ONLY;
    EXPECT_EQ(
        global(),
        "clock recovery-select bits bits1\nclock synce ssm enable\nclock synce local-quality option2 dus\n"
        "clock synce slave-only\n!\n");
}

TEST_F(writers, every_port_line_in_its_place) {
    ssm_port* port = add_port("p1", 1);
    port->priority = 5;
    port->synce_enable = port->replace_clockid = port->gephy_role_enable = 1;
    port->esmc_mode = SSM_ESMC_NONE;
    port->dnu_group = 3;
    port->force_rx_quality = QL_DNU;
    port->force_tx_quality = QL_SSU_B;
    port->gephy_role = SSM_GEPHY_MASTER;
    EXPECT_EQ(
        interfaces(),
        "interface p1\n clock synce priority 5\n clock synce enable\n no clock synce ssm enable all\n"
        " clock synce dnu-group 3\n clock synce extend replace-clockid\n clock synce quality-eth rx dnu \n"
        " clock synce quality-eth tx ssu-b \n clock synce gephy master\n!\n");
    ASSERT_EQ(ssm_port_init(port), 0);
    port->esmc_mode = SSM_ESMC_RX;
    port->gephy_role_enable = 1;
    port->gephy_role = SSM_GEPHY_SLAVE;
    EXPECT_EQ(interfaces(), "interface p1\n no clock synce ssm enable tx\n clock synce gephy slave\n!\n");
    port->esmc_mode = SSM_ESMC_TX;
    clock_.ssm_enable = 1;  // roles are selection's now
    EXPECT_EQ(interfaces(), "interface p1\n no clock synce ssm enable rx\n!\n");
    port->gephy_role_enable = 0;
}

// A setting that is written in words that no command takes, or that come in an order that undoes one of them.
TEST_F(writers, what_is_written_reads_back_to_the_same) {
    for (const char* name : {"p1", "p2", "p3"}) add_port(name, static_cast<std::uint32_t>(name[1] - '0'));
    const std::string whole =
        "clock synce global-enable\nclock recovery-select bits bits1\nclock synce ssm enable gephy\n"
        "clock synce local-quality option2 eec2\nclock synce local-priority 17\nclock synce slave-only\n"
        "clock synce ssm extend\nclock synce switch-force p2\n!\n"
        "interface p1\n clock synce priority 254\n clock synce enable\n no clock synce ssm enable rx\n"
        " clock synce dnu-group 255\n clock synce extend replace-clockid\n clock synce quality-eth rx stu \n"
        " clock synce quality-eth tx dus \n!\ninterface p2\n clock synce enable\n!\ninterface p3\n!\n";
    type(whole);
    EXPECT_EQ(global() + interfaces(), whole);
}

}  // namespace
