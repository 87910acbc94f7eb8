// What an operator asks first: which port is the source, and why the others are not. One line a port
// ("brief"), the candidates in their order ("selection"), and all of it for scripts (in json.cpp). They
// change nothing.
#include <algorithm>
#include <cstdio>
#include <span>

#include "cli/commands.h"
#include "cli/handler.h"
#include "cli/json.h"
#include "cli/reason.h"
#include "core/neighbour.h"
#include "core/ports.h"
#include "core/ql.h"
#include "core/supervision.h"

namespace {

const char* port_state(const ssm_port* port) {
    if (port == g_s_master->selected_port) return "source";
    if (!port->synce_enable) return "off";
    return port->link_up ? "up" : "down";
}

struct forced_words {
    char text[16];
};

// What the operator forced on the port: the switch to it, its received or its sent quality.
forced_words forced_text(const ssm_port* port) {
    const bool to_it = port == g_s_master->force_port;
    const bool rx = port->force_rx_quality != QL_NONE, tx = port->force_tx_quality != QL_NONE;
    forced_words words;
    std::snprintf(words.text, sizeof words.text, "%s%s%s%s", to_it ? "switch " : "", rx ? "rx " : "",
                  tx ? "tx" : "", to_it || rx || tx ? "" : "-");
    return words;
}

// What an operator forgets, or can't see in one line a port.
void show_notes(cli* terminal) {
    const auto note = [terminal](const char* text, const char* port, const char* rest) {
        terminal->out_func(terminal->out_val, "Note: %s%s%s\n", text, port, rest);
    };
    constexpr const char* END_IT = " is active, \"clear clock synce switch\" ends it";
    if (g_s_master->force_e1) note("forced switch to ", "the E1 input", END_IT);
    if (const char* forced = ssm_port_name(g_s_master->force_port)) note("forced switch to ", forced, END_IT);
    if (const char* manual = ssm_port_name(g_s_master->manual_port))
        note("manual switch to ", manual, END_IT);
    ssm_port_walk([&](const ssm_port* port) {
        if (port->lockout) note("", ssm_port_name(port), " is locked out");
        if (ssm_flapping(port)) note("", ssm_port_name(port), " is flapping");
        if (port->hold_off_timer)
            terminal->out_func(terminal->out_val, "Note: hold-off of %s, %u ms left\n", ssm_port_name(port),
                               static_cast<unsigned>(ssm_hold_off_left_ms(port)));
    });
}

// Wide enough for every reason: scripts cut the lines by column.
void brief_line(cli* terminal, const ssm_port* port, const ssm_port* best) {
    const std::uint8_t* neighbour = ssm_neighbour(port);
    terminal->out_func(terminal->out_val, "%-16s %-6s %-8s %-6s %4d  %-12s %-48s %s\n", ssm_port_name(port),
                       port_state(port), ssm_ql_to_str(port->recv_quality, SSM_QL_STYLE_LONG),
                       ssm_ql_to_str(port->send_quality, SSM_QL_STYLE_SHORT), port->priority,
                       forced_text(port).text, ssm_reason_not_source(port, best).text,
                       neighbour ? ssm_address_str(neighbour).text : "-");
}

void brief_object(cli* terminal, const ssm_port* port, const ssm_port* best) {
    const ssm_reason why = ssm_reason_not_source(port, best);
    ssm_json_port_begin(terminal, port, terminal->part.shown == 0);
    ssm_json_flag(terminal, "source", port == g_s_master->selected_port);
    ssm_json_flag(terminal, "synce_enabled", port->synce_enable != 0);
    ssm_json_flag(terminal, "link_up", port->link_up != 0);
    ssm_json_field(terminal, "received_quality", ssm_json_quality(port->recv_quality));
    ssm_json_field(terminal, "sent_quality", ssm_json_quality(port->send_quality));
    ssm_json_field(terminal, "priority", std::uint32_t{port->priority});
    ssm_json_field(terminal, "forced_received_quality", ssm_json_quality(port->force_rx_quality));
    ssm_json_field(terminal, "forced_sent_quality", ssm_json_quality(port->force_tx_quality));
    ssm_json_field(terminal, "not_source_reason", why.text[0] ? why.text : nullptr);
    ssm_json_address(terminal, "neighbour", ssm_neighbour(port));
    ssm_json_flag(terminal, "locked_out", port->lockout != 0);
    ssm_json_flag(terminal, "flapping", ssm_flapping(port));
    ssm_json_field(terminal, "hold_off_left_ms", ssm_hold_off_left_ms(port));
    terminal->out_func(terminal->out_val, "}");
}

int show_brief_as_json(cli* terminal) {
    if (!terminal->part.passed) terminal->out_func(terminal->out_val, "{\"ports\":[");
    if (ssm_cli_list_ports(terminal, brief_object) == CLI_MORE) return CLI_MORE;
    terminal->out_func(terminal->out_val, "]");
    ssm_json_field(terminal, "forced_port", ssm_port_name(g_s_master->force_port));
    ssm_json_field(terminal, "manual_port", ssm_port_name(g_s_master->manual_port));
    ssm_json_flag(terminal, "e1_forced", g_s_master->force_e1 != 0);
    terminal->out_func(terminal->out_val, "}\n");
    return CLI_SUCCESS;
}

int show_brief_handler(cli* terminal, int, char**) {
    if (terminal->json) return show_brief_as_json(terminal);
    if (!terminal->part.passed)
        terminal->out_func(terminal->out_val, "%-16s %-6s %-8s %-6s %4s  %-12s %-48s %s\n", "Port", "State",
                           "Rx", "Tx", "Prio", "Forced", "Why not the source", "Neighbour");
    if (ssm_cli_list_ports(terminal, brief_line) == CLI_MORE) return CLI_MORE;
    show_notes(terminal);
    return CLI_SUCCESS;
}

void show_source(cli* terminal, const ssm_port* best) {
    if (const char* source = ssm_port_name(g_s_master->selected_port)) {
        terminal->out_func(terminal->out_val, "Source: %s\n", source);
        return;
    }
    const ssm_reason why = ssm_reason_no_source(best);
    terminal->out_func(terminal->out_val, "Source: none%s%s\n", why.text[0] ? ", " : "", why.text);
}

void show_candidates(cli* terminal, std::span<const ssm_port* const> candidates) {
    terminal->out_func(terminal->out_val, "%4s  %-16s %-8s %4s %4s %5s  %s\n", "Rank", "Port", "Quality",
                       "Prio", "Hops", "Index", "Ahead of the next by");
    for (std::size_t i = 0; i < candidates.size(); ++i) {
        const ssm_port* port = candidates[i];
        const char* key = "-";
        if (i + 1 < candidates.size()) key = ssm_candidate_compare(port, candidates[i + 1]).key;
        terminal->out_func(terminal->out_val, "%4u  %-16s %-8s %4d %4d %5u  %s\n",
                           static_cast<unsigned>(i + 1), ssm_port_name(port),
                           ssm_ql_to_str(ssm_port_select_quality(port), SSM_QL_STYLE_LONG), port->priority,
                           port->recv_hop_count, static_cast<unsigned>(port->intf->ifindex), key);
    }
}

void show_refused(cli* terminal) {
    terminal->out_func(terminal->out_val, "\n%-16s %s\n", "Port", "Why it is no candidate");
    ssm_port_walk([terminal](const ssm_port* port) {
        const ssm_reason why = ssm_reason_no_candidate(port);
        if (why.text[0]) terminal->out_func(terminal->out_val, "%-16s %s\n", ssm_port_name(port), why.text);
    });
}

void candidate_objects(cli* terminal, std::span<const ssm_port* const> candidates) {
    for (std::size_t i = 0; i < candidates.size(); ++i) {
        const ssm_port* port = candidates[i];
        const bool last = i + 1 == candidates.size();
        ssm_json_port_begin(terminal, port, i == 0);
        ssm_json_field(terminal, "rank", static_cast<std::uint32_t>(i + 1));
        ssm_json_field(terminal, "quality", ssm_json_quality(ssm_port_select_quality(port)));
        ssm_json_field(terminal, "priority", std::uint32_t{port->priority});
        ssm_json_field(terminal, "hop_count", std::uint32_t{port->recv_hop_count});
        ssm_json_field(terminal, "ifindex", port->intf->ifindex);
        ssm_json_field(terminal, "ahead_by",
                       last ? nullptr : ssm_candidate_compare(port, candidates[i + 1]).key);
        terminal->out_func(terminal->out_val, "}");
    }
}

void refused_objects(cli* terminal) {
    bool first = true;
    ssm_port_walk([&](const ssm_port* port) {
        const ssm_reason why = ssm_reason_no_candidate(port);
        if (!why.text[0]) return;
        ssm_json_port_begin(terminal, port, first);
        ssm_json_field(terminal, "reason", why.text);
        terminal->out_func(terminal->out_val, "}");
        first = false;
    });
}

void show_selection_as_json(cli* terminal, std::span<const ssm_port* const> candidates) {
    const ssm_port* source = g_s_master->selected_port;
    const ssm_reason why = ssm_reason_no_source(candidates.empty() ? nullptr : candidates[0]);
    terminal->out_func(terminal->out_val, "{\"candidates\":[");
    candidate_objects(terminal, candidates);
    terminal->out_func(terminal->out_val, "],\"refused\":[");
    refused_objects(terminal);
    terminal->out_func(terminal->out_val, "]");
    ssm_json_field(terminal, "source", ssm_port_name(source));
    ssm_json_field(terminal, "no_source_reason", source || !why.text[0] ? nullptr : why.text);
    terminal->out_func(terminal->out_val, "}\n");
}

void show_selection(cli* terminal, std::span<const ssm_port* const> candidates, std::size_t ports) {
    show_source(terminal, candidates.empty() ? nullptr : candidates[0]);
    show_candidates(terminal, candidates);
    if (candidates.size() < ports) show_refused(terminal);
}

int show_selection_handler(cli* terminal, int, char**) {
    std::size_t ports = 0, count = 0;
    ssm_port_walk([&ports](const ssm_port*) { ++ports; });
    auto** list =
        static_cast<const ssm_port**>(memmgr_calloc((ports + 1) * sizeof(ssm_port*), MTYPE_CLI_SESSION));
    if (!list) {
        terminal->out_func(terminal->out_val, "%% Out of memory\n");
        return CLI_ERROR;
    }
    ssm_port_walk([list, &count](const ssm_port* port) {
        if (ssm_candidate_check(port) == ssm_refusal::none) list[count++] = port;
    });
    std::sort(list, list + count,
              [](const ssm_port* a, const ssm_port* b) { return ssm_candidate_compare(a, b).winner < 0; });
    if (terminal->json)
        show_selection_as_json(terminal, {list, count});
    else
        show_selection(terminal, {list, count}, ports);
    memmgr_free(list, MTYPE_CLI_SESSION);
    return CLI_SUCCESS;
}

constexpr cli_help help_texts[] = {
    {"show clock synce", "brief", "One line a port, and why it is not the source"},
    {"show clock synce", "selection", "Candidates in their order, and why the others are none"},
};

}  // namespace

const cli_element ssm_show_brief_cmd = {"show clock synce brief", show_brief_handler};
const cli_element ssm_show_selection_cmd = {"show clock synce selection", show_selection_handler};
const std::span<const cli_help> ssm_everyday_help = help_texts;

int ssm_cli_everyday_init(cli_tree* tree) {
    int rv = 0;
    for (const cli_element* command : {&ssm_show_brief_cmd, &ssm_show_selection_cmd, &ssm_show_json_cmd})
        if (cli_install_gen(tree, EXEC_MODE, SSM_CLI_PRIVILEGE, CLI_FLAG_JSON, command) < 0) rv = -1;
    return rv;
}
