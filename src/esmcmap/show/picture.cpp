// One function a shape. The forms are a promise to whoever reads --json, and to the page.
#include "esmcmap/show/picture.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace esmcmap {

namespace {

using json = nlohmann::ordered_json;

json or_null(const std::string& text) {
    return text.empty() ? json() : json(text);
}

json port_json(const port_report& port, const peer& other) {
    return {{"name", port.name},
            {"address", or_null(port.address)},
            {"neighbour", or_null(port.neighbour)},
            {"link_up", port.link_up},
            {"received", port.received},
            {"sent", port.sent},
            {"source", port.source},
            {"reason", or_null(port.reason)},
            {"peer", or_null(other.node)},
            {"peer_port", or_null(other.port)}};
}

void add_report(json& object, const node& of) {
    switch_report unknown;
    unknown.state = "unknown";
    unknown.quality = "none";
    const switch_report& report = of.report ? *of.report : unknown;
    object["state"] = report.state;
    object["dpll"] = or_null(report.dpll);
    object["quality"] = report.quality;
    object["clock_id"] = or_null(report.clock_id);
    object["source"] = or_null(report.source);
    object["reason"] = or_null(report.reason);
    json& ports = object["ports"] = json::array();
    for (std::size_t i = 0; i < report.ports.size(); ++i)
        if (report.ports[i].enabled) ports.push_back(port_json(report.ports[i], of.peers[i]));
}

json node_json(const node& of) {
    const bool ok = of.how == answer::ok;
    json object = {
        {"id", of.id}, {"kind", of.stranger ? "stranger" : "switch"}, {"answer", answer_word(of.how)}};
    object["answered"] = ok || of.answered_ms == 0 ? json() : json(of.answered_ms);
    object["error"] = or_null(of.error);
    add_report(object, of);
    object["follows"] = or_null(of.follows);
    object["root"] = or_null(of.root);
    object["hops"] = of.root.empty() ? json() : json(of.hops);
    object["loop"] = of.loop;
    object["island"] = of.island;
    object["claim"] = of.claim;
    object["x"] = of.at.x;
    object["y"] = of.at.y;
    return object;
}

json link_json(const link& of) {
    return {{"id", of.id},
            {"a", of.a},
            {"a_port", or_null(of.a_port)},
            {"b", of.b},
            {"b_port", or_null(of.b_port)},
            {"up", of.up},
            {"clock", of.clock == 'a'   ? json("ab")
                      : of.clock == 'b' ? json("ba")
                                        : json()},
            {"quality", or_null(of.quality)},
            {"loop", of.loop}};
}

piece piece_of(const std::string& id, const json& object) {
    return {id, std::make_shared<const std::string>(object.dump())};
}

bool by_id(const piece& a, const piece& b) {
    return a.id < b.id;
}

bool share_pieces(std::vector<piece>& now, const std::vector<piece>& before) {
    bool differs = now.size() != before.size();
    for (piece& one : now) {
        const auto old = std::lower_bound(before.begin(), before.end(), one, by_id);
        const bool same = old != before.end() && old->id == one.id && *old->json == *one.json;
        if (same) one.json = old->json;
        differs |= !same;
    }
    return differs;
}

void append_list(std::string& text, const char* name, const std::vector<piece>& pieces) {
    text += std::string(",\"") + name + "\":[";
    bool first = true;
    for (const piece& one : pieces) {
        if (!std::exchange(first, false)) text += ',';
        text += *one.json;
    }
    text += ']';
}

std::vector<piece> pieces_that_differ(const std::vector<piece>& now, const std::vector<piece>& before) {
    std::vector<piece> changed;
    for (const piece& one : now) {
        const auto old = std::lower_bound(before.begin(), before.end(), one, by_id);
        if (old == before.end() || old->id != one.id || *old->json != *one.json) changed.push_back(one);
    }
    return changed;
}

std::string ids_that_went(const std::vector<piece>& now, const std::vector<piece>& before) {
    json gone = json::array();
    for (const piece& old : before)
        if (!std::binary_search(now.begin(), now.end(), old, by_id)) gone.push_back(old.id);
    return gone.dump();
}

std::string head(const picture& of) {
    return "{\"t\":" + std::to_string(of.t) + ",\"seq\":" + std::to_string(of.seq) +
           ",\"interval_ms\":" + std::to_string(of.interval_ms);
}

std::string tail(const picture& of) {
    return ",\"loops\":" + of.loops + ",\"islands\":" + of.islands + ",\"claims\":" + of.claims +
           ",\"problems\":" + of.problems + ",\"changes\":" + changes_json(of.changes) + "}";
}

std::vector<piece> read_pieces(const json& list) {
    std::vector<piece> pieces;
    for (const json& object : list) pieces.push_back(piece_of(object.at("id").get<std::string>(), object));
    std::sort(pieces.begin(), pieces.end(), by_id);
    return pieces;
}

const json& array_at(const json& object, const char* name) {
    const json& list = object.at(name);
    if (!list.is_array()) throw std::runtime_error(std::string(name) + " is no list");
    return list;
}

void read_state(const json& object, picture& read) {
    read.t = object.at("t").get<std::int64_t>();
    read.interval_ms = object.value("interval_ms", 1000);
    read.nodes = read_pieces(array_at(object, "nodes"));
    read.links = read_pieces(array_at(object, "links"));
    read.loops = array_at(object, "loops").dump();
    read.islands = array_at(object, "islands").dump();
    read.claims = array_at(object, "claims").dump();
    read.problems = array_at(object, "problems").dump();
    read.loop_count = object["loops"].size();
    read.island_count = object["islands"].size();
    for (const json& one : object["nodes"]) {
        const std::string how = one.at("answer").get<std::string>();
        read.silent_count += how == "silent" || how == "garbage";
    }
    for (const json& one : object.value("changes", json::array()))
        read.changes.push_back({one.at("t").get<std::int64_t>(), 0,
                                one.at("switch").is_null() ? "" : one.at("switch").get<std::string>(),
                                one.at("kind").get<std::string>(), one.at("text").get<std::string>()});
}

}  // namespace

picture picture_of(const network& net, int interval_ms) {
    picture made;
    made.t = net.t;
    made.interval_ms = interval_ms;
    for (const node& one : net.nodes) {
        made.nodes.push_back(piece_of(one.id, node_json(one)));
        made.silent_count += one.how == answer::silent || one.how == answer::garbage;
    }
    for (const link& one : net.links) made.links.push_back(piece_of(one.id, link_json(one)));
    std::sort(made.nodes.begin(), made.nodes.end(), by_id);
    std::sort(made.links.begin(), made.links.end(), by_id);
    made.loops = json(net.loops).dump();
    json islands = json::array(), claims = json::array();
    for (const island& one : net.islands)
        islands.push_back({{"root", one.root}, {"state", one.state}, {"switches", one.switches}});
    for (const claim& one : net.claims)
        claims.push_back({{"switch", one.who}, {"says", one.says}, {"has", one.has}, {"why", one.why}});
    made.islands = islands.dump();
    made.claims = claims.dump();
    made.problems = json(net.problems).dump();
    made.loop_count = net.loops.size();
    made.island_count = net.islands.size();
    return made;
}

bool share(picture& now, const picture& before) {
    const bool nodes = share_pieces(now.nodes, before.nodes), links = share_pieces(now.links, before.links);
    return nodes || links || now.loops != before.loops || now.islands != before.islands ||
           now.claims != before.claims || now.problems != before.problems;
}

std::string whole_json(const picture& of) {
    std::string text = head(of);
    append_list(text, "nodes", of.nodes);
    append_list(text, "links", of.links);
    return text + tail(of);
}

std::string difference_json(const picture& now, const picture& before) {
    std::string text = head(now);
    append_list(text, "nodes", pieces_that_differ(now.nodes, before.nodes));
    append_list(text, "links", pieces_that_differ(now.links, before.links));
    text += ",\"gone\":" + ids_that_went(now.nodes, before.nodes) +
            ",\"gone_links\":" + ids_that_went(now.links, before.links);
    return text + tail(now);
}

std::string changes_json(const std::vector<change>& changes) {
    json list = json::array();
    for (const change& one : changes)
        list.push_back({{"t", one.t},
                        {"seq", one.seq},
                        {"switch", or_null(one.who)},
                        {"kind", one.kind},
                        {"text", one.text}});
    return list.dump();
}

std::string read_picture(std::string_view line, picture& read) {
    // Deeper than a state is, and what is written of it again might need more stack than there is.
    constexpr int DEPTH_LIMIT = 8;
    const auto shallow = [](int depth, json::parse_event_t, const json&) {
        if (depth > DEPTH_LIMIT) throw std::runtime_error("it is nested too deep");
        return true;
    };
    try {
        picture state;
        read_state(json::parse(line, shallow), state);
        read = std::move(state);
        return {};
    } catch (const std::exception& error) {
        return error.what();
    }
}

}  // namespace esmcmap
