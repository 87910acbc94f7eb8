// Values by SNMP: a switch's whole MIB with the objects of some ports, as it should be, then what an input
// makes of it. A record is five octets and more: which object, a change of its place, its type, and a number
// or so many octets.
#include "esmcmap/model/read_mib.h"

#include "map_rules.h"

namespace {

using namespace map_rules;

mib_binding binding(std::initializer_list<std::uint32_t> object, mib_type type, std::int64_t number,
                    std::string octets = {}) {
    mib_binding made;
    std::copy(object.begin(), object.end(), made.object.begin());
    made.depth = static_cast<unsigned>(object.size());
    made.type = type;
    made.number = number;
    made.octets = std::move(octets);
    return made;
}

mib_answer whole_mib(unsigned ports) {
    mib_answer answer;
    answer.up_time = 100'000;
    auto& all = answer.bindings;
    all.push_back(binding({1, 0}, mib_type::octets, 0, "00:1B:21:FF:FE:0A:0B:0C"));
    for (std::uint32_t place : {2, 3, 4, 7, 8, 9, 10, 11, 12, 15})
        all.push_back(binding({place, 0}, mib_type::integer, 1));
    for (std::uint32_t object = 1; object <= 7; ++object)
        all.push_back(binding({18, object, 0}, mib_type::integer, 1));
    for (std::uint32_t object = 1; object <= 10; ++object)
        all.push_back(binding({19, object, 0}, mib_type::integer, 2));
    constexpr std::pair<std::uint32_t, std::uint32_t> TABLES[] = {{13, 15}, {20, 12}, {21, 8}, {22, 15}};
    for (std::uint32_t index = 1; index <= ports; ++index) {
        for (const auto& [table, columns] : TABLES)
            for (std::uint32_t column = 1; column <= columns; ++column)
                all.push_back(binding({table, 1, column, index}, mib_type::integer, 1));
        const std::string address = {'\2', 0, 0, 0, 0, static_cast<char>(index)};
        all.push_back(binding({13, 1, 14, index}, mib_type::octets, 0, address));
        all.push_back(binding({24, 1, 1, index}, mib_type::octets, 0, "p" + std::to_string(index)));
        all.push_back(binding({24, 1, 2, index}, mib_type::octets, 0, address));
    }
    return answer;
}

std::string octets_of(input* in, std::size_t count) {
    const const_octets taken = in->take(count);
    return {taken.begin(), taken.end()};
}

void spoil(input* in, mib_answer& answer) {
    const std::size_t which = in->octet() | static_cast<std::size_t>(in->octet()) << 8;
    mib_binding& one = answer.bindings[which % answer.bindings.size()];
    const std::uint8_t place = in->octet();
    if (place & 1) one.object[place / 2 % 4] += place / 8;
    if (place == 254) one.depth = in->octet() % 5;
    const std::uint8_t type = in->octet();
    one.type = static_cast<mib_type>(type % 5);
    const std::uint8_t length = in->octet();
    if (one.type == mib_type::octets) {
        one.octets = octets_of(in, length);
        return;
    }
    one.number = length;
    for (int i = 0; type >= 128 && i < 7; ++i) one.number = one.number << 8 | in->octet();
}

void check_reports(const switch_report& report, const reported_values& values) {
    std::set<std::string> names;
    for (const port_report& port : report.ports) {
        must(!port.name.empty(), "a port has a name");
        check_text(port.name);
        names.insert(port.name);
        must(port.neighbour.empty() || port.neighbour.size() == 17, "an address is one");
    }
    must(values.ports.size() == report.ports.size(), "every port has its values");
    must(report.source.empty() || names.contains(report.source), "the source is a port");
    check_text(report.clock_id);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1 || size > 4096) return 0;
    input in = {data, size};
    mib_answer answer = whole_mib(in.octet() % 4);
    while (in.left) spoil(&in, answer);
    auto report = std::make_shared<switch_report>();
    auto values = std::make_shared<reported_values>();
    report->state = "as before";
    const std::string error = read_mib(answer, *report, *values);
    check_text(error);
    must(error.empty() == (report->state != "as before"),
         "what can't be read leaves the reports as they are");
    if (!error.empty()) return 0;
    check_reports(*report, *values);
    std::vector<watched> switches(2);
    for (watched& one : switches) {
        one.name = &one == switches.data() ? "A" : "B";
        one.how = answer::ok;
        one.answered_ms = 1'700'000'000'000;
        one.report = report;
    }
    network_builder builder;
    const network first = builder.next(switches, 1, true), second = builder.next(switches, 2, true);
    check_all(second, first, {{"A", values}, {"B", values}});
    return 0;
}
