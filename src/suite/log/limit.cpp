// The limit on log lines that others cause. Time is the caller's: what it takes as now from its event loop.
#include "suite/log/limit.h"

#include <cinttypes>
#include <cstdio>

#include "suite/log/log.h"

namespace {

constexpr nanoseconds PERIOD = 60 * NS_PER_S;

}  // namespace

void log_limited(log_limit* kind, nanoseconds now, const char* format, ...) {
    va_list args;
    va_start(args, format);
    log_limited_args(kind, now, "", format, args);
    va_end(args);
}

void log_limited_args(log_limit* kind, nanoseconds now, const char* head, const char* format, va_list args) {
    if (kind->said && now - kind->last < PERIOD) {
        ++kind->silent;
        return;
    }
    char text[160];
    std::vsnprintf(text, sizeof text, format, args);
    if (kind->silent)
        log_suite(LOG_LEVEL_WARNING, "%s%s (%" PRIu64 " like it since the last line)", head, text,
                  kind->silent);
    else
        log_suite(LOG_LEVEL_WARNING, "%s%s", head, text);
    *kind = {true, now, 0};
}
