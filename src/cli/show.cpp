// The show blocks of the clock, of one port and of the recovered clock. Each is composed whole and written
// with one call, never as a format itself. They change nothing and always succeed.
#include <algorithm>
#include <cinttypes>
#include <cstdarg>

#include "cli/commands.h"
#include "cli/handler.h"
#include "cli/json.h"
#include "core/ports.h"
#include "core/ql.h"
#include "core/select.h"
#include "core/supervision.h"
#include "suite/base/text.h"

namespace {

// What does not fit is cut.
struct show_block {
    char text[2048];
    std::size_t length;
};

__attribute__((format(printf, 2, 3))) void add(show_block* block, const char* format, ...) {
    va_list args;
    va_start(args, format);
    block->length += static_cast<std::size_t>(
        zvsnprintf(block->text + block->length, sizeof block->text - block->length, format, args));
    va_end(args);
}

// Global labels are as wide as the longest of them, the port's labels one column wider.
void add_global(show_block* block, const char* label, const char* value) {
    add(block, "%-35s: %s\n", label, value);
}

void add_global(show_block* block, const char* label, unsigned value) {
    add(block, "%-35s: %u\n", label, value);
}

void add_port(show_block* block, const char* label, const char* value) {
    add(block, "%-36s: %s\n", label, value);
}

void write_block(cli* terminal, const show_block* block) {
    terminal->out_func(terminal->out_val, "%s", block->text);
}

const char* name_or_none(const ssm_port* port) {
    const char* name = ssm_port_name(port);
    return name ? name : "N/A";
}

void add_dpll(show_block* block) {
    add_global(block, "Selected Clock Valid Status", ssm_dpll_valid_str());
    add_global(block, "DPLL running state", ssm_dpll_state_str(g_s_master->dpll_state));
}

void add_ms(show_block* block, const char* label, unsigned ms) {
    add(block, "%-35s: %u ms\n", label, ms);
}

// Nothing of it where it is off.
void add_guard(show_block* block) {
    const ssm_guard& guard = g_s_master->guard;
    if (!guard.enable) return;
    add(block, "--------------  Loop guard  --------------\n");
    add_global(block, "Loop guard in force",
               ssm_guard_in_force() ? "yes" : "no, it needs \"clock synce ssm extend\"");
    add_ms(block, "Hold time", guard.hold_ms);
    add_global(block, "Most hops", guard.hops);
    add(block, "%-35s: %" PRIu64 "\n", "Offers refused", guard.refused);
    add(block, "%-35s: %" PRIu64 "\n", "Holds", guard.holds);
    add_ms(block, "Longest hold", static_cast<unsigned>(guard.longest_hold / NS_PER_MS));
    if (guard.holding_since) add_ms(block, "Holding for", ssm_guard_hold_left_ms());
}

// What is configured beyond the blocks' own lines: a heading when there is anything, and a line each.
class extras {
  public:
    extras(show_block* block, const char* heading, int width)
        : block_(block), heading_(heading), width_(width) {}
    __attribute__((format(printf, 3, 4))) void line(const char* label, const char* format, ...) {
        if (heading_) add(block_, "%s\n", heading_);
        heading_ = nullptr;
        char value[64];
        va_list args;
        va_start(args, format);
        zvsnprintf(value, sizeof value, format, args);
        va_end(args);
        add(block_, "%-*s: %s\n", width_, label, value);
    }

  private:
    show_block* block_;
    const char* heading_;
    int width_;
};

void add_settings(show_block* block) {
    const ssm_master& clock = *g_s_master;
    extras more(block, "--------------  Supervision  -------------", 35);
    if (clock.extend_form == SSM_FORM_STANDARD) more.line("Extended TLV", "standard");
    if (clock.clock_type == SSM_CLOCK_EEEC) more.line("Clock type", "eeec");
    if (clock.hold_off_ms) more.line("Hold-off", "%u ms", static_cast<unsigned>(clock.hold_off_ms));
    if (clock.restore_s) more.line("Wait to restore", "%u s", static_cast<unsigned>(clock.restore_s));
    if (clock.non_revertive) more.line("Revertive", "no");
    if (clock.manual_port) more.line("Manual switch", "%s", ssm_port_name(clock.manual_port));
    if (clock.advertise_when_locked) more.line("Source's quality is advertised", "when locked");
    if (clock.keep_state) more.line("State kept over a restart", "yes");
}

void add_limit(extras* more, const char* label, std::uint16_t quality) {
    if (quality != QL_NONE) more->line(label, "%s", ssm_ql_to_str(quality, SSM_QL_STYLE_SHORT));
}

void add_port_settings(show_block* block, const ssm_port* port) {
    extras more(block, "-----------------------------  Supervision  ----------------------------", 36);
    if (port->lockout) more.line("Locked out", "yes");
    if (ssm_hold_off_ms(port)) more.line("Hold-off", "%u ms", static_cast<unsigned>(ssm_hold_off_ms(port)));
    if (port->hold_off_timer)
        more.line("Failure held off for", "%u ms", static_cast<unsigned>(ssm_hold_off_left_ms(port)));
    if (ssm_restore_s(port) || port->restore_set)
        more.line("Wait to restore", "%u s", static_cast<unsigned>(ssm_restore_s(port)));
    if (port->failed && !port->restore_timer) more.line("Failed", "yes");
    if (port->restore_timer)
        more.line("Restored in", "%u s", static_cast<unsigned>(ssm_restore_left_s(port)));
    add_limit(&more, "Quality RX minimum", port->min_rx_quality);
    add_limit(&more, "Quality RX maximum", port->max_rx_quality);
    add_limit(&more, "Quality TX minimum", port->min_tx_quality);
    add_limit(&more, "Quality TX maximum", port->max_tx_quality);
    if (port->extend_form)
        more.line("Extended TLV", "%s", port->extend_form == SSM_FORM_OWN ? "own" : "standard");
    if (ssm_flapping(port)) more.line("Flapping", "yes");
}

void show_clock(cli* terminal) {
    const ssm_master* clock = g_s_master;
    show_block block = {};
    add(&block, "--------------------------  Global Synce Clock Configure  --------------------------\n");
    add_global(&block, "Device ClockID", ssm_clock_id_str(clock->clock_id));
    add_global(&block, "Enable global synce", ssm_enable_str(clock->global_enable));
    add_global(&block, "Enable global ssm", ssm_enable_str(clock->ssm_enable));
    add_global(&block, "SSM option mode", clock->ql_option);
    add_global(&block, "Device quality", ssm_ql_to_str(clock->local_quality, SSM_QL_STYLE_SHORT));
    add_global(&block, "Current quality", ssm_ql_to_str(clock->current_quality, SSM_QL_STYLE_LONG));
    add_global(&block, "Device priority", clock->local_priority);
    add_global(&block, "Current selected interface", ssm_selected_source_str());
    add_global(&block, "Switch force interface", name_or_none(clock->force_port));
    add_global(&block, "Enable ssm extension", ssm_enable_str(clock->ssm_extend));
    add_global(&block, "Clock running state", ssm_clock_state_str());
    add_global(&block, "Device type", ssm_device_type_str(clock->device_type));
    add(&block, "--------------  DPLL status  -------------\n");
    add_dpll(&block);
    add_guard(&block);
    add_settings(&block);
    write_block(terminal, &block);
}

void show_port(cli* terminal, const ssm_port* port) {
    show_block block = {};
    add(&block, "------------------------------------------------------------------------\n");
    add_port(&block, "Interface", name_or_none(port));
    add(&block, "---------------------------  Port Configure  ---------------------------\n");
    add_port(&block, "Synce enable", ssm_enable_str(port->synce_enable));
    add_port(&block, "ESMC RX/TX", ssm_esmc_mode_str(port->esmc_mode));
    add_port(&block, "Port up", ssm_enable_str(port->link_up));
    add_port(&block, "Receive quality", ssm_ql_to_str(port->recv_quality, SSM_QL_STYLE_LONG));
    add_port(&block, "Send quality", ssm_ql_to_str(port->send_quality, SSM_QL_STYLE_SHORT));
    add_port(&block, "Quality RX configured", ssm_ql_to_str(port->force_rx_quality, SSM_QL_STYLE_SHORT));
    add_port(&block, "Quality TX configured", ssm_ql_to_str(port->force_tx_quality, SSM_QL_STYLE_SHORT));
    add(&block, "%-36s: %d\n", "Port priority", port->priority);
    add_port(&block, "DNU group", ssm_num_or_na_str(port->dnu_group));
    add_port(&block, "Replace clockid", ssm_enable_str(port->replace_clockid));
    add_port(&block, "Send timer running", ssm_enable_str(port->send_timer != nullptr));
    add_port(&block, "Timeout timer running", ssm_enable_str(port->timeout_timer != nullptr));
    add_port_settings(&block, port);
    write_block(terminal, &block);
}

int show_clock_handler(cli* terminal, int argc, char** argv) {
    if (argc == 0 && terminal->json) return ssm_json_clock(terminal);
    if (argc == 0) {
        show_clock(terminal);
        return CLI_SUCCESS;
    }
    const ssm_port* port = ssm_if_port(if_lookup_by_name(terminal->ifm, argv[0]));
    if (terminal->json)
        ssm_json_port(terminal, port, ssm_best_candidate());
    else if (port)
        show_port(terminal, port);
    return CLI_SUCCESS;
}

int show_recovery_select_handler(cli* terminal, int, char**) {
    if (terminal->json) return ssm_json_recovery(terminal);
    constexpr const char* lines[] = {"clock recovery from syncE\n", "clock recovery from bits1\n",
                                     "clock recovery from bits2\n"};
    const std::uint32_t select = g_s_master->recovery_select;
    if (select < std::size(lines)) terminal->out_func(terminal->out_val, "%s", lines[select]);
    return CLI_SUCCESS;
}

int show_bits_handler(cli* terminal, int, char**) {
    if (terminal->json) return ssm_json_selected(terminal);
    show_block block = {};
    add(&block, "--------------------------  select clock bits status --------------------------\n");
    add_global(&block, "Current selected interface", ssm_selected_source_str());
    add_dpll(&block);
    write_block(terminal, &block);
    return CLI_SUCCESS;
}

constexpr cli_help help_texts[] = {
    {"", "show", "Show state and configuration"},
    {"show", "clock", "Clock synchronisation"},
    {"show clock", "synce", "Synchronous Ethernet: the switch, or one port"},
    {"show clock synce", "IFPHYSICAL", "Port to show"},
    {"show clock", "recovery-select", "Input from which the clock is recovered"},
    {"show clock", "bits", "State of the selected clock"},
};

}  // namespace

int ssm_cli_list_ports(cli* terminal, void (*show)(cli*, const ssm_port*, const ssm_port* best)) {
    const ssm_port* best = ssm_best_candidate();
    cli_part* part = &terminal->part;
    if (!part->passed) part->last = terminal->ifm->added;  // who goes and comes back is shown once
    for (const interface* intf : if_list(terminal->ifm)) {
        if (intf->serial <= part->passed || intf->serial > part->last) continue;
        part->passed = intf->serial;
        const ssm_port* port = ssm_if_port(intf);
        if (!port) continue;
        show(terminal, port, best);
        part->shown++;
        if (cli_is_full(terminal)) return CLI_MORE;
    }
    return CLI_SUCCESS;
}

const cli_element ssm_show_global_cmd = {"show clock synce (IFPHYSICAL |)", show_clock_handler};
const cli_element ssm_show_clock_recovery_select_cmd = {"show clock recovery-select",
                                                        show_recovery_select_handler};
const cli_element ssm_show_clock_bits_cmd = {"show clock bits", show_bits_handler};
const std::span<const cli_help> ssm_show_help = help_texts;
