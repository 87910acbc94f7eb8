// Hands the command objects and the writers to the platform's tree, once, during start-up. The order of the
// installations is part of what the platform sees; their results are not looked at but for the last one,
// since a command that could not be installed was logged by the tree and the daemon runs without it.
#include "esmcd/install.h"

#include "cli/commands.h"
#include "cli/handler.h"
#include "cli/metrics/metrics.h"
#include "esmcd/board.h"
#include "suite/terminal/terminal.h"

namespace {

constexpr const cli_element* global_commands[] = {
    &sync_global_enable_cmd,      &no_sync_global_enable_cmd,   &sync_ssm_enable_cmd,
    &no_sync_ssm_enable_cmd,      &synce_local_quality_op1_cmd, &no_synce_local_quality_cmd,
    &synce_local_quality_op2_cmd, &ssm_local_priority_cmd,      &no_ssm_local_priority_cmd,
    &ssm_master_only_role_cmd,    &no_ssm_master_only_role_cmd, &ssm_slave_only_role_cmd,
    &no_ssm_slave_only_role_cmd,  &no_ssm_set_ssm_extend_cmd,   &ssm_loop_guard_cmd,
    &no_ssm_loop_guard_cmd,       &ssm_loop_guard_hold_cmd,     &no_ssm_loop_guard_hold_cmd,
    &ssm_loop_guard_hops_cmd,     &no_ssm_loop_guard_hops_cmd,  &ssm_keep_state_cmd,
    &no_ssm_keep_state_cmd,
};

constexpr const cli_element* interface_commands[] = {
    &sync_if_synce_enable_cmd,
    &no_sync_if_synce_enable_cmd,
    &sync_if_ssm_pdu_cmd,
    &no_sync_if_ssm_pdu_cmd,
    &ssm_if_priority_cmd,
    &no_ssm_if_priority_cmd,
    &ssm_if_dnu_group_cmd,
    &no_ssm_if_dnu_group_cmd,
    &ssm_if_extend_replace_clockid_cmd,
    &no_ssm_if_extend_replace_clockid_cmd,
    &synce_if_ql_value_cmd,
    &no_synce_if_ql_value_cmd,
    &sync_ssm_set_master_slave_cmd,
    &no_sync_ssm_set_master_slave_cmd,
};

constexpr const cli_element* show_commands[] = {
    &ssm_show_global_cmd,
    &ssm_show_clock_recovery_select_cmd,
    &ssm_show_clock_bits_cmd,
};

template <std::size_t Count>
void install_all(cli_tree* tree, std::int32_t mode, const cli_element* const (&commands)[Count],
                 std::uint32_t flags = 0) {
    for (const cli_element* command : commands)
        (void)cli_install_gen(tree, mode, SSM_CLI_PRIVILEGE, flags, command);
}

// What every board has.
void install_basics(cli_tree* tree) {
    (void)cli_install(tree, CONFIG_MODE, &interface_ssm_cmd);
    (void)cli_install_config(tree, EXEC_MODE, ssm_config_write);
    (void)cli_install_config(tree, INTERFACE_MODE, ssm_interface_config_write);
    (void)cli_install_default(tree, CONFIG_MODE);
    (void)cli_install_default(tree, INTERFACE_MODE);
}

void install_help(cli_tree* tree) {
    for (const std::span<const cli_help> texts :
         {ssm_global_help, ssm_guard_help, ssm_interface_help, ssm_restore_help, ssm_show_help,
          ssm_everyday_help, ssm_json_help, ssm_supervision_help, ssm_statistics_help, ssm_metrics_help,
          ssm_debug_help})
        (void)cli_install_help(tree, texts.data(), texts.size());
}

}  // namespace

int ssm_cli_init(cli_tree* tree) {
    install_basics(tree);

    ssm_board_info board;
    const std::int32_t rv = ssm_board_info_get(&board);
    if (rv != SSM_OK) return rv;
    if (!board.synce_support) return 0;

    install_all(tree, CONFIG_MODE, global_commands);
    install_all(tree, INTERFACE_MODE, interface_commands);
    install_all(tree, EXEC_MODE, show_commands, CLI_FLAG_JSON);
    (void)cli_install(tree, DEBUG_MODE, &no_ssm_debug_enable_cmd);
    (void)cli_install(tree, DEBUG_MODE, &ssm_debug_enable_cmd);
    return cli_install(tree, EXEC_MODE, &show_ssm_debugging_cmd);
}

int ssm_install_commands(cli_tree* tree) {
    const int result = ssm_cli_init(tree);
    ssm_board_info board;
    if (ssm_board_info_get(&board) == SSM_OK && board.synce_support) {
        (void)ssm_cli_restore_init(tree);
        (void)ssm_cli_everyday_init(tree);
        (void)ssm_cli_supervision_init(tree);
        (void)ssm_cli_statistics_init(tree);
        (void)ssm_cli_metrics_init(tree);
    }
    install_help(tree);
    return result;
}
