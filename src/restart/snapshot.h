// Where the daemon stands, as octets for the daemon after it: what it was told, what it told, what it waits
// for and what it counted. What is configured is not in it: both read that from the same configuration.
//
// Times are those of the monotonic clock, which goes on over a restart as long as the boot is the same.
#pragma once

#include <cstdint>

#include "suite/base/clock.h"
#include "suite/base/octets.h"
#include "suite/base/text.h"

// What must be as it was for a state to be true still.
struct snapshot_origin {
    char boot[40];         // the kernel's identity of the boot, as text
    nanoseconds saved_at;  // monotonic
    std::uint64_t config;  // hash of the running configuration
};

// False when memory is exhausted.
[[nodiscard]] bool snapshot_write(const snapshot_origin& origin, text_buffer* out);

// Whether these octets are a state that this daemon can read, and where it is from.
[[nodiscard]] bool snapshot_read_origin(const_octets state, snapshot_origin* origin);
// Null: ports, clock hardware and identity are what they were, so that the state can be taken over. Else what
// differs, for people; with a port's name in front where it is one.
struct snapshot_difference {
    char text[64];
};
[[nodiscard]] bool snapshot_agrees(const_octets state, snapshot_difference* difference);
// Makes the records what they were and goes on from there: timers, requests to NSM, the next information PDU
// of each port a second after the last.
void snapshot_apply(const_octets state);
