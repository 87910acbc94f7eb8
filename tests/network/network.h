// Networks of switches in virtual time: what is connected to what, what happens when, and what came of it. A
// network is plain data that follows from a seed.
#pragma once

#include <cstdint>
#include <vector>

#include "network/switch.h"

struct network_link {
    std::uint32_t a, b;  // switches
    port_settings at_a, at_b;
};

enum event_kind : std::uint8_t {
    EVENT_CUT,
    EVENT_REPAIR,
    EVENT_QUALITY,
    // Of a link's end (subject: twice the link, one more for b). Nothing passes any more: it can't be heard,
    // and with HALF_CUT it alone sees its link go down.
    EVENT_UNHEARD,
    EVENT_HALF_CUT,
    EVENT_FREEZE,  // the switch does nothing for so many ms, and then all that has come meanwhile
    EVENT_RESTART  // it is lost, and starts anew after so many ms
};

struct network_event {
    std::uint32_t at_ms;
    event_kind what;
    std::uint32_t subject;  // link, end, or switch
    std::uint32_t value;    // quality or ms
};

struct network_plan {
    std::vector<switch_settings> switches;
    std::vector<network_link> links;
    std::vector<network_event> events;
    std::uint32_t seed = 0;  // of starting times, delays and losses
    std::uint32_t end_ms = 0;
    double loss = 0;  // share of the frames
};

struct network_result {
    std::uint32_t loops = 0, standing_loops = 0;  // standing: at the end
    nanoseconds longest_loop = 0;
    nanoseconds longest_guarded_loop = 0;  // of those with a switch that has the guard
    std::uint32_t false_claims = 0;        // at the end: better than any master behind it
    std::uint32_t without_source = 0;      // at the end: connected with a master, and following nobody
    std::uint32_t without_best = 0;        // at the end: worth less than a master that is connected
    std::uint32_t dead_sources = 0;        // at the end: followed, where nothing comes from
    nanoseconds last_change = 0;           // after the last event
    std::uint32_t busiest_second = 0;      // PDUs that one port sent
    std::uint32_t holds = 0, refused = 0;
    nanoseconds longest_hold = 0;
    nanoseconds longest_delay = 0;  // of a link
};

network_result run_network(const network_plan& plan);

// ---- Plans ----

enum class network_kind : std::uint8_t { chain, ring, mesh, tree };
// As the table of docs/LOOPS.md has them.
enum class network_means : std::uint8_t {
    nothing,
    own_quality,
    replacing,
    guard,
    half_guard,
    partly,
    adversity
};

network_plan random_plan(network_kind kind, network_means means, std::uint32_t switches, std::uint32_t seed,
                         double loss, std::uint32_t hold_ms);
