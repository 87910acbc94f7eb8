// A state as JSON, in pieces: each switch and each link is a text of its own, so that two states share what
// has not changed, and a viewer is sent what has.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "esmcmap/model/network.h"
#include "esmcmap/show/changes.h"

namespace esmcmap {

struct piece {
    std::string id;
    std::shared_ptr<const std::string> json;
};

struct picture {
    std::int64_t t = 0;
    std::uint64_t seq = 0;
    int interval_ms = 0;
    std::vector<piece> nodes, links;               // each sorted by id
    std::string loops, islands, claims, problems;  // JSON arrays
    std::size_t loop_count = 0, island_count = 0, silent_count = 0;
    std::vector<change> changes;  // since the state before
};

picture picture_of(const network& net, int interval_ms);
// Pieces that are as in `before` become the same ones. Whether anything at all differs, seq and t left out.
bool share(picture& now, const picture& before);

std::string whole_json(const picture& of);                               // one line, without its end
std::string difference_json(const picture& now, const picture& before);  // what a viewer of `before` needs
std::string changes_json(const std::vector<change>& changes);            // an array

// A whole state read again, from a recording. Empty on success, else what is wrong with the line.
std::string read_picture(std::string_view line, picture& read);

}  // namespace esmcmap
