// Commands that read back two lines of the configuration whose settings are otherwise made over SNMP: the
// force switch and the recovery select. They exist only where the SyncE commands do.
#include "cli/commands.h"
#include "cli/handler.h"
#include "core/opts.h"
#include "core/ports.h"

namespace {

int switch_force_handler(cli* terminal, int, char** argv) {
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sclock synce switch-force %s", argv[0]);
    ssm_port* port = ssm_cli_named_port(terminal, argv[0]);
    if (!port) return CLI_ERROR;
    if (!terminal->line) SSM_LOG(LOG_LEVEL_WARNING, "%s%sthe configuration forces the switch to %s", argv[0]);
    return ssm_cli_finish(terminal, ssm_opts_set_force_port(port));
}

int no_switch_force_handler(cli* terminal, int, char**) {
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sno clock synce switch-force");
    const std::int32_t rv = ssm_opts_clear_force();
    if (rv != SSM_CLI_E_FORCE_CONFLICT) return ssm_cli_finish(terminal, rv);
    terminal->out_func(terminal->out_val,
                       "%% Both a port and the E1 input are forced, nothing was cleared\n");
    return CLI_ERROR;
}

int recovery_select_handler(cli* terminal, int, char** argv) {
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sclock recovery-select bits %s", argv[0]);
    const ssm_recovery input = ssm_cli_keyword(argv[0], "bits1") ? SSM_RECOVER_BITS1 : SSM_RECOVER_BITS2;
    return ssm_cli_finish(terminal, ssm_opts_set_recovery_select(input));
}

constexpr cli_help help_texts[] = {
    {"clock synce", "switch-force", "Recover the clock from this port whatever the selection says"},
    {"clock synce switch-force", "IFNAME", "Port to recover the clock from"},
    {"clock", "recovery-select", "Input from which the clock is recovered"},
    {"clock recovery-select", "bits", "An external input"},
    {"clock recovery-select bits", "bits1", "First external input"},
    {"clock recovery-select bits", "bits2", "Second external input"},
};

}  // namespace

const cli_element ssm_switch_force_cmd = {"clock synce switch-force IFNAME", switch_force_handler};
const cli_element no_ssm_switch_force_cmd = {"no clock synce switch-force", no_switch_force_handler};
const cli_element ssm_recovery_select_cmd = {"clock recovery-select bits (bits1|bits2)",
                                             recovery_select_handler};
const cli_element no_ssm_recovery_select_cmd = {
    "no clock recovery-select",
    ssm_cli_global<"%s%sno clock recovery-select", ssm_opts_set_recovery_select, SSM_RECOVER_SYNCE>};
const std::span<const cli_help> ssm_restore_help = help_texts;

int ssm_cli_restore_init(cli_tree* tree) {
    // A port that the file names may be bound only later: its line waits for it.
    int rv =
        cli_install_gen(tree, CONFIG_MODE, SSM_CLI_PRIVILEGE, CLI_FLAG_AFTER_BIND, &ssm_switch_force_cmd);
    for (const cli_element* command :
         {&no_ssm_switch_force_cmd, &ssm_recovery_select_cmd, &no_ssm_recovery_select_cmd}) {
        if (cli_install_gen(tree, CONFIG_MODE, SSM_CLI_PRIVILEGE, 0, command) < 0) rv = -1;
    }
    return rv;
}
