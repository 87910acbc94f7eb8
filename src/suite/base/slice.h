// Parts of a text. std::string_view::substr throws when the place is beyond the end, which would link the
// whole machinery of exceptions into the programs; this one cuts.
#pragma once

#include <cstddef>
#include <string_view>

inline std::string_view slice(std::string_view text, std::size_t from,
                              std::size_t count = std::string_view::npos) {
    if (from > text.size()) from = text.size();
    std::size_t left = text.size() - from;
    return {text.data() + from, count < left ? count : left};
}
