// The map as text, for terminals and mails.
#pragma once

#include <string>

#include "esmcmap/model/network.h"

namespace esmcmap {

// A tree from each root, then what is wrong. `colour`: with the terminal's colours.
std::string text_map(const network& net, bool colour);

}  // namespace esmcmap
