// Commands of the supervision of sources: hold-off, wait-to-restore, lockout, limits of quality and the form
// of the extended TLV are configuration; the manual switch and the "clear" commands act once and are never
// saved.
#include "core/supervision.h"

#include "cli/commands.h"
#include "cli/handler.h"
#include "core/opts.h"
#include "core/ports.h"
#include "core/ql.h"

namespace {

std::uint32_t number_of(const char* argument) {
    int status = 0;
    return static_cast<std::uint32_t>(cmd_str2int(argument, &status));  // the range has been matched
}

// ---- Times ----

int finish_hold_off(cli* terminal, std::int32_t rv) {
    if (rv != SSM_CLI_E_INVALID_INPUT) return ssm_cli_finish(terminal, rv);
    return cli_refuse(terminal, "The hold-off time is 300 to 1800 ms in steps of 100");
}

int hold_off_handler(cli* terminal, int, char** argv) {
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sclock synce hold-off %s", argv[0]);
    return finish_hold_off(terminal, ssm_opts_set_hold_off(number_of(argv[0])));
}

int port_hold_off_handler(cli* terminal, int, char** argv) {
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sinterface clock synce hold-off %s", argv[0]);
    return finish_hold_off(terminal,
                           ssm_opts_set_port_hold_off(ssm_cli_interface(terminal), number_of(argv[0])));
}

int restore_handler(cli* terminal, int, char** argv) {
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sclock synce wait-to-restore %s", argv[0]);
    return ssm_cli_finish(terminal, ssm_opts_set_restore(number_of(argv[0])));
}

int port_restore_handler(cli* terminal, int, char** argv) {
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sinterface clock synce wait-to-restore %s", argv[0]);
    return ssm_cli_finish(terminal,
                          ssm_opts_set_port_restore(ssm_cli_interface(terminal), number_of(argv[0])));
}

int no_port_restore_handler(cli* terminal, int, char**) {
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sinterface no clock synce wait-to-restore");
    return ssm_cli_finish(terminal, ssm_opts_unset_port_restore(ssm_cli_interface(terminal)));
}

int clear_restore_handler(cli* terminal, int argc, char** argv) {
    ssm_port* port = nullptr;
    if (argc > 0 && !(port = ssm_cli_named_port(terminal, argv[0]))) return CLI_ERROR;
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sclear clock synce wait-to-restore %s",
              port ? argv[0] : "");
    return ssm_cli_finish(terminal, ssm_opts_end_restore(port));
}

// ---- Lockout ----

int lockout_handler(cli* terminal, int, char**) {
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sinterface clock synce lockout");
    const std::int32_t rv = ssm_opts_set_port_lockout(ssm_cli_interface(terminal), 1);
    if (rv >= 0 && !terminal->line)
        SSM_LOG(LOG_LEVEL_WARNING, "%s%sthe configuration locks %s out", terminal->name);
    return ssm_cli_finish(terminal, rv);
}

// ---- Limits of quality ----

int set_limit(cli* terminal, std::uint32_t direction, const char* limit, const char* quality) {
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sinterface clock synce quality-eth %s %s %s",
              ssm_esmc_dir_token(direction), limit, quality);
    const ssm_limit which = ssm_cli_keyword(limit, "minimum") ? ssm_limit::minimum : ssm_limit::maximum;
    return ssm_cli_finish_quality(
        terminal, ssm_opts_set_port_limit(ssm_cli_interface(terminal), direction, which, quality), quality);
}

// "na" is the word for none.
template <std::uint32_t Direction>
int limit_handler(cli* terminal, int argc, char** argv) {
    return set_limit(terminal, Direction, argv[0], argc > 1 ? argv[1] : "na");
}

// ---- Manual switch ----

int manual_switch_handler(cli* terminal, int, char** argv) {
    const ssm_port* port = ssm_cli_named_port(terminal, argv[0]);
    if (!port) return CLI_ERROR;
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sclock synce manual-switch %s", argv[0]);
    const char* why = nullptr;
    const std::int32_t rv = ssm_opts_manual_switch(port->intf, &why);
    if (!why) return ssm_cli_finish(terminal, rv);
    terminal->out_func(terminal->out_val, "%% Can't switch to %s: %s\n", argv[0], why);
    return CLI_ERROR;
}

// ---- Forms of the extended TLV ----

int extend_standard_handler(cli* terminal, int, char**) {
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sclock synce ssm extend standard");
    (void)ssm_opts_set_extend_form(SSM_FORM_STANDARD);  // always 0
    return ssm_cli_finish(terminal, ssm_opts_set_ssm_extend(1));
}

int extend_own_handler(cli* terminal, int, char**) {
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sclock synce ssm extend");
    (void)ssm_opts_set_extend_form(SSM_FORM_DEFAULT);
    return ssm_cli_finish(terminal, ssm_opts_set_ssm_extend(1));
}

int port_form_handler(cli* terminal, int, char** argv) {
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sclock synce extend form %s", argv[0]);
    const ssm_extend_form form = ssm_cli_keyword(argv[0], "own") ? SSM_FORM_OWN : SSM_FORM_STANDARD;
    return ssm_cli_finish(terminal, ssm_opts_set_port_extend_form(ssm_cli_interface(terminal), form));
}

int clock_type_handler(cli* terminal, int, char** argv) {
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sclock synce clock-type %s", argv[0]);
    return ssm_cli_finish(
        terminal, ssm_opts_set_clock_type(ssm_cli_keyword(argv[0], "eeec") ? SSM_CLOCK_EEEC : SSM_CLOCK_EEC));
}

// ---- Installation ----

constexpr cli_element config_commands[] = {
    {"clock synce ssm extend", extend_own_handler},
    {"clock synce ssm extend standard", extend_standard_handler},
    {"clock synce clock-type (eec | eeec)", clock_type_handler},
    {"no clock synce clock-type",
     ssm_cli_global<"%s%sno clock synce clock-type", ssm_opts_set_clock_type, SSM_CLOCK_EEC>},
    {"clock synce hold-off <300-1800>", hold_off_handler},
    {"no clock synce hold-off", ssm_cli_global<"%s%sno clock synce hold-off", ssm_opts_set_hold_off, 0>},
    {"clock synce wait-to-restore <0-720>", restore_handler},
    {"no clock synce wait-to-restore",
     ssm_cli_global<"%s%sno clock synce wait-to-restore", ssm_opts_set_restore, 0>},
    {"clock synce non-revertive",
     ssm_cli_global<"%s%sclock synce non-revertive", ssm_opts_set_non_revertive, 1>},
    {"no clock synce non-revertive",
     ssm_cli_global<"%s%sno clock synce non-revertive", ssm_opts_set_non_revertive, 0>},
    {"clock synce advertise when-locked",
     ssm_cli_global<"%s%sclock synce advertise when-locked", ssm_opts_set_advertise_when_locked, 1>},
    {"no clock synce advertise",
     ssm_cli_global<"%s%sno clock synce advertise", ssm_opts_set_advertise_when_locked, 0>},
};

constexpr cli_element port_commands[] = {
    {"clock synce lockout", lockout_handler},
    {"no clock synce lockout",
     ssm_cli_port<"%s%sinterface no clock synce lockout", ssm_opts_set_port_lockout, 0>},
    {"clock synce hold-off <300-1800>", port_hold_off_handler},
    {"no clock synce hold-off",
     ssm_cli_port<"%s%sinterface no clock synce hold-off", ssm_opts_set_port_hold_off, 0>},
    {"clock synce wait-to-restore <0-720>", port_restore_handler},
    {"no clock synce wait-to-restore", no_port_restore_handler},
    {"clock synce extend form (own | standard)", port_form_handler},
    {"no clock synce extend form",
     ssm_cli_port<"%s%sno clock synce extend form", ssm_opts_set_port_extend_form, SSM_FORM_DEFAULT>},
    {"clock synce quality-eth (minimum | maximum) " SSM_CLI_QUALITIES, limit_handler<SSM_ESMC_RX>},
    {"no clock synce quality-eth (minimum | maximum)", limit_handler<SSM_ESMC_RX>},
    {"clock synce quality-eth tx (minimum | maximum) " SSM_CLI_QUALITIES, limit_handler<SSM_ESMC_TX>},
    {"no clock synce quality-eth tx (minimum | maximum)", limit_handler<SSM_ESMC_TX>},
};

constexpr cli_element exec_commands[] = {
    {"clock synce manual-switch IFNAME", manual_switch_handler},
    {"clear clock synce switch", ssm_cli_global<"%s%sclear clock synce switch", ssm_opts_clear_switch>},
    {"clear clock synce wait-to-restore (IFNAME|)", clear_restore_handler},
};

constexpr cli_help help_texts[] = {
    {"clock synce ssm extend", "standard", "Send the extended TLV of ITU-T G.8264"},
    {"clock synce", "clock-type", "How the switch counts itself in the standard's extended TLV"},
    {"clock synce clock-type", "eec", "Ethernet equipment clock (default)"},
    {"clock synce clock-type", "eeec", "Enhanced Ethernet equipment clock"},
    {"clock synce", "hold-off", "How long a source may fail before that counts"},
    {"clock synce hold-off", "<300-1800>", "Milliseconds, in steps of 100"},
    {"clock synce", "wait-to-restore", "How long a source that failed must be free of faults to count again"},
    {"clock synce wait-to-restore", "<0-720>", "Seconds"},
    {"clear clock synce wait-to-restore", "IFNAME", "Port that counts again now; else all"},
    {"clock synce", "advertise", "When the quality of the source is advertised"},
    {"clock synce advertise", "when-locked",
     "While the clock hardware is locked; until then the own clock's"},
    {"clock synce", "non-revertive", "Keep the source when a port has the better priority alone"},
    {"clock synce", "lockout", "Never take the clock from this port"},
    {"clock synce", "manual-switch", "Take the clock from this port while no quality is lost by it"},
    {"clock synce manual-switch", "IFNAME", "Port to recover the clock from"},
    {"clock synce", "switch", "End the manual and the forced switch"},
    {"clock synce extend", "form", "Form of the extended TLV that this port sends"},
    {"clock synce extend form", "own", "Clock identity and hop count"},
    {"clock synce extend form", "standard", "The extended TLV of ITU-T G.8264"},
    {"clock synce quality-eth", "minimum", "Refuse what is received below this quality"},
    {"clock synce quality-eth", "maximum", "Take what is received as no better than this quality"},
    {"clock synce quality-eth tx", "minimum", "Send do-not-use in place of what is below this quality"},
    {"clock synce quality-eth tx", "maximum", "Send nothing better than this quality"},
    {"", "clear", "End or clear something"},
    {"clear", "clock", "Clock synchronisation"},
};

// ---- Configuration ----

void write_limit(cli* terminal, const char* which, std::uint16_t quality) {
    if (quality == QL_NONE) return;
    terminal->out_func(terminal->out_val, " clock synce quality-eth %s %s\n", which,
                       ssm_ql_to_token(quality));
}

}  // namespace

ssm_port* ssm_cli_named_port(cli* terminal, const char* name) {
    interface* intf = if_lookup_by_name(terminal->ifm, name);
    ssm_port* port = ssm_if_port(intf);
    if (!intf)
        terminal->out_func(terminal->out_val, "%% Unknown interface %s\n", name);
    else if (!port)
        terminal->out_func(terminal->out_val, "%% Interface %s is not a SyncE port\n", name);
    return port;
}

const std::span<const cli_help> ssm_supervision_help = help_texts;

void ssm_supervision_config_write(cli* terminal) {
    const ssm_master* clock = g_s_master;
    if (clock->clock_type == SSM_CLOCK_EEEC)
        terminal->out_func(terminal->out_val, "clock synce clock-type eeec\n");
    if (clock->hold_off_ms)
        terminal->out_func(terminal->out_val, "clock synce hold-off %u\n",
                           static_cast<unsigned>(clock->hold_off_ms));
    if (clock->restore_s)
        terminal->out_func(terminal->out_val, "clock synce wait-to-restore %u\n",
                           static_cast<unsigned>(clock->restore_s));
    if (clock->non_revertive) terminal->out_func(terminal->out_val, "clock synce non-revertive\n");
    if (clock->advertise_when_locked)
        terminal->out_func(terminal->out_val, "clock synce advertise when-locked\n");
}

void ssm_supervision_port_config_write(cli* terminal, const ssm_port* port) {
    if (port->hold_off_ms)
        terminal->out_func(terminal->out_val, " clock synce hold-off %u\n", unsigned{port->hold_off_ms});
    if (port->restore_set)
        terminal->out_func(terminal->out_val, " clock synce wait-to-restore %u\n", unsigned{port->restore_s});
    if (port->extend_form)
        terminal->out_func(terminal->out_val, " clock synce extend form %s\n",
                           port->extend_form == SSM_FORM_OWN ? "own" : "standard");
    write_limit(terminal, "minimum", port->min_rx_quality);
    write_limit(terminal, "maximum", port->max_rx_quality);
    write_limit(terminal, "tx minimum", port->min_tx_quality);
    write_limit(terminal, "tx maximum", port->max_tx_quality);
}

int ssm_cli_supervision_init(cli_tree* tree) {
    int rv = 0;
    const auto install = [&](std::int32_t mode, std::uint32_t flags, std::span<const cli_element> commands) {
        for (const cli_element& command : commands)
            if (cli_install_gen(tree, mode, SSM_CLI_PRIVILEGE, flags, &command) < 0) rv = -1;
    };
    install(CONFIG_MODE, 0, config_commands);
    install(INTERFACE_MODE, 0, port_commands);
    install(EXEC_MODE, CLI_FLAG_INTERACTIVE, exec_commands);
    return rv;
}
