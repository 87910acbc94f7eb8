// What a port has heard and said: counters that an operator compares from one look to the next. They cost a
// frame's way a few additions. Times are the loop's, which do not step.
#pragma once

#include <cstddef>
#include <cstdint>

#include "suite/base/clock.h"

struct ssm_port;

constexpr std::size_t SSM_FLAPPING_TIMES = 3;

struct ssm_statistics {
    // What every information PDU touches.
    std::uint64_t information_in;
    nanoseconds last_information;   // 0: none
    nanoseconds shortest, longest;  // between two information PDUs

    nanoseconds first_information, last_event;
    std::uint64_t events_in, dnu_in;  // DNU: of either kind
    std::uint64_t information_out, events_out, dnu_out;
    nanoseconds last_out;
    // Dropped, by reason: without a quality octet; a code that is no quality; an extended TLV of an unknown
    // length (of that PDU the rest was taken).
    std::uint64_t short_frames, bad_qualities, bad_tlvs;
    std::uint64_t timeouts, sources;  // how often it fell silent, and became the source
    nanoseconds quality_changed;      // when the received quality did last; 0: never
    nanoseconds cleared;              // 0: never
    nanoseconds began;                // when the counters last were 0: the port's beginning, or cleared
    nanoseconds
        source_times[SSM_FLAPPING_TIMES];  // when it became the source last, newest first; not cleared
};

// 0 before there are two information PDUs.
nanoseconds ssm_mean_interval(const ssm_statistics& s);

// A PDU that was heard, accepted or DNU, and one that left.
void ssm_statistics_heard(ssm_port* port, const std::uint8_t* pdu);
void ssm_statistics_said(ssm_port* port, const std::uint8_t* pdu);
// Of one port, or of all (null).
void ssm_statistics_clear(ssm_port* port);
