// The JSON form of the shows (RFC 8259), one value on one line, for scripts: the clock and its ports, and the
// fields that other shows take from there. The field names are a promise: fields may be added, none changes
// its name or meaning. Qualities are command tokens, "none" where there is none; what there is not is null.
#include "cli/json.h"

#include <cinttypes>

#include "cli/commands.h"
#include "cli/handler.h"
#include "cli/reason.h"
#include "core/extension.h"
#include "core/neighbour.h"
#include "core/ports.h"
#include "core/ql.h"
#include "core/supervision.h"
#include "suite/ports/slow_socket.h"

// Names are the operator's: they may hold anything. Octets that are no UTF-8 are the reader's to judge.
void ssm_json_text(cli* terminal, const char* text) {
    if (!text) {
        terminal->out_func(terminal->out_val, "null");
        return;
    }
    terminal->out_func(terminal->out_val, "\"");
    for (const char* c = text; *c; ++c) {
        const auto octet = static_cast<unsigned char>(*c);
        if (octet < 0x20 || octet == 0x7f || *c == '"' || *c == '\\')
            terminal->out_func(terminal->out_val, "\\u%04x", static_cast<unsigned>(octet));
        else
            terminal->out_func(terminal->out_val, "%c", *c);
    }
    terminal->out_func(terminal->out_val, "\"");
}

void ssm_json_field(cli* terminal, const char* name, const char* value) {
    terminal->out_func(terminal->out_val, ",\"%s\":", name);
    ssm_json_text(terminal, value);
}

void ssm_json_field(cli* terminal, const char* name, std::uint32_t value) {
    terminal->out_func(terminal->out_val, ",\"%s\":%u", name, static_cast<unsigned>(value));
}

void ssm_json_address(cli* terminal, const char* name, const std::uint8_t* address) {
    ssm_json_field(terminal, name, address ? ssm_address_str(address).text : nullptr);
}

void ssm_json_count(cli* terminal, const char* name, std::uint64_t value) {
    terminal->out_func(terminal->out_val, ",\"%s\":%" PRIu64, name, value);
}

void ssm_json_age(cli* terminal, const char* name, nanoseconds moment) {
    if (moment)
        ssm_json_count(terminal, name, (thread_now(g_p_esmcd) - moment) / NS_PER_MS);
    else
        ssm_json_field(terminal, name, nullptr);
}

void ssm_json_flag(cli* terminal, const char* name, bool value) {
    terminal->out_func(terminal->out_val, ",\"%s\":%s", name, value ? "true" : "false");
}

const char* ssm_json_quality(std::uint32_t code) {
    return code == QL_NONE ? "none" : ssm_ql_to_token(code);
}

namespace {

const char* or_null(const ssm_reason& reason) {
    return reason.text[0] ? reason.text : nullptr;
}

const char* running_state() {
    static constexpr const char* WORDS[] = {"", "master", "freerun", "holdover", "lock"};
    return WORDS[static_cast<std::size_t>(ssm_running_state())];
}

const char* dpll_state() {
    switch (g_s_master->dpll_state) {
        case SSM_DPLL_FREERUN:
            return "freerun";
        case SSM_DPLL_HOLDOVER:
            return "holdover";
        case SSM_DPLL_LOCK:
            return "lock";
        default:
            return "transient";
    }
}

const char* device_type() {
    if (g_s_master->device_type == SSM_MASTER_ONLY) return "master-only";
    return g_s_master->device_type == SSM_SLAVE_ONLY ? "slave-only" : "default";
}

const char* recovery_input() {
    if (g_s_master->recovery_select == SSM_RECOVER_SYNCE) return "synce";
    return g_s_master->recovery_select == SSM_RECOVER_BITS1 ? "bits1" : "bits2";
}

const char* esmc_mode(const ssm_port* port) {
    switch (port->esmc_mode) {
        case SSM_ESMC_RX:
            return "rx";
        case SSM_ESMC_TX:
            return "tx";
        case SSM_ESMC_NONE:
            return "none";
        default:
            return "all";
    }
}

// Fields of the loop guard are there while it is on.
void write_guard(cli* terminal) {
    const ssm_guard& guard = g_s_master->guard;
    if (!guard.enable) return;
    ssm_json_flag(terminal, "loop_guard_in_force", ssm_guard_in_force());
    ssm_json_field(terminal, "loop_guard_hold_ms", guard.hold_ms);
    ssm_json_field(terminal, "loop_guard_hops", guard.hops);
    ssm_json_count(terminal, "loop_guard_refused", guard.refused);
    ssm_json_count(terminal, "loop_guard_holds", guard.holds);
    ssm_json_count(terminal, "loop_guard_longest_hold_ms", guard.longest_hold / NS_PER_MS);
    ssm_json_flag(terminal, "loop_guard_holding", guard.holding_since != 0);
    ssm_json_field(terminal, "loop_guard_hold_left_ms", ssm_guard_hold_left_ms());
}

void write_port_guard(cli* terminal, const ssm_port* port) {
    if (!g_s_master->guard.enable) return;
    slow_port_stats stats = {};
    (void)slow_socket_port_stats(port->ifindex, &stats);  // none yet: 0
    ssm_json_field(terminal, "loop_guard_refused_ms", ssm_guard_refused_ms(port));
    ssm_json_count(terminal, "held_back", stats.held_back);
}

const char* form(std::uint8_t of) {
    if (of == SSM_FORM_DEFAULT) return nullptr;
    return of == SSM_FORM_STANDARD ? "standard" : "own";
}

void write_supervision(cli* terminal) {
    const ssm_master* clock = g_s_master;
    ssm_json_field(terminal, "extend_form", clock->extend_form == SSM_FORM_STANDARD ? "standard" : "own");
    ssm_json_field(terminal, "clock_type", clock->clock_type == SSM_CLOCK_EEEC ? "eeec" : "eec");
    ssm_json_field(terminal, "hold_off_ms", clock->hold_off_ms);
    ssm_json_field(terminal, "wait_to_restore_s", clock->restore_s);
    ssm_json_flag(terminal, "non_revertive", clock->non_revertive != 0);
    ssm_json_flag(terminal, "advertise_when_locked", clock->advertise_when_locked != 0);
    ssm_json_flag(terminal, "keep_state", clock->keep_state != 0);
    ssm_json_field(terminal, "manual_port", ssm_port_name(clock->manual_port));
    ssm_json_flag(terminal, "e1_forced", clock->force_e1 != 0);
    ssm_json_count(terminal, "changes", clock->history.count);
}

void write_port_supervision(cli* terminal, const ssm_port* port) {
    ssm_json_field(terminal, "extend_form", form(ssm_extend_form_of(port)));
    ssm_json_field(terminal, "hold_off_ms", ssm_hold_off_ms(port));
    ssm_json_field(terminal, "wait_to_restore_s", ssm_restore_s(port));
    ssm_json_field(terminal, "hold_off_left_ms", ssm_hold_off_left_ms(port));
    ssm_json_field(terminal, "wait_to_restore_left_s", ssm_restore_left_s(port));
    ssm_json_flag(terminal, "locked_out", port->lockout != 0);
    ssm_json_flag(terminal, "failed", port->failed != 0);
    ssm_json_field(terminal, "minimum_received_quality", ssm_json_quality(port->min_rx_quality));
    ssm_json_field(terminal, "maximum_received_quality", ssm_json_quality(port->max_rx_quality));
    ssm_json_field(terminal, "minimum_sent_quality", ssm_json_quality(port->min_tx_quality));
    ssm_json_field(terminal, "maximum_sent_quality", ssm_json_quality(port->max_tx_quality));
    ssm_json_field(terminal, "received_form", form(port->recv_form));
    ssm_json_flag(terminal, "received_mixed", port->recv_flags & esmc::FLAG_MIXED);
    ssm_json_flag(terminal, "received_partial", port->recv_flags & esmc::FLAG_PARTIAL);
    ssm_json_field(terminal, "received_eeec", std::uint32_t{port->recv_eeec});
    ssm_json_field(terminal, "received_eec", std::uint32_t{port->recv_eec});
    ssm_json_flag(terminal, "flapping", ssm_flapping(port));
}

void interval(cli* terminal, const char* name, nanoseconds length) {
    if (length)
        ssm_json_count(terminal, name, length / NS_PER_MS);
    else
        ssm_json_field(terminal, name, nullptr);
}

}  // namespace

void ssm_json_statistics(cli* terminal, const ssm_port* port) {
    const ssm_statistics& s = *port->statistics;
    slow_port_stats frames = {};
    (void)slow_socket_port_stats(port->ifindex, &frames);  // none yet: 0
    ssm_json_count(terminal, "information_in", s.information_in);
    ssm_json_count(terminal, "events_in", s.events_in);
    ssm_json_count(terminal, "dnu_in", s.dnu_in);
    ssm_json_count(terminal, "information_out", s.information_out);
    ssm_json_count(terminal, "events_out", s.events_out);
    ssm_json_count(terminal, "dnu_out", s.dnu_out);
    ssm_json_count(terminal, "without_quality", s.short_frames);
    ssm_json_count(terminal, "unknown_quality", s.bad_qualities);
    ssm_json_count(terminal, "unknown_tlv", s.bad_tlvs);
    ssm_json_count(terminal, "beyond_rate_limit", frames.limited);
    ssm_json_count(terminal, "timeouts", s.timeouts);
    ssm_json_count(terminal, "times_source", s.sources);
    ssm_json_age(terminal, "information_age_ms", s.last_information);
    ssm_json_age(terminal, "event_age_ms", s.last_event);
    ssm_json_age(terminal, "sent_age_ms", s.last_out);
    interval(terminal, "shortest_interval_ms", s.shortest);
    interval(terminal, "mean_interval_ms", ssm_mean_interval(s));
    interval(terminal, "longest_interval_ms", s.longest);
    ssm_json_age(terminal, "quality_age_ms", s.quality_changed);
    ssm_json_age(terminal, "cleared_age_ms", s.cleared);
}

namespace {

void number(cli* terminal, const char* name, bool known, std::int64_t value) {
    if (known)
        terminal->out_func(terminal->out_val, ",\"%s\":%" PRId64, name, value);
    else
        ssm_json_field(terminal, name, nullptr);
}

void write_pin(cli* terminal, const ssm_pin* pin) {
    ssm_json_field(terminal, "pin_label", pin && pin->label[0] ? pin->label : nullptr);
    ssm_json_field(terminal, "pin_state", ssm_pin_state_word(pin));
    number(terminal, "frequency_offset_ppt", pin && pin->has_offset, pin ? pin->offset_ppt : 0);
    number(terminal, "measured_frequency_millihertz", pin && pin->has_frequency,
           pin ? static_cast<std::int64_t>(pin->frequency_mhz) : 0);
}

void write_clock(cli* terminal, const ssm_port* best) {
    const ssm_master* clock = g_s_master;
    terminal->out_func(terminal->out_val, "\"clock_id\":");
    ssm_json_text(terminal, ssm_clock_id_str(clock->clock_id));
    ssm_json_flag(terminal, "synce_enabled", clock->global_enable != 0);
    ssm_json_flag(terminal, "ssm_enabled", clock->ssm_enable != 0);
    ssm_json_flag(terminal, "ssm_extended", clock->ssm_extend != 0);
    ssm_json_field(terminal, "option", std::uint32_t{clock->ql_option});
    ssm_json_field(terminal, "local_quality", ssm_json_quality(clock->local_quality));
    ssm_json_field(terminal, "local_priority", std::uint32_t{clock->local_priority});
    ssm_json_field(terminal, "current_quality", ssm_json_quality(clock->current_quality));
    ssm_json_field(terminal, "device_type", device_type());
    ssm_json_field(terminal, "running_state", running_state());
    ssm_json_field(terminal, "dpll_state", dpll_state());
    ssm_json_field(terminal, "recovery_input", recovery_input());
    ssm_json_field(terminal, "source", ssm_port_name(clock->selected_port));
    ssm_json_field(terminal, "no_source_reason",
                   clock->selected_port ? nullptr : or_null(ssm_reason_no_source(best)));
    ssm_json_field(terminal, "forced_port", ssm_port_name(clock->force_port));
    write_guard(terminal);
    write_supervision(terminal);
    const ssm_hardware& hardware = clock->hardware;
    ssm_json_field(terminal, "lock_error", ssm_lock_error_word(hardware.error));
    ssm_json_field(terminal, "hardware_quality",
                   hardware.quality == QL_DNU ? nullptr : ssm_json_quality(hardware.quality));
}

void write_port(cli* terminal, const ssm_port* port, const ssm_port* best) {
    ssm_json_port_begin(terminal, port, true);
    ssm_json_field(terminal, "ifindex", port->intf->ifindex);
    ssm_json_flag(terminal, "source", port == g_s_master->selected_port);
    ssm_json_field(terminal, "not_source_reason", or_null(ssm_reason_not_source(port, best)));
    ssm_json_flag(terminal, "synce_enabled", port->synce_enable != 0);
    ssm_json_flag(terminal, "link_up", port->link_up != 0);
    ssm_json_field(terminal, "esmc", esmc_mode(port));
    ssm_json_field(terminal, "received_quality", ssm_json_quality(port->recv_quality));
    ssm_json_field(terminal, "sent_quality", ssm_json_quality(port->send_quality));
    ssm_json_field(terminal, "forced_received_quality", ssm_json_quality(port->force_rx_quality));
    ssm_json_field(terminal, "forced_sent_quality", ssm_json_quality(port->force_tx_quality));
    ssm_json_field(terminal, "priority", std::uint32_t{port->priority});
    ssm_json_field(terminal, "dnu_group", std::uint32_t{port->dnu_group});
    ssm_json_flag(terminal, "replace_clock_id", port->replace_clockid != 0);
    ssm_json_field(terminal, "received_clock_id",
                   port->recv_pdu ? ssm_clock_id_str(port->recv_clockid) : nullptr);
    ssm_json_field(terminal, "hop_count", std::uint32_t{port->recv_hop_count});
    ssm_json_flag(terminal, "sending", port->send_timer != nullptr);
    ssm_json_flag(terminal, "receiving", port->timeout_timer != nullptr);
    ssm_json_address(terminal, "address", ssm_address_named(port->intf->mac) ? port->intf->mac : nullptr);
    ssm_json_address(terminal, "neighbour", ssm_neighbour(port));
    write_port_guard(terminal, port);
    write_port_supervision(terminal, port);
    ssm_json_statistics(terminal, port);
    write_pin(terminal, port->pin);
    terminal->out_func(terminal->out_val, "}");
}

void write_listed_port(cli* terminal, const ssm_port* port, const ssm_port* best) {
    if (terminal->part.shown) terminal->out_func(terminal->out_val, ",");
    write_port(terminal, port, best);
}

int show_json_handler(cli* terminal, int, char**) {
    return ssm_json_clock(terminal);
}

constexpr cli_help help_texts[] = {
    {"show clock synce", "json", "The clock and its ports as one JSON object, for scripts"},
};

}  // namespace

void ssm_json_port_begin(cli* terminal, const ssm_port* port, bool first) {
    terminal->out_func(terminal->out_val, "%s{\"name\":", first ? "" : ",");
    ssm_json_text(terminal, ssm_port_name(port));
}

void ssm_json_port(cli* terminal, const ssm_port* port, const ssm_port* best) {
    if (port)
        write_port(terminal, port, best);
    else
        ssm_json_text(terminal, nullptr);
    terminal->out_func(terminal->out_val, "\n");
}

int ssm_json_clock(cli* terminal) {
    if (!terminal->part.passed) {
        terminal->part.mark = g_s_master->history.count;
        terminal->out_func(terminal->out_val, "{");
        write_clock(terminal, ssm_best_candidate());
        terminal->out_func(terminal->out_val, ",\"ports\":[");
    }
    if (ssm_cli_list_ports(terminal, write_listed_port) == CLI_MORE) return CLI_MORE;
    terminal->out_func(terminal->out_val, "]");
    // Ports that came in a later part are shown as they were then, which may not go with the clock's fields.
    if (terminal->part.mark != g_s_master->history.count) ssm_json_flag(terminal, "changed_meanwhile", true);
    terminal->out_func(terminal->out_val, "}\n");
    return CLI_SUCCESS;
}

int ssm_json_recovery(cli* terminal) {
    terminal->out_func(terminal->out_val, "{\"recovery_input\":\"%s\"}\n", recovery_input());
    return CLI_SUCCESS;
}

int ssm_json_selected(cli* terminal) {
    terminal->out_func(terminal->out_val, "{\"source\":");
    ssm_json_text(terminal, ssm_port_name(g_s_master->selected_port));
    ssm_json_field(terminal, "dpll_state", dpll_state());
    terminal->out_func(terminal->out_val, "}\n");
    return CLI_SUCCESS;
}

const cli_element ssm_show_json_cmd = {"show clock synce json", show_json_handler};
const std::span<const cli_help> ssm_json_help = help_texts;
