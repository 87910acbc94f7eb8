// The order of quality levels, as their command tokens say it.
#pragma once

#include <string_view>

namespace esmcmap {

// Smaller is better; the levels of both options are on one scale, where those that a gateway takes for each
// other are level. A quality that is none, or unknown, is worse than all.
constexpr int NO_QUALITY = 100;
int quality_rank(std::string_view token);

// A quality that a clock may be recovered from: neither DNU nor its fellows, nor none.
bool usable_quality(std::string_view token);

// What a switch's own oscillator is worth. `option`: 1 or 2; `enhanced`: an eEEC.
const char* oscillator_quality(unsigned option, bool enhanced);

}  // namespace esmcmap
