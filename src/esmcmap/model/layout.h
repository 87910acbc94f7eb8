// Where the switches stand in a drawing. Positions are kept: a switch that has its place moves no more, once
// the network has been seen for a while.
#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace esmcmap {

struct point {
    double x = 0, y = 0;
    bool operator==(const point&) const = default;
};

constexpr double LINK_LENGTH = 100;  // between neighbours, about

// Of each, whom it is linked to; sorted.
using neighbours = std::vector<std::vector<std::size_t>>;

// The whole drawing from nothing: `links` are pairs of indexes below `count`. The same graph gives the same
// drawing. Parts that are not linked stand beside each other.
std::vector<point> draw_graph(std::size_t count,
                              const std::vector<std::pair<std::size_t, std::size_t>>& links);

class layout {
  public:
    // Positions of all `ids`. For the first `settling_ms` after the first call new links move everything;
    // later only who has no neighbour with a place yet is placed, beside those neighbours.
    std::vector<point> place(const std::vector<std::string>& ids,
                             const std::vector<std::pair<std::size_t, std::size_t>>& links, long long now_ms,
                             long long settling_ms = 10000);

  private:
    std::map<std::string, point> places;
    std::set<std::string> linked;  // who has been placed with neighbours in view
    std::vector<std::pair<std::string, std::string>> drawn;
    long long first_ms = 0;

    void add_new(const std::vector<std::string>& ids, const neighbours& near,
                 const std::vector<point>& fresh);
};

}  // namespace esmcmap
