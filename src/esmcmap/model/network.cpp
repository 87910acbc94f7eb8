// From links to trees: each switch follows at most one other, so that a walk along the sources ends at a root
// or comes round in a loop. What stands against the walk is said: islands, loops, promises that nobody can
// keep.
#include "esmcmap/model/network.h"

#include <algorithm>

#include "esmcmap/model/links.h"
#include "esmcmap/model/quality.h"

namespace esmcmap {

const char* answer_word(answer of) {
    static constexpr const char* WORDS[] = {"waiting", "ok", "silent", "garbage"};
    return WORDS[static_cast<std::size_t>(of)];
}

namespace {

constexpr std::size_t NONE = hearing::NOBODY;

node switch_node(const watched& of) {
    node made;
    made.id = of.name;
    made.how = of.how;
    made.answered_ms = of.answered_ms;
    made.error = of.error;
    made.report = of.report;
    if (of.report) made.peers.resize(of.report->ports.size());
    return made;
}

node stranger_node(const std::string& address) {
    node made;
    made.id = address;
    made.stranger = true;
    return made;
}

class walker {
  public:
    walker(network& of, suspicion& of_before) : net(of), doubts(of_before) {
        for (std::size_t i = 0; i < net.nodes.size(); ++i) index[net.nodes[i].id] = i;
    }

    void walk() {
        find_peers();
        find_upstream();
        find_loops();
        find_roots();
        find_islands();
        find_claims();
        describe_links();
        net.suspicious = doubts.open();
    }

  private:
    network& net;
    suspicion& doubts;
    std::map<std::string, std::size_t> index;
    std::vector<std::size_t> upstream;        // of each node; NONE: nobody
    std::vector<std::string> upstream_heard;  // the quality that it hears there

    void set_peer(const std::string& who, const std::string& port, const std::string& other,
                  const std::string& other_port) {
        node& of = net.nodes[index[who]];
        if (!of.report || port.empty()) return;
        for (std::size_t i = 0; i < of.peers.size(); ++i)
            if (of.report->ports[i].name == port) of.peers[i] = {other, other_port};
    }

    void find_peers() {
        for (const link& between : net.links) {
            set_peer(between.a, between.a_port, between.b, between.b_port);
            set_peer(between.b, between.b_port, between.a, between.a_port);
        }
    }

    static const port_report* source_of(const node& of, std::size_t& place) {
        if (!of.report || of.report->source.empty() || of.report->state == "off") return nullptr;
        const auto& ports = of.report->ports;
        for (place = 0; place < ports.size(); ++place)
            if (ports[place].name == of.report->source) return &ports[place];
        return nullptr;
    }

    void find_upstream() {
        upstream.assign(net.nodes.size(), NONE);
        upstream_heard.resize(net.nodes.size());
        for (std::size_t i = 0; i < net.nodes.size(); ++i) {
            std::size_t place = 0;
            const port_report* source = source_of(net.nodes[i], place);
            if (!source || net.nodes[i].peers[place].node.empty()) continue;
            upstream[i] = index[net.nodes[i].peers[place].node];
            upstream_heard[i] = source->received;
            net.nodes[i].follows = net.nodes[i].peers[place].node;
        }
    }

    // What a silent switch follows is what it followed last: no ground for an alarm.
    bool certain(std::size_t i) const { return net.nodes[i].how == answer::ok; }

    std::vector<std::size_t> circle_from(std::size_t start) const {
        std::vector<std::size_t> way;
        for (std::size_t here = start; here != NONE && certain(here); here = upstream[here]) {
            const auto before = std::find(way.begin(), way.end(), here);
            if (before != way.end()) return {before, way.end()};
            way.push_back(here);
        }
        return {};
    }

    void find_loops() {
        std::set<std::size_t> known;
        for (std::size_t i = 0; i < net.nodes.size(); ++i) {
            const std::vector<std::size_t> circle = circle_from(i);
            if (circle.empty() || !known.insert(*std::min_element(circle.begin(), circle.end())).second)
                continue;
            std::vector<std::string> names;
            std::string all;
            for (const std::size_t member : circle) names.push_back(net.nodes[member].id);
            std::rotate(names.begin(), std::min_element(names.begin(), names.end()), names.end());
            for (const auto& name : names) all += '\n' + name;
            if (!doubts.stands("loop" + all)) continue;
            for (const std::size_t member : circle) net.nodes[member].loop = true;
            net.loops.push_back(std::move(names));
        }
    }

    void find_roots() {
        for (std::size_t i = 0; i < net.nodes.size(); ++i) {
            std::size_t here = i;
            unsigned hops = 0;
            while (upstream[here] != NONE && hops <= net.nodes.size()) {
                here = upstream[here];
                ++hops;
            }
            if (hops > net.nodes.size() || !may_be_root(here)) continue;
            net.nodes[i].root = net.nodes[here].id;
            net.nodes[i].hops = hops;
        }
    }

    // Somebody who has a clock of its own, good or bad. One that follows a port whose other end nobody knows,
    // or a switch without SyncE, is none.
    bool may_be_root(std::size_t i) const {
        const node& of = net.nodes[i];
        if (of.stranger) return true;
        if (!of.report || of.report->state == "off") return false;
        return of.report->source.empty();
    }

    // A clock that is more than its oscillator: that of a master, or a configured or external one.
    static bool own_clock(const switch_report& of) {
        return of.state == "master" || usable_quality(of.local_quality) || of.recovery_input != "synce";
    }

    void find_islands() {
        std::map<std::string, island> found;
        for (node& one : net.nodes) {
            if (one.root.empty()) continue;
            const node& root = net.nodes[index[one.root]];
            if (root.stranger || root.how != answer::ok || own_clock(*root.report)) continue;
            one.island = true;
            island& of = found[root.id];
            of.root = root.id;
            of.state = root.report->state;
            of.switches.push_back(one.id);
        }
        for (auto& [root, of] : found) net.islands.push_back(std::move(of));
    }

    struct worth {
        std::string quality, why;
    };

    static const char* oscillator(const switch_report& of) {
        return oscillator_quality(of.option, of.clock_type == "eeec");
    }

    // What the clock of a switch is worth, whatever it says; an empty quality: nobody can tell.
    worth worth_of(std::size_t i) const {
        const node& one = net.nodes[i];
        const switch_report& of = *one.report;
        if (one.loop) return {"none", "it is in a loop"};
        if (of.state == "lock" && (of.dpll == "holdover" || of.dpll == "freerun"))
            return {oscillator(of), "its clock is in " + of.dpll};
        if (one.root.empty()) return {};
        const std::size_t root = index.at(one.root);
        if (net.nodes[root].stranger) return {heard_of_stranger(i), "it is what the stranger says"};
        const switch_report& clock = *net.nodes[root].report;
        if (net.nodes[root].how != answer::ok) return {};
        if (clock.state == "master") return {clock.quality, "its clock is that of " + one.root};
        if (own_clock(clock))
            return {usable_quality(clock.local_quality) ? clock.local_quality : clock.quality,
                    "its clock is that of " + one.root};
        const std::string whose = root == i ? "its clock" : one.root;
        return {oscillator(clock), whose + " is in " + clock.state};
    }

    std::string heard_of_stranger(std::size_t i) const {
        while (!net.nodes[upstream[i]].stranger) i = upstream[i];
        return upstream_heard[i];
    }

    static std::string best_sent(const switch_report& of) {
        std::string best = "none";
        for (const port_report& port : of.ports)
            if (port.enabled && port.link_up && quality_rank(port.sent) < quality_rank(best))
                best = port.sent;
        return best;
    }

    void find_claims() {
        for (std::size_t i = 0; i < net.nodes.size(); ++i) {
            node& one = net.nodes[i];
            if (one.stranger || !one.report || one.how != answer::ok || one.report->state == "off") continue;
            const std::string says = best_sent(*one.report);
            const worth has = worth_of(i);
            if (has.quality.empty() || !usable_quality(says) ||
                quality_rank(says) >= quality_rank(has.quality))
                continue;
            if (!doubts.stands("claim\n" + one.id)) continue;
            one.claim = true;
            net.claims.push_back({one.id, says, has.quality, has.why});
        }
    }

    // Whether the clock goes from `from` to `to` over this link.
    bool followed(const std::string& from, const std::string& to, const std::string& to_port) const {
        const node& follower = net.nodes[index.at(to)];
        return follower.follows == from && (to_port.empty() || follower.report->source == to_port);
    }

    std::string heard_at(const std::string& who, const std::string& port) const {
        const node& of = net.nodes[index.at(who)];
        if (of.report)
            for (const port_report& one : of.report->ports)
                if (one.name == port) return one.received;
        return {};
    }

    void describe_links() {
        for (link& between : net.links) {
            const std::string at_a = heard_at(between.a, between.a_port),
                              at_b = heard_at(between.b, between.b_port);
            if (followed(between.a, between.b, between.b_port)) between.clock = 'a';
            if (followed(between.b, between.a, between.a_port)) between.clock = 'b';
            const bool better_at_a = quality_rank(at_a) < quality_rank(at_b);
            between.quality = between.clock == 'a'   ? at_b
                              : between.clock == 'b' ? at_a
                              : better_at_a          ? at_a
                                                     : at_b;
            if (between.quality == "none") between.quality.clear();
            const node &a = net.nodes[index[between.a]], &b = net.nodes[index[between.b]];
            between.loop = between.clock && a.loop && b.loop;
        }
    }
};

}  // namespace

void suspicion::begin(bool of_complete_round) {
    complete = of_complete_round;
    now.clear();
    counted.clear();
}

bool suspicion::stands(const std::string& what) {
    now.insert(what);
    if (!(complete ? once : standing).contains(what)) return false;
    counted.insert(what);
    return true;
}

bool suspicion::open() const {
    return now.size() > counted.size();
}

void suspicion::end() {
    if (!complete) return;
    once = now;
    standing = counted;
}

namespace {

void add_nodes(network& net, const std::vector<watched>& switches) {
    std::set<std::string> known;
    for (const watched& one : switches) {
        net.nodes.push_back(switch_node(one));
        known.insert(one.name);
    }
    for (const link& one : net.links)
        for (const std::string& end : {one.a, one.b})
            if (known.insert(end).second) net.nodes.push_back(stranger_node(end));
}

void place_nodes(network& net, layout& places) {
    std::map<std::string, std::size_t> index;
    std::vector<std::string> ids;
    for (const node& one : net.nodes) {
        index[one.id] = ids.size();
        ids.push_back(one.id);
    }
    std::vector<std::pair<std::size_t, std::size_t>> pairs;
    for (const link& one : net.links) pairs.emplace_back(index[one.a], index[one.b]);
    const std::vector<point> at = places.place(ids, pairs, net.t);
    for (std::size_t i = 0; i < at.size(); ++i) net.nodes[i].at = at[i];
}

}  // namespace

network network_builder::next(const std::vector<watched>& switches, std::int64_t now_ms, bool complete) {
    network net;
    net.t = now_ms;
    const std::vector<hearing> heard = who_hears_whom(switches, net.problems);
    net.links = links_of(heard, switches);
    known_links.add_old(net.links, heard, switches);
    add_nodes(net, switches);
    doubts.begin(complete);
    walker(net, doubts).walk();
    doubts.end();
    place_nodes(net, places);
    return net;
}

}  // namespace esmcmap
