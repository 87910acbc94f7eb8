// The show blocks, to the last blank: scripts cut them by column.
#include <cstring>

#include "daemon_fixture.h"

namespace {

using show_commands = daemon_test;

TEST_F(show_commands, clock_block) {
    ssm_port* port = add_port("p%s", 1);  // a name is never a format
    const std::uint8_t id[] = {0x00, 0x1A, 0x2B, 0xFF, 0xFE, 0x3C, 0x4D, 0x5E};
    std::memcpy(clock_.clock_id, id, sizeof id);
    clock_.global_enable = clock_.ssm_enable = clock_.ssm_extend = clock_.gephy_dynamic = 1;
    clock_.ql_option = SSM_OPTION_2;
    clock_.local_quality = clock_.current_quality = QL_EEC2;
    clock_.local_priority = 4;
    clock_.selected_port = clock_.force_port = port;
    clock_.freerun = 0;
    clock_.device_type = SSM_SLAVE_ONLY;
    clock_.dpll_state = SSM_DPLL_LOCK;
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

TEST_F(show_commands, port_block) {
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
}

TEST_F(show_commands, interface_that_is_no_port_shows_nothing) {
    add_interface("lo", 9, 1);
    add_interface("unbound", 10);
    for (const char* line : {"show clock synce nowhere", "show clock synce lo", "show clock synce unbound"})
        EXPECT_EQ(shown(line), "") << line;
}

TEST_F(show_commands, recovered_clock) {
    clock_.selected_port = add_port("p1", 1);
    EXPECT_EQ(shown("show clock bits"),
              "--------------------------  select clock bits status --------------------------\n"
              "Current selected interface         : p1\n"
              "Selected Clock Valid Status        : Invalid\n"
              "DPLL running state                 : FreeRun\n");
    const char* const lines[] = {"clock recovery from syncE\n", "clock recovery from bits1\n",
                                 "clock recovery from bits2\n", ""};
    for (clock_.recovery_select = 0; clock_.recovery_select < 4; clock_.recovery_select++)
        EXPECT_EQ(shown("show clock recovery-select"), lines[clock_.recovery_select]);
    clock_.recovery_select = 1;
    EXPECT_NE(shown("show clock bits").find(": Bits1\n"), std::string::npos);
}

}  // namespace
