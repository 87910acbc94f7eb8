// Drawing a graph. Chains and rings, which is what synchronisation networks are made of, are laid in rows, so
// that two hundred switches in a row fill a screen; anything else by stress majorization: distances in the
// drawing shall be those in the graph, near ones more than far ones.
#include "esmcmap/model/layout.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <queue>

namespace esmcmap {

namespace {

using edge = std::pair<std::size_t, std::size_t>;

constexpr std::size_t LONG_CHAIN = 12, LONG_RING = 24;  // from so many on they are laid in rows
constexpr int ROUNDS = 200;
constexpr double STILL = 0.2;       // a move that nobody sees
constexpr double LEAST_APART = 50;  // between any two
constexpr double SHAPE = 1.6;       // width to height

neighbours neighbours_of(std::size_t count, const std::vector<edge>& links) {
    neighbours near(count);
    for (const auto& [a, b] : links) {
        if (a == b) continue;
        near[a].push_back(b);
        near[b].push_back(a);
    }
    for (auto& list : near) {
        std::sort(list.begin(), list.end());
        list.erase(std::unique(list.begin(), list.end()), list.end());
    }
    return near;
}

std::vector<int> distances_from(std::size_t start, const neighbours& near) {
    std::vector<int> distance(near.size(), -1);
    std::queue<std::size_t> next;
    distance[start] = 0;
    for (next.push(start); !next.empty(); next.pop())
        for (const std::size_t other : near[next.front()])
            if (distance[other] < 0) {
                distance[other] = distance[next.front()] + 1;
                next.push(other);
            }
    return distance;
}

std::vector<std::size_t> part_of(std::size_t start, const neighbours& near) {
    const std::vector<int> distance = distances_from(start, near);
    std::vector<std::size_t> part;
    for (std::size_t i = 0; i < near.size(); ++i)
        if (distance[i] >= 0) part.push_back(i);
    return part;
}

// The part's members in the order of a walk along it, when it is one chain or one ring; else nothing.
std::vector<std::size_t> walk_along(const std::vector<std::size_t>& part, const neighbours& near,
                                    bool& closed) {
    std::size_t ends = 0, start = part.front();
    for (const std::size_t i : part) {
        if (near[i].size() > 2) return {};
        if (near[i].size() > 1) continue;
        if (ends++ == 0) start = i;
    }
    closed = ends == 0;
    std::vector<std::size_t> way{start};
    std::size_t before = start, here = start;
    do {
        std::size_t to = here;
        for (const std::size_t other : near[here])
            if (other != before || (here == start && to == here)) {
                to = other;
                break;
            }
        before = here;
        here = to;
        if (here == start || here == before) break;
        way.push_back(here);
    } while (way.size() < part.size());
    return way;
}

std::vector<point> in_rows(std::size_t count) {
    const auto columns = static_cast<std::size_t>(std::ceil(std::sqrt(static_cast<double>(count) * SHAPE)));
    std::vector<point> at(count);
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t row = i / columns, place = i % columns;
        const std::size_t column = row % 2 ? columns - 1 - place : place;
        at[i] = {static_cast<double>(column) * LINK_LENGTH, static_cast<double>(row) * LINK_LENGTH};
    }
    return at;
}

// A closed way through a grid with an even number of rows: along the top, in rows back and forth beside the
// first column, and up that column.
std::vector<point> closed_way(std::size_t rows, std::size_t columns) {
    std::vector<point> way;
    const auto add = [&](std::size_t row, std::size_t column) {
        way.push_back({static_cast<double>(column) * LINK_LENGTH, static_cast<double>(row) * LINK_LENGTH});
    };
    add(0, 0);
    for (std::size_t row = 0; row < rows; ++row)
        for (std::size_t place = 1; place < columns; ++place) add(row, row % 2 ? columns - place : place);
    for (std::size_t row = rows - 1; row > 0; --row) add(row, 0);
    return way;
}

std::vector<point> ring_in_rows(std::size_t count) {
    auto rows = static_cast<std::size_t>(std::sqrt(static_cast<double>(count) / SHAPE));
    rows = std::max<std::size_t>(2, rows + rows % 2);
    const std::vector<point> way = closed_way(rows, (count + rows - 1) / rows);
    std::vector<point> at(count);
    for (std::size_t i = 0; i < count; ++i) {
        const double along =
            static_cast<double>(i) * static_cast<double>(way.size()) / static_cast<double>(count);
        const auto from = static_cast<std::size_t>(along);
        const double share = along - static_cast<double>(from);
        const point &a = way[from], &b = way[(from + 1) % way.size()];
        at[i] = {a.x + (b.x - a.x) * share, a.y + (b.y - a.y) * share};
    }
    return at;
}

// --- everything else: stress majorization ---

using distance_table = std::vector<std::vector<double>>;

distance_table all_distances(const std::vector<std::size_t>& part, const neighbours& near) {
    distance_table wanted;
    for (const std::size_t i : part) {
        const std::vector<int> hops = distances_from(i, near);
        std::vector<double>& row = wanted.emplace_back();
        for (const std::size_t j : part) row.push_back(hops[j] * LINK_LENGTH);
    }
    return wanted;
}

std::size_t farthest(const std::vector<double>& from) {
    return static_cast<std::size_t>(std::max_element(from.begin(), from.end()) - from.begin());
}

// A first guess: the distances from one end, and those from the switch that is far from both ends.
std::vector<point> first_guess(const distance_table& wanted) {
    const std::size_t end = farthest(wanted[0]), other = farthest(wanted[end]);
    std::vector<double> from_both(wanted.size());
    for (std::size_t i = 0; i < wanted.size(); ++i) from_both[i] = std::min(wanted[end][i], wanted[other][i]);
    const std::size_t side = farthest(from_both);
    std::vector<point> at(wanted.size());
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        // No two in one place: each gets a small push of its own.
        const double push = static_cast<double>(i * 7919 % 101) / 10;
        at[i] = {wanted[end][i] + push, wanted[side][i] - push};
    }
    return at;
}

// Moves one towards where all others would have it. `heaviness` of a pair falls with the square of the
// distance.
point better_place(std::size_t i, const std::vector<point>& at, const distance_table& wanted) {
    double weights = 0;
    point sum;
    for (std::size_t j = 0; j < at.size(); ++j) {
        if (j == i) continue;
        const double weight = 1 / (wanted[i][j] * wanted[i][j]);
        const double dx = at[i].x - at[j].x, dy = at[i].y - at[j].y;
        const double apart = std::max(1e-6, std::hypot(dx, dy));
        sum.x += weight * (at[j].x + wanted[i][j] * dx / apart);
        sum.y += weight * (at[j].y + wanted[i][j] * dy / apart);
        weights += weight;
    }
    return {sum.x / weights, sum.y / weights};
}

// Distances that can't all be had put some on top of each other: those are pushed apart until names fit
// between them.
void keep_apart(std::vector<point>& at) {
    for (int round = 0; round < ROUNDS; ++round) {
        bool moved = false;
        for (std::size_t i = 0; i < at.size(); ++i)
            for (std::size_t j = 0; j < i; ++j) {
                const double dx = at[i].x - at[j].x, dy = at[i].y - at[j].y, apart = std::hypot(dx, dy);
                if (apart >= LEAST_APART) continue;
                const double push = (LEAST_APART - apart) / 2 + STILL;
                const point way = apart > 0 ? point{dx / apart, dy / apart} : point{1, 0};
                at[i] = {at[i].x + way.x * push, at[i].y + way.y * push};
                at[j] = {at[j].x - way.x * push, at[j].y - way.y * push};
                moved = true;
            }
        if (!moved) return;
    }
}

std::vector<point> by_stress(const std::vector<std::size_t>& part, const neighbours& near) {
    const distance_table wanted = all_distances(part, near);
    std::vector<point> at = first_guess(wanted);
    double moved = LINK_LENGTH;
    for (int round = 0; round < ROUNDS && moved > STILL; ++round) {
        moved = 0;
        for (std::size_t i = 0; i < at.size(); ++i) {
            const point to = better_place(i, at, wanted);
            moved = std::max(moved, std::hypot(to.x - at[i].x, to.y - at[i].y));
            at[i] = to;
        }
    }
    return at;
}

struct box {
    double left = std::numeric_limits<double>::max(), top = left, right = -left, bottom = -left;
};

box around(const std::vector<point>& at) {
    box b;
    for (const point& p : at) {
        b.left = std::min(b.left, p.x);
        b.right = std::max(b.right, p.x);
        b.top = std::min(b.top, p.y);
        b.bottom = std::max(b.bottom, p.y);
    }
    return b;
}

// The drawing's longer side lies, and what was drawn first comes left.
void lay_down(std::vector<point>& at) {
    const box b = around(at);
    if (b.bottom - b.top > (b.right - b.left) * 1.1)
        for (point& p : at) std::swap(p.x, p.y);
}

// A chain lies in a row, a ring is a regular polygon whose side is a link; long ones are folded.
std::vector<point> chain(std::size_t count) {
    if (count >= LONG_CHAIN) return in_rows(count);
    std::vector<point> at(count);
    for (std::size_t i = 0; i < count; ++i) at[i].x = static_cast<double>(i) * LINK_LENGTH;
    return at;
}

std::vector<point> ring(std::size_t count) {
    if (count >= LONG_RING) return ring_in_rows(count);
    const double step = 2 * std::numbers::pi / static_cast<double>(count);
    const double radius = LINK_LENGTH / 2 / std::sin(step / 2);
    std::vector<point> at(count);
    for (std::size_t i = 0; i < count; ++i) {
        const double angle = step * static_cast<double>(i) - std::numbers::pi / 2;
        at[i] = {radius * std::cos(angle), radius * std::sin(angle)};
    }
    return at;
}

std::vector<point> draw_part(std::vector<std::size_t>& part, const neighbours& near) {
    bool closed = false;
    const std::vector<std::size_t> way = walk_along(part, near, closed);
    if (way.size() == part.size()) {
        part = way;
        return closed ? ring(way.size()) : chain(way.size());
    }
    std::vector<point> at = by_stress(part, near);
    keep_apart(at);
    lay_down(at);
    return at;
}

// Parts are set in lines, as words are, the widest line about as wide as the widest part or a good screen.
class page {
  public:
    void add(const std::vector<std::size_t>& part, const std::vector<point>& drawn, std::vector<point>& at,
             double width) {
        const box b = around(drawn);
        if (x > 0 && x + b.right - b.left > width) {
            x = 0;
            y += line + GAP;
            line = 0;
        }
        for (std::size_t i = 0; i < part.size(); ++i) {
            // Tenths are fine enough to look at, and short to send.
            at[part[i]] = {std::round((drawn[i].x - b.left + x) * 10) / 10,
                           std::round((drawn[i].y - b.top + y) * 10) / 10};
        }
        x += b.right - b.left + GAP;
        line = std::max(line, b.bottom - b.top);
    }

  private:
    static constexpr double GAP = LINK_LENGTH * 1.2;
    double x = 0, y = 0, line = 0;
};

}  // namespace

std::vector<point> draw_graph(std::size_t count, const std::vector<edge>& links) {
    const neighbours near = neighbours_of(count, links);
    std::vector<std::vector<std::size_t>> parts;
    std::vector<bool> seen(count, false);
    for (std::size_t i = 0; i < count; ++i) {
        if (seen[i]) continue;
        parts.push_back(part_of(i, near));
        for (const std::size_t member : parts.back()) seen[member] = true;
    }
    std::stable_sort(parts.begin(), parts.end(),
                     [](const auto& a, const auto& b) { return a.size() > b.size(); });
    std::vector<point> at(count);
    const double least = std::sqrt(static_cast<double>(count) * SHAPE) * LINK_LENGTH * 1.2;
    double width = least;
    page drawing;
    for (auto& part : parts) {
        const std::vector<point> drawn = draw_part(part, near);
        const box b = around(drawn);
        width = std::max(width, b.right - b.left);
        drawing.add(part, drawn, at, width);
    }
    return at;
}

std::vector<point> layout::place(const std::vector<std::string>& ids, const std::vector<edge>& links,
                                 long long now_ms, long long settling_ms) {
    if (first_ms == 0) first_ms = now_ms;
    std::vector<std::pair<std::string, std::string>> wanted;
    for (const auto& [a, b] : links) wanted.emplace_back(ids[a], ids[b]);
    const bool known =
        std::all_of(ids.begin(), ids.end(), [&](const std::string& id) { return places.contains(id); });
    if (!known || wanted != drawn) {
        const neighbours near = neighbours_of(ids.size(), links);
        const std::vector<point> fresh = draw_graph(ids.size(), links);
        if (now_ms - first_ms < settling_ms)
            for (std::size_t i = 0; i < ids.size(); ++i) places[ids[i]] = fresh[i];
        else
            add_new(ids, near, fresh);
        for (std::size_t i = 0; i < ids.size(); ++i)
            if (!near[i].empty()) linked.insert(ids[i]);
        drawn = std::move(wanted);
        // Strangers come and go under ever new addresses.
        const std::set<std::string> here(ids.begin(), ids.end());
        std::erase_if(places, [&](const auto& place) { return !here.contains(place.first); });
        std::erase_if(linked, [&](const std::string& id) { return !here.contains(id); });
    }
    std::vector<point> at;
    for (const std::string& id : ids) at.push_back(places[id]);
    return at;
}

// Who has stood alone moves to the first neighbour that it gets; all others stay. Several that come to one
// neighbour stand around it.
void layout::add_new(const std::vector<std::string>& ids, const neighbours& near,
                     const std::vector<point>& fresh) {
    const auto settled = [&](std::size_t i) {
        return places.contains(ids[i]) && (linked.contains(ids[i]) || near[i].empty());
    };
    int turn = 0;
    for (std::size_t i = 0; i < ids.size(); ++i) {
        if (settled(i)) continue;
        const auto beside = std::find_if(near[i].begin(), near[i].end(), settled);
        point at = fresh[i];
        if (beside != near[i].end()) {
            constexpr double FIRST = 0.9, TURN = 2.4;  // radians; a golden angle, so that no two are in line
            const double angle = FIRST + TURN * turn++;
            const point& centre = places[ids[*beside]];
            at = {std::round(centre.x + LINK_LENGTH * 0.8 * std::cos(angle)),
                  std::round(centre.y + LINK_LENGTH * 0.8 * std::sin(angle))};
        }
        places[ids[i]] = at;
        if (!near[i].empty()) linked.insert(ids[i]);
    }
}

}  // namespace esmcmap
