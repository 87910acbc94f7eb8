// The daemon's five requests: checked, said in the log in words, and kept as what is wanted.
#pragma once

#include <cstdint>

#include "nsmd/clock/copper.h"
#include "nsmd/clock/dpll.h"
#include "nsmd/server/server.h"

enum class request_effect {
    ignored,  // makes no sense; logged
    clock,    // *wanted changed or was stated again
    source,   // the same, and it says where the clock is to come from
    role,     // *role says what a copper port is to do
};

// `stated`: kinds that this session has stated so far (a bit each), kept by the caller.
request_effect request_take(std::uint16_t type, const std::uint32_t (&words)[NSM_REQUEST_WORDS],
                            const port_table* table, std::uint32_t* stated, dpll_wanted* wanted,
                            copper_role* role);
