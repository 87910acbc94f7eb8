// What happened: the history of the clock's changes and the counters of each port. Ages and intervals come
// from the loop's clock, which does not step; only the history's time of day is the wall clock's.
#include "core/statistics.h"

#include <cinttypes>
#include <cstdio>
#include <ctime>

#include "cli/commands.h"
#include "cli/handler.h"
#include "cli/json.h"
#include "cli/reason.h"
#include "core/neighbour.h"
#include "core/ports.h"
#include "suite/ports/slow_socket.h"

namespace {

struct short_text {
    char text[40];
};

short_text seconds(nanoseconds time) {
    short_text said;
    std::snprintf(said.text, sizeof said.text, "%" PRIu64 ".%03u s", time / NS_PER_S,
                  static_cast<unsigned>(time / NS_PER_MS % 1000));
    return said;
}

nanoseconds age_of(nanoseconds moment) {
    const nanoseconds now = thread_now(g_p_esmcd);
    return now > moment ? now - moment : 0;
}

// ISO 8601, in UTC.
short_text time_of_day(nanoseconds wall) {
    const auto second = static_cast<time_t>(wall / NS_PER_S);
    struct tm parts = {};
    gmtime_r(&second, &parts);
    short_text said;
    const std::size_t length = std::strftime(said.text, sizeof said.text, "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(said.text + length, sizeof said.text - length, ".%03uZ",
                  static_cast<unsigned>(wall / NS_PER_MS % 1000));
    return said;
}

int show_history_as_json(cli* terminal) {
    terminal->out_func(terminal->out_val, "{\"history\":[");
    bool first = true;
    for (std::size_t back = SSM_HISTORY_SIZE; back-- > 0;) {
        const ssm_change* change = ssm_history_get(back);
        if (!change) continue;
        terminal->out_func(terminal->out_val, "%s{\"time\":\"%s\"", first ? "" : ",",
                           time_of_day(change->wall).text);
        ssm_json_age(terminal, "age_ms", change->monotonic);
        ssm_json_field(terminal, "kind", ssm_change_kind_text(change->kind));
        ssm_json_field(terminal, "from", change->from);
        ssm_json_field(terminal, "to", change->to);
        ssm_json_field(terminal, "why", change->why);
        terminal->out_func(terminal->out_val, "}");
        first = false;
    }
    terminal->out_func(terminal->out_val, "]");
    ssm_json_count(terminal, "changes", g_s_master->history.count);
    terminal->out_func(terminal->out_val, "}\n");
    return CLI_SUCCESS;
}

int show_history_handler(cli* terminal, int, char**) {
    if (terminal->json) return show_history_as_json(terminal);
    terminal->out_func(terminal->out_val, "%-24s %14s  %-8s %-16s %-16s %s\n", "When (UTC)", "Age", "Kind",
                       "From", "To", "Why");
    for (std::size_t back = SSM_HISTORY_SIZE; back-- > 0;) {
        const ssm_change* change = ssm_history_get(back);
        if (!change) continue;
        terminal->out_func(terminal->out_val, "%-24s %14s  %-8s %-16s %-16s %s\n",
                           time_of_day(change->wall).text, seconds(age_of(change->monotonic)).text,
                           ssm_change_kind_text(change->kind), change->from, change->to, change->why);
    }
    return CLI_SUCCESS;
}

void line(cli* terminal, const char* label, std::uint64_t count) {
    terminal->out_func(terminal->out_val, "%-36s: %" PRIu64 "\n", label, count);
}

void line(cli* terminal, const char* label, const char* text) {
    terminal->out_func(terminal->out_val, "%-36s: %s\n", label, text);
}

void age_line(cli* terminal, const char* label, nanoseconds moment) {
    line(terminal, label, moment ? seconds(age_of(moment)).text : "-");
}

void interval_line(cli* terminal, const char* label, nanoseconds interval) {
    line(terminal, label, interval ? seconds(interval).text : "-");
}

void show_port(cli* terminal, const ssm_port* port) {
    const ssm_statistics& s = *port->statistics;
    slow_port_stats frames = {};
    (void)slow_socket_port_stats(port->ifindex, &frames);  // none yet: 0
    const std::uint8_t* neighbour = ssm_neighbour(port);
    line(terminal, "Interface", port->intf->name);
    line(terminal, "Information PDUs received", s.information_in);
    line(terminal, "Event PDUs received", s.events_in);
    line(terminal, "DNU received", s.dnu_in);
    line(terminal, "Information PDUs sent", s.information_out);
    line(terminal, "Event PDUs sent", s.events_out);
    line(terminal, "DNU sent", s.dnu_out);
    line(terminal, "Without a quality", s.short_frames);
    line(terminal, "With an unknown quality", s.bad_qualities);
    line(terminal, "With a TLV of no known form", s.bad_tlvs);
    line(terminal, "Beyond the rate limit", frames.limited);
    line(terminal, "Time-outs", s.timeouts);
    line(terminal, "Times source", s.sources);
    line(terminal, "Flapping", ssm_flapping(port) ? "yes" : "no");
    age_line(terminal, "Last information PDU received, age", s.last_information);
    age_line(terminal, "Last event PDU received, age", s.last_event);
    age_line(terminal, "Last PDU sent, age", s.last_out);
    interval_line(terminal, "Shortest interval of information", s.shortest);
    interval_line(terminal, "Mean interval of information", ssm_mean_interval(s));
    interval_line(terminal, "Longest interval of information", s.longest);
    age_line(terminal, "Received quality unchanged for", s.quality_changed);
    line(terminal, "Neighbour", neighbour ? ssm_address_str(neighbour).text : "-");
    age_line(terminal, "Counters cleared, age", s.cleared);
}

void port_object(cli* terminal, const ssm_port* port, const ssm_port*) {
    ssm_json_port_begin(terminal, port, terminal->part.shown == 0);
    ssm_json_statistics(terminal, port);
    ssm_json_flag(terminal, "flapping", ssm_flapping(port));
    ssm_json_address(terminal, "neighbour", ssm_neighbour(port));
    terminal->out_func(terminal->out_val, "}");
}

void port_block(cli* terminal, const ssm_port* port, const ssm_port*) {
    if (terminal->part.shown) terminal->out_func(terminal->out_val, "\n");
    show_port(terminal, port);
}

int show_all_as_json(cli* terminal) {
    if (!terminal->part.passed) terminal->out_func(terminal->out_val, "{\"ports\":[");
    if (ssm_cli_list_ports(terminal, port_object) == CLI_MORE) return CLI_MORE;
    terminal->out_func(terminal->out_val, "]}\n");
    return CLI_SUCCESS;
}

int show_statistics_handler(cli* terminal, int argc, char** argv) {
    if (argc == 0)
        return terminal->json ? show_all_as_json(terminal) : ssm_cli_list_ports(terminal, port_block);
    const ssm_port* port = ssm_cli_named_port(terminal, argv[0]);
    if (!port) return CLI_ERROR;
    (terminal->json ? port_object : port_block)(terminal, port, nullptr);
    if (terminal->json) terminal->out_func(terminal->out_val, "\n");
    return CLI_SUCCESS;
}

int clear_statistics_handler(cli* terminal, int argc, char** argv) {
    ssm_port* port = nullptr;
    if (argc > 0 && !(port = ssm_cli_named_port(terminal, argv[0]))) return CLI_ERROR;
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sclear clock synce statistics %s", port ? argv[0] : "");
    ssm_statistics_clear(port);
    return CLI_SUCCESS;
}

constexpr cli_element shows[] = {
    {"show clock synce history", show_history_handler},
    {"show clock synce statistics (IFNAME|)", show_statistics_handler},
};
constexpr cli_element commands[] = {
    {"clear clock synce statistics (IFNAME|)", clear_statistics_handler},
};

constexpr cli_help help_texts[] = {
    {"show clock synce", "history", "What changed, when and why; the newest last"},
    {"clock synce", "statistics", "What the ports have heard and said"},
    {"clock synce statistics", "IFNAME", "One port; else all"},
};

}  // namespace

const std::span<const cli_help> ssm_statistics_help = help_texts;

int ssm_cli_statistics_init(cli_tree* tree) {
    int rv = 0;
    for (const cli_element& show : shows)
        if (cli_install_gen(tree, EXEC_MODE, SSM_CLI_PRIVILEGE, CLI_FLAG_JSON, &show) < 0) rv = -1;
    for (const cli_element& command : commands)
        if (cli_install_gen(tree, EXEC_MODE, SSM_CLI_PRIVILEGE, 0, &command) < 0) rv = -1;
    return rv;
}
