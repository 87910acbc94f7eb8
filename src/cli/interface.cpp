// Configuration commands of one port, and the way into its mode. The operations decide whether the interface
// is fit; "interface IFNAME" itself takes any name.
#include <algorithm>
#include <cstdio>

#include "cli/commands.h"
#include "cli/handler.h"
#include "core/opts.h"
#include "core/ports.h"

interface* ssm_cli_interface(cli* terminal) {
    if (!ssm_instance || !ssm_instance->lib_ctx) return nullptr;
    const if_master* ifm = ssm_instance->lib_ctx->ifm;
    const auto known = if_list(ifm);
    auto* entered = static_cast<interface*>(terminal->index);
    const bool alive = std::find(known.begin(), known.end(), entered) != known.end();
    const bool same = alive && (!terminal->name[0] || std::strcmp(entered->name, terminal->name) == 0);
    if (!same) terminal->index = terminal->name[0] ? ifg_get_by_name(ifm, terminal->name) : nullptr;
    return static_cast<interface*>(terminal->index);
}

int ssm_cli_finish_quality(cli* terminal, std::int32_t rv, const char* quality) {
    if (rv >= 0) return CLI_SUCCESS;
    if (rv == SSM_CLI_E_QL_OPTION1)
        terminal->out_func(terminal->out_val, "%% Can't configure QL value %s under option1 mode\n", quality);
    else if (rv == SSM_CLI_E_QL_OPTION2)
        terminal->out_func(terminal->out_val, "%% Can't configure QL value %s under option2 mode\n", quality);
    else if (rv == SSM_CLI_E_INVALID_IF)
        terminal->out_func(terminal->out_val, "%% Invalid interface\n");
    return CLI_ERROR;
}

namespace {

int interface_handler(cli* terminal, int, char** argv) {
    terminal->index = ssm_instance ? ifg_get_by_name(ssm_instance->lib_ctx->ifm, argv[0]) : nullptr;
    terminal->mode = INTERFACE_MODE;
    std::snprintf(terminal->name, sizeof terminal->name, "%s", argv[0]);
    return CLI_SUCCESS;
}

ssm_esmc_mode esmc_direction(const char* argument) {
    if (ssm_cli_keyword(argument, "rx")) return SSM_ESMC_RX;
    if (ssm_cli_keyword(argument, "tx")) return SSM_ESMC_TX;
    return SSM_ESMC_ALL;
}

int esmc_handler(cli* terminal, int, char** argv) {
    const ssm_esmc_mode direction = esmc_direction(argv[0]);
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sinterface clock synce ssm enable %s", argv[0]);
    return ssm_cli_finish(terminal, ssm_opts_set_port_esmc(ssm_cli_interface(terminal), direction));
}

int no_esmc_handler(cli* terminal, int, char** argv) {
    const ssm_esmc_mode direction = esmc_direction(argv[0]);
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sinterface no clock synce ssm enable");
    return ssm_cli_finish(terminal, ssm_opts_unset_port_esmc(ssm_cli_interface(terminal), direction));
}

int priority_handler(cli* terminal, int, char** argv) {
    std::uint8_t priority = 0;
    if (!ssm_cli_number(terminal, argv[0], "priority", &priority)) return CLI_ERROR;
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sinterface clock synce priority %s", argv[0]);
    return ssm_cli_finish(terminal, ssm_opts_set_port_priority(ssm_cli_interface(terminal), priority));
}

int dnu_group_handler(cli* terminal, int, char** argv) {
    std::uint8_t group = 0;
    if (!ssm_cli_number(terminal, argv[0], "dnu group id", &group)) return CLI_ERROR;
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sinterface clock synce dnu group %s", argv[0]);
    return ssm_cli_finish(terminal, ssm_opts_set_port_dnu_group(ssm_cli_interface(terminal), group));
}

// The one command of its kind without a trace line.
int no_dnu_group_handler(cli* terminal, int, char**) {
    return ssm_cli_finish(terminal, ssm_opts_set_port_dnu_group(ssm_cli_interface(terminal), 0));
}

std::uint32_t quality_direction(const char* argument) {
    return ssm_cli_keyword(argument, "rx") ? SSM_ESMC_RX : SSM_ESMC_TX;
}

int quality_handler(cli* terminal, int, char** argv) {
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sinterface clock synce quality-level %s %s", argv[0],
              argv[1]);
    return ssm_cli_finish_quality(
        terminal, ssm_opts_set_port_quality(ssm_cli_interface(terminal), quality_direction(argv[0]), argv[1]),
        argv[1]);
}

// Fails without a word, as scripts that clear every interface expect.
int no_quality_handler(cli* terminal, int, char** argv) {
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sno interface clock synce quality-level %s", argv[0]);
    const std::int32_t rv =
        ssm_opts_set_port_quality(ssm_cli_interface(terminal), quality_direction(argv[0]), "na");
    return rv < 0 ? CLI_ERROR : CLI_SUCCESS;
}

// While SSM is on, selection sets the roles.
bool refuse_role_with_ssm(cli* terminal) {
    if (!g_s_master->ssm_enable) return false;
    terminal->out_func(terminal->out_val, " %% Synce ssm is enabled, it can't configure port gephy role\n");
    return true;
}

int gephy_handler(cli* terminal, int, char** argv) {
    const ssm_gephy_role role = ssm_cli_keyword(argv[0], "master") ? SSM_GEPHY_MASTER : SSM_GEPHY_SLAVE;
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sclock synce gephy %s", argv[0]);
    if (refuse_role_with_ssm(terminal)) return CLI_ERROR;
    interface* intf = ssm_cli_interface(terminal);
    if (ssm_opts_set_gephy_role(intf, 1, role) < 0) return CLI_ERROR;
    // A port counts once, however often its role is changed. Whoever removes the role takes it off again.
    ssm_port* port = ssm_if_port(intf);
    if (port && !port->gephy_by_command) {
        port->gephy_by_command = 1;
        ++g_s_master->gephy_manual_count;
    }
    return CLI_SUCCESS;
}

int no_gephy_handler(cli* terminal, int, char**) {
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sno clock synce gephy");
    if (refuse_role_with_ssm(terminal)) return CLI_ERROR;
    return ssm_opts_set_gephy_role(ssm_cli_interface(terminal), 0, 0) < 0 ? CLI_ERROR : CLI_SUCCESS;
}

constexpr cli_help help_texts[] = {
    {"", "interface", "Configure one port"},
    {"interface", "IFNAME", "Name of a port"},
    {"clock synce", "enable", "Synchronous Ethernet on this port"},
    {"clock synce ssm enable", "rx", "Receive only"},
    {"clock synce ssm enable", "tx", "Send only"},
    {"clock synce ssm enable", "all", "Both directions"},
    {"clock synce", "priority", "Priority of this port as clock source"},
    {"clock synce priority", "<1-255>", "Smaller is better; 255: not configured"},
    {"clock synce", "dnu-group", "Ports that all send do-not-use while one of them is the source"},
    {"clock synce dnu-group", "<1-255>", "Number of the group"},
    {"clock synce", "extend", "Extended messages"},
    {"clock synce extend", "replace-clockid", "Replace the clock identity that this port receives"},
    {"clock synce", "quality-eth", "Take a fixed quality level for this port"},
    {"clock synce quality-eth", "rx", "In place of what is received"},
    {"clock synce quality-eth", "tx", "In place of what would be sent"},
    {"", "prtc", "Primary reference time clock (both options)"},
    {"", "eprtc", "Enhanced primary reference time clock (both options)"},
    {"", "eprc", "Enhanced primary reference clock (both options)"},
    {"", "eeec", "Enhanced Ethernet equipment clock (both options)"},
    {"", "prc", "Primary reference clock (option 1)"},
    {"", "ssu-a", "Synchronisation supply unit A (option 1)"},
    {"", "ssu-b", "Synchronisation supply unit B (option 1)"},
    {"", "eec1", "Ethernet equipment clock (option 1)"},
    {"", "dnu", "Do not use (option 1)"},
    {"", "prs", "Primary reference source (option 2)"},
    {"", "stu", "Synchronised, traceability unknown (option 2)"},
    {"", "st2", "Stratum 2 clock (option 2)"},
    {"", "tnc", "Transit node clock (option 2)"},
    {"", "smc", "SONET minimum clock (option 2)"},
    {"", "st3e", "Stratum 3E clock (option 2)"},
    {"", "prov", "Level provisioned by the operator (option 2)"},
    {"", "eec2", "Ethernet equipment clock (option 2)"},
    {"", "dus", "Do not use for synchronisation (option 2)"},
    {"clock synce", "gephy", "Role of this copper port on its link"},
    {"clock synce gephy", "master", "The port gives the link's clock"},
    {"clock synce gephy", "slave", "The port recovers the link's clock"},
};

}  // namespace

const cli_element interface_ssm_cmd = {"interface IFNAME", interface_handler};

const cli_element sync_if_synce_enable_cmd = {
    "clock synce enable", ssm_cli_port<"%s%sinterface clock synce enable", ssm_opts_set_port_synce, 1>};
const cli_element no_sync_if_synce_enable_cmd = {
    "no clock synce enable", ssm_cli_port<"%s%sinterface no clock synce enable", ssm_opts_set_port_synce, 0>};
const cli_element sync_if_ssm_pdu_cmd = {"clock synce ssm enable (rx | tx | all)", esmc_handler};
const cli_element no_sync_if_ssm_pdu_cmd = {"no clock synce ssm enable (rx | tx | all)", no_esmc_handler};

const cli_element ssm_if_priority_cmd = {"clock synce priority <1-255>", priority_handler};
const cli_element no_ssm_if_priority_cmd = {
    "no clock synce priority",
    ssm_cli_port<"%s%sinterface no clock synce priority", ssm_opts_set_port_priority, SSM_PRIORITY_NONE>};
const cli_element ssm_if_dnu_group_cmd = {"clock synce dnu-group <1-255>", dnu_group_handler};
const cli_element no_ssm_if_dnu_group_cmd = {"no clock synce dnu-group", no_dnu_group_handler};

const cli_element ssm_if_extend_replace_clockid_cmd = {
    "clock synce extend replace-clockid",
    ssm_cli_port<"%s%sclock synce extend replace-clockid", ssm_opts_set_port_replace_clockid, 1>};
const cli_element no_ssm_if_extend_replace_clockid_cmd = {
    "no clock synce extend replace-clockid",
    ssm_cli_port<"%s%sno clock synce extend replace-clockid", ssm_opts_set_port_replace_clockid, 0>};

const cli_element synce_if_ql_value_cmd = {"clock synce quality-eth (rx | tx) " SSM_CLI_QUALITIES,
                                           quality_handler};
const cli_element no_synce_if_ql_value_cmd = {"no clock synce quality-eth (rx | tx)", no_quality_handler};

const cli_element sync_ssm_set_master_slave_cmd = {"clock synce gephy (master|slave)", gephy_handler};
const cli_element no_sync_ssm_set_master_slave_cmd = {"no clock synce gephy", no_gephy_handler};
const std::span<const cli_help> ssm_interface_help = help_texts;
