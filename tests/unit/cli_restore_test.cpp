// The commands that read back the force switch and the recovery select.
#include "daemon_fixture.h"

namespace {

class restore_commands : public daemon_test {
  protected:
    void SetUp() override {
        daemon_test::SetUp();
        config_mode();
    }
};

TEST_F(restore_commands, force_switch_is_set_and_cleared) {
    ssm_port* port = add_port("p1", 1);
    quiet("clock synce switch-force p1");
    EXPECT_EQ(clock_.force_port, port);
    quiet("no clock synce switch-force");
    EXPECT_EQ(clock_.force_port, nullptr);
    quiet("no clock synce switch-force");  // nothing forced: fine
}

TEST_F(restore_commands, force_switch_is_refused_with_the_reason) {
    ssm_port* port = add_port("p1", 1);
    add_interface("lo", 9, 1);
    add_interface("unbound", 10);
    refused("clock synce switch-force nowhere", "% Unknown interface nowhere\n");
    refused("clock synce switch-force lo", "% Interface lo is not a SyncE port\n");
    refused("clock synce switch-force unbound", "% Interface unbound is not a SyncE port\n");
    EXPECT_EQ(clock_.force_port, nullptr);
    clock_.force_port = port;
    clock_.force_e1 = 1;
    refused("no clock synce switch-force",
            "% Both a port and the E1 input are forced, nothing was cleared\n");
    EXPECT_EQ(clock_.force_port, port);
    EXPECT_EQ(clock_.force_e1, 1U);
}

TEST_F(restore_commands, recovery_select_is_set_and_taken_back) {
    quiet("clock recovery-select bits bits1");
    EXPECT_EQ(clock_.recovery_select, 1U);
    quiet("clock recovery-select bits bits2");
    EXPECT_EQ(clock_.recovery_select, 2U);
    quiet("no clock recovery-select");
    EXPECT_EQ(clock_.recovery_select, 0U);
}

}  // namespace
