// A switch's answer as text, read. The text is anything at all: what runs as a switch's command may be no
// switch.
#pragma once

#include <string>
#include <string_view>

#include "esmcmap/model/report.h"

namespace esmcmap {

constexpr std::size_t ANSWER_LIMIT = std::size_t{4} << 20;  // octets; 255 ports are 0.3 MB
constexpr std::size_t PORT_LIMIT = 4096;

// Empty when the answer was read; else why not, in words for the operator, and the reports are untouched.
// Octets that are no UTF-8 (a port's name may have them) become U+FFFD. Fields that are not there leave what
// they would have told unknown; one of another type than a switch sends makes the answer unreadable.
std::string read_json(std::string_view answer, switch_report& report, reported_values& values);

// Text that is not under our control, cut and without what a terminal would act on: control characters, and
// those of Unicode that turn the direction of writing, become U+FFFD. The result is valid UTF-8.
std::string tame(std::string_view text, std::size_t most_octets = 128);

}  // namespace esmcmap
