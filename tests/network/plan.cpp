// Networks drawn at random, made smaller, and written down.
#include <algorithm>
#include <istream>
#include <random>
#include <sstream>

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
        s.extend = extended() && (means_ != network_means::partly || below(6) != 0);
        s.standard = below(3) == 0;
        if (means_ == network_means::own_quality) {
            s.quality = QL_EEC1;
            s.priority = 1;
        }
        s.guard = means_ == network_means::guard || (means_ == network_means::partly && s.extend) ||
                  (means_ == network_means::half_guard && number % 2 == 0);
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
        const std::uint32_t count = 1 + below(4);
        for (std::uint32_t i = 0; i < count; ++i) {
            at += 50 + below(below(2) ? 12'000 : 600);
            const bool feed = below(2) == 0;
            const std::uint32_t link = feed ? links - 1 - below(masters) : below(links);
            if (below(8) == 0)
                plan.events.push_back({at, EVENT_QUALITY, switches + below(masters),
                                       below(2) ? std::uint8_t{QL_SSU_B} : std::uint8_t{QL_PRC}});
            else
                plan.events.push_back({at, below(3) ? EVENT_CUT : EVENT_REPAIR, link, 0});
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
    std::erase_if(less.events,
                  [link](const network_event& e) { return e.what != EVENT_QUALITY && e.subject == link; });
    for (network_event& e : less.events)
        if (e.what != EVENT_QUALITY && e.subject > link) --e.subject;
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
        return e.what == EVENT_QUALITY && e.subject == number;
    });
    for (network_event& e : less.events)
        if (e.what == EVENT_QUALITY && e.subject > number) --e.subject;
    return less;
}

// ---- Scripts ----

namespace {

// One line each; what is visited is written and read in the same order.
template <typename V>
void visit(network_plan& p, V&& v) {
    v("seed", p.seed), v("end", p.end_ms), v("loss", p.loss);
}
template <typename V>
void visit(switch_settings& s, V&& v) {
    v("master", s.master), v("quality", s.quality), v("priority", s.priority), v("extend", s.extend);
    v("standard", s.standard), v("guard", s.guard), v("hold", s.hold_ms), v("hops", s.hops),
        v("lock", s.lock_ms);
}
template <typename V>
void visit(network_link& l, V&& v) {
    v("from", l.a), v("priority", l.at_a.priority), v("replace", l.at_a.replace_clockid);
    v("to", l.b), v("priority", l.at_b.priority), v("replace", l.at_b.replace_clockid);
}
template <typename V>
void visit(network_event& e, V&& v) {
    v("at", e.at_ms), v("what", e.what), v("subject", e.subject), v("quality", e.quality);
}

template <typename Record>
void write(std::ostream& out, const char* kind, Record record) {
    out << kind;
    visit(record, [&out](const char* name, auto value) { out << ' ' << name << ' ' << +value; });
    out << '\n';
}

template <typename Record>
Record read(std::istream& in) {
    Record record = {};
    visit(record, [&in](const char*, auto& value) {
        std::string name;
        double number = 0;
        in >> name >> number;
        value = static_cast<std::remove_reference_t<decltype(value)>>(number);
    });
    return record;
}

}  // namespace

std::string script_of(const network_plan& plan) {
    std::ostringstream out;
    write(out, "network", plan);
    for (const switch_settings& s : plan.switches) write(out, "switch", s);
    for (const network_link& l : plan.links) write(out, "link", l);
    for (const network_event& e : plan.events) write(out, "event", e);
    return out.str();
}

bool read_script(std::istream& in, network_plan* plan) {
    for (std::string kind; in >> kind && in.good();) {
        if (kind == "network")
            *plan = read<network_plan>(in);
        else if (kind == "switch")
            plan->switches.push_back(read<switch_settings>(in));
        else if (kind == "link")
            plan->links.push_back(read<network_link>(in));
        else if (kind == "event")
            plan->events.push_back(read<network_event>(in));
        else
            return false;
    }
    const auto known = [plan](std::uint32_t i) { return i < plan->switches.size(); };
    return std::ranges::all_of(plan->links, [&](auto& l) { return known(l.a) && known(l.b); }) &&
           std::ranges::all_of(plan->events, [&](auto& e) {
               return e.what == EVENT_QUALITY ? known(e.subject) : e.subject < plan->links.size();
           });
}
