// The table of system calls: what each program may still do in its loop. Read by filter.cpp, which turns it
// into the kernel's language, and by the tests, which try every row and every number that has none.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "suite/rights/rights.h"

// A call that is allowed whatever its arguments, when the mask is 0; else when the argument, seen through the
// mask, has the value. Several rows for one call are alternatives. Of an argument the lower 32 bits count.
struct rights_call {
    std::uint8_t programs;  // bits of rights_program
    std::uint32_t number;
    std::uint32_t argument = 0, mask = 0, value = 0;
};

// Calls with numbers from here on count alike on all architectures. What the table does not have of them is
// refused with ENOSYS: the C library tries the calls of its time first (clone3, faccessat2) and falls back
// when it is told that they do not exist.
constexpr std::uint32_t RIGHTS_FIRST_NEW_CALL = 424;

constexpr std::size_t RIGHTS_CALLS_MAX = 200;
std::span<const rights_call> rights_calls();
