// Who is at the other end of each port: the step from addresses to links.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "esmcmap/model/network.h"

namespace esmcmap {

// What one port hears: another switch's port, a stranger, or nobody.
struct hearing {
    std::size_t who, port;            // index of the switch, of the port in its report
    std::size_t heard = NOBODY;       // index of the switch that is heard
    std::size_t heard_port = NOBODY;  // NOBODY: the addresses don't tell which of its ports
    std::string stranger;             // address, when no switch of the file has it
    static constexpr std::size_t NOBODY = static_cast<std::size_t>(-1);
};

// Of all ports with SyncE enabled that hear somebody. Addresses that can't be told apart are said in
// `problems`.
std::vector<hearing> who_hears_whom(const std::vector<watched>& switches, std::vector<std::string>& problems);

// The links of these hearings: two ends that hear each other are one. Sorted by id.
std::vector<link> links_of(const std::vector<hearing>& heard, const std::vector<watched>& switches);

}  // namespace esmcmap
