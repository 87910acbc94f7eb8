// network_test [--networks N] [--from SEED] [--switches S]: what must hold of the loop guard, over N random
// networks (2000) of 4 to 24 switches, or of S; the same networks without the guard are counted beside it.
// What fails is named by its seed: --networks 1 --from SEED runs it alone.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "network/network.h"
#include "suite/log/log.h"

namespace {

double ms(nanoseconds t) {
    return static_cast<double>(t) / static_cast<double>(NS_PER_MS);
}

struct expectation {
    const char* name;
    network_means means;
    double loss;
    std::uint32_t hold_ms;
    unsigned share;                                 // of the networks: one in so many
    std::string (*fault)(const network_result& r);  // empty: none; null: only counted
};

// One frame's way plus the reaction. A PDU that was held back is late by that much more.
std::string fault_everywhere(const network_result& r) {
    const bool held_back = r.busiest_second >= SSM_EVENT_BURST_GUARDED;
    const nanoseconds transient = held_back ? 200 * NS_PER_MS : r.longest_delay + NS_PER_MS;
    if (r.standing_loops) return "a loop stands";
    if (r.longest_loop > transient) return "a loop lasted too long";
    if (r.false_claims) return "a quality is claimed that no master has";
    if (r.without_source) return "a switch could follow a master and does not";
    return {};
}

// Loops may last as long as nobody can know better: until a neighbour's silence is noticed.
std::string fault_in_adversity(const network_result& r) {
    if (r.standing_loops) return "a loop stands";
    if (r.false_claims) return "a quality is claimed that no master has";
    if (r.without_source || r.without_best) return "a switch could follow a better master and does not";
    return r.dead_sources ? "a source is followed that says nothing" : "";
}

std::string fault_with_loss(const network_result& r) {
    if (r.standing_loops) return "a loop stands";
    return r.longest_loop > 2 * NS_PER_S ? "a loop lasted more than 2 s" : "";
}

// A switch without the guard passes a hop count on with its next information PDU, so that a loop counts one
// hop a second at the slowest.
constexpr nanoseconds COUNT_TO_LIMIT = (SSM_GUARD_HOPS + 2) * NS_PER_S;
std::string fault_half(const network_result& r) {
    return r.longest_guarded_loop > COUNT_TO_LIMIT ? "a loop with a guarded switch counted beyond the limit"
                                                   : "";
}

constexpr expectation EXPECTATIONS[] = {
    {"guard", network_means::guard, 0, 500, 1, fault_everywhere},
    {"guard, hold 1500, 1 % of the frames lost", network_means::guard, 0.01, 1500, 4, fault_with_loss},
    {"guard, supervision, one-way losses, restarts", network_means::adversity, 0, 500, 1, fault_in_adversity},
    {"guard on every second switch", network_means::half_guard, 0, 500, 4, fault_half},
    {"guard, every sixth without the extension", network_means::partly, 0, 500, 4, nullptr},
    {"nothing", network_means::nothing, 0, 500, 1, nullptr},
    {"extension, own quality EEC1", network_means::own_quality, 0, 500, 1, nullptr},
    {"extension, replace-clockid at feeds", network_means::replacing, 0, 500, 1, nullptr},
    {"guard, hold 1500, 10 % of the frames lost", network_means::guard, 0.1, 1500, 4, nullptr},
};

constexpr const char* KINDS[] = {"chain", "ring", "mesh", "tree"};

void print(unsigned seed, const std::string& why, const network_result& r) {
    std::printf(
        "seed %u: %s\n  loops %u, standing %u, longest %.3f ms; false claims %u; without source %u; last "
        "change after "
        "%.1f "
        "ms; without the best %u, dead sources %u; holds %u, longest %.1f ms; refused %u; busiest second of "
        "a port %u PDUs\n",
        seed, why.c_str(), r.loops, r.standing_loops, ms(r.longest_loop), r.false_claims, r.without_source,
        ms(r.last_change), r.without_best, r.dead_sources, r.holds, ms(r.longest_hold), r.refused,
        r.busiest_second);
}

// Whether all networks are as expected.
bool run_all(const expectation& e, unsigned networks, unsigned from, unsigned switches) {
    unsigned failed = 0, runs = 0, standing[4] = {};
    network_result worst = {};
    for (unsigned seed = from; seed < from + networks; seed += e.share) {
        const unsigned kind = seed / e.share % 4;
        network_plan plan =
            random_plan(static_cast<network_kind>(kind), e.means,
                        switches ? switches : 4 + seed / e.share / 4 % 21, seed, e.loss, e.hold_ms);
        if (e.fault == fault_half) plan.end_ms += static_cast<std::uint32_t>(COUNT_TO_LIMIT / NS_PER_MS);
        const network_result r = run_network(plan);
        ++runs;
        standing[kind] += r.standing_loops > 0;
        worst.longest_loop = std::max(worst.longest_loop, r.longest_loop);
        worst.longest_guarded_loop = std::max(worst.longest_guarded_loop, r.longest_guarded_loop);
        worst.busiest_second = std::max(worst.busiest_second, r.busiest_second);
        worst.false_claims += r.false_claims;
        worst.without_source += r.without_source;
        const std::string why = e.fault ? e.fault(r) : std::string();
        if (!why.empty() && ++failed <= 3) print(seed, why, r);
    }
    std::printf("%-44s %5u networks; loops stand in", e.name, runs);
    for (unsigned kind = 0; kind < 4; ++kind) std::printf(" %u %ss,", standing[kind], KINDS[kind]);
    std::printf(" longest %.3f ms; %u false claims, %u without source; busiest second %u PDUs",
                ms(worst.longest_loop), worst.false_claims, worst.without_source, worst.busiest_second);
    if (e.fault == fault_half)
        std::printf("; longest with a guarded switch %.1f s, bound %.0f s",
                    ms(worst.longest_guarded_loop) / 1000, ms(COUNT_TO_LIMIT) / 1000);
    std::printf(e.fault ? ": %u FAILED\n" : "\n", failed);
    std::fflush(stdout);
    return failed == 0;
}

}  // namespace

int main(int argc, char** argv) {
    log_use_sink(LOG_SINK_STDERR, false);
    unsigned networks = 2000, from = 1, switches = 0;
    for (int i = 1; i < argc; ++i) {
        const bool more = i + 1 < argc;
        if (more && std::strcmp(argv[i], "--networks") == 0)
            networks = static_cast<unsigned>(std::atoi(argv[++i]));
        else if (more && std::strcmp(argv[i], "--from") == 0)
            from = static_cast<unsigned>(std::atoi(argv[++i]));
        else if (more && std::strcmp(argv[i], "--switches") == 0)
            switches = static_cast<unsigned>(std::atoi(argv[++i]));
        else
            return std::fprintf(stderr, "network_test [--networks N] [--from SEED] [--switches S]\n"), 2;
    }
    bool good = networks > 0;
    for (const expectation& e : EXPECTATIONS) good = run_all(e, networks, from, switches) && good;
    return std::printf(good ? "all networks as they must be\n" : "NOT as they must be\n"), good ? 0 : 1;
}
