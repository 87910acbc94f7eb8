// The JSON object of `show clock synce json`. Reading is strict about types and kind about what is missing: a
// newer switch tells more, an older one less.
#include "esmcmap/model/read_json.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace esmcmap {

namespace {

using nlohmann::json;

constexpr char32_t REPLACEMENT = 0xfffd;

struct unreadable : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// One character of UTF-8 from the front of `rest`, which gets shorter; REPLACEMENT for an octet that begins
// none.
char32_t next_character(std::string_view& rest) {
    const auto first = static_cast<unsigned char>(rest.front());
    const unsigned more = first < 0x80 ? 0 : first >= 0xf0 && first < 0xf5 ? 3 : first >= 0xe0 ? 2 : 1;
    constexpr char32_t LEAST[] = {0, 0x80, 0x800, 0x10000};
    if (first >= 0xf5 || (first >= 0x80 && first < 0xc2) || rest.size() <= more) {
        rest.remove_prefix(1);
        return REPLACEMENT;
    }
    char32_t character = more == 0 ? first : first & (0x3fU >> more);
    for (unsigned i = 1; i <= more; ++i) {
        const auto octet = static_cast<unsigned char>(rest[i]);
        if ((octet & 0xc0) != 0x80) {
            rest.remove_prefix(1);
            return REPLACEMENT;
        }
        character = character << 6 | (octet & 0x3fU);
    }
    const bool surrogate = character >= 0xd800 && character <= 0xdfff;
    const bool fits = character >= LEAST[more] && character <= 0x10ffff && !surrogate;
    rest.remove_prefix(fits ? more + 1 : 1);
    return fits ? character : REPLACEMENT;
}

void append(std::string& text, char32_t character) {
    const auto octet = [&](char32_t value) {
        text.push_back(static_cast<char>(static_cast<unsigned char>(value)));
    };
    if (character < 0x80) return octet(character);
    if (character < 0x800) {
        octet(0xc0 | character >> 6);
    } else {
        if (character < 0x10000) {
            octet(0xe0 | character >> 12);
        } else {
            octet(0xf0 | character >> 18);
            octet(0x80 | (character >> 12 & 0x3f));
        }
        octet(0x80 | (character >> 6 & 0x3f));
    }
    octet(0x80 | (character & 0x3f));
}

// Controls of ASCII and Latin-1, marks and overrides of direction, and line separators.
bool wild(char32_t c) {
    return c < 0x20 || (c >= 0x7f && c < 0xa0) || (c >= 0x200b && c <= 0x200f) ||
           (c >= 0x2028 && c <= 0x202e) || (c >= 0x2066 && c <= 0x2069) || c == 0xfeff;
}

std::string valid_utf8(std::string_view text) {
    std::string valid;
    valid.reserve(text.size());
    while (!text.empty()) append(valid, next_character(text));
    return valid;
}

// What no switch says takes neither the time nor the memory of the others: a mebioctet of brackets would be a
// hundred of values.
json parsed(std::string_view answer) {
    constexpr int DEPTH_LIMIT = 8;
    constexpr std::size_t VALUE_LIMIT = 400'000;  // 4096 ports have 300,000
    std::size_t values = 0;
    return json::parse(valid_utf8(answer), [&values](int depth, json::parse_event_t, const json&) {
        if (depth > DEPTH_LIMIT) throw unreadable("it is nested too deep");
        if (++values > VALUE_LIMIT) throw unreadable("it has too many values");
        return true;
    });
}

const json* member(const json& object, const char* name) {
    const auto found = object.find(name);
    return found == object.end() || found->is_null() ? nullptr : &*found;
}

std::string text_field(const json& object, const char* name, const char* otherwise = "") {
    const json* value = member(object, name);
    if (!value) return otherwise;
    if (!value->is_string()) throw unreadable(std::string(name) + " is no text");
    return tame(value->get_ref<const std::string&>());
}

bool flag_field(const json& object, const char* name) {
    const json* value = member(object, name);
    if (!value) return false;
    if (!value->is_boolean()) throw unreadable(std::string(name) + " is neither true nor false");
    return value->get<bool>();
}

bool one_of(const std::string& word, std::initializer_list<const char*> words) {
    return std::any_of(words.begin(), words.end(), [&](const char* known) { return word == known; });
}

void collect(const json& object, switch_values& values) {
    for (const auto& [name, value] : object.items()) {
        const std::optional<field> of = field::find(name);
        if (!of) continue;
        if (value.is_boolean())
            values.set(*of, value.get<bool>() ? 1 : 0);
        else if (value.is_number() && std::isfinite(value.get<double>()))
            values.set(*of, value.get<double>());
        else if (value.is_string())
            values.set(*of, tame(value.get_ref<const std::string&>()));
    }
    values.pack();
}

std::string address_field(const json& object, const char* name) {
    std::string address = text_field(object, name);
    constexpr std::size_t LENGTH = 17;
    if (!address.empty() && address.size() != LENGTH) throw unreadable(std::string(name) + " is no address");
    std::transform(address.begin(), address.end(), address.begin(),
                   [](char c) { return c >= 'A' && c <= 'F' ? static_cast<char>(c - 'A' + 'a') : c; });
    return address;
}

port_report read_port(const json& object) {
    if (!object.is_object()) throw unreadable("a port is no object");
    port_report port;
    port.name = text_field(object, "name");
    if (port.name.empty()) throw unreadable("a port has no name");
    port.address = address_field(object, "address");
    port.neighbour = address_field(object, "neighbour");
    port.received = text_field(object, "received_quality", "none");
    port.sent = text_field(object, "sent_quality", "none");
    port.received_clock_id = text_field(object, "received_clock_id");
    port.reason = text_field(object, "not_source_reason");
    port.enabled = flag_field(object, "synce_enabled");
    port.link_up = flag_field(object, "link_up");
    port.source = flag_field(object, "source");
    return port;
}

switch_report read_clock(const json& object) {
    switch_report report;
    report.clock_id = text_field(object, "clock_id");
    report.state = text_field(object, "running_state");
    if (!one_of(report.state, {"master", "lock", "holdover", "freerun"}))
        throw unreadable("running_state is not one that a switch has");
    if (!flag_field(object, "synce_enabled")) report.state = "off";
    report.dpll = text_field(object, "dpll_state");
    report.quality = text_field(object, "current_quality", "none");
    report.local_quality = text_field(object, "local_quality", "none");
    report.source = text_field(object, "source");
    report.recovery_input = text_field(object, "recovery_input", "synce");
    report.reason = text_field(object, "no_source_reason");
    report.clock_type = text_field(object, "clock_type", "eec");
    if (const json* option = member(object, "option")) {
        if (!option->is_number_unsigned()) throw unreadable("option is no number");
        report.option = option->get<unsigned>();
    }
    return report;
}

void read_object(const json& object, switch_report& report, reported_values& values) {
    if (!object.is_object()) throw unreadable("it is no JSON object");
    report = read_clock(object);
    collect(object, values.clock);
    const json* ports = member(object, "ports");
    if (!ports || !ports->is_array()) throw unreadable("it has no list of ports");
    if (ports->size() > PORT_LIMIT) throw unreadable("it has " + std::to_string(ports->size()) + " ports");
    for (const json& port : *ports) {
        report.ports.push_back(read_port(port));
        collect(port, values.ports.emplace_back());
    }
}

}  // namespace

std::string tame(std::string_view text, std::size_t most_octets) {
    std::string tamed;
    while (!text.empty()) {
        const char32_t character = next_character(text);
        const std::size_t before = tamed.size();
        append(tamed, wild(character) ? REPLACEMENT : character);
        if (tamed.size() <= most_octets) continue;
        tamed.resize(before);
        break;
    }
    return tamed;
}

std::string read_json(std::string_view answer, switch_report& report, reported_values& values) {
    if (answer.size() > ANSWER_LIMIT) return "the answer is longer than 4 MiB";
    if (answer.find_first_not_of(" \t\r\n") == answer.npos) return "the answer is empty";
    try {
        const json object = parsed(answer);
        switch_report read;
        reported_values told;
        read_object(object, read, told);
        report = std::move(read);
        values = std::move(told);
        return "";
    } catch (const json::parse_error& error) {
        return "the answer is no JSON (octet " + std::to_string(error.byte) + ")";
    } catch (const json::exception& error) {
        return std::string("the answer can't be read: ") + error.what();
    } catch (const unreadable& error) {
        return std::string("the answer can't be read: ") + error.what();
    }
}

}  // namespace esmcmap
