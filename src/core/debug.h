// Debug flags: one process-wide mask that gates what is logged at debug level. Macros test the mask first, so
// that nothing a packet triggers pays for the arguments of a line that is not wanted.
#pragma once

#include <cstdint>

#include "core/records.h"
#include "suite/command/cli.h"
#include "suite/log/log.h"

enum ssm_debug_bit : std::uint32_t {
    SSM_DEBUG_EVENT = 1,
    SSM_DEBUG_CLI = 2,
    SSM_DEBUG_TIMER = 4,
    SSM_DEBUG_PACKET = 8,
    SSM_DEBUG_ALL = 15,
};

extern std::uint32_t ssm_debug;

inline bool ssm_debugging(ssm_debug_bit bit) {
    return __builtin_expect((ssm_debug & bit) != 0, 0);
}

// A line of the daemon: the prefix arguments go before the format's own.
#define SSM_LOG(level, format, ...) \
    log_sys(SSM_LOG_MODULE, level, format, "", ": " __VA_OPT__(, ) __VA_ARGS__)
// The same while a debug bit is set.
#define SSM_TRACE(bit, level, format, ...)                                         \
    do {                                                                           \
        if (ssm_debugging(bit)) SSM_LOG(level, format __VA_OPT__(, ) __VA_ARGS__); \
    } while (0)

// The library's "show debugging", "debug all", "no debug all": op 0 shows, 1 clears, 2 sets.
void ssm_debug_callback(cli* terminal, std::int32_t op, void* arg);
// Registers the callback and clears the event and cli bits.
void ssm_debug_init();
