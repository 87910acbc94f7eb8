// The limit on log lines that others cause. Time is the caller's: what it takes as now from its event loop.
#include "suite/log/limit.h"

#include <cinttypes>
#include <cstdio>

#include "suite/log/log.h"

namespace {

constexpr nanoseconds PERIOD = 60 * NS_PER_S;

}  // namespace

bool log_limit_open(const log_limit* kind, nanoseconds now) {
    return !kind->said || now - kind->last >= PERIOD;
}

void log_limited(log_limit* kind, nanoseconds now, const char* format, ...) {
    va_list args;
    va_start(args, format);
    log_limited_args(kind, now, LOG_LEVEL_WARNING, "", format, args);
    va_end(args);
}

void log_limited_at(log_limit* kind, nanoseconds now, int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    log_limited_args(kind, now, level, "", format, args);
    va_end(args);
}

void log_limited_args(log_limit* kind, nanoseconds now, int level, const char* head, const char* format,
                      va_list args) {
    if (!log_limit_open(kind, now)) {
        ++kind->silent;
        return;
    }
    char text[160];
    std::vsnprintf(text, sizeof text, format, args);
    if (kind->silent)
        log_suite(level, "%s%s (%" PRIu64 " like it since the last line)", head, text, kind->silent);
    else
        log_suite(level, "%s%s", head, text);
    *kind = {true, now, 0};
}
