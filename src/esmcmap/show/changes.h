// What changed from one state to the next, in words.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "esmcmap/model/network.h"

namespace esmcmap {

struct change {
    std::int64_t t = 0;  // ms since 1970
    std::uint64_t seq = 0;
    std::string who;   // a switch; empty: the whole network
    std::string kind;  // "source", "quality", "state", "answer", "loop", "island", "link", "claim"
    std::string text;
};

std::vector<change> changes_between(const network& before, const network& now);

}  // namespace esmcmap
