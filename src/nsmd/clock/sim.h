// A simulated clock for switches without the hardware, demonstrations and tests.
//
// It starts free-running. A reference (the selected port while its link is up) is locked to after `lock_ms`;
// until then the state stays what it was, free-running or holdover. A change between two live references is
// hitless: the state stays locked, and the source in the report changes once the new one is locked to. A
// clock that was locked and loses its reference is in holdover; after `holdover_s` that has decayed to
// free-running (0: never). The external inputs carry no signal. Switched off, it runs free.
#pragma once

#include "nsmd/clock/dpll.h"

struct dpll_sim_options {
    std::uint32_t lock_ms = 300;
    std::uint32_t holdover_s = 0;
    // Where the clock keeps its registers, so that it outlives nsmd as hardware does; null: nowhere.
    const char* state_file = nullptr;
};

// `self` of the result is null when memory is exhausted. `table` and the state file's name must outlive it.
dpll_backend dpll_sim_create(lib_globals* ctx, const port_table* table, const dpll_sim_options& options,
                             const dpll_sink& sink);
