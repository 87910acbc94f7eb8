// One table of tokens. What follows from it is in network.cpp: which promises can't be kept.
#include "esmcmap/model/quality.h"

namespace esmcmap {

namespace {

struct level {
    std::string_view token;
    int rank;
};

constexpr level LEVELS[] = {
    {"eprtc", 1}, {"prtc", 2}, {"eprc", 3}, {"prc", 4},   {"prs", 4},  {"stu", 5},
    {"ssu-a", 6}, {"tnc", 6},  {"st2", 6},  {"ssu-b", 7}, {"st3e", 7}, {"eeec", 8},
    {"eec1", 9},  {"eec2", 9}, {"smc", 10}, {"prov", 11}, {"dnu", 20}, {"dus", 20},
};
constexpr int WORST_USABLE = 11;

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
