// Networks drawn at random.
#include <random>

#include "network/network.h"

namespace {

class draw {
  public:
    draw(network_kind kind, network_means means, std::uint32_t switches, std::uint32_t seed)
        : means_(means), switches_(switches) {
        random_.seed(seed * 2654435761U + switches);
        plan.seed = seed;
        for (std::uint32_t i = 0; i < switches; ++i) plan.switches.push_back(ordinary(i));
        for (std::uint32_t i = 1; i < switches; ++i)
            connect(kind == network_kind::tree ? below(i) : i - 1, i);
        if (kind == network_kind::ring) connect(switches - 1, 0);
        if (kind == network_kind::mesh) extra_links(switches);
        if (kind == network_kind::tree) extra_links(switches / 4);
        const std::uint32_t masters = 1 + below(2);
        for (std::uint32_t i = 0; i < masters; ++i) add_master(below(switches));
        draw_events(switches);
    }

    network_plan plan;

  private:
    std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(random_() % limit); }

    bool extended() const { return means_ != network_means::nothing; }

    switch_settings ordinary(std::uint32_t number) {
        switch_settings s;
        s.extend = extended() && (means_ != network_means::partly || below(6) != 0);
        s.standard = below(3) == 0;
        if (means_ == network_means::own_quality) {
            s.quality = QL_EEC1;
            s.priority = 1;
        }
        if (means_ == network_means::adversity) draw_supervision(&s);
        s.guard = means_ == network_means::guard || means_ == network_means::adversity ||
                  (means_ == network_means::partly && s.extend) ||
                  (means_ == network_means::half_guard && number % 2 == 0);
        return s;
    }

    void draw_supervision(switch_settings* s) {
        static constexpr std::uint32_t HOLD_OFF_MS[] = {0, 0, 300, 1800}, RESTORE_S[] = {0, 0, 1, 5};
        s->hold_off_ms = HOLD_OFF_MS[below(4)];
        s->restore_s = RESTORE_S[below(4)];
        s->non_revertive = below(3) == 0;
        s->when_locked = below(3) == 0;
    }

    // What is worse than a cable that is cut.
    network_event misfortune(std::uint32_t at) {
        static constexpr std::uint32_t MS[] = {0, 30, 700, 1500, 4000, 6000, 1'000'000};
        const auto links = static_cast<std::uint32_t>(plan.links.size());
        const std::uint32_t end = below(2 * links), who = below(switches_);
        switch (below(4)) {
            case 0:
                return {at, EVENT_UNHEARD, end, 0};
            case 1:
                return {at, EVENT_HALF_CUT, end, 0};
            case 2:
                return {at, EVENT_FREEZE, who, MS[below(6)]};
            default:
                return {at, EVENT_RESTART, who, MS[below(7)]};
        }
    }

    port_settings any_port() {
        static constexpr std::uint8_t PRIORITIES[] = {10, 20, 20, 30};
        return {PRIORITIES[below(4)], false};
    }

    void connect(std::uint32_t a, std::uint32_t b) { plan.links.push_back({a, b, any_port(), any_port()}); }

    void extra_links(std::uint32_t count) {
        const auto switches = static_cast<std::uint32_t>(plan.switches.size());
        for (std::uint32_t i = 0; i < count; ++i) {
            const std::uint32_t a = below(switches), b = below(switches);
            if (a != b) connect(a, b);
        }
    }

    void add_master(std::uint32_t feeds) {
        static constexpr std::uint8_t QUALITIES[] = {QL_PRC, QL_PRC, QL_SSU_A, QL_SSU_B};
        switch_settings master;
        master.master = true;
        master.quality = QUALITIES[below(4)];
        master.extend = extended() && below(3) != 0;
        master.standard = below(2) == 0;
        plan.switches.push_back(master);
        connect(static_cast<std::uint32_t>(plan.switches.size()) - 1, feeds);
        plan.links.back().at_b.replace_clockid = means_ == network_means::replacing;
    }

    // The first events of half of the networks cut the feeds.
    void draw_events(std::uint32_t switches) {
        const auto links = static_cast<std::uint32_t>(plan.links.size());
        const auto masters = static_cast<std::uint32_t>(plan.switches.size()) - switches;
        std::uint32_t at = 15'000;
        const bool adversity = means_ == network_means::adversity;
        const std::uint32_t count = 1 + below(adversity ? 12 : 4);
        for (std::uint32_t i = 0; i < count; ++i) {
            at += 50 + below(below(2) ? 12'000 : 600);
            if (adversity && below(2)) {
                plan.events.push_back(misfortune(at));
                continue;
            }
            const bool feed = below(2) == 0;
            const std::uint32_t link = feed ? links - 1 - below(masters) : below(links);
            if (below(8) == 0)
                plan.events.push_back({at, EVENT_QUALITY, switches + below(masters),
                                       below(2) ? std::uint32_t{QL_SSU_B} : std::uint32_t{QL_PRC}});
            else
                plan.events.push_back({at, below(3) ? EVENT_CUT : EVENT_REPAIR, link, 0});
        }
        plan.end_ms = at + 40'000;
    }

    network_means means_;
    std::uint32_t switches_;  // without the masters
    std::minstd_rand random_;
};

}  // namespace

network_plan random_plan(network_kind kind, network_means means, std::uint32_t switches, std::uint32_t seed,
                         double loss, std::uint32_t hold_ms) {
    network_plan plan = draw(kind, means, switches, seed).plan;
    plan.loss = loss;
    for (switch_settings& s : plan.switches) {
        s.hold_ms = hold_ms;
        if (switches > SSM_GUARD_HOPS) s.hops = SSM_GUARD_HOPS_MAX;
    }
    plan.end_ms += switches / 24 * 10'000;  // a long chain locks one after the other
    return plan;
}
