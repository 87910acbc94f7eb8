// The command line of nsmd.
#pragma once

#include <cstdint>

#include "nsmd/clock/sim.h"
#include "nsmd/dpll/kernel.h"
#include "nsmd/links/watch.h"
#include "suite/rights/user.h"

constexpr std::size_t NSMD_PATTERNS_MAX = 64;
constexpr std::size_t NSMD_SOURCE_CODES_MAX = 256;

enum class dpll_kind { automatic, kernel, simulated, none };

// The hardware side's code for a reference, by interface index.
struct source_code {
    std::uint32_t ifindex;
    std::uint32_t code;
};

// Texts point into the argument vector.
struct nsmd_options {
    const char* patterns[NSMD_PATTERNS_MAX];
    std::size_t pattern_count;
    source_code source_codes[NSMD_SOURCE_CODES_MAX];
    std::size_t source_code_count;
    dpll_kind dpll;
    dpll_sim_options sim;
    dpll_kernel_options kernel;
    link_poll poll;
    std::uint32_t grace_s;  // how long the hardware is left alone after the daemon vanished
    int log_level;
    rights_user user;  // its name null: none given
    bool daemonize;
};

enum class options_result { run, help, version, status, probe, bad };

// Fills *out, defaults included. `bad` has been said on standard error.
options_result nsmd_options_parse(int argc, char** argv, nsmd_options* out);
void nsmd_options_usage(const char* progname);  // on standard output

// The code of a reference in reports to the daemon: as configured, else the one that the daemon's own table
// turns back into this interface, else 0.
std::uint32_t nsmd_source_code(const nsmd_options& options, std::uint32_t ifindex);
