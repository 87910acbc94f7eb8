// Values stand in the order in which they came. There are a few dozen, so that looking through them all is as
// quick as anything else, and nothing is smaller.
#include "esmcmap/model/report.h"

#include <algorithm>

namespace esmcmap {

void switch_values::set(field of, double number) {
    add({of, false, 0, number});
}

void switch_values::set(field of, std::string_view text) {
    add({of, true, static_cast<std::uint32_t>(text.size()), static_cast<double>(texts.size())});
    texts += text;
}

void switch_values::erase(field of) {
    std::erase_if(values, [&](const value& one) { return one.of == of; });
}

void switch_values::pack() {
    values.shrink_to_fit();
    texts.shrink_to_fit();
}

std::optional<double> switch_values::number(field of) const {
    const value* found = find(of);
    return found && !found->is_text ? std::optional(found->number) : std::nullopt;
}

std::string_view switch_values::text(field of) const {
    const value* found = find(of);
    if (!found || !found->is_text) return {};
    return std::string_view(texts).substr(static_cast<std::size_t>(found->number), found->length);
}

const switch_values::value* switch_values::find(field of) const {
    const auto found =
        std::find_if(values.begin(), values.end(), [&](const value& one) { return one.of == of; });
    return found == values.end() ? nullptr : &*found;
}

void switch_values::add(const value& one) {
    erase(one.of);
    values.push_back(one);
}

}  // namespace esmcmap
