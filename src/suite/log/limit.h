// Log lines that others can cause: each kind of fault is said once a minute at most, so that a broken peer
// can't fill the log. What was left out is counted in the next line of its kind.
#pragma once

#include <cstdarg>

#include "suite/base/clock.h"

// One a kind of fault, zero at first.
struct log_limit {
    bool said;
    nanoseconds last;
    std::uint64_t silent;  // faults since the last line
};

// Whether a line of this kind would be written: none was less than a minute before `now`.
bool log_limit_open(const log_limit* kind, nanoseconds now);
// Warns while it is open, else counts.
void log_limited(log_limit* kind, nanoseconds now, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
// The same at another level.
void log_limited_at(log_limit* kind, nanoseconds now, int level, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
// The same with `head` in front.
void log_limited_args(log_limit* kind, nanoseconds now, int level, const char* head, const char* format,
                      va_list args);
