// Answers of switches, any octets and any networks: a first octet says which. Either the rest is what one
// switch printed, or it describes some switches, in rounds, by octets: what they say is written as their JSON
// and read again, some of them fall silent, and all that is shown of the network is held to rules.
#include "map_rules.h"

namespace {

using namespace map_rules;

constexpr const char* STATES[] = {"master", "lock", "holdover", "freerun"};
constexpr const char* QUALITIES[] = {"prc", "eec1", "none", "dnu", "ssu-a", "eprtc", "odd"};
constexpr const char* NAMES[] = {"p1", "p2", "p2", "x&<\\\"\x1b"};

template <std::size_t N>
const char* one_of(const char* const (&words)[N], std::uint8_t number) {
    return words[number % N];
}

// Few addresses, so that they meet, and meet twice.
json address(std::uint8_t number) {
    if (number % 16 == 15) return nullptr;
    char text[18];
    std::snprintf(text, sizeof text, "02:00:00:00:00:%02x", number % 16U);
    return text;
}

json port(input* in, std::size_t number) {
    const std::uint8_t flags = in->octet();
    return {{"name", one_of(NAMES, static_cast<std::uint8_t>(number + flags / 64))},
            {"address", address(in->octet())},
            {"neighbour", address(in->octet())},
            {"received_quality", one_of(QUALITIES, in->octet())},
            {"sent_quality", one_of(QUALITIES, in->octet())},
            {"synce_enabled", (flags & 1) == 0},
            {"link_up", (flags & 2) == 0},
            {"information_in", in->octet()}};
}

json clock(input* in) {
    const std::uint8_t flags = in->octet(), words = in->octet();
    json made = {{"running_state", one_of(STATES, flags)},
                 {"synce_enabled", (flags & 4) == 0},
                 {"dpll_state", one_of(STATES, flags / 8)},
                 {"current_quality", one_of(QUALITIES, words)},
                 {"local_quality", one_of(QUALITIES, words / 16)},
                 {"source", flags & 64 ? json() : json(one_of(NAMES, flags / 32))},
                 {"ports", json::array()}};
    for (std::size_t i = 0; i < (flags & 128 ? 3 : 2); ++i) made["ports"].push_back(port(in, i));
    return made;
}

void take(const std::string& text, watched& one, told_values& told) {
    auto report = std::make_shared<switch_report>();
    auto values = std::make_shared<reported_values>();
    one.error = read_json(text, *report, *values);
    one.how = one.error.empty() ? answer::ok : answer::garbage;
    check_text(one.error);
    if (!one.error.empty()) return;
    one.answered_ms = 1'700'000'000'000;
    one.report = report;
    told[one.name] = values;
}

void run_round(input* in, std::vector<watched>& switches, told_values& told) {
    for (watched& one : switches) {
        const std::uint8_t what = in->octet();
        if (what % 8 == 1) one.how = answer::silent;
        if (what % 8 == 2) take("{}", one, told);
        if (what % 8 < 3 && one.report) continue;
        take(clock(in).dump(), one, told);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1 || size > 4096) return 0;
    input in = {data + 1, size - 1};
    std::vector<watched> switches(data[0] % 8 ? data[0] % 8 : 1);
    for (std::size_t i = 0; i < switches.size(); ++i)
        switches[i].name = std::string("S") + static_cast<char>('0' + i);
    network_builder builder;
    network before;
    told_values told;
    const bool described = data[0] % 8 != 0;
    if (!described) take(std::string(in.at, in.at + in.left), switches[0], told);
    bool last = false;
    for (int rounds = 1; !last; ++rounds) {
        if (described) run_round(&in, switches, told);
        last = rounds > 1 && (in.left == 0 || rounds == 4);
        network net = builder.next(switches, 1'700'000'000'000 + rounds, rounds != 3);
        checker(net).check();
        if (last) check_all(net, before, told);
        before = std::move(net);
    }
    return 0;
}
