// The map as a drawing in one file, for documents and mails.
#pragma once

#include <string>

#include "esmcmap/model/network.h"

namespace esmcmap {

std::string svg_map(const network& net);

}  // namespace esmcmap
