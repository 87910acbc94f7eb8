// The system's clocks, read in suite/base/clock.cpp and nowhere else.
#pragma once

#include <cstdint>

using nanoseconds = std::uint64_t;

constexpr nanoseconds NS_PER_MS = 1'000'000;
constexpr nanoseconds NS_PER_S = 1'000'000'000;

nanoseconds monotonic_now();  // CLOCK_MONOTONIC
nanoseconds wall_now();       // CLOCK_REALTIME, since the epoch
