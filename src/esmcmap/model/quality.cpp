// One table of tokens. What follows from it is in network.cpp: which promises can't be kept.
#include "esmcmap/model/quality.h"

namespace esmcmap {

namespace {

struct level {
    std::string_view token;
    int rank;
};

constexpr level LEVELS[] = {
    {"eprtc", 1}, {"prtc", 2}, {"eprc", 3}, {"prc", 4},   {"stu", 4},  {"prs", 4},
    {"ssu-a", 5}, {"tnc", 5},  {"st2", 5},  {"ssu-b", 6}, {"st3e", 6}, {"eeec", 7},
    {"eec1", 8},  {"eec2", 8}, {"smc", 9},  {"prov", 10}, {"dnu", 20}, {"dus", 20},
};
constexpr int WORST_USABLE = 10;

}  // namespace

int quality_rank(std::string_view token) {
    for (const level& known : LEVELS)
        if (known.token == token) return known.rank;
    return NO_QUALITY;
}

bool usable_quality(std::string_view token) {
    return quality_rank(token) <= WORST_USABLE;
}

const char* oscillator_quality(unsigned option, bool enhanced) {
    if (enhanced) return "eeec";
    return option == 2 ? "eec2" : "eec1";
}

}  // namespace esmcmap
