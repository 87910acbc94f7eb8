// Trees first, since most of a network is one; then what is in none, and what is wrong, the worst last, where
// a terminal ends.
#include "esmcmap/show/text.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <map>
#include <set>

namespace esmcmap {

namespace {

constexpr const char *RED = "31", *YELLOW = "33", *GREEN = "32", *DIM = "2", *BOLD = "1";

std::string utc(std::int64_t ms) {
    const std::time_t seconds = ms / 1000;
    std::tm parts = {};
    gmtime_r(&seconds, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%F %T UTC", &parts);
    return text;
}

std::string age(std::int64_t ms) {
    const std::int64_t seconds = std::max<std::int64_t>(0, ms) / 1000;
    if (seconds < 120) return std::to_string(seconds) + " s";
    if (seconds < 7200) return std::to_string(seconds / 60) + " min";
    return std::to_string(seconds / 3600) + " h";
}

std::string count(std::size_t number, const char* what, const char* many = nullptr) {
    return std::to_string(number) + " " + (number == 1 ? what : many ? many : std::string(what) + "s");
}

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; });
    return text;
}

class writer {
  public:
    writer(const network& of, bool with_colour) : net(of), colour(with_colour) {
        for (const node& one : net.nodes) {
            index[one.id] = &one;
            if (!one.follows.empty()) followers[one.follows].push_back(&one);
        }
    }

    std::string write() {
        title();
        for (const node& one : net.nodes)
            if (one.root == one.id && one.hops == 0 && (!one.stranger || followers.contains(one.id)))
                tree(one);
        rest();
        strangers();
        for (const island& one : net.islands) island_line(one);
        for (const claim& one : net.claims)
            line(paint(YELLOW, "Claim: ") + one.who + " says " + upper(one.says) + " but has " +
                 upper(one.has) + ": " + one.why);
        for (const std::string& problem : net.problems) line(paint(YELLOW, "Problem: ") + problem);
        for (const auto& loop : net.loops) loop_line(loop);
        return std::move(text);
    }

  private:
    const network& net;
    bool colour;
    std::map<std::string, const node*> index;
    std::map<std::string, std::vector<const node*>> followers;
    std::set<std::string> drawn;
    std::string text;

    std::string paint(const char* code, const std::string& words) const {
        return colour ? std::string("\033[") + code + "m" + words + "\033[0m" : words;
    }
    void line(const std::string& words) { text += words + "\n"; }

    void title() {
        std::size_t switches = 0, answering = 0;
        for (const node& one : net.nodes) {
            switches += !one.stranger;
            answering += !one.stranger && one.how == answer::ok;
        }
        const std::string all =
            answering == switches ? "all answer" : std::to_string(switches - answering) + " do not answer";
        line(paint(BOLD, count(switches, "switch", "switches") + ", " + count(net.links.size(), "link") +
                             ", " + all) +
             "   " + utc(net.t));
    }

    static const port_report* source_port(const node& of) {
        if (of.report)
            for (const port_report& port : of.report->ports)
                if (port.name == of.report->source) return &port;
        return nullptr;
    }

    std::string silence(const node& of) const {
        if (of.how == answer::ok) return "";
        if (of.how == answer::waiting) return paint(DIM, "  not asked yet");
        const std::string since = of.answered_ms ? " for " + age(net.t - of.answered_ms) : "";
        return paint(RED, std::string("  ") + (of.how == answer::garbage ? "can't be understood" : "silent") +
                              since + ": " + of.error);
    }

    std::string about(const node& of) const {
        if (of.stranger) return paint(DIM, "stranger");
        if (!of.report) return silence(of);
        const bool good = of.report->state == "master" || of.report->state == "lock";
        std::string words = paint(good ? GREEN : YELLOW, of.report->state) + "  " + upper(of.report->quality);
        if (!of.report->source.empty()) words += "  by " + of.report->source;
        if (of.report->state == "lock" && of.report->dpll != "lock" && !of.report->dpll.empty())
            words += paint(YELLOW, "  clock in " + of.report->dpll);
        if (!of.report->reason.empty() && of.report->state != "master")
            words += paint(DIM, "  (" + of.report->reason + ")");
        return words + silence(of);
    }

    // Depth first, without recursion: a network may be a chain of hundreds. Who is the only one to follow
    // somebody stands below him, in the same column, so that such a chain is no staircase.
    void tree(const node& root) {
        struct step {
            const node* of;
            std::string before, below;
        };
        std::vector<step> next{{&root, "", ""}};
        while (!next.empty()) {
            const step here = next.back();
            next.pop_back();
            if (!drawn.insert(here.of->id).second) continue;
            line(here.before + paint(BOLD, here.of->id) + "  " + about(*here.of));
            const auto mine = followers.find(here.of->id);
            if (mine == followers.end()) continue;
            const auto& list = mine->second;
            if (list.size() == 1) next.push_back({list[0], here.below + "↳ ", here.below});
            for (std::size_t i = list.size(); list.size() > 1 && i-- > 0;) {
                const bool last = i + 1 == list.size();
                next.push_back(
                    {list[i], here.below + (last ? "└─ " : "├─ "), here.below + (last ? "   " : "│  ")});
            }
        }
    }

    // Switches that are in no tree: in a loop or behind one, or without anything known.
    void rest() {
        for (const node& one : net.nodes)
            if (!one.stranger && !drawn.contains(one.id) && one.follows.empty()) tree(one);
        for (const node& one : net.nodes)
            if (!one.stranger && !drawn.contains(one.id)) {
                line(paint(one.loop ? RED : BOLD, one.id) + "  " + about(one) + "  follows " + one.follows);
                drawn.insert(one.id);
            }
    }

    void strangers() {
        for (const node& one : net.nodes) {
            if (!one.stranger) continue;
            std::string at;
            for (const link& between : net.links)
                if (between.a == one.id || between.b == one.id) {
                    const bool a = between.a == one.id;
                    at += (at.empty() ? "" : ", ") + (a ? between.b : between.a) + " " +
                          (a ? between.b_port : between.a_port);
                    if (!between.up) at += " (down)";
                }
            line("Stranger: " + one.id + " at " + at);
        }
    }

    void island_line(const island& of) {
        std::string words = paint(YELLOW, "Island: ") + of.root + " is in " + of.state;
        if (of.switches.size() > 1) words += ", followed by";
        for (const auto& name : of.switches)
            if (name != of.root) words += " " + name;
        line(words);
    }

    void loop_line(const std::vector<std::string>& loop) {
        std::string words = paint(RED, "LOOP: ");
        for (const auto& name : loop) words += name + " follows ";
        line(words + loop.front());
    }
};

}  // namespace

std::string text_map(const network& net, bool colour) {
    return writer(net, colour).write();
}

}  // namespace esmcmap
