// Networks of switches in virtual time: what is connected to what, what happens when, and what came of it. A
// network is plain data, so that it can be drawn at random, made smaller while it still fails, and printed as
// a script.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "network/switch.h"

struct network_link {
    std::uint32_t a, b;  // switches
    port_settings at_a, at_b;
};

enum event_kind : std::uint8_t { EVENT_CUT, EVENT_REPAIR, EVENT_QUALITY };

struct network_event {
    std::uint32_t at_ms;
    event_kind what;
    std::uint32_t subject;  // link; of EVENT_QUALITY the switch
    std::uint8_t quality;
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
enum class network_means : std::uint8_t { nothing, own_quality, replacing, guard, half_guard, partly };

network_plan random_plan(network_kind kind, network_means means, std::uint32_t switches, std::uint32_t seed,
                         double loss, std::uint32_t hold_ms);
std::string script_of(const network_plan& plan);
// False when it is none.
bool read_script(std::istream& in, network_plan* plan);

network_plan without_event(const network_plan& plan, std::size_t event);
network_plan without_link(const network_plan& plan, std::uint32_t link);
network_plan without_switch(const network_plan& plan, std::uint32_t number);

// The smallest network that still fails, as far as leaving things out one by one leads.
template <typename Fails>
network_plan shrink(network_plan plan, Fails&& fails) {
    for (bool smaller = true; smaller;) {
        smaller = false;
        const auto attempt = [&](const network_plan& less) {
            if (smaller || !fails(less)) return;
            plan = less;
            smaller = true;
        };
        for (std::uint32_t i = 0; !smaller && i < plan.switches.size(); ++i) attempt(without_switch(plan, i));
        for (std::uint32_t i = 0; !smaller && i < plan.links.size(); ++i) attempt(without_link(plan, i));
        for (std::size_t i = 0; !smaller && i < plan.events.size(); ++i) attempt(without_event(plan, i));
    }
    return plan;
}
