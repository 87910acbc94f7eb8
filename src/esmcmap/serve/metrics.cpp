// A table of families, each read from the fields of the switches' JSON by their names. Whole families follow
// each other, as the format wants it, so that all switches are walked once for each.
#include "esmcmap/serve/metrics.h"

#include <array>
#include <charconv>
#include <cmath>
#include <functional>
#include <initializer_list>
#include <optional>
#include <set>
#include <string_view>
#include <vector>

namespace esmcmap {

namespace {

// ---- What samples are made of ----

// Whom a sample is about: a switch, or one of its ports.
struct subject {
    const node& of;
    const switch_values& told;
    const port_report* port;  // null: the switch
};

enum class metric_kind { gauge, counter, seconds, hertz, ratio };

struct sample {
    double value = 0;
    std::string_view text;  // of the family's label
};

// What a row says of one subject: nothing, a sample, or one for each state that there can be.
struct samples {
    std::array<sample, 4> all;
    std::size_t count = 0;
};

struct row {
    const char* name;
    const char* help;  // null: more samples of the family before it
    metric_kind kind;
    bool of_ports;
    const char* fixed;  // a label as it is written, or null
    const char* label;  // null: none
    field source;       // of the JSON object
    samples (*read)(const subject& from, const row& of);
};

// ---- Reading ----

std::optional<double> number(const subject& from, field of) {
    return from.told.number(of);
}

std::string_view text(const subject& from, field of) {
    return from.told.text(of);
}

samples one(std::optional<double> value, std::string_view text = "") {
    samples made;
    if (value) made.all[made.count++] = {*value, text};
    return made;
}

samples plain(const subject& from, const row& of) {
    return one(number(from, of.source));
}

samples from_milli(const subject& from, const row& of) {
    const std::optional<double> value = number(from, of.source);
    return one(value ? std::optional(*value / 1000) : std::nullopt);
}

samples parts(const subject& from, const row& of) {
    const std::optional<double> value = number(from, of.source);
    return one(value ? std::optional(*value * 1e-12) : std::nullopt);
}

// An age, as the moment when it began.
samples since(const subject& from, const row& of) {
    const std::optional<double> age = number(from, of.source);
    return one(age ? std::optional((static_cast<double>(from.of.answered_ms) - *age) / 1000) : std::nullopt);
}

samples since_unless_0(const subject& from, const row& of) {
    return number(from, of.source).value_or(0) > 0 ? since(from, of) : samples{};
}

// 1 when something is named there.
samples named(const subject& from, const row& of) {
    const std::string_view value = text(from, of.source);
    return one(!value.empty() && value != "none");
}

// Fields of the loop guard are there while it is on.
bool guarded(const subject& from) {
    return number(from, "loop_guard_holds").has_value();
}

samples guard_enabled(const subject& from, const row&) {
    return one(guarded(from));
}

// The MIB does not tell it; the extension is all that it takes.
samples guard_in_force(const subject& from, const row& of) {
    const double extended = number(from, "ssm_extended").value_or(0);
    return one(guarded(from) ? number(from, of.source).value_or(extended) : 0);
}

// There is such a field only when it is true, and only in JSON, which always tells of changes.
samples changed_meanwhile(const subject& from, const row& of) {
    return number(from, "changes") ? one(number(from, of.source).value_or(0)) : samples{};
}

samples word(const subject& from, const row& of) {
    const std::string_view value = text(from, of.source);
    return value.empty() ? samples{} : one(1, value);
}

// The numbers that the switches have for quality levels.
samples level(const subject& from, const row& of) {
    static constexpr std::pair<std::string_view, int> LEVELS[] = {
        {"eprtc", 1}, {"prtc", 2},  {"eprc", 3},  {"prc", 4},  {"prs", 4},   {"stu", 5},   {"ssu-a", 6},
        {"st2", 6},   {"tnc", 7},   {"ssu-b", 8}, {"st3e", 8}, {"eeec", 9},  {"eec1", 10}, {"eec2", 10},
        {"smc", 11},  {"prov", 12}, {"dnu", 15},  {"dus", 15}, {"none", 16},
    };
    const std::string_view token = text(from, of.source);
    for (const auto& [known, number] : LEVELS)
        if (known == token) return one(number);
    return {};
}

// One sample for each word that there can be.
template <const auto& Words>
samples states(const subject& from, const row& of) {
    const std::string_view value = text(from, of.source);
    samples made;
    static_assert(std::size(Words) <= std::size(made.all));
    for (const std::string_view word : Words) made.all[made.count++] = {value == word ? 1.0 : 0.0, word};
    return value.empty() ? samples{} : made;
}

constexpr std::array RUNNING = {"master", "freerun", "holdover", "lock"};
constexpr std::array DPLL = {"freerun", "holdover", "lock", "transient"};
constexpr std::array LOCK_ERRORS = {"none", "undefined", "media-down", "ffo-too-high"};
constexpr std::array PIN_STATES = {"active", "standby", "no-signal", "quality-failed"};

// Why a port is not the source is a sentence for people. These beginnings are about the port itself; those
// after them are about the whole switch and say nothing of the port.
constexpr std::pair<std::string_view, const char*> REFUSALS[] = {
    {"synce disabled", "synce disabled"},
    {"locked out", "locked out"},
    {"link down", "link down"},
    {"nothing received", "nothing received"},
    {"forced DNU", "forced DNU"},
    {"received DNU", "received DNU"},
    {"own clock", "own clock"},
    {"replaced clockid", "replaced clockid"},
    {"below the minimum", "below the minimum"},
    {"waiting to restore", "waiting to restore"},
    {"too many hops", "too many hops"},
    {"own holdover as good", "own holdover as good"},
    {"may lead back here", "may lead back here"},
    {"holding for", "may lead back here"},
};
constexpr std::string_view OF_THE_SWITCH[] = {"SyncE is off", "the switch is master-only",
                                              "the E1 input is forced", "switched by force", "forced, but"};

samples usable(const subject& from, const row&) {
    const std::string& why = from.port->reason;
    if (why.empty() && !from.port->source) return {};  // the MIB does not tell
    for (const std::string_view whole : OF_THE_SWITCH)
        if (why.starts_with(whole)) return {};
    for (const auto& [begin, reason] : REFUSALS)
        if (why.starts_with(begin)) return one(0, reason);
    return one(1, "candidate");
}

// ---- The table ----

constexpr auto GAUGE = metric_kind::gauge;
constexpr auto COUNTER = metric_kind::counter;
constexpr auto SECONDS = metric_kind::seconds;
constexpr const char* RECEIVED = "direction=\"received\"";
constexpr const char* SENT = "direction=\"sent\"";

constexpr row ROWS[] = {
    {"esmcd_clock_id_info", "Identity of the switch's own clock.", GAUGE, false, nullptr, "clock_id",
     "clock_id", word},
    {"esmcd_synce_enabled", "SyncE is enabled on the switch; else its state and quality mean nothing.", GAUGE,
     false, nullptr, nullptr, "synce_enabled", plain},
    {"esmcd_clock_state", "How the switch's clock runs: 1 for the state it is in.", GAUGE, false, nullptr,
     "state", "running_state", states<RUNNING>},
    {"esmcd_dpll_state", "What the clock hardware reports: 1 for the state it is in.", GAUGE, false, nullptr,
     "state", "dpll_state", states<DPLL>},
    {"esmcd_quality_level",
     "Quality that is advertised, best first: 1 ePRTC, 2 PRTC, 3 ePRC, 4 PRC or PRS, 5 STU, 6 SSU-A or ST2, "
     "7 TNC, 8 SSU-B or ST3E, 9 eEEC, 10 EEC1 or EEC2, 11 SMC, 12 PROV, 15 DNU or DUS, 16 none.",
     GAUGE, false, nullptr, nullptr, "current_quality", level},
    {"esmcd_quality_info", "Quality that is advertised, as a word of the commands.", GAUGE, false, nullptr,
     "quality", "current_quality", word},
    {"esmcd_local_quality_level", "Quality of the switch's own clock, numbers as of esmcd_quality_level.",
     GAUGE, false, nullptr, nullptr, "local_quality", level},
    {"esmcd_external_command", "1: the operator's command chooses the source.", GAUGE, false,
     "command=\"forced\"", nullptr, "forced_port", named},
    {"esmcd_external_command", nullptr, GAUGE, false, "command=\"forced_e1\"", nullptr, "e1_forced", plain},
    {"esmcd_external_command", nullptr, GAUGE, false, "command=\"manual\"", nullptr, "manual_port", named},
    {"esmcd_changes", "Entries of the history.", COUNTER, false, nullptr, nullptr, "changes", plain},
    {"esmcd_loop_guard_enabled", "The loop guard is configured.", GAUGE, false, nullptr, nullptr, "",
     guard_enabled},
    {"esmcd_loop_guard_in_force", "The loop guard is configured, and the extension that it needs.", GAUGE,
     false, nullptr, nullptr, "loop_guard_in_force", guard_in_force},
    {"esmcd_loop_guard_hold_left_seconds",
     "How long the loop guard holds over at most for want of a proved offer; 0: it does not.", SECONDS, false,
     nullptr, nullptr, "loop_guard_hold_left_ms", from_milli},
    {"esmcd_loop_guard_longest_hold_seconds", "The longest that the loop guard held over.", SECONDS, false,
     nullptr, nullptr, "loop_guard_longest_hold_ms", from_milli},
    {"esmcd_loop_guard_holds", "How often the loop guard held over.", COUNTER, false, nullptr, nullptr,
     "loop_guard_holds", plain},
    {"esmcd_loop_guard_refused_offers",
     "Offers that the loop guard refused though they would have been preferred.", COUNTER, false, nullptr,
     nullptr, "loop_guard_refused", plain},
    {"esmcd_lock_error", "Why the clock hardware's lock failed, if it tells.", GAUGE, false, nullptr, "error",
     "lock_error", states<LOCK_ERRORS>},
    {"esmcd_hardware_quality_level", "Quality that the clock hardware claims of itself.", GAUGE, false,
     nullptr, nullptr, "hardware_quality", level},
    {"esmcd_port_up", "The link is up.", GAUGE, true, nullptr, nullptr, "link_up", plain},
    {"esmcd_source", "1: the clock comes from this port.", GAUGE, true, nullptr, nullptr, "source", plain},
    {"esmcd_port_usable", "1: the port can be the source; 0: it can not, for this reason.", GAUGE, true,
     nullptr, "reason", "", usable},
    {"esmcd_port_receiving", "A PDU came within the last five seconds.", GAUGE, true, nullptr, nullptr,
     "receiving", plain},
    {"esmcd_port_sending", "A PDU leaves each second.", GAUGE, true, nullptr, nullptr, "sending", plain},
    {"esmcd_port_quality_level", "Quality received and sent, numbers as of esmcd_quality_level.", GAUGE, true,
     RECEIVED, nullptr, "received_quality", level},
    {"esmcd_port_quality_level", nullptr, GAUGE, true, SENT, nullptr, "sent_quality", level},
    {"esmcd_port_quality_info", "Quality received and sent, as a word of the commands.", GAUGE, true,
     RECEIVED, "quality", "received_quality", word},
    {"esmcd_port_quality_info", nullptr, GAUGE, true, SENT, "quality", "sent_quality", word},
    {"esmcd_port_quality_forced", "1: the operator set the quality.", GAUGE, true, RECEIVED, nullptr,
     "forced_received_quality", named},
    {"esmcd_port_quality_forced", nullptr, GAUGE, true, SENT, nullptr, "forced_sent_quality", named},
    {"esmcd_port_hops", "Received hop count; 0 without the extension.", GAUGE, true, nullptr, nullptr,
     "hop_count", plain},
    {"esmcd_port_address_info", "The port's own MAC address.", GAUGE, true, nullptr, "address", "address",
     word},
    {"esmcd_port_neighbour_info", "The address at the other end of the link.", GAUGE, true, nullptr,
     "neighbour", "neighbour", word},
    {"esmcd_port_clock_id_info", "Clock identity received.", GAUGE, true, nullptr, "clock_id",
     "received_clock_id", word},
    {"esmcd_port_locked_out", "The operator took the port out of the selection.", GAUGE, true, nullptr,
     nullptr, "locked_out", plain},
    {"esmcd_port_failed", "The port failed, and has not been free of faults for long enough.", GAUGE, true,
     nullptr, nullptr, "failed", plain},
    {"esmcd_port_flapping", "The port became the source three times within half an hour.", GAUGE, true,
     nullptr, nullptr, "flapping", plain},
    {"esmcd_port_hold_off_left_seconds", "How long the port's failure is held off; 0: none is.", SECONDS,
     true, nullptr, nullptr, "hold_off_left_ms", from_milli},
    {"esmcd_port_wait_to_restore_left_seconds", "How long the port waits to be used again; 0: it does not.",
     SECONDS, true, nullptr, nullptr, "wait_to_restore_left_s", plain},
    {"esmcd_port_loop_guard_refused_timestamp_seconds",
     "Since when the loop guard has refused the port's offer, which would be preferred.", SECONDS, true,
     nullptr, nullptr, "loop_guard_refused_ms", since_unless_0},
    {"esmcd_port_pdus", "PDUs received and sent.", COUNTER, true,
     "direction=\"received\",kind=\"information\"", nullptr, "information_in", plain},
    {"esmcd_port_pdus", nullptr, COUNTER, true, "direction=\"received\",kind=\"event\"", nullptr, "events_in",
     plain},
    {"esmcd_port_pdus", nullptr, COUNTER, true, "direction=\"sent\",kind=\"information\"", nullptr,
     "information_out", plain},
    {"esmcd_port_pdus", nullptr, COUNTER, true, "direction=\"sent\",kind=\"event\"", nullptr, "events_out",
     plain},
    {"esmcd_port_dnu_pdus", "PDUs received and sent that said DNU.", COUNTER, true, RECEIVED, nullptr,
     "dnu_in", plain},
    {"esmcd_port_dnu_pdus", nullptr, COUNTER, true, SENT, nullptr, "dnu_out", plain},
    {"esmcd_port_dropped_pdus", "PDUs received and dropped.", COUNTER, true, "reason=\"without_quality\"",
     nullptr, "without_quality", plain},
    {"esmcd_port_dropped_pdus", nullptr, COUNTER, true, "reason=\"unknown_quality\"", nullptr,
     "unknown_quality", plain},
    {"esmcd_port_dropped_pdus", nullptr, COUNTER, true, "reason=\"beyond_rate_limit\"", nullptr,
     "beyond_rate_limit", plain},
    {"esmcd_port_unknown_tlvs", "Extended TLVs of no known length.", COUNTER, true, nullptr, nullptr,
     "unknown_tlv", plain},
    {"esmcd_port_held_back_pdus", "Event PDUs that left later, because the port had sent too many.", COUNTER,
     true, nullptr, nullptr, "held_back", plain},
    {"esmcd_port_timeouts", "How often the port fell silent.", COUNTER, true, nullptr, nullptr, "timeouts",
     plain},
    {"esmcd_port_selections", "How often the port became the source.", COUNTER, true, nullptr, nullptr,
     "times_source", plain},
    {"esmcd_port_information_timestamp_seconds", "When the last information PDU came.", SECONDS, true,
     nullptr, nullptr, "information_age_ms", since},
    {"esmcd_port_event_timestamp_seconds", "When the last event PDU came.", SECONDS, true, nullptr, nullptr,
     "event_age_ms", since},
    {"esmcd_port_sent_timestamp_seconds", "When the last PDU left.", SECONDS, true, nullptr, nullptr,
     "sent_age_ms", since},
    {"esmcd_port_quality_timestamp_seconds", "When the received quality changed.", SECONDS, true, nullptr,
     nullptr, "quality_age_ms", since},
    {"esmcd_port_longest_interval_seconds", "The longest between two information PDUs received.", SECONDS,
     true, nullptr, nullptr, "longest_interval_ms", from_milli},
    {"esmcd_port_pin_state", "State of the port's pin at the clock hardware, if that tells.", GAUGE, true,
     nullptr, "state", "pin_state", states<PIN_STATES>},
    {"esmcd_port_frequency_offset_ratio", "Of the received frequency, if the clock hardware tells.",
     metric_kind::ratio, true, nullptr, nullptr, "frequency_offset_ppt", parts},
    {"esmcd_port_measured_frequency_hertz", "Received frequency, if the clock hardware tells.",
     metric_kind::hertz, true, nullptr, nullptr, "measured_frequency_millihertz", from_milli},
    {"esmcd_changed_meanwhile",
     "1: the clock changed while this was written; ports and clock may not go together.", GAUGE, false,
     nullptr, nullptr, "changed_meanwhile", changed_meanwhile},
};

// ---- Writing ----

std::string label(const char* name, std::string_view value) {
    std::string written = std::string(name).append("=\"");
    for (const char c : value) {
        if (c == '"' || c == '\\') written += '\\';
        if (c == '\n')
            written += "\\n";
        else
            written += c;
    }
    return written.append("\"");
}

class writer {
  public:
    std::string out;

    void family(const char* name, const char* help, metric_kind kind) {
        static constexpr const char* UNITS[] = {nullptr, nullptr, "seconds", "hertz", "ratio"};
        add({"# HELP ", name, " ", help, "\n# TYPE ", name});
        add({kind == metric_kind::counter ? " counter\n" : " gauge\n"});
        if (const char* unit = UNITS[static_cast<std::size_t>(kind)]) add({"# UNIT ", name, " ", unit, "\n"});
    }

    // What a switch tells may be any number; a counter that is none is left out.
    void line(const char* name, metric_kind kind, std::initializer_list<std::string_view> labels,
              double value) {
        const bool counter = kind == metric_kind::counter;
        if (counter && value < 0) return;
        add({name, counter ? "_total" : "", labels.size() ? "{" : ""});
        add(labels);
        add({labels.size() ? "} " : " "});
        number(kind, value);
        out += '\n';
    }

  private:
    void add(std::initializer_list<std::string_view> pieces) {
        for (const std::string_view piece : pieces) out += piece;
    }

    void number(metric_kind kind, double value) {
        constexpr double GREAT = 1e15;
        const bool fraction = kind == metric_kind::seconds || kind == metric_kind::hertz;
        const bool plain = kind != metric_kind::ratio && std::abs(value) < GREAT;
        std::array<char, 40> text = {};
        char *first = text.data(), *last = first + text.size();
        const auto done = plain
                              ? std::to_chars(first, last, value, std::chars_format::fixed, fraction ? 3 : 0)
                              : std::to_chars(first, last, value, std::chars_format::general, 12);
        out.append(first, done.ptr);
    }
};

// A switch or a port, with its labels as they are written.
struct labelled {
    subject from;
    std::string labels;
};

void write_samples(writer& to, const row& of, const labelled& one) {
    const samples made = of.read(one.from, of);
    for (std::size_t i = 0; i < made.count; ++i) {
        const std::string own = of.label ? label(of.label, made.all[i].text) : "";
        to.line(of.name, of.kind,
                {one.labels, of.fixed ? "," : "", of.fixed ? of.fixed : "", of.label ? "," : "", own},
                made.all[i].value);
    }
}

// ---- The switches ----

// Those that answer, and their ports that SyncE is enabled on.
struct answering {
    std::vector<labelled> switches, ports;
};

void add_ports(const node& of, const reported_values& told, const std::string& labels, answering& all) {
    std::set<std::string_view> names;  // two of one name would be one series
    for (std::size_t i = 0; i < of.report->ports.size() && i < told.ports.size(); ++i) {
        const port_report& port = of.report->ports[i];
        if (!port.enabled || !names.insert(port.name).second) continue;
        all.ports.push_back(
            {{of, told.ports[i], &port}, std::string(labels).append(",").append(label("port", port.name))});
    }
}

answering who_answers(const network& net, const told_values& told) {
    answering all;
    for (const node& of : net.nodes) {
        const auto found = told.find(of.id);
        if (of.stranger || of.how != answer::ok || !of.report || found == told.end() || !found->second)
            continue;
        const std::string labels = label("switch", of.id);
        all.switches.push_back({{of, found->second->clock, nullptr}, labels});
        add_ports(of, *found->second, labels, all);
    }
    return all;
}

void write_row(writer& to, const row& of, const answering& all) {
    if (of.help) to.family(of.name, of.help, of.kind);
    for (const labelled& one : of.of_ports ? all.ports : all.switches) write_samples(to, of, one);
}

// ---- The map ----

// A sample for each switch of the file; none where `read` has nothing.
void write_nodes(writer& to, const network& net, const char* name, const char* help, metric_kind kind,
                 const std::function<std::optional<double>(const node&)>& read) {
    to.family(name, help, kind);
    for (const node& of : net.nodes)
        if (const auto value = of.stranger ? std::nullopt : read(of))
            to.line(name, kind, {label("switch", of.id)}, *value);
}

void write_map(writer& to, const network& net, double seconds) {
    using found = std::optional<double>;
    to.family("esmcmap_build_info", "Version of the program that asks.", GAUGE);
    to.line("esmcmap_build_info", GAUGE, {label("version", ESMC_VERSION)}, 1);
    write_nodes(to, net, "esmcmap_switch_up", "The switch answers.", GAUGE, [](const node& of) -> found {
        return of.how == answer::waiting ? found() : found(of.how == answer::ok);
    });
    write_nodes(to, net, "esmcmap_switch_answered_timestamp_seconds", "When it answered last.", SECONDS,
                [](const node& of) -> found {
                    return of.answered_ms ? found(static_cast<double>(of.answered_ms) / 1000) : found();
                });
    write_nodes(to, net, "esmcmap_loop", "1: it is part of a timing loop.", GAUGE,
                [](const node& of) -> found { return of.loop; });
    write_nodes(to, net, "esmcmap_island", "1: its clock comes from no master.", GAUGE,
                [](const node& of) -> found { return of.island; });
    write_nodes(to, net, "esmcmap_claim", "1: it advertises a better quality than it has.", GAUGE,
                [](const node& of) -> found { return of.claim; });
    write_nodes(to, net, "esmcmap_hops", "Links to the switch that its clock comes from.", GAUGE,
                [](const node& of) -> found { return of.root.empty() ? found() : found(of.hops); });
    double strangers = 0;
    for (const node& of : net.nodes) strangers += of.stranger;
    to.family("esmcmap_strangers", "Neighbours that are no known switches.", GAUGE);
    to.line("esmcmap_strangers", GAUGE, {}, strangers);
    to.family("esmcmap_poll_duration_seconds", "How long it took to ask all switches.", SECONDS);
    to.line("esmcmap_poll_duration_seconds", SECONDS, {}, seconds);
}

}  // namespace

struct metrics_pieces::inside {
    std::shared_ptr<const metrics_state> of;
    answering all;
    std::size_t at = 0;
};

metrics_pieces::metrics_pieces(std::shared_ptr<const metrics_state> of) : in(std::make_unique<inside>()) {
    if (of) in->all = who_answers(of->net, of->told);
    in->of = std::move(of);
}

metrics_pieces::~metrics_pieces() = default;

std::string metrics_pieces::next() {
    writer to;
    const std::size_t at = in->at++;
    if (at == 0 && in->of) write_map(to, in->of->net, in->of->seconds);
    if (at > 0 && at <= std::size(ROWS)) write_row(to, ROWS[at - 1], in->all);
    if (at == std::size(ROWS)) to.out += "# EOF\n";
    return std::move(to.out);
}

bool metrics_pieces::over() const {
    return in->at > std::size(ROWS);
}

std::string metrics_text(const network& net, const told_values& told, double seconds) {
    metrics_pieces pieces(std::make_shared<const metrics_state>(metrics_state{net, told, seconds}));
    std::string text;
    while (!pieces.over()) text += pieces.next();
    return text;
}

void metrics::publish(network net, told_values told, bool complete, double seconds) {
    const std::lock_guard held(lock);
    if (!complete && latest) seconds = latest->seconds;
    latest = std::make_shared<const metrics_state>(metrics_state{std::move(net), std::move(told), seconds});
}

std::unique_ptr<metrics_pieces> metrics::pieces() {
    const std::lock_guard making(one_at_a_time);
    std::shared_ptr<const metrics_state> shown;
    {
        const std::lock_guard held(lock);
        shown = latest;
    }
    return std::make_unique<metrics_pieces>(std::move(shown));
}

std::string metrics::next(metrics_pieces& of) {
    const std::lock_guard making(one_at_a_time);
    return of.next();
}

}  // namespace esmcmap
