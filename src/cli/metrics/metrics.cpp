// "show clock synce metrics": OpenMetrics text for a collector that reads files, one family after another,
// each whole before the next begins, as the format wants it. So the ports are walked once for each family. A
// listing that the terminal takes in parts goes on at the family and the port where it stopped.
//
// With "prometheus" it is the text format that OpenMetrics grew from, which is all that node exporter's
// textfile collector knows: families of counters have other names there, and neither units nor an end.
#include "cli/metrics/metrics.h"

#include <cinttypes>
#include <cstring>

#include "cli/handler.h"
#include "cli/metrics/families.h"
#include "core/ports.h"
#include "core/ql.h"
#include "suite/base/slice.h"

namespace {

// terminal->part.mark: the row that is being written, and above it the history's count at the begin.
constexpr unsigned ROW_BITS = 8;
constexpr std::uint64_t ROW_MASK = (1U << ROW_BITS) - 1;

const metric_row& row_of(const cli* terminal) {
    return ssm_metric_rows[terminal->part.mark & ROW_MASK];
}

const char* unit_of(const metric_row& row) {
    static constexpr const char* UNITS[] = {nullptr, "seconds", "hertz", "ratio"};
    return UNITS[static_cast<std::size_t>(row.scale)];
}

// The family that the row belongs to begins with it or before it.
std::string_view name_of(const metric_row* row) {
    while (!row->family) --row;
    const std::string_view family = row->family;
    return slice(family, 0, family.find(' '));
}

void write_family(cli* terminal, const metric_row& row, bool prometheus) {
    if (!row.family) return;
    const std::string_view name = name_of(&row);
    const int length = static_cast<int>(name.size());
    const bool counter = row.type == metric_type::counter;
    const char* suffix = prometheus && counter ? "_total" : "";
    terminal->out_func(terminal->out_val, "# HELP %.*s%s%s\n# TYPE %.*s%s %s\n", length, name.data(), suffix,
                       row.family + length, length, name.data(), suffix, counter ? "counter" : "gauge");
    if (const char* unit = unit_of(row); unit && !prometheus)
        terminal->out_func(terminal->out_val, "# UNIT %.*s %s\n", length, name.data(), unit);
}

// Names are the operator's: they may hold anything. What is no printable ASCII is written as \xNN, since a
// reader throws away all of a text that has one octet of no UTF-8.
void write_label(cli* terminal, char before, const char* name, const char* value) {
    terminal->out_func(terminal->out_val, "%c%s=\"", before, name);
    for (const char* c = value; *c; ++c) {
        const auto octet = static_cast<unsigned char>(*c);
        const bool escaped = *c == '"' || *c == '\\';
        if (octet < 0x20 || octet > 0x7e)
            terminal->out_func(terminal->out_val, "\\\\x%02x", static_cast<unsigned>(octet));
        else
            terminal->out_func(terminal->out_val, "%s%c", escaped ? "\\" : "", *c);
    }
    terminal->out_func(terminal->out_val, "\"");
}

void write_labels(cli* terminal, const metric_row& row, const ssm_port* port, const char* text) {
    char before = '{';
    if (port) {
        write_label(terminal, before, "port", ssm_port_name(port));
        before = ',';
    }
    if (row.fixed) {
        terminal->out_func(terminal->out_val, "%c%s", before, row.fixed);
        before = ',';
    }
    if (row.label) {
        write_label(terminal, before, row.label->name, text);
        before = ',';
    }
    if (before == ',') terminal->out_func(terminal->out_val, "}");
}

void write_value(cli* terminal, metric_scale scale, std::int64_t value) {
    if (scale == metric_scale::one)
        terminal->out_func(terminal->out_val, " %" PRId64 "\n", value);
    else if (scale == metric_scale::parts)
        terminal->out_func(terminal->out_val, " %" PRId64 "e-12\n", value);
    else
        terminal->out_func(terminal->out_val, " %" PRId64 ".%03u\n", value / 1000,
                           static_cast<unsigned>(value % 1000));
}

void write_sample(cli* terminal, const metric_row& row, const ssm_port* port, const char* text,
                  std::int64_t value) {
    const std::string_view name = name_of(&row);
    terminal->out_func(terminal->out_val, "%.*s%s", static_cast<int>(name.size()), name.data(),
                       row.type == metric_type::counter ? "_total" : "");
    write_labels(terminal, row, port, text);
    write_value(terminal, row.scale, value);
}

void write_samples(cli* terminal, const metric_row& row, const ssm_port* port) {
    const metric_label* label = row.label;
    const char* text = label ? label->text(port) : nullptr;
    const std::int64_t value = row.value ? row.value(port) : 1;
    if (value == METRIC_NONE || (label && !text)) return;
    if (!text || label->states.empty()) return write_sample(terminal, row, port, text, value);
    for (const char* state : label->states)
        write_sample(terminal, row, port, state, std::strcmp(state, text) == 0);
}

void write_port(cli* terminal, const ssm_port* port, const ssm_port*) {
    if (port->synce_enable) write_samples(terminal, row_of(terminal), port);
}

// A row's samples, from the port on that they have come to. The next row begins with the first port again.
int write_row(cli* terminal, const metric_row& row, bool prometheus) {
    if (!terminal->part.passed) write_family(terminal, row, prometheus);
    if (!row.of_ports)
        write_samples(terminal, row, nullptr);
    else if (ssm_cli_list_ports(terminal, write_port) == CLI_MORE)
        return CLI_MORE;
    terminal->part.passed = 0;
    ++terminal->part.mark;
    return CLI_SUCCESS;
}

// Of a listing in parts: what its rows say may not go together.
void write_end(cli* terminal, bool prometheus) {
    static constexpr metric_row CHANGED = {
        "esmcd_changed_meanwhile 1: the clock changed while this was written; ports and clock may not go "
        "together.",
        false,
        metric_type::gauge,
        metric_scale::one,
        nullptr,
        nullptr,
        nullptr};
    write_family(terminal, CHANGED, prometheus);
    write_sample(
        terminal, CHANGED, nullptr, nullptr,
        terminal->part.mark >> ROW_BITS != (g_s_master->history.count & ~std::uint64_t{0} >> ROW_BITS));
    if (!prometheus) terminal->out_func(terminal->out_val, "# EOF\n");
}

int show_metrics_handler(cli* terminal, int argc, char**) {
    const bool prometheus = argc > 0;
    if (!terminal->part.mark) terminal->part.mark = g_s_master->history.count << ROW_BITS;
    while ((terminal->part.mark & ROW_MASK) < ssm_metric_rows.size())
        if (write_row(terminal, row_of(terminal), prometheus) == CLI_MORE) return CLI_MORE;
    write_end(terminal, prometheus);
    return CLI_SUCCESS;
}

constexpr cli_element show_metrics_cmd = {"show clock synce metrics (prometheus|)", show_metrics_handler};

constexpr cli_help help_texts[] = {
    {"show clock synce", "metrics", "The clock and its ports as OpenMetrics text"},
    {"show clock synce metrics", "prometheus",
     "As Prometheus' older text, for node exporter's textfile collector"},
};

}  // namespace

const std::span<const cli_help> ssm_metrics_help = help_texts;

int ssm_cli_metrics_init(cli_tree* tree) {
    return cli_install_gen(tree, EXEC_MODE, SSM_CLI_PRIVILEGE, 0, &show_metrics_cmd);
}
