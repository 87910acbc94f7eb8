// Switch-wide configuration commands: each command's syntax beside its handler. Handlers keep no state; what
// they refuse leaves the clock record as it was.
#include "cli/commands.h"
#include "cli/handler.h"
#include "core/opts.h"

int ssm_cli_finish(cli* terminal, std::int32_t rv) {
    if (rv >= 0) return CLI_SUCCESS;
    ssm_cli_result_print(terminal, rv);
    return CLI_ERROR;
}

void ssm_cli_trace_line(const char* format) {
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, format);
}

bool ssm_cli_number(cli* terminal, const char* argument, const char* what, std::uint8_t* value) {
    int status = 0;
    const std::int32_t number = cmd_str2int(argument, &status);
    if (status >= 0 && static_cast<std::uint32_t>(number) <= 255) {
        *value = static_cast<std::uint8_t>(number);
        return true;
    }
    terminal->out_func(terminal->out_val, "%% Invalid %s value\n", what);
    return false;
}

namespace {

// Roles that were set by hand and SSM exclude each other.
bool refuse_manual_roles(cli* terminal) {
    if (g_s_master->gephy_manual_count == 0) return false;
    terminal->out_func(terminal->out_val,
                       " %% Port gephy role is configured manually, it can't enable ssm\n");
    return true;
}

int ssm_enable_handler(cli* terminal, int argc, char** argv) {
    if (refuse_manual_roles(terminal)) return CLI_ERROR;
    // The operation clears the roles of all ports unless selection is to set them, so the flag comes first.
    g_s_master->gephy_dynamic = argc > 0 && ssm_cli_keyword(argv[0], "gephy");
    if (g_s_master->gephy_dynamic)
        SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG,
                  "%s%sclock synce ssm enable and setting gephy role dynamically");
    else
        SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sclock synce ssm enable");
    return ssm_cli_finish(terminal, ssm_opts_set_ssm_enable(1));
}

int no_ssm_enable_handler(cli* terminal, int, char**) {
    if (refuse_manual_roles(terminal)) return CLI_ERROR;
    g_s_master->gephy_dynamic = 0;
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sno clock synce ssm enable");
    return ssm_cli_finish(terminal, ssm_opts_set_ssm_enable(0));
}

struct quality_word {
    std::string_view word;
    ssm_quality quality;
};
constexpr quality_word option1_words[] = {{"prc", QL_PRC},
                                          {"eec1", QL_EEC1},
                                          {"prtc", ssm_quality_of(QL_PRC, QL_ENHANCED_PRTC)},
                                          {"eprtc", ssm_quality_of(QL_PRC, QL_ENHANCED_EPRTC)},
                                          {"eprc", ssm_quality_of(QL_PRC, QL_ENHANCED_EPRC)},
                                          {"eeec", ssm_quality_of(QL_EEC1, QL_ENHANCED_EEEC)}};
constexpr quality_word option2_words[] = {{"prs", QL_PRS},
                                          {"eec2", QL_EEC2},
                                          {"prtc", ssm_quality_of(QL_PRS, QL_ENHANCED_PRTC)},
                                          {"eprtc", ssm_quality_of(QL_PRS, QL_ENHANCED_EPRTC)},
                                          {"eprc", ssm_quality_of(QL_PRS, QL_ENHANCED_EPRC)},
                                          {"eeec", ssm_quality_of(QL_EEC2, QL_ENHANCED_EEEC)}};

template <std::size_t Count>
ssm_quality local_quality_named(const quality_word (&words)[Count], const char* argument) {
    for (const quality_word& entry : words)
        if (ssm_cli_keyword(argument, entry.word)) return entry.quality;
    return QL_DNU;
}

int finish_local_quality(cli* terminal, std::int32_t rv) {
    if (rv >= 0) return CLI_SUCCESS;
    if (rv == SSM_CLI_E_OPTION_COLLISION)
        terminal->out_func(
            terminal->out_val,
            "%% Can't configure QL value,option collision between force quality and local quality \n");
    else
        terminal->out_func(terminal->out_val, "%% Unknown Error %d\n", rv);
    return CLI_ERROR;
}

int local_quality_op1_handler(cli* terminal, int, char** argv) {
    const ssm_quality quality = local_quality_named(option1_words, argv[0]);
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sclock synce local-quality %s under option1 mode", argv[0]);
    return finish_local_quality(terminal, ssm_opts_set_local_quality(quality, SSM_OPTION_1));
}

int local_quality_op2_handler(cli* terminal, int, char** argv) {
    const ssm_quality quality = local_quality_named(option2_words, argv[0]);
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sclock synce local-quality %s under option2 mode", argv[0]);
    return finish_local_quality(terminal, ssm_opts_set_local_quality(quality, SSM_OPTION_2));
}

int local_priority_handler(cli* terminal, int, char** argv) {
    std::uint8_t priority = 0;
    if (!ssm_cli_number(terminal, argv[0], "local-priority", &priority)) return CLI_ERROR;
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sclock synce local-priority %s", argv[0]);
    return ssm_cli_finish(terminal, ssm_opts_set_local_priority(priority));
}

constexpr cli_help help_texts[] = {
    {"", "no", "Undo a setting"},
    {"", "clock", "Clock synchronisation of the switch"},
    {"no", "clock", "Clock synchronisation of the switch"},
    {"clock", "synce", "Synchronous Ethernet"},
    {"clock synce", "global-enable", "Synchronous Ethernet of the whole switch"},
    {"clock synce", "ssm", "Synchronisation status messages"},
    {"clock synce ssm", "enable", "Send, receive and act on status messages"},
    {"clock synce ssm enable", "gephy", "Let the selection set the master or slave role of copper ports"},
    {"clock synce ssm", "extend", "Carry clock identity and hop count in the messages"},
    {"clock synce", "local-quality", "Quality level of the switch's own clock, and the network option"},
    {"clock synce local-quality", "option1", "Levels of G.781 option 1 (SDH) networks"},
    {"clock synce local-quality option1", "prc", "Primary reference clock"},
    {"clock synce local-quality option1", "eec1", "Ethernet equipment clock, option 1"},
    {"clock synce local-quality option1", "dnu", "Do not use"},
    {"clock synce local-quality", "option2", "Levels of G.781 option 2 (SONET) networks"},
    {"clock synce local-quality option2", "prs", "Primary reference source"},
    {"clock synce local-quality option2", "eec2", "Ethernet equipment clock, option 2"},
    {"clock synce local-quality option2", "dus", "Do not use for synchronisation"},
    {"clock synce", "local-priority", "Priority of the switch's own clock"},
    {"clock synce local-priority", "<1-255>", "Smaller is better; 255: not configured"},
    {"clock synce", "master-only", "Never recover the clock from a port"},
    {"clock synce", "slave-only", "Always recover the clock from a port, whatever the own quality"},
    {"", "state", "What the daemon knows from moment to moment"},
    {"no", "state", "What the daemon knows from moment to moment"},
    {"state", "keep", "A restart goes on where the daemon was, unseen by the neighbours"},
};

}  // namespace

const cli_element sync_global_enable_cmd = {
    "clock synce global-enable",
    ssm_cli_global<"%s%sclock synce global-enable", ssm_opts_set_global_enable, 1>};
const cli_element no_sync_global_enable_cmd = {
    "no clock synce global-enable",
    ssm_cli_global<"%s%sno clock synce global-enable", ssm_opts_set_global_enable, 0>};

const cli_element sync_ssm_enable_cmd = {"clock synce ssm enable (gephy| )", ssm_enable_handler};
const cli_element no_sync_ssm_enable_cmd = {"no clock synce ssm enable", no_ssm_enable_handler};

const cli_element synce_local_quality_op1_cmd = {
    "clock synce local-quality option1 (dnu | eec1 | prc | prtc | eprtc | eprc | eeec)",
    local_quality_op1_handler};
const cli_element no_synce_local_quality_cmd = {
    "no clock synce local-quality",
    ssm_cli_global<"%s%sno clock synce local-quality", ssm_opts_set_local_quality, QL_DNU, SSM_OPTION_1>};
const cli_element synce_local_quality_op2_cmd = {
    "clock synce local-quality option2 (dus | eec2 | prs | prtc | eprtc | eprc | eeec)",
    local_quality_op2_handler};

const cli_element ssm_local_priority_cmd = {"clock synce local-priority <1-255>", local_priority_handler};
const cli_element no_ssm_local_priority_cmd = {
    "no clock synce local-priority",
    ssm_cli_global<"%s%sno clock synce local-priority", ssm_opts_set_local_priority, SSM_PRIORITY_NONE>};

const cli_element ssm_master_only_role_cmd = {
    "clock synce master-only",
    ssm_cli_global<"%s%sclock synce master-only", ssm_opts_set_device_type, SSM_MASTER_ONLY>};
const cli_element no_ssm_master_only_role_cmd = {
    "no clock synce master-only",
    ssm_cli_global<"%s%sno clock synce master-only", ssm_opts_set_device_type, SSM_DEFAULT_ROLE>};
const cli_element ssm_slave_only_role_cmd = {
    "clock synce slave-only",
    ssm_cli_global<"%s%sclock synce slave-only", ssm_opts_set_device_type, SSM_SLAVE_ONLY>};
const cli_element no_ssm_slave_only_role_cmd = {
    "no clock synce slave-only",
    ssm_cli_global<"%s%sno clock synce slave-only", ssm_opts_set_device_type, SSM_DEFAULT_ROLE>};

const cli_element ssm_keep_state_cmd = {"state keep",
                                        ssm_cli_global<"%s%sstate keep", ssm_opts_set_keep_state, 1>};
const cli_element no_ssm_keep_state_cmd = {"no state keep",
                                           ssm_cli_global<"%s%sno state keep", ssm_opts_set_keep_state, 0>};

const std::span<const cli_help> ssm_global_help = help_texts;
