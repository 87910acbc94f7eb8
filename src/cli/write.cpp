// The configuration writers: the settings that differ from their defaults, as the command lines that make
// them. Called by the platform whenever it assembles the running configuration.
#include "cli/commands.h"
#include "core/ports.h"
#include "core/ql.h"

namespace {

void write_recovery_select(cli* terminal) {
    if (g_s_master->recovery_select == SSM_RECOVER_BITS1)
        terminal->out_func(terminal->out_val, "clock recovery-select bits bits1\n");
    else if (g_s_master->recovery_select == SSM_RECOVER_BITS2)
        terminal->out_func(terminal->out_val, "clock recovery-select bits bits2\n");
}

// Option 2 is always written, whatever the quality: the line is also what records the option.
void write_local_quality(cli* terminal) {
    const char* token = ssm_ql_to_token(g_s_master->local_quality);
    if (g_s_master->ql_option != SSM_OPTION_1)
        terminal->out_func(terminal->out_val, "clock synce local-quality option2 %s\n", token);
    else if (g_s_master->local_quality_set)
        terminal->out_func(terminal->out_val, "clock synce local-quality option1 %s\n", token);
}

void write_device_type(cli* terminal) {
    if (g_s_master->device_type == SSM_MASTER_ONLY)
        terminal->out_func(terminal->out_val, "clock synce master-only\n");
    else if (g_s_master->device_type == SSM_SLAVE_ONLY)
        terminal->out_func(terminal->out_val, "clock synce slave-only\n");
}

// Both directions are the default; what is missing from them is written.
void write_esmc(cli* terminal, std::uint32_t mode) {
    if (mode == SSM_ESMC_NONE)
        terminal->out_func(terminal->out_val, " no clock synce ssm enable all\n");
    else if (mode == SSM_ESMC_RX)
        terminal->out_func(terminal->out_val, " no clock synce ssm enable tx\n");
    else if (mode == SSM_ESMC_TX)
        terminal->out_func(terminal->out_val, " no clock synce ssm enable rx\n");
}

void write_forced_quality(cli* terminal, std::uint32_t direction, std::uint16_t quality) {
    if (quality == QL_NONE) return;
    terminal->out_func(terminal->out_val, " clock synce quality-eth %s %s \n", ssm_esmc_dir_token(direction),
                       ssm_ql_to_token(quality));
}

// With SSM on, selection sets the roles: they are no configuration.
void write_gephy(cli* terminal, const ssm_port* port) {
    if (!port->gephy_role_enable || g_s_master->ssm_enable) return;
    terminal->out_func(terminal->out_val, " clock synce gephy%s\n",
                       port->gephy_role == SSM_GEPHY_MASTER ? " master" : " slave");
}

void write_port(cli* terminal, const ssm_port* port) {
    terminal->out_func(terminal->out_val, "interface %s\n", ssm_port_name(port));
    if (port->priority != SSM_PRIORITY_NONE)
        terminal->out_func(terminal->out_val, " clock synce priority %d\n", port->priority);
    // Before the port counts, so that it is never the source on the way.
    if (port->lockout) terminal->out_func(terminal->out_val, " clock synce lockout\n");
    if (port->synce_enable) terminal->out_func(terminal->out_val, " clock synce enable\n");
    write_esmc(terminal, port->esmc_mode);
    if (port->dnu_group)
        terminal->out_func(terminal->out_val, " clock synce dnu-group %d\n", port->dnu_group);
    if (port->replace_clockid) terminal->out_func(terminal->out_val, " clock synce extend replace-clockid\n");
    write_forced_quality(terminal, SSM_ESMC_RX, port->force_rx_quality);
    write_forced_quality(terminal, SSM_ESMC_TX, port->force_tx_quality);
    ssm_supervision_port_config_write(terminal, port);
    write_gephy(terminal, port);
}

}  // namespace

int ssm_config_write(cli* terminal) {
    const ssm_master* clock = g_s_master;
    if (clock->keep_state) terminal->out_func(terminal->out_val, "state keep\n");
    if (clock->global_enable) terminal->out_func(terminal->out_val, "clock synce global-enable\n");
    write_recovery_select(terminal);
    if (clock->ssm_enable)
        terminal->out_func(terminal->out_val, "clock synce ssm enable%s\n",
                           clock->gephy_dynamic ? " gephy" : "");
    write_local_quality(terminal);
    if (clock->local_priority != SSM_PRIORITY_NONE)
        terminal->out_func(terminal->out_val, "clock synce local-priority %d\n", clock->local_priority);
    write_device_type(terminal);
    if (clock->ssm_extend)
        terminal->out_func(terminal->out_val, "clock synce ssm extend%s\n",
                           clock->extend_form == SSM_FORM_STANDARD ? " standard" : "");
    ssm_supervision_config_write(terminal);
    ssm_guard_config_write(terminal);
    if (const char* forced = ssm_port_name(clock->force_port))
        terminal->out_func(terminal->out_val, "clock synce switch-force %s\n", forced);
    terminal->out_func(terminal->out_val, "!\n");
    return CLI_SUCCESS;
}

int ssm_interface_config_write(cli* terminal) {
    for (const interface* intf : if_list(terminal->zg->ifm)) {
        if (!ssm_if_usable(intf)) continue;
        if (const ssm_port* port = ssm_if_port(intf)) write_port(terminal, port);
        terminal->out_func(terminal->out_val, "!\n");
    }
    return CLI_SUCCESS;
}
