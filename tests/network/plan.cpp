// Networks drawn at random, made smaller, and written down.
#include <algorithm>
#include <istream>
#include <random>
#include <sstream>

#include "core/ql.h"
#include "network/network.h"

namespace {

class draw {
  public:
    draw(network_kind kind, network_means means, std::uint32_t switches, std::uint32_t seed) : means_(means) {
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
        s.extend = extended();
        if (means_ == network_means::own_quality) {
            s.quality = QL_EEC1;
            s.priority = 1;
        }
        s.guard = means_ == network_means::guard || (means_ == network_means::half_guard && number % 2 == 0);
        return s;
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
        plan.switches.push_back(master);
        connect(static_cast<std::uint32_t>(plan.switches.size()) - 1, feeds);
        plan.links.back().at_b.replace_clockid = means_ == network_means::replacing;
    }

    // The first events of half of the networks cut the feeds.
    void draw_events(std::uint32_t switches) {
        const auto links = static_cast<std::uint32_t>(plan.links.size());
        const auto masters = static_cast<std::uint32_t>(plan.switches.size()) - switches;
        std::uint32_t at = 15'000;
        const std::uint32_t count = 1 + below(4);
        for (std::uint32_t i = 0; i < count; ++i) {
            at += 50 + below(below(2) ? 12'000 : 600);
            const bool feed = below(2) == 0;
            const std::uint32_t link = feed ? links - 1 - below(masters) : below(links);
            if (below(8) == 0)
                plan.events.push_back({at, network_event::kind::quality, switches + below(masters),
                                       below(2) ? std::uint8_t{QL_SSU_B} : std::uint8_t{QL_PRC}});
            else
                plan.events.push_back(
                    {at, below(3) ? network_event::kind::cut : network_event::kind::repair, link, 0});
        }
        plan.end_ms = at + 40'000;
    }

    network_means means_;
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

// ---- Making it smaller ----

network_plan without_event(const network_plan& plan, std::size_t event) {
    network_plan less = plan;
    less.events.erase(less.events.begin() + static_cast<std::ptrdiff_t>(event));
    return less;
}

network_plan without_link(const network_plan& plan, std::uint32_t link) {
    network_plan less = plan;
    less.links.erase(less.links.begin() + link);
    std::erase_if(less.events, [link](const network_event& e) {
        return e.what != network_event::kind::quality && e.subject == link;
    });
    for (network_event& e : less.events)
        if (e.what != network_event::kind::quality && e.subject > link) --e.subject;
    return less;
}

network_plan without_switch(const network_plan& plan, std::uint32_t number) {
    network_plan less = plan;
    for (std::uint32_t i = static_cast<std::uint32_t>(plan.links.size()); i-- > 0;)
        if (plan.links[i].a == number || plan.links[i].b == number) less = without_link(less, i);
    less.switches.erase(less.switches.begin() + number);
    for (network_link& link : less.links) {
        link.a -= link.a > number;
        link.b -= link.b > number;
    }
    std::erase_if(less.events, [number](const network_event& e) {
        return e.what == network_event::kind::quality && e.subject == number;
    });
    for (network_event& e : less.events)
        if (e.what == network_event::kind::quality && e.subject > number) --e.subject;
    return less;
}

// ---- Scripts ----

std::string script_of(const network_plan& plan) {
    static constexpr const char* EVENTS[] = {"cut", "repair", "quality"};
    std::ostringstream out;
    out << "network seed " << plan.seed << " end " << plan.end_ms << " loss " << plan.loss << '\n';
    for (const switch_settings& s : plan.switches)
        out << "switch master " << s.master << " quality " << +s.quality << " priority " << +s.priority
            << " extend " << s.extend << " guard " << s.guard << " hold " << s.hold_ms << " hops " << s.hops
            << " lock " << s.lock_ms << '\n';
    for (const network_link& l : plan.links)
        out << "link " << l.a << ' ' << l.b << " priority " << +l.at_a.priority << ' ' << +l.at_b.priority
            << " replace " << l.at_a.replace_clockid << ' ' << l.at_b.replace_clockid << '\n';
    for (const network_event& e : plan.events)
        out << "at " << e.at_ms << ' ' << EVENTS[static_cast<int>(e.what)] << ' ' << e.subject << ' '
            << +e.quality << '\n';
    return out.str();
}

bool read_script(std::istream& in, network_plan* plan) {
    std::string line, word, what;
    while (std::getline(in, line)) {
        std::istringstream from(line);
        std::uint32_t quality = 0, priority = 0, other = 0;
        from >> word;
        if (word == "network") {
            from >> word >> plan->seed >> word >> plan->end_ms >> word >> plan->loss;
        } else if (word == "switch") {
            switch_settings s;
            from >> word >> s.master >> word >> quality >> word >> priority >> word >> s.extend >> word >>
                s.guard >> word >> s.hold_ms >> word >> s.hops >> word >> s.lock_ms;
            s.quality = static_cast<std::uint8_t>(quality);
            s.priority = static_cast<std::uint8_t>(priority);
            plan->switches.push_back(s);
        } else if (word == "link") {
            network_link l = {};
            from >> l.a >> l.b >> word >> priority >> other >> word >> l.at_a.replace_clockid >>
                l.at_b.replace_clockid;
            l.at_a.priority = static_cast<std::uint8_t>(priority);
            l.at_b.priority = static_cast<std::uint8_t>(other);
            plan->links.push_back(l);
        } else if (word == "at") {
            network_event e = {};
            from >> e.at_ms >> what >> e.subject >> quality;
            e.what = what == "cut"      ? network_event::kind::cut
                     : what == "repair" ? network_event::kind::repair
                                        : network_event::kind::quality;
            e.quality = static_cast<std::uint8_t>(quality);
            plan->events.push_back(e);
        }
        if (from.fail()) return false;
    }
    const auto known = [plan](std::uint32_t i) { return i < plan->switches.size(); };
    return std::ranges::all_of(plan->links,
                               [&](const network_link& l) { return known(l.a) && known(l.b); }) &&
           std::ranges::all_of(plan->events, [&](const network_event& e) {
               return e.what == network_event::kind::quality ? known(e.subject)
                                                             : e.subject < plan->links.size();
           });
}
