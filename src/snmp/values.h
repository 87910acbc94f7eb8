// The values of the SSM module: how the records' codes read in its enumerations, and back, and how a handler
// takes the value of a SET. Pure but for the option in force, which decides how some codes read.
#pragma once

#include <cstddef>
#include <cstdint>

#include "suite/agentx/snmp.h"

// A value on its way to a manager: wide enough for every field of the records.
using ssm_mib_value = std::int64_t;

// What a 32-bit object reads: the one cell, good until the next request.
const void* ssm_mib_cell(ssm_mib_value value);

// Objects of two values: 1 for set, 2 for clear.
constexpr ssm_mib_value ssm_mib_flag(bool set) {
    return set ? 1 : 2;
}

const void* ssm_mib_counter_cell(std::uint64_t value);  // the same of a Counter64

// Always six octets, as MacAddress has: zeros for one that names no station, or null.
const void* ssm_mib_address(const std::uint8_t* address, std::size_t* length);

// Quality of a port: its SSM code, whatever the enhanced code above it says. The current quality of the
// switch differs for "none": it reads as "do not use".
ssm_mib_value ssm_mib_quality(std::uint32_t quality);
ssm_mib_value ssm_mib_current_quality(std::uint32_t code);
// The same where the enhanced code has a number of its own: all that the quality says.
ssm_mib_value ssm_mib_whole_quality(std::uint32_t quality);
const char* ssm_mib_quality_token(std::int32_t value);  // null when the low eight bits name none

// Quality of the switch's own clock: some pairs of code and option have a number.
struct ssm_mib_local_quality {
    std::uint8_t code, option;
};
ssm_mib_value ssm_mib_read_local_quality(std::uint32_t quality, std::uint8_t option);
const ssm_mib_local_quality* ssm_mib_find_local_quality(std::int32_t value);  // null when there is none

// The value of a SET, which must be four octets: false for another length.
[[nodiscard]] bool ssm_mib_take_value(const std::uint8_t* value, std::size_t length, std::int32_t* out);
