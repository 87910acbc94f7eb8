// Node by node, then what concerns several: links, loops, islands, claims.
#include "esmcmap/show/changes.h"

#include <algorithm>
#include <map>

namespace esmcmap {

namespace {

class comparer {
  public:
    comparer(const network& old, const network& latest) : before(old), now(latest) {}

    std::vector<change> all() {
        compare_nodes();
        compare_links();
        compare_loops();
        compare_claims();
        return std::move(found);
    }

  private:
    const network &before, &now;
    std::vector<change> found;

    void say(const std::string& who, const char* kind, std::string text) {
        found.push_back({now.t, 0, who, kind, std::move(text)});
    }

    template <class T>
    static std::map<std::string, const T*> by_id(const std::vector<T>& all) {
        std::map<std::string, const T*> index;
        for (const T& one : all) index[one.id] = &one;
        return index;
    }

    static std::string whom(const node& of) {
        if (!of.report || of.report->source.empty()) return "nobody";
        return (of.follows.empty() ? std::string("an unknown neighbour") : of.follows) + " by " +
               of.report->source;
    }

    void compare_answer(const node& old, const node& one) {
        if (old.how == one.how) return;
        if (one.how == answer::ok) return say(one.id, "answer", "answers");
        say(one.id, "answer",
            (one.how == answer::garbage ? "can't be understood: " : "does not answer: ") + one.error);
    }

    void compare_report(const node& old, const node& one) {
        if (!one.report || one.report == old.report) return;
        if (!old.report) return say(one.id, "state", "is " + one.report->state + ", " + one.report->quality);
        if (old.report->state != one.report->state)
            say(one.id, "state", "is " + one.report->state + " (was " + old.report->state + ")");
        if (old.report->quality != one.report->quality)
            say(one.id, "quality", "is " + one.report->quality + " (was " + old.report->quality + ")");
        if (whom(old) != whom(one))
            say(one.id, "source", "follows " + whom(one) + " (was " + whom(old) + ")");
    }

    void compare_nodes() {
        const auto old = by_id(before.nodes);
        for (const node& one : now.nodes) {
            const auto known = old.find(one.id);
            if (known == old.end()) {
                if (one.stranger) say(one.id, "link", "a stranger is heard");
                continue;
            }
            compare_answer(*known->second, one);
            compare_report(*known->second, one);
            if (known->second->island != one.island)
                say(one.id, "island",
                    one.island ? "has a clock that comes from no master (" + one.root + ")"
                               : "is in no island any more");
        }
    }

    void compare_links() {
        const auto old = by_id(before.links);
        for (const link& one : now.links) {
            const auto known = old.find(one.id);
            if (known != old.end() && known->second->up != one.up)
                say({}, "link", one.id + (one.up ? " is back" : " is down"));
        }
    }

    static std::string circle(const std::vector<std::string>& loop) {
        std::string text;
        for (const auto& name : loop) text += name + " ← ";
        return text + loop.front();
    }

    void compare_loops() {
        const auto has = [](const network& net, const auto& loop) {
            return std::find(net.loops.begin(), net.loops.end(), loop) != net.loops.end();
        };
        for (const auto& loop : now.loops)
            if (!has(before, loop)) say({}, "loop", "a loop: " + circle(loop));
        for (const auto& loop : before.loops)
            if (!has(now, loop)) say({}, "loop", "no loop any more: " + circle(loop));
    }

    void compare_claims() {
        const auto has = [](const network& net, const claim& of) {
            return std::any_of(net.claims.begin(), net.claims.end(), [&](const claim& other) {
                return other.who == of.who && other.says == of.says;
            });
        };
        for (const claim& one : now.claims)
            if (!has(before, one))
                say(one.who, "claim", "says " + one.says + " but has " + one.has + ": " + one.why);
    }
};

}  // namespace

std::vector<change> changes_between(const network& before, const network& now) {
    return comparer(before, now).all();
}

}  // namespace esmcmap
