// What a network is made of answers: links by addresses, trees, loops, islands, promises that nobody can
// keep.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>

#include "esmcmap/model/links.h"
#include "esmcmap/model/network.h"
#include "esmcmap/model/read_json.h"
#include "esmcmap/show/changes.h"
#include "esmcmap/show/picture.h"
#include "esmcmap/show/text.h"

namespace {

using namespace esmcmap;
using testing::Test;

// Names of one letter; the port of a towards b is "b", its address "a:b".
class MapModel : public Test {
  protected:
    std::map<std::string, switch_report> reports;
    std::map<std::string, answer> answers;
    network_builder builder;

    switch_report& make(const std::string& name, const std::string& state, const std::string& quality) {
        switch_report& made = reports[name];
        made.state = state;
        made.quality = quality;
        made.local_quality = "none";
        made.recovery_input = "synce";
        made.dpll = state == "lock" ? "lock" : "holdover";
        answers[name] = answer::ok;
        return made;
    }

    port_report& port(const std::string& of, const std::string& name) {
        for (port_report& one : reports[of].ports)
            if (one.name == name) return one;
        port_report& made = reports[of].ports.emplace_back();
        made.name = name;
        made.address = of + ":" + name;
        made.received = made.sent = "none";
        made.enabled = made.link_up = true;
        return made;
    }

    // `to` hears what `from` sends.
    void hear(const std::string& from, const std::string& to, const std::string& quality) {
        port(from, to).sent = quality;
        port(to, from).neighbour = port(from, to).address;
        port(to, from).received = quality;
    }

    void follow(const std::string& who, const std::string& whom, const std::string& quality) {
        hear(whom, who, quality);
        hear(who, whom, "dnu");
        reports[who].source = whom;
    }

    network look(bool complete = true) {
        std::vector<watched> all;
        for (const auto& [name, report] : reports)
            all.push_back({name, answers[name], 1000, "", std::make_shared<switch_report>(report)});
        return builder.next(all, 5000, complete);
    }

    static const node& at(const network& net, const std::string& id) {
        for (const node& one : net.nodes)
            if (one.id == id) return one;
        throw std::runtime_error("no node " + id);
    }

    void chain_of_three() {
        make("A", "master", "prc");
        make("B", "lock", "prc");
        make("C", "lock", "prc");
        follow("B", "A", "prc");
        follow("C", "B", "prc");
    }
};

TEST_F(MapModel, AChainHasItsRootHopsAndDirections) {
    chain_of_three();
    const network net = look();
    EXPECT_EQ(at(net, "C").root, "A");
    EXPECT_EQ(at(net, "C").hops, 2U);
    ASSERT_EQ(net.links.size(), 2U);
    EXPECT_EQ(net.links[0].id, "A B ~ B A");
    EXPECT_EQ(net.links[0].clock, 'a');
    EXPECT_EQ(net.links[0].quality, "prc");
    EXPECT_TRUE(net.islands.empty() && net.loops.empty() && net.claims.empty() && net.problems.empty());
}

TEST_F(MapModel, ALoopCountsWhenTwoCompleteRoundsShowIt) {
    for (const char* name : {"A", "B", "C"}) make(name, "lock", "eec1");
    follow("A", "B", "eec1");
    follow("B", "C", "eec1");
    follow("C", "A", "eec1");
    EXPECT_TRUE(look().suspicious);
    EXPECT_TRUE(look(false).loops.empty()) << "half a round confirmed it";
    const network net = look();
    ASSERT_EQ(net.loops, (std::vector<std::vector<std::string>>{{"A", "B", "C"}}));
    EXPECT_TRUE(at(net, "B").loop);
    EXPECT_TRUE(at(net, "B").root.empty());
    EXPECT_NE(text_map(net, false).find("LOOP: A follows B follows C follows A"), std::string::npos);
    EXPECT_EQ(look(false).loops.size(), 1U) << "half a round forgot it";
    answers["B"] = answer::silent;  // what it follows is of the past: no ground for an alarm
    EXPECT_TRUE(look().loops.empty());
}

TEST_F(MapModel, AnIslandIsWhoFollowsAClockOfNoMaster) {
    chain_of_three();
    reports["A"].state = "holdover";
    reports["A"].quality = "eec1";
    network net = look();
    ASSERT_EQ(net.islands.size(), 1U);
    EXPECT_EQ(net.islands[0].switches, (std::vector<std::string>{"A", "B", "C"}));
    // An own clock that is configured, or an external one, is a master by another name.
    reports["A"].local_quality = "ssu-a";
    EXPECT_TRUE(look().islands.empty());
    reports["A"].local_quality = "none";
    reports["A"].recovery_input = "bits1";
    EXPECT_TRUE(look().islands.empty());
    reports["A"].recovery_input = "synce";
    answers["A"] = answer::silent;
    EXPECT_TRUE(look().islands.empty());
}

TEST_F(MapModel, AClaimIsMoreThanTheRootHas) {
    chain_of_three();
    hear("B", "C", "prc");
    reports["A"].state = "holdover";  // and still says PRC
    hear("A", "B", "prc");
    (void)look();
    network net = look();
    ASSERT_EQ(net.claims.size(), 2U);
    EXPECT_EQ(net.claims[0].who, "A");
    EXPECT_EQ(net.claims[1].who, "B");
    EXPECT_EQ(net.claims[1].has, "eec1");
    reports["A"].state = "master";
    reports["B"].dpll = "holdover";  // what it hears is good, but its clock does not follow
    (void)look();
    net = look();
    ASSERT_EQ(net.claims.size(), 1U);
    EXPECT_EQ(net.claims[0].why, "its clock is in holdover");
}

TEST_F(MapModel, AStrangerIsARootAndLeavesWhenItsAddressIsKnown) {
    make("B", "lock", "ssu-a");
    port("B", "x").neighbour = "A:B";
    port("B", "x").received = "ssu-a";
    reports["B"].source = "x";
    network net = look();
    EXPECT_TRUE(at(net, "A:B").stranger);
    EXPECT_EQ(at(net, "B").root, "A:B");
    make("A", "master", "prc");
    port("A", "B");
    net = look();
    EXPECT_EQ(net.nodes.size(), 2U);
    EXPECT_EQ(at(net, "B").follows, "A");
}

TEST_F(MapModel, ALinkThatIsCutStaysAndOneThatIsMovedGoes) {
    chain_of_three();
    (void)look();
    port("C", "B").neighbour.clear();
    port("C", "B").link_up = false;
    network net = look();  // B goes on believing the DNU that it heard last
    ASSERT_EQ(net.links.size(), 2U);
    EXPECT_FALSE(net.links[1].up);
    port("C", "B").link_up = true;
    port("B", "C").neighbour.clear();
    net = look();
    ASSERT_EQ(net.links.size(), 2U);
    EXPECT_FALSE(net.links[1].up);
    port("C", "B").neighbour = "A:C";
    port("A", "C").neighbour = "C:B";
    net = look();
    ASSERT_EQ(net.links.size(), 2U);
    EXPECT_EQ(net.links[1].id, "A C ~ C B");
    EXPECT_TRUE(net.links[1].up);
}

TEST_F(MapModel, OneAddressOnAllPortsStillMakesTheRightLinks) {
    make("A", "master", "prc");
    make("B", "lock", "prc");
    // Two links side by side; only one carries the clock.
    for (const char* name : {"1", "2"}) {
        port("A", name).address = "a";
        port("A", name).neighbour = "b";
        port("A", name).sent = "prc";
        port("B", name).address = "b";
        port("B", name).neighbour = "a";
        port("B", name).received = "prc";
    }
    port("B", "2").sent = port("A", "1").received = "dnu";
    port("B", "1").sent = port("A", "2").received = "prc";
    reports["B"].source = "2";
    const network net = look();
    ASSERT_EQ(net.links.size(), 2U);
    EXPECT_EQ(net.links[0].id, "A 1 ~ B 2");
    EXPECT_EQ(net.links[0].clock, 'a');
    EXPECT_EQ(net.links[1].clock, 0);
}

TEST_F(MapModel, AnAddressOfTwoSwitchesIsNobodysAndSaid) {
    make("A", "master", "prc");
    make("B", "master", "prc");
    make("C", "lock", "prc");
    port("A", "x").address = port("B", "x").address = "same";
    port("C", "x").neighbour = "same";
    reports["C"].source = "x";
    const network net = look();
    ASSERT_EQ(net.problems.size(), 1U);
    EXPECT_EQ(at(net, "C").root, "same");
    EXPECT_TRUE(at(net, "same").stranger);
    port("C", "x").neighbour = port("C", "x").address;
    EXPECT_EQ(look().problems.back(), "C x hears the switch itself");
}

TEST_F(MapModel, ChangesAreSaidInWords) {
    chain_of_three();
    const network before = look();
    reports["C"].state = "holdover";
    reports["C"].quality = "eec1";
    reports["C"].source.clear();
    port("C", "B").neighbour.clear();
    port("B", "C").neighbour.clear();
    std::string all;
    for (const change& one : changes_between(before, look())) all += one.who + " " + one.text + "\n";
    EXPECT_EQ(all,
              "C is holdover (was lock)\n"
              "C is eec1 (was prc)\n"
              "C follows nobody (was B by B)\n"
              "C has a clock that comes from no master (C)\n"
              " B C ~ C B is down\n");
}

TEST(MapLayout, NoTwoInOnePlaceAndNeighboursNear) {
    for (const std::size_t count : {2UL, 3UL, 11UL, 12UL, 30UL, 200UL})
        for (const int kind : {0, 1, 2, 3, 4}) {  // chain, ring, star, grid, rings of ten at a mesh
            std::vector<std::pair<std::size_t, std::size_t>> links;
            for (std::size_t i = 1; i < count; ++i) links.emplace_back(kind == 2 ? 0 : i - 1, i);
            if (kind == 1) links.emplace_back(count - 1, 0);
            if (kind == 3)
                for (std::size_t i = 10; i < count; ++i) links.emplace_back(i - 10, i);
            if (kind == 4) {
                links.clear();
                for (std::size_t i = 0; i < count; ++i)
                    links.emplace_back(i, i % 10 == 9 ? i - 9 : (i + 1) % count);
                for (std::size_t i = 10; i < count; i += 10) links.emplace_back(i, i * 7 % (i / 10 * 10));
            }
            const std::vector<point> at = draw_graph(count, links);
            double nearest = 1e9;
            for (std::size_t i = 0; i < count; ++i)
                for (std::size_t j = 0; j < i; ++j)
                    nearest = std::min(nearest, std::hypot(at[i].x - at[j].x, at[i].y - at[j].y));
            EXPECT_GT(nearest, kind == 1 ? 25 : 49) << count << " of kind " << kind;
            if (kind > 1) continue;
            for (const auto& [a, b] : links)
                EXPECT_LT(std::hypot(at[a].x - at[b].x, at[a].y - at[b].y), 2.5 * LINK_LENGTH)
                    << count << " of kind " << kind;
        }
}

TEST(MapLayout, WhoHasAPlaceKeepsIt) {
    layout places;
    const std::vector<std::string> two = {"A", "B"}, three = {"A", "B", "C"};
    const auto before = places.place(two, {{0, 1}}, 1000);
    const auto after = places.place(three, {{0, 1}, {1, 2}}, 60000);
    EXPECT_EQ(after[0], before[0]);
    EXPECT_EQ(after[1], before[1]);
    EXPECT_LT(std::hypot(after[2].x - after[1].x, after[2].y - after[1].y), LINK_LENGTH);
    EXPECT_EQ(places.place(two, {}, 70000)[0], before[0]) << "a link that went moved somebody";
}

std::string read(std::string_view text, switch_report* into = nullptr) {
    switch_report report;
    reported_values values;
    std::string error = read_json(text, report, values);
    if (into) *into = report;
    return error;
}

TEST(MapJson, AnythingElseThanASwitchsAnswerIsSaidInWords) {
    EXPECT_EQ(read(""), "the answer is empty");
    EXPECT_EQ(read("% Unknown command"), "the answer is no JSON (octet 1)");
    EXPECT_EQ(read("[]"), "the answer can't be read: it is no JSON object");
    EXPECT_EQ(read(R"({"running_state":"lock"})"), "the answer can't be read: it has no list of ports");
    EXPECT_EQ(read(R"({"running_state":"happy","ports":[]})"),
              "the answer can't be read: running_state is not one that a switch has");
    EXPECT_EQ(read(R"({"running_state":"lock","ports":[{"name":"p","link_up":"yes"}]})"),
              "the answer can't be read: link_up is neither true nor false");
    EXPECT_NE(read(std::string(1000000, '[')), "");
    EXPECT_EQ(read(std::string(ANSWER_LIMIT + 1, ' ')), "the answer is longer than 4 MiB");
}

TEST(MapJson, NamesMayHoldAnythingAndTellATerminalNothing) {
    switch_report report;
    EXPECT_EQ(read("{\"running_state\":\"lock\",\"synce_enabled\":true,\"ports\":[{\"name\":\"p\\u001b["
                   "2J\xff\u202ex\",\"address\":\"AB:00:00:00:00:01\"}]}",
                   &report),
              "");
    ASSERT_EQ(report.ports.size(), 1U);
    EXPECT_EQ(report.ports[0].name, "p\ufffd[2J\ufffd\ufffdx");
    EXPECT_EQ(report.ports[0].address, "ab:00:00:00:00:01");
    EXPECT_EQ(tame("\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80", 9), "\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80");
    EXPECT_EQ(tame("\xc3\xa4\xe2\x82\xac", 4), "\xc3\xa4");
    EXPECT_EQ(tame("\xc0\x80\xed\xa0\x80"), "\ufffd\ufffd\ufffd\ufffd\ufffd");
}

// Lists in lists by the hundred thousand, or beside each other: neither stack nor time nor memory goes with
// it.
TEST(MapText, WhatIsNestedTooDeepOrTooWideIsRefused) {
    const std::string deep = std::string(500'000, '[') + std::string(500'000, ']');
    std::string wide = "[0";
    for (int i = 0; i < 200'000; ++i) wide += ",[]";
    switch_report report;
    reported_values values;
    EXPECT_NE(read_json("{\"ports\":" + deep + "}", report, values).find("nested too deep"),
              std::string::npos);
    EXPECT_NE(read_json("{\"ports\":" + wide + "]}", report, values).find("too many values"),
              std::string::npos);
    picture state;
    EXPECT_EQ(read_picture("{\"t\":1,\"nodes\":[],\"links\":[],\"loops\":" + deep + "}", state),
              "it is nested too deep");
}

}  // namespace
