// The loop guard: whether an offer may lead back to this switch. A timing loop, a circle of switches of which
// each recovers its clock from the next, has no source at all, and tells everybody a quality that nobody has.
//
// The extension's clock identity names the master at the head of a chain and the hop count the place in it. A
// switch remembers for each identity that it passes on the smallest distance that it told anybody, and
// follows only an offer from nearer to the master than that: distances then fall strictly along every chain,
// so that none can close. When only farther offers are left the switch holds over for a while: all behind it
// hear meanwhile that the chain is gone, and what is still offered afterwards does not come from them.
// (Loop-free distance-vector routing knows these two as feasibility condition and hold-down.)
//
// Everything here but ssm_guard_* reads and writes only what it is given.
#pragma once

#include <cstddef>
#include <cstdint>

#include "suite/base/clock.h"

struct ssm_port;
struct thread;

constexpr std::size_t SSM_CLOCK_ID_SIZE = 8;  // EUI-64

constexpr std::uint32_t SSM_GUARD_HOLD_MS = 500, SSM_GUARD_HOLD_MIN = 100, SSM_GUARD_HOLD_MAX = 5000;
// ITU-T G.803 allows chains of 60 clocks.
constexpr std::uint32_t SSM_GUARD_HOPS = 60, SSM_GUARD_HOPS_MIN = 1, SSM_GUARD_HOPS_MAX = 254;
constexpr std::uint8_t SSM_HOPS_MAX = 255;
constexpr nanoseconds SSM_GUARD_ALARM_AFTER = 60 * NS_PER_S;
// The log says the refusal of one port, and a hold, at most so often: a neighbour can bring them about.
constexpr nanoseconds SSM_GUARD_QUIET = 10 * NS_PER_S;

// ---- Distances that neighbours were told ----------------------------------------------------------------

struct ssm_distance {
    std::uint8_t clock_id[SSM_CLOCK_ID_SIZE];
    std::uint8_t hops;      // the smallest that was told
    nanoseconds forget_at;  // 0: it is being told
};

struct ssm_distances {
    std::uint32_t count;
    ssm_distance of[32];
    nanoseconds unsure_until;  // for want of room one was forgotten that counts until then
};

// The distance that an offer of this clock must be below; 256: any offer is proved.
std::uint32_t ssm_distance_limit(const ssm_distances* told, const std::uint8_t* clock_id, nanoseconds now);
// Neighbours are told of this clock at this distance from now on.
void ssm_distance_tell(ssm_distances* told, const std::uint8_t* clock_id, std::uint8_t hops, nanoseconds now);
// Of all clocks but this one (null: of all) they are told no more; what was told counts until `forget_at`.
void ssm_distance_end(ssm_distances* told, const std::uint8_t* but, nanoseconds forget_at);
// What is held back on a port leaves only now: all that ended counts until then at least.
void ssm_distance_extend(ssm_distances* told, nanoseconds forget_at);
// Drops what no longer counts. When the next one goes; 0: none will.
nanoseconds ssm_distance_forget(ssm_distances* told, nanoseconds now);

// ---- The guard of this switch ---------------------------------------------------------------------------

// What neighbours are told; a change of it is an event, as a change of quality is.
struct ssm_told {
    std::uint8_t clock_id[SSM_CLOCK_ID_SIZE];
    std::uint32_t source;  // interface index; 0: none
    std::uint16_t quality;
    std::uint8_t hops;
    bool operator==(const ssm_told&) const = default;
};

struct ssm_guard {
    std::uint32_t enable;
    std::uint32_t hold_ms;
    std::uint32_t hops;  // offers from farther away are refused
    ssm_distances distances;
    ssm_told told;
    bool tell;                  // event PDUs leave at the end of this event
    bool refusing;              // some port's guard_refused_at is set
    thread* timer;              // to the end of the next distance, or null
    thread* alarm;              // to the next offer that has been refused for too long, or null
    nanoseconds holding_since;  // 0: it is not holding
    nanoseconds longest_hold;
    nanoseconds hold_said_at;      // in the log; 0: never
    std::uint64_t refused, holds;  // offers and times
};

enum class ssm_guard_verdict : std::uint8_t {
    follow,
    too_many_hops,
    own_holdover_as_good,  // the offer is no better than this switch's own clock in holdover
    may_lead_back,
};

void ssm_guard_init(ssm_guard* guard);
// Begins anew, after a change of what it depends on: nothing has been told, and all is told at the end of
// this event.
void ssm_guard_restart();
// After a restart took over distances and told state: nobody is told what he has been told already.
void ssm_guard_resume();
// It is on, and so is the extension that it needs.
bool ssm_guard_in_force();
ssm_guard_verdict ssm_guard_judge(const ssm_port* port);
// For the shows: the distance that the port's offer would have to be below (256: any), how long the switch
// will hold on for if nothing proved comes (0: it does not hold), and how long the port's offer, which would
// be preferred to what was chosen, has been refused (0: it is not).
std::uint32_t ssm_guard_limit(const ssm_port* port);
std::uint32_t ssm_guard_hold_left_ms();
std::uint32_t ssm_guard_refused_ms(const ssm_port* port);
// What it has against the port's offer, for people: "may lead back here: 8 hops, ours 3". Empty: nothing.
struct ssm_guard_words {
    char text[48];
};
ssm_guard_words ssm_guard_objection(const ssm_port* port);

// What selection and transmission tell the guard: the candidate that was chosen (null: none), and whether an
// offer was refused that would have been preferred to it.
void ssm_guard_selected(const ssm_port* chosen, bool refused_some);
void ssm_guard_sending(const std::uint8_t* clock_id, std::uint8_t hops, std::uint16_t quality);
void ssm_guard_sent_late();
// At the end of each event: tells the neighbours what has changed.
void ssm_guard_after_event();
