// A switch may send from one address on all of its ports, and one address may be that of two switches (a
// copied image). The first leaves open which port is at the other end; the second, which switch: then the
// link is left to a stranger, since a guess would show a network that may not be.
#include "esmcmap/model/links.h"

#include <algorithm>
#include <map>
#include <set>
#include <tuple>

namespace esmcmap {

namespace {

struct end {
    std::size_t who, port;
    bool operator<(const end& other) const { return std::tie(who, port) < std::tie(other.who, other.port); }
};
using address_book = std::map<std::string, std::vector<end>>;

const port_report& port_at(const std::vector<watched>& switches, end of) {
    return switches[of.who].report->ports[of.port];
}

address_book addresses(const std::vector<watched>& switches, std::vector<std::string>& problems) {
    address_book book;
    for (std::size_t who = 0; who < switches.size(); ++who) {
        if (!switches[who].report) continue;
        const auto& ports = switches[who].report->ports;
        for (std::size_t port = 0; port < ports.size(); ++port)
            if (!ports[port].address.empty()) book[ports[port].address].push_back({who, port});
    }
    for (const auto& [address, ends] : book)
        if (ends.front().who != ends.back().who)
            problems.push_back("address " + address + " is that of " + switches[ends.front().who].name +
                               " and of " + switches[ends.back().who].name);
    return book;
}

// Those of the ends that hear this one too, if any does; else all.
std::vector<end> narrowed(const std::vector<end>& ends, end to, const std::vector<watched>& switches) {
    const std::string& address = port_at(switches, to).address;
    std::vector<end> mutual;
    for (const end& one : ends)
        if (!address.empty() && port_at(switches, one).neighbour == address) mutual.push_back(one);
    return mutual.empty() ? ends : mutual;
}

hearing heard_by(end of, const address_book& book, const std::vector<watched>& switches) {
    hearing heard{of.who, of.port, hearing::NOBODY, hearing::NOBODY, {}};
    const std::string& neighbour = port_at(switches, of).neighbour;
    const auto known = book.find(neighbour);
    if (known == book.end()) {
        heard.stranger = neighbour;
        return heard;
    }
    const std::vector<end> ends = narrowed(known->second, of, switches);
    const bool one_switch = ends.front().who == ends.back().who;
    if (!one_switch) {
        heard.stranger = neighbour;
        return heard;
    }
    heard.heard = ends.front().who;
    if (ends.size() == 1) heard.heard_port = ends.front().port;
    return heard;
}

link link_between(const std::string& one, const std::string& one_port, const std::string& other,
                  const std::string& other_port) {
    link made{{}, one, one_port, other, other_port, true, 0, {}, false};
    if (std::tie(other, other_port) < std::tie(one, one_port)) {
        std::swap(made.a, made.b);
        std::swap(made.a_port, made.b_port);
    }
    made.id = made.a + (made.a_port.empty() ? "" : " " + made.a_port) + " ~ " + made.b +
              (made.b_port.empty() ? "" : " " + made.b_port);
    return made;
}

// Two ends that each know only the other's switch: the first one that hears what this one says, and says what
// it hears.
const hearing* fellow_of(const hearing& of, const std::vector<hearing>& heard, const std::set<end>& done,
                         const std::vector<watched>& switches) {
    const hearing* first = nullptr;
    const port_report& mine = port_at(switches, {of.who, of.port});
    for (const hearing& other : heard) {
        const bool open =
            other.who == of.heard && other.heard == of.who && other.heard_port == hearing::NOBODY;
        if (!open || done.contains({other.who, other.port}) || &other == &of) continue;
        const port_report& theirs = port_at(switches, {other.who, other.port});
        if (theirs.received == mine.sent && theirs.sent == mine.received) return &other;
        if (!first) first = &other;
    }
    return first;
}

}  // namespace

std::vector<hearing> who_hears_whom(const std::vector<watched>& switches,
                                    std::vector<std::string>& problems) {
    const address_book book = addresses(switches, problems);
    std::vector<hearing> all;
    for (std::size_t who = 0; who < switches.size(); ++who) {
        if (!switches[who].report) continue;
        const auto& ports = switches[who].report->ports;
        for (std::size_t port = 0; port < ports.size(); ++port) {
            if (!ports[port].enabled || ports[port].neighbour.empty()) continue;
            hearing heard = heard_by({who, port}, book, switches);
            if (heard.heard == who)
                problems.push_back(switches[who].name + " " + ports[port].name + " hears the switch itself");
            else
                all.push_back(std::move(heard));
        }
    }
    return all;
}

std::vector<link> links_of(const std::vector<hearing>& heard, const std::vector<watched>& switches) {
    std::map<std::string, link> links;
    std::set<end> done;
    for (const hearing& one : heard) {
        const std::string &name = switches[one.who].name, &port = port_at(switches, {one.who, one.port}).name;
        if (!done.insert({one.who, one.port}).second) continue;
        std::string other = one.stranger, other_port;
        if (one.heard != hearing::NOBODY) {
            other = switches[one.heard].name;
            std::size_t at = one.heard_port;
            if (at == hearing::NOBODY)
                if (const hearing* fellow = fellow_of(one, heard, done, switches)) at = fellow->port;
            if (at != hearing::NOBODY) {
                done.insert({one.heard, at});
                other_port = port_at(switches, {one.heard, at}).name;
            }
        }
        link made = link_between(name, port, other, other_port);
        links.emplace(made.id, std::move(made));
    }
    std::vector<link> sorted;
    for (auto& [id, made] : links) sorted.push_back(std::move(made));
    return sorted;
}

// A port that hears somebody else has been moved, and a stranger whose address a switch has by now is none.
void link_memory::forget(const std::vector<link>& now, const std::vector<watched>& switches) {
    std::set<std::pair<std::string, std::string>> taken;
    std::set<std::string> addresses;
    for (const link& one : now) {
        if (!one.a_port.empty()) taken.insert({one.a, one.a_port});
        if (!one.b_port.empty()) taken.insert({one.b, one.b_port});
    }
    for (const watched& one : switches)
        if (one.report)
            for (const port_report& port : one.report->ports) addresses.insert(port.address);
    std::erase_if(known, [&](const auto& entry) {
        const link& old = entry.second;
        return taken.contains({old.a, old.a_port}) || taken.contains({old.b, old.b_port}) ||
               addresses.contains(old.a) || addresses.contains(old.b);
    });
}

void link_memory::add_old(std::vector<link>& now, const std::vector<hearing>& heard,
                          const std::vector<watched>& switches) {
    forget(now, switches);
    // What a silent switch said is of the past. A switch whose own end is up believes the last DNU that it
    // heard, so that the end that is down knows better.
    std::set<std::pair<std::string, std::string>> up, down;
    for (const hearing& one : heard)
        if (switches[one.who].how == answer::ok)
            up.insert({switches[one.who].name, port_at(switches, {one.who, one.port}).name});
    for (const watched& one : switches)
        if (one.report && one.how == answer::ok)
            for (const port_report& port : one.report->ports)
                if (!port.link_up) down.insert({one.name, port.name});
    std::map<std::string, link> all = known;
    for (auto& [id, old] : all) old.up = false;
    for (link& one : now) {
        one.up = (up.contains({one.a, one.a_port}) || up.contains({one.b, one.b_port})) &&
                 !down.contains({one.a, one.a_port}) && !down.contains({one.b, one.b_port});
        all[one.id] = one;
    }
    known = std::move(all);
    now.clear();
    for (const auto& [id, one] : known) now.push_back(one);
}

}  // namespace esmcmap
