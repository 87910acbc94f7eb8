// What holds of every network that the map shows, whatever switches said. Shared by the map's fuzz targets.
#pragma once

#include <cmath>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "esmcmap/model/network.h"
#include "esmcmap/model/read_json.h"
#include "esmcmap/serve/metrics.h"
#include "esmcmap/serve/records.h"
#include "esmcmap/show/svg.h"
#include "esmcmap/show/text.h"
#include "fuzz/fuzz.h"

namespace map_rules {

using namespace esmcmap;
using nlohmann::json;

inline bool valid_utf8(const std::string& text) {
    try {
        (void)json(text).dump();
        return true;
    } catch (const json::exception&) {
        return false;
    }
}

// `escapes`: colours are not looked at.
inline void check_text(const std::string& text, bool escapes = false) {
    must(valid_utf8(text), "a text is UTF-8");
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto octet = static_cast<unsigned char>(text[i]);
        const bool latin =
            octet == 0xc2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xa0;
        must((octet >= ' ' && octet != 0x7f && !latin) || octet == '\n' || (escapes && octet == '\033'),
             "a text has no control characters but line ends");
    }
}

// Elements are closed in their order; what stands outside of tags has no mark of one.
inline void check_drawing(const std::string& svg) {
    check_text(svg);
    std::vector<std::string> open;
    for (std::size_t at = svg.find('<'); at != svg.npos; at = svg.find('<', at + 1)) {
        const std::size_t end = svg.find('>', at);
        must(end != svg.npos, "a tag ends");
        const std::string tag = svg.substr(at + 1, end - at - 1);
        must(tag.find('<') == tag.npos, "a tag has none inside");
        const std::string name = tag.substr(tag[0] == '/', tag.find_first_of(" \n/", 1) - (tag[0] == '/'));
        if (tag[0] == '/') {
            must(!open.empty() && open.back() == name, "what is closed was opened last");
            open.pop_back();
        } else if (tag.back() != '/' && tag[0] != '?' && tag[0] != '!') {
            open.push_back(name);
        }
    }
    must(open.empty(), "all is closed");
}

inline void check_metrics(const std::string& text) {
    check_text(text);
    must(text.ends_with("# EOF\n"), "metrics have an end");
    std::set<std::string> samples;
    for (std::size_t at = 0, end; (end = text.find('\n', at)) != text.npos; at = end + 1) {
        const std::string line = text.substr(at, end - at);
        if (line.starts_with('#')) continue;
        const std::size_t value = line.rfind(' ');
        must(value != line.npos && samples.insert(line.substr(0, value)).second, "a sample is there once");
        char* rest = nullptr;
        must(std::isfinite(std::strtod(line.c_str() + value, &rest)) && !*rest, "its value is a number");
    }
}

class checker {
  public:
    explicit checker(const network& of) : net(of) {
        for (const node& one : net.nodes) {
            must(nodes.emplace(one.id, &one).second, "a node is there once");
            must(std::isfinite(one.at.x) && std::isfinite(one.at.y), "a node has its place");
        }
    }

    void check() const {
        for (const node& one : net.nodes) check_node(one);
        std::set<std::string> links;
        for (const esmcmap::link& one : net.links) {
            must(links.insert(one.id).second, "a link is there once");
            must(nodes.contains(one.a) && nodes.contains(one.b) && one.a != one.b, "a link joins two nodes");
        }
        check_loops();
        for (const island& one : net.islands)
            for (const std::string& name : one.switches)
                must(at(name).root == one.root && at(name).island, "an island has one root");
        for (const claim& one : net.claims) must(at(one.who).claim, "who claims is marked");
    }

  private:
    const network& net;
    std::map<std::string, const node*> nodes;

    const node& at(const std::string& id) const {
        const auto found = nodes.find(id);
        must(found != nodes.end(), "who is named is there");
        return *found->second;
    }

    void check_node(const node& one) const {
        must(one.peers.size() == (one.report ? one.report->ports.size() : 0),
             "a port has its place for a peer");
        for (const peer& other : one.peers)
            if (!other.node.empty()) must(at(other.node).id != one.id, "nobody is his own peer");
        if (!one.follows.empty())
            must(!one.report->source.empty() && at(one.follows).id != one.id, "who follows has a source");
        if (one.root.empty()) return;
        const node* here = &one;
        for (unsigned hops = one.hops; hops > 0; --hops) here = &at(here->follows);
        must(here->id == one.root && here->follows.empty(), "so many hops lead to the root");
    }

    void check_loops() const {
        std::size_t marked = 0, members = 0;
        for (const node& one : net.nodes) marked += one.loop;
        for (const auto& loop : net.loops) {
            members += loop.size();
            for (std::size_t i = 0; i < loop.size(); ++i)
                must(at(loop[i]).loop && at(loop[i]).follows == loop[(i + 1) % loop.size()],
                     "a loop is a circle");
        }
        must(marked == members, "all of a loop are marked, and nobody else");
    }
};

// All that is shown of a network, and what a viewer of the one before gets.
inline void check_shown(const network& net, const network& before) {
    picture now = picture_of(net, 1000), old = picture_of(before, 1000), read;
    now.changes = changes_between(before, net);
    const std::string whole = whole_json(now);
    must(json::parse(whole).at("nodes").size() == net.nodes.size(), "the state is JSON");
    must(read_picture(whole, read).empty() && !share(read, now), "a state reads as it was written");
    must(json::parse(difference_json(now, old)).is_object(), "a difference is JSON");
    for (const change& one : now.changes) check_text(one.text);
    check_text(text_map(net, false));
    check_text(text_map(net, true), true);
    check_drawing(svg_map(net));
}

inline void check_all(const network& net, const network& before, const told_values& told) {
    checker(net).check();
    check_shown(net, before);
    check_metrics(metrics_text(net, told, 0.5));
}

}  // namespace map_rules
