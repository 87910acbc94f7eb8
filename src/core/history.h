// What happened to the clock: the last changes of source, advertised quality, running state and of the
// operator's external commands, with when and why. The same goes to the log, one line for each event of the
// loop that changed something; what is more than a line each few seconds is summed up.
#pragma once

#include <cstddef>
#include <cstdint>

#include "suite/base/clock.h"
#include "suite/ports/interface.h"

struct ssm_port;
struct thread;

constexpr std::size_t SSM_HISTORY_SIZE = 128;
constexpr std::uint32_t SSM_HISTORY_LINES = 10;  // in the log, in one minute
constexpr nanoseconds SSM_FLAPPING_TIME = 1800 * NS_PER_S;

enum class ssm_change_kind : std::uint8_t { source, quality, state, command, hardware };
constexpr std::size_t SSM_CHANGE_KINDS = 4;  // the first ones: they have a time of their last change
const char* ssm_change_kind_text(ssm_change_kind kind);

struct ssm_change {
    nanoseconds wall, monotonic;
    ssm_change_kind kind;
    char from[IF_NAME_SIZE], to[IF_NAME_SIZE];  // a port, a quality, a state; "none"; a command's argument
    char why[48];                               // never empty
};

// Where the clock stands, in the records' own terms.
struct ssm_standing {
    const ssm_port* source;
    std::uint32_t quality;
    std::uint32_t device_type, holdover, freerun;
    bool operator==(const ssm_standing&) const = default;
};

struct ssm_history {
    std::uint64_t count;  // of all; the last SSM_HISTORY_SIZE are kept
    ssm_change changes[SSM_HISTORY_SIZE];
    nanoseconds last[SSM_CHANGE_KINDS];  // monotonic, of each kind; 0: none yet; a restart is none
    std::uint8_t state;                  // ssm_running; 0: nothing was recorded yet
    std::uint32_t source;                // interface index; 0: none
    char source_name[IF_NAME_SIZE];
    std::uint32_t lines;  // in the log since the window began, with those that were left out
    thread* window_timer;
};

// At the end of an event in which it changed: records what.
void ssm_history_changed(const ssm_standing& now);
// After a restart took over this history: where the clock stands is no change, that there was one is.
void ssm_history_resumed();
// An external command; `why` says who or what gave it.
void ssm_history_command(const char* from, const char* to, const char* why);
// The error of the hardware's lock began, changed or ended ("none").
void ssm_history_hardware(const char* from, const char* to);
// Number `back` from the newest on (0), or null.
const ssm_change* ssm_history_get(std::size_t back);
// The port became the source more than twice within half an hour.
bool ssm_flapping(const ssm_port* port);
