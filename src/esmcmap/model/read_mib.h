// A switch's answer by SNMP: what a walk of its MIB (ESMC-SSM-MIB) brought, read into the same reports as its
// JSON. The values are anything at all: an agent may be no switch's.
//
// Not in the MIB, and so left unknown: why there is no source and why a port is not it; identity and hops of
// the clock that is received; what the hardware tells of its pins and quality; whether the loop guard is in
// force; the count of changes, and some settings. A forced quality reads without its enhanced code, the
// quality of a switch that has none as do not use, times in whole hundredths of a second.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "esmcmap/model/report.h"

namespace esmcmap {

enum class mib_type : std::uint8_t { integer, unsigned_32, counter_64, octets, other };

struct mib_binding {
    // Behind the module's node: {place, 0}, {group, object, 0} or {table, 1, column, index}.
    std::array<std::uint32_t, 4> object = {};
    unsigned depth = 0;  // how many of them there are
    mib_type type = mib_type::other;
    std::int64_t number = 0;  // of the first three; a Counter64 beyond its range stops there
    std::string octets;
};

struct mib_answer {
    std::optional<std::uint32_t> up_time;  // sysUpTime, hundredths of a second
    std::vector<mib_binding> bindings;     // in any order; of two with one name the last one counts
};

// As read_json: empty when it was read, else why not. Objects that this program does not know are passed
// over.
std::string read_mib(const mib_answer& answer, switch_report& report, reported_values& values);

}  // namespace esmcmap
