// Tables of objects, each with the JSON field that tells the same; the reports are made of the fields.
#include "esmcmap/model/read_mib.h"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <map>
#include <span>
#include <stdexcept>

#include "esmcmap/model/read_json.h"

namespace esmcmap {

namespace {

struct unreadable : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// ---- How the objects read ----

using words = std::span<const char* const>;  // of an enumeration that begins at 1

constexpr const char* QUALITIES[] = {"prs",  "prc",  "stu",   "ssu-a", "tnc",  "st2", "ssu-b",
                                     "eec2", "eec1", "smc",   "st3e",  "prov", "dnu", "dus",
                                     "none", "prtc", "eprtc", "eeec",  "eprc"};
constexpr const char* STATES[] = {"master", "freerun", "holdover", "lock"};
constexpr const char* DPLL_STATES[] = {"transient", "freerun", "holdover", "lock"};
constexpr const char* DEVICES[] = {"master-only", "slave-only", "default"};
constexpr const char* INPUTS[] = {"synce", "bits1", "bits2"};
constexpr const char* MODES[] = {"rx", "tx", "all", "none"};
constexpr const char* FORMS[] = {nullptr, "own", "standard"};
constexpr const char* CLOCK_TYPES[] = {"eec", "eeec"};

enum class form : std::uint8_t {
    number,  // 0 to `most`
    flag,    // 1: true, 2: false
    word,    // of `names`; null: not told
    text,
    address,
    age,    // hundredths of a second; 0: never
    stamp,  // the same as a moment of sysUpTime; 0: never, or not known
    index,  // of an interface
};

struct object {
    unsigned group, member;  // group 0: the switch's own objects; a table's member is its column
    field to;                // none: used here, told by no field of its own
    form how;
    words names = {};
    std::int64_t most = std::numeric_limits<std::int32_t>::max();
};

constexpr std::int64_t COUNTER_32 = std::numeric_limits<std::uint32_t>::max();
constexpr std::int64_t COUNTER_64 = std::numeric_limits<std::int64_t>::max();

enum : unsigned {
    SWITCH = 0,
    PORTS = 13,
    GUARD = 18,
    SUPERVISION = 19,
    COUNTERS = 20,
    TIMES = 21,
    STATES_OF_PORTS = 22,
    NAMES = 24
};
enum : unsigned {
    SELECTED = 8,
    FORCED = 12,
    GUARD_ENABLED = 1,
    COMMAND = 1,
    COMMAND_PORT = 2,
    ENABLED = 2,
    HELD_BACK = 15
};

constexpr object OF_SWITCH[] = {
    {SWITCH, 1, "clock_id", form::text},
    {SWITCH, 2, "synce_enabled", form::flag},
    {SWITCH, 3, "ssm_enabled", form::flag},
    {SWITCH, 4, "device_type", form::word, DEVICES},
    {SWITCH, 7, "local_priority", form::number, {}, 255},
    {SWITCH, SELECTED, "", form::index},
    {SWITCH, 9, "ssm_extended", form::flag},
    {SWITCH, 10, "running_state", form::word, STATES},
    {SWITCH, 11, "option", form::number, {}, 2},
    {SWITCH, FORCED, "", form::index},
    {SWITCH, 15, "recovery_input", form::word, INPUTS},
    {GUARD, GUARD_ENABLED, "", form::flag},
    {GUARD, 2, "loop_guard_hold_ms", form::number},
    {GUARD, 3, "loop_guard_hops", form::number},
    {GUARD, 4, "loop_guard_refused", form::number, {}, COUNTER_32},
    {GUARD, 5, "loop_guard_holds", form::number, {}, COUNTER_32},
    {GUARD, 6, "loop_guard_longest_hold_ms", form::number, {}, COUNTER_32},
    {GUARD, 7, "loop_guard_hold_left_ms", form::number, {}, COUNTER_32},
    {SUPERVISION, COMMAND, "", form::number, {}, 3},
    {SUPERVISION, COMMAND_PORT, "", form::index},
    {SUPERVISION, 3, "current_quality", form::word, QUALITIES},
    {SUPERVISION, 4, "local_quality", form::word, QUALITIES},
    {SUPERVISION, 5, "extend_form", form::word, FORMS},
    {SUPERVISION, 6, "clock_type", form::word, CLOCK_TYPES},
    {SUPERVISION, 7, "hold_off_ms", form::number},
    {SUPERVISION, 8, "wait_to_restore_s", form::number},
    {SUPERVISION, 9, "non_revertive", form::flag},
    {SUPERVISION, 10, "dpll_state", form::word, DPLL_STATES},
};

constexpr object OF_PORT[] = {
    {PORTS, ENABLED, "synce_enabled", form::flag},
    {PORTS, 3, "esmc", form::word, MODES},
    {PORTS, 4, "priority", form::number, {}, 255},
    {PORTS, 5, "link_up", form::flag},
    {PORTS, 7, "sending", form::flag},
    {PORTS, 8, "receiving", form::flag},
    {PORTS, 10, "dnu_group", form::number, {}, 255},
    {PORTS, 11, "replace_clock_id", form::flag},
    {PORTS, 12, "forced_received_quality", form::word, QUALITIES},
    {PORTS, 13, "forced_sent_quality", form::word, QUALITIES},
    {PORTS, 14, "neighbour", form::address},
    {PORTS, HELD_BACK, "held_back", form::number, {}, COUNTER_32},
    {COUNTERS, 1, "information_in", form::number, {}, COUNTER_64},
    {COUNTERS, 2, "events_in", form::number, {}, COUNTER_64},
    {COUNTERS, 3, "dnu_in", form::number, {}, COUNTER_64},
    {COUNTERS, 4, "information_out", form::number, {}, COUNTER_64},
    {COUNTERS, 5, "events_out", form::number, {}, COUNTER_64},
    {COUNTERS, 6, "dnu_out", form::number, {}, COUNTER_64},
    {COUNTERS, 7, "without_quality", form::number, {}, COUNTER_64},
    {COUNTERS, 8, "unknown_quality", form::number, {}, COUNTER_64},
    {COUNTERS, 9, "unknown_tlv", form::number, {}, COUNTER_64},
    {COUNTERS, 10, "beyond_rate_limit", form::number, {}, COUNTER_64},
    {COUNTERS, 11, "timeouts", form::number, {}, COUNTER_64},
    {COUNTERS, 12, "times_source", form::number, {}, COUNTER_64},
    {TIMES, 1, "information_age_ms", form::age},
    {TIMES, 2, "event_age_ms", form::age},
    {TIMES, 3, "sent_age_ms", form::age},
    {TIMES, 4, "shortest_interval_ms", form::age},
    {TIMES, 5, "mean_interval_ms", form::age},
    {TIMES, 6, "longest_interval_ms", form::age},
    {TIMES, 7, "quality_age_ms", form::stamp},
    {TIMES, 8, "cleared_age_ms", form::stamp},
    {STATES_OF_PORTS, 1, "received_quality", form::word, QUALITIES},
    {STATES_OF_PORTS, 2, "sent_quality", form::word, QUALITIES},
    {STATES_OF_PORTS, 3, "locked_out", form::flag},
    {STATES_OF_PORTS, 4, "failed", form::flag},
    {STATES_OF_PORTS, 5, "wait_to_restore_left_s", form::number},
    {STATES_OF_PORTS, 6, "hold_off_left_ms", form::number},
    {STATES_OF_PORTS, 7, "flapping", form::flag},
    {STATES_OF_PORTS, 8, "hold_off_ms", form::number},
    {STATES_OF_PORTS, 9, "wait_to_restore_s", form::number},
    {STATES_OF_PORTS, 10, "minimum_received_quality", form::word, QUALITIES},
    {STATES_OF_PORTS, 11, "maximum_received_quality", form::word, QUALITIES},
    {STATES_OF_PORTS, 12, "minimum_sent_quality", form::word, QUALITIES},
    {STATES_OF_PORTS, 13, "maximum_sent_quality", form::word, QUALITIES},
    {STATES_OF_PORTS, 14, "received_form", form::word, FORMS},
    {STATES_OF_PORTS, 15, "extend_form", form::word, FORMS},
    {NAMES, 1, "name", form::text},
    {NAMES, 2, "address", form::address},
};

// ---- One value ----

std::string place_of(const object& what) {
    return (what.group ? std::to_string(what.group) + '.' : std::string()) + std::to_string(what.member);
}

std::int64_t number_of(const object& what, const mib_binding& value, std::int64_t most) {
    const bool number = value.type != mib_type::octets && value.type != mib_type::other;
    if (!number) throw unreadable("object " + place_of(what) + " is no number");
    if (value.number < 0 || value.number > most)
        throw unreadable("object " + place_of(what) + " is out of range");
    return value.number;
}

const std::string& octets_of(const object& what, const mib_binding& value) {
    if (value.type != mib_type::octets) throw unreadable("object " + place_of(what) + " is no text");
    return value.octets;
}

std::string address_of(const object& what, const mib_binding& value) {
    const std::string& octets = octets_of(what, value);
    constexpr std::size_t SIZE = 6;
    if (octets.size() != SIZE) throw unreadable("object " + place_of(what) + " is no address");
    if (octets.find_first_not_of('\0') == octets.npos) return {};
    std::string text;
    for (const char octet : octets) {
        char digits[4];
        std::snprintf(digits, sizeof digits, ":%02x",
                      static_cast<unsigned>(static_cast<unsigned char>(octet)));
        text += digits;
    }
    return text.substr(1);
}

// From 1 on, as enumerations of MIBs are.
std::size_t choice_of(const object& what, const mib_binding& value, std::size_t choices) {
    const std::int64_t number = number_of(what, value, static_cast<std::int64_t>(choices));
    if (number == 0) throw unreadable("object " + place_of(what) + " is out of range");
    return static_cast<std::size_t>(number) - 1;
}

void store_time(const object& what, const mib_binding& value, std::optional<std::uint32_t> up_time,
                switch_values& to) {
    constexpr int TICK_MS = 10;
    const std::int64_t ticks = number_of(what, value, COUNTER_32);
    if (ticks == 0) return;
    if (what.how == form::age) to.set(what.to, static_cast<double>(ticks * TICK_MS));
    // Both are of one clock, which begins anew after 497 days.
    if (what.how == form::stamp && up_time)
        to.set(what.to, static_cast<double>(std::int64_t{static_cast<std::uint32_t>(
                                                *up_time - static_cast<std::uint32_t>(ticks))} *
                                            TICK_MS));
}

void store(const object& what, const mib_binding& value, std::optional<std::uint32_t> up_time,
           switch_values& to) {
    switch (what.how) {
        case form::number:
        case form::index:
            if (const std::int64_t number = number_of(what, value, what.most); what.to)
                to.set(what.to, static_cast<double>(number));
            return;
        case form::flag:
            if (const std::size_t choice = choice_of(what, value, 2); what.to)
                to.set(what.to, choice == 0 ? 1 : 0);
            return;
        case form::word:
            if (const char* word = what.names[choice_of(what, value, what.names.size())])
                to.set(what.to, std::string_view(word));
            return;
        case form::text:
            to.set(what.to, tame(octets_of(what, value)));
            return;
        case form::address:
            if (std::string address = address_of(what, value); !address.empty()) to.set(what.to, address);
            return;
        case form::age:
        case form::stamp:
            return store_time(what, value, up_time, to);
    }
}

// ---- Which value ----

using value_of = std::map<std::pair<unsigned, unsigned>, const mib_binding*>;  // by group and member

struct sorted_answer {
    value_of of_switch;
    std::map<std::uint32_t, value_of> of_ports;  // by interface index
};

sorted_answer sorted(const mib_answer& answer) {
    sorted_answer by_name;
    for (const mib_binding& one : answer.bindings) {
        const auto& at = one.object;
        if (one.depth == 2 && at[1] == 0)
            by_name.of_switch[{SWITCH, at[0]}] = &one;
        else if (one.depth == 3 && at[2] == 0)
            by_name.of_switch[{at[0], at[1]}] = &one;
        else if (one.depth == 4 && at[1] == 1)
            by_name.of_ports[at[3]][{at[0], at[2]}] = &one;
    }
    const std::size_t before = by_name.of_ports.size();
    // A port that came or went during the walk is not there.
    std::erase_if(by_name.of_ports, [](const auto& port) {
        return port.first == 0 || !port.second.contains({PORTS, ENABLED}) ||
               !port.second.contains({NAMES, 1});
    });
    if (before > 0 && by_name.of_ports.empty())
        throw unreadable("it has no names and addresses of ports (esmcd before 0.3.0?)");
    return by_name;
}

void store_all(std::span<const object> objects, const value_of& values, std::optional<std::uint32_t> up_time,
               switch_values& to) {
    for (const object& what : objects)
        if (const auto found = values.find({what.group, what.member}); found != values.end())
            store(what, *found->second, up_time, to);
}

// ---- The reports ----

class reader {
  public:
    explicit reader(const mib_answer& of) : answer(of), found(sorted(of)) {}

    void read(switch_report& report, reported_values& values) {
        if (found.of_ports.size() > PORT_LIMIT)
            throw unreadable("it has " + std::to_string(found.of_ports.size()) + " ports");
        store_all(OF_SWITCH, found.of_switch, answer.up_time, values.clock);
        for (const auto& [index, of_port] : found.of_ports) read_port(index, of_port, report, values);
        name_ports(values.clock);
        take_guard(values.clock);
        read_clock(values.clock, report);
    }

  private:
    const mib_answer& answer;
    const sorted_answer found;
    std::map<std::uint32_t, std::string> names;

    std::uint32_t raw(unsigned group, unsigned member) const {
        const auto value = found.of_switch.find({group, member});
        return value == found.of_switch.end() ? 0 : static_cast<std::uint32_t>(value->second->number);
    }

    static std::string text(const switch_values& of, field named, const char* otherwise = "") {
        const std::string_view told = of.text(named);
        return std::string(told.empty() ? otherwise : told);
    }

    static double number(const switch_values& of, field named, double otherwise = 0) {
        return of.number(named).value_or(otherwise);
    }

    void read_port(std::uint32_t index, const value_of& of_port, switch_report& report,
                   reported_values& values) {
        switch_values told;
        store_all(OF_PORT, of_port, answer.up_time, told);
        told.set("ifindex", index);
        told.set("source", raw(SWITCH, SELECTED) == index ? 1 : 0);
        port_report port;
        port.name = names[index] = text(told, "name");
        if (port.name.empty()) throw unreadable("a port has no name");
        port.address = text(told, "address");
        port.neighbour = text(told, "neighbour");
        port.received = text(told, "received_quality", "none");
        port.sent = text(told, "sent_quality", "none");
        port.enabled = number(told, "synce_enabled") != 0;
        port.link_up = number(told, "link_up") != 0;
        port.source = number(told, "source") != 0;
        if (raw(GUARD, GUARD_ENABLED) != 1) told.erase("held_back");
        told.pack();
        values.ports.push_back(std::move(told));
        report.ports.push_back(std::move(port));
    }

    void name_port(switch_values& clock, field to, std::uint32_t index) const {
        if (const auto name = names.find(index); index && name != names.end()) clock.set(to, name->second);
    }

    // What the MIB tells by interface indexes.
    void name_ports(switch_values& clock) const {
        constexpr std::uint32_t EXTERNAL = 9999, FORCED_SWITCH = 2, MANUAL_SWITCH = 3;
        name_port(clock, "source", raw(SWITCH, SELECTED));
        name_port(clock, "forced_port", raw(SWITCH, FORCED));
        const std::uint32_t command = raw(SUPERVISION, COMMAND), port = raw(SUPERVISION, COMMAND_PORT);
        clock.set("e1_forced", command == FORCED_SWITCH && port == EXTERNAL ? 1 : 0);
        if (command == MANUAL_SWITCH) name_port(clock, "manual_port", port);
    }

    // The JSON has the guard's fields while it is on.
    void take_guard(switch_values& clock) const {
        if (raw(GUARD, GUARD_ENABLED) == 1) return;
        for (const object& what : OF_SWITCH)
            if (what.group == GUARD && what.to) clock.erase(what.to);
    }

    static void read_clock(const switch_values& clock, switch_report& report) {
        report.clock_id = text(clock, "clock_id");
        report.state = text(clock, "running_state");
        if (report.state.empty()) throw unreadable("it tells no running state");
        if (number(clock, "synce_enabled") == 0) report.state = "off";
        report.dpll = text(clock, "dpll_state");
        report.quality = text(clock, "current_quality", "none");
        report.local_quality = text(clock, "local_quality", "none");
        report.source = text(clock, "source");
        report.recovery_input = text(clock, "recovery_input", "synce");
        report.clock_type = text(clock, "clock_type", "eec");
        report.option = static_cast<unsigned>(number(clock, "option", 1));
    }
};

}  // namespace

std::string read_mib(const mib_answer& answer, switch_report& report, reported_values& values) {
    try {
        switch_report read;
        reported_values told;
        reader(answer).read(read, told);
        report = std::move(read);
        values = std::move(told);
        return "";
    } catch (const unreadable& error) {
        return std::string("the answer can't be read: ") + error.what();
    }
}

}  // namespace esmcmap
