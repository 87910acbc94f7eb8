// The daemon's command line: command objects, configuration writers, installation.
#pragma once

#include <span>

#include "suite/command/cli.h"

struct ssm_port;

// Switch-wide configuration.
extern const cli_element sync_global_enable_cmd;
extern const cli_element no_sync_global_enable_cmd;
extern const cli_element sync_ssm_enable_cmd;
extern const cli_element no_sync_ssm_enable_cmd;
extern const cli_element synce_local_quality_op1_cmd;
extern const cli_element no_synce_local_quality_cmd;
extern const cli_element synce_local_quality_op2_cmd;
extern const cli_element ssm_local_priority_cmd;
extern const cli_element no_ssm_local_priority_cmd;
extern const cli_element ssm_master_only_role_cmd;
extern const cli_element no_ssm_master_only_role_cmd;
extern const cli_element ssm_slave_only_role_cmd;
extern const cli_element no_ssm_slave_only_role_cmd;
extern const cli_element no_ssm_set_ssm_extend_cmd;
extern const cli_element ssm_loop_guard_cmd;
extern const cli_element no_ssm_loop_guard_cmd;
extern const cli_element ssm_loop_guard_hold_cmd;
extern const cli_element no_ssm_loop_guard_hold_cmd;
extern const cli_element ssm_loop_guard_hops_cmd;
extern const cli_element no_ssm_loop_guard_hops_cmd;
extern const cli_element ssm_keep_state_cmd;
extern const cli_element no_ssm_keep_state_cmd;

// Configuration of one port.
extern const cli_element interface_ssm_cmd;
extern const cli_element sync_if_synce_enable_cmd;
extern const cli_element no_sync_if_synce_enable_cmd;
extern const cli_element sync_if_ssm_pdu_cmd;
extern const cli_element no_sync_if_ssm_pdu_cmd;
extern const cli_element ssm_if_priority_cmd;
extern const cli_element no_ssm_if_priority_cmd;
extern const cli_element ssm_if_dnu_group_cmd;
extern const cli_element no_ssm_if_dnu_group_cmd;
extern const cli_element ssm_if_extend_replace_clockid_cmd;
extern const cli_element no_ssm_if_extend_replace_clockid_cmd;
extern const cli_element synce_if_ql_value_cmd;
extern const cli_element no_synce_if_ql_value_cmd;
extern const cli_element sync_ssm_set_master_slave_cmd;
extern const cli_element no_sync_ssm_set_master_slave_cmd;

// What reads back the lines of the configuration that no command above takes.
extern const cli_element ssm_switch_force_cmd;
extern const cli_element no_ssm_switch_force_cmd;
extern const cli_element ssm_recovery_select_cmd;
extern const cli_element no_ssm_recovery_select_cmd;

// Show and debug.
extern const cli_element ssm_show_global_cmd;
extern const cli_element ssm_show_clock_recovery_select_cmd;
extern const cli_element ssm_show_clock_bits_cmd;
extern const cli_element ssm_show_brief_cmd;
extern const cli_element ssm_show_selection_cmd;
extern const cli_element ssm_show_json_cmd;
extern const cli_element ssm_debug_enable_cmd;
extern const cli_element no_ssm_debug_enable_cmd;
extern const cli_element show_ssm_debugging_cmd;

// Help texts for `?` and TAB, of the commands in the file of that name. An entry holds for its token wherever
// it follows the words before it; the entry with the most words counts.
extern const std::span<const cli_help> ssm_global_help;
extern const std::span<const cli_help> ssm_guard_help;
extern const std::span<const cli_help> ssm_interface_help;
extern const std::span<const cli_help> ssm_restore_help;
extern const std::span<const cli_help> ssm_show_help;
extern const std::span<const cli_help> ssm_everyday_help;
extern const std::span<const cli_help> ssm_json_help;
extern const std::span<const cli_help> ssm_supervision_help;
extern const std::span<const cli_help> ssm_statistics_help;
extern const std::span<const cli_help> ssm_debug_help;

// Configuration writers.
int ssm_config_write(cli* terminal);
int ssm_interface_config_write(cli* terminal);
void ssm_guard_config_write(cli* terminal);
void ssm_supervision_config_write(cli* terminal);
void ssm_supervision_port_config_write(cli* terminal, const ssm_port* port);

// Installation of what goes beyond the switch's own set of commands (esmcd/install.h puts both together): 0,
// or negative when something could not be installed.
int ssm_cli_restore_init(cli_tree* tree);
int ssm_cli_everyday_init(cli_tree* tree);
int ssm_cli_supervision_init(cli_tree* tree);
int ssm_cli_statistics_init(cli_tree* tree);
