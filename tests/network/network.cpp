#include "network/network.h"

#include <algorithm>
#include <array>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <utility>

namespace {

constexpr nanoseconds US = 1000;

class network {
  public:
    explicit network(const network_plan& plan) : plan_(plan), random_(plan.seed) {
        around_.now = [this] { return now_; };
        around_.send = [this](network_switch* from, std::uint32_t port, const std::uint8_t* pdu) {
            carry(from->id, port, pdu);
        };
        around_.wake = [this](const network_switch* who, nanoseconds at) {
            if (at >= wake_at_[who->id]) return;
            wake_at_[who->id] = at;
            happens(at, who->id, [this, at](network_switch& s) {
                if (wake_at_[s.id] != at) return;  // it was told to wake earlier
                wake_at_[s.id] = NEVER;
                s.woken();
            });
        };
        wake_at_.assign(plan.switches.size(), NEVER);
        ends_.resize(plan.switches.size());
        for (std::uint32_t i = 0; i < plan.links.size(); ++i) {
            const network_link& link = plan.links[i];
            const std::uint32_t at_a = add_end(link.a, i, link.b, link.at_a);
            const std::uint32_t at_b = add_end(link.b, i, link.a, link.at_b);
            ends_[link.a].back().peer_port = at_b;
            ends_[link.b].back().peer_port = at_a;
        }
        cables_.resize(plan.links.size());
        for (cable& c : cables_) {
            c.delay = (50 + random_() % 150) * US;
            result_.longest_delay = std::max(result_.longest_delay, c.delay);
        }
    }

    network_result run() {
        for (std::uint32_t i = 0; i < plan_.switches.size(); ++i) {
            std::vector<port_settings> ports;
            for (const auto& e : ends_[i]) ports.push_back(e.settings);
            switches_.push_back(std::make_unique<network_switch>(i, plan_.switches[i], ports, &around_));
            happens(now_ + random_() % (1000 * NS_PER_MS), i, [](network_switch& s) { s.start(); });
        }
        for (const network_event& e : plan_.events) {
            const nanoseconds at = START + e.at_ms * NS_PER_MS;
            if (e.what == EVENT_QUALITY)
                happens(at, e.subject,
                        [=](network_switch& s) { s.set_own_quality(static_cast<std::uint8_t>(e.value)); });
            else
                events_.emplace(at, [this, e] { happens_to(e); });
            last_event_ = std::max(last_event_, at);
        }
        const nanoseconds stop = START + plan_.end_ms * NS_PER_MS;
        while (!events_.empty() && events_.begin()->first <= stop) {
            const auto next = events_.extract(events_.begin());
            now_ = next.key();
            next.mapped()();
        }
        now_ = stop;
        judge_end();
        return result_;
    }

  private:
    static constexpr nanoseconds START = 1000 * NS_PER_S, NEVER = UINT64_MAX;

    struct end {  // of a link, at a switch's port
        std::uint32_t link, peer, peer_port;
        port_settings settings;
        std::uint64_t second, sent;  // in this second
    };
    struct cable {
        bool up = true;
        bool unheard[2] = {}, seen_up[2] = {true, true};  // of a, of b
        std::uint32_t epoch = 0;                          // frames of an earlier one are lost
        nanoseconds delay = 0;
    };

    std::uint32_t add_end(std::uint32_t who, std::uint32_t link, std::uint32_t peer,
                          const port_settings& settings) {
        ends_[who].push_back({link, peer, 0, settings, 0, 0});
        return static_cast<std::uint32_t>(ends_[who].size());
    }

    // Something that a switch may react to. Those of one moment come in the order in which they were told.
    template <typename What>
    void happens(nanoseconds at, std::uint32_t who, What what) {
        events_.emplace(at, [=, this] {
            if (now_ < frozen_[who]) return happens(frozen_[who], who, what);
            what(*switches_[who]);
            look_at(who);
        });
    }

    void happens_to(const network_event& e) {
        switch (e.what) {
            case EVENT_UNHEARD:
                cables_[e.subject / 2].unheard[e.subject % 2] = true;
                break;
            case EVENT_HALF_CUT:
                set_cable(e.subject / 2, false, e.subject % 2 ? END_B : END_A);
                break;
            case EVENT_FREEZE:
                frozen_[e.subject] = now_ + e.value * NS_PER_MS;
                break;
            case EVENT_RESTART:
                restart(e.subject, e.value);
                break;
            default:
                set_cable(e.subject, e.what == EVENT_REPAIR, END_A | END_B);
        }
    }

    void restart(std::uint32_t who, std::uint32_t after_ms) {
        if (!switches_[who]->started()) return;
        std::vector<port_settings> ports;
        for (const auto& e : ends_[who]) ports.push_back(e.settings);
        switches_[who] = std::make_unique<network_switch>(who, plan_.switches[who], ports, &around_);
        for (std::uint32_t port = 1; port <= ports.size(); ++port) {
            const std::uint32_t link = ends_[who][port - 1].link;
            switches_[who]->link(port, cables_[link].seen_up[plan_.links[link].b == who]);
        }
        wake_at_[who] = NEVER;
        seen_[who] = {NOBODY, QL_DNU};
        find_loops(who);
        happens(now_ + after_ms * NS_PER_MS, who, [](network_switch& s) {
            if (!s.started()) s.start();
        });
    }

    // The ends see it on their own, within 10 ms.
    static constexpr unsigned END_A = 1, END_B = 2;
    void set_cable(std::uint32_t link, bool up, unsigned ends) {
        cable& c = cables_[link];
        if (up) c.unheard[0] = c.unheard[1] = false;
        if (c.up == up && c.seen_up[0] == up && c.seen_up[1] == up) return;
        c.up = up;
        ++c.epoch;
        for (const unsigned at_b : {0U, 1U}) {
            if (!(ends & (at_b ? END_B : END_A)) || std::exchange(c.seen_up[at_b], up) == up) continue;
            const std::uint32_t who = at_b ? plan_.links[link].b : plan_.links[link].a;
            for (std::uint32_t port = 1; port <= ends_[who].size(); ++port)
                if (ends_[who][port - 1].link == link)
                    happens(now_ + random_() % (10 * NS_PER_MS), who, [=, &c](network_switch& s) {
                        if (c.seen_up[at_b] == up) s.link(port, up);
                    });
        }
    }

    void carry(std::uint32_t from, std::uint32_t port, const std::uint8_t* pdu) {
        end& e = ends_[from][port - 1];
        if (const std::uint64_t second = now_ / NS_PER_S; second != std::exchange(e.second, second))
            e.sent = 0;
        result_.busiest_second = std::max(result_.busiest_second, static_cast<std::uint32_t>(++e.sent));
        const cable& c = cables_[e.link];
        if (!c.up || c.unheard[plan_.links[e.link].b == from] ||
            (plan_.loss > 0 && std::uniform_real_distribution<>()(random_) < plan_.loss))
            return;
        std::array<std::uint8_t, esmc::SIZE> frame;
        std::copy_n(pdu, esmc::SIZE, frame.begin());
        happens(now_ + c.delay, e.peer, [=, &c, epoch = c.epoch, to = e.peer_port](network_switch& s) {
            if (c.epoch == epoch && s.started()) s.hear(to, frame.data());
        });
    }

    // ---- Who follows whom ----

    static constexpr std::uint32_t NOBODY = UINT32_MAX;

    std::uint32_t followed_by(std::uint32_t who) const {
        const std::uint32_t port = switches_[who]->started() ? switches_[who]->source() : 0;
        return port ? ends_[who][port - 1].peer : NOBODY;
    }

    void look_at(std::uint32_t who) {
        if (!switches_[who]->started()) return;
        const std::uint32_t source = followed_by(who);
        const std::uint8_t quality = switches_[who]->quality();
        auto& seen = seen_[who];
        if (seen.first == source && seen.second == quality) return;
        const bool moved = seen.first != source;
        seen = {source, quality};
        if (now_ > last_event_) result_.last_change = now_ - last_event_;
        if (moved) find_loops(who);
    }

    // A loop that opened or closed just now goes through the switch that changed its source.
    void find_loops(std::uint32_t changed) {
        for (auto it = loops_.begin(); it != loops_.end();) {
            if (!it->first.contains(changed)) {
                ++it;
                continue;
            }
            loop_ended(*it);
            it = loops_.erase(it);
        }
        std::set<std::uint32_t> members;
        for (std::uint32_t at = changed; at != NOBODY && members.insert(at).second;) {
            at = followed_by(at);
            if (at != changed) continue;
            loops_.emplace(members, now_);
            ++result_.loops;
            return;
        }
    }

    void loop_ended(const std::pair<const std::set<std::uint32_t>, nanoseconds>& loop) {
        const nanoseconds lasted = now_ - loop.second;
        result_.longest_loop = std::max(result_.longest_loop, lasted);
        if (std::ranges::any_of(loop.first, [this](std::uint32_t i) { return plan_.switches[i].guard; }))
            result_.longest_guarded_loop = std::max(result_.longest_guarded_loop, lasted);
    }

    // ---- What is left at the end ----

    void judge_end() {
        result_.standing_loops = static_cast<std::uint32_t>(loops_.size());
        for (const auto& loop : loops_) loop_ended(loop);
        const std::map<std::uint32_t, std::uint8_t> best = reach_of_masters();
        for (const auto& who : switches_) {
            if (!who->started()) continue;
            result_.holds += static_cast<std::uint32_t>(who->guard().holds);
            result_.refused += static_cast<std::uint32_t>(who->guard().refused);
            result_.longest_hold = std::max(result_.longest_hold, who->guard().longest_hold);
            if (who->settings.master) continue;
            if (claims(*who) && who->quality() != quality_behind(who->id)) ++result_.false_claims;
            if (best.contains(who->id) && who->source() == 0) ++result_.without_source;
            if (best.contains(who->id) && who->quality() > best.at(who->id)) ++result_.without_best;
            if (who->source() && !hears(who->id, ends_[who->id][who->source() - 1])) ++result_.dead_sources;
        }
    }

    static bool claims(const network_switch& who) { return who.quality() < QL_EEC1; }

    // Of the master at the head of the chain; QL_DNU without one.
    std::uint8_t quality_behind(std::uint32_t who) const {
        for (std::size_t steps = 0; who != NOBODY && steps <= switches_.size(); ++steps) {
            if (plan_.switches[who].master) return switches_[who]->quality();
            who = followed_by(who);
        }
        return QL_DNU;
    }

    // Whether `who` gets anything at this end of a link.
    bool hears(std::uint32_t who, const end& e) const {
        const cable& c = cables_[e.link];
        return c.up && !c.unheard[plan_.links[e.link].a == who] && switches_[e.peer]->started();
    }

    // The best quality of a master that each switch could have, of those that could have one.
    std::map<std::uint32_t, std::uint8_t> reach_of_masters() const {
        std::map<std::uint32_t, std::uint8_t> reached;
        std::vector<std::pair<std::uint32_t, std::uint8_t>> next;
        for (const auto& who : switches_)
            if (who->settings.master && who->started() && who->quality() < QL_EEC1)
                next.emplace_back(who->id, who->quality());
        while (!next.empty()) {
            const auto [who, quality] = next.back();
            next.pop_back();
            const auto known = reached.find(who);
            if (known != reached.end() && known->second <= quality) continue;
            reached[who] = quality;
            for (const end& e : ends_[who]) {
                const bool passed_on = !plan_.switches[e.peer].master && switches_[e.peer]->started();
                if (passed_on && hears(e.peer, ends_[e.peer][e.peer_port - 1]))
                    next.emplace_back(e.peer, quality);
            }
        }
        return reached;
    }

    const network_plan& plan_;
    std::minstd_rand random_;
    network_switch::surroundings around_;
    nanoseconds now_ = START, last_event_ = START;
    std::multimap<nanoseconds, std::function<void()>> events_;
    std::vector<nanoseconds> wake_at_;
    std::map<std::uint32_t, nanoseconds> frozen_;  // until when
    std::vector<std::vector<end>> ends_;           // by switch and port
    std::vector<cable> cables_;
    std::vector<std::unique_ptr<network_switch>> switches_;
    std::map<std::uint32_t, std::pair<std::uint32_t, std::uint8_t>> seen_;
    std::map<std::set<std::uint32_t>, nanoseconds> loops_;  // members, and since when
    network_result result_;
};

}  // namespace

network_result run_network(const network_plan& plan) {
    return network(plan).run();
}
