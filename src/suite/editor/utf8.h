// Characters of UTF-8 text and the columns that a terminal shows them in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

struct utf8_character {
    std::size_t length;   // octets, at least 1
    std::size_t columns;  // 0 for combining marks, 2 for wide characters, 1 for what is shown as "?"
    bool shown;           // false: not valid, or a control character: "?" stands for it
};

// The character at the start of `text`, which is not empty.
utf8_character utf8_first(std::string_view text);
// Octets of the last character of `text`, which is not empty.
std::size_t utf8_last_length(std::string_view text);
std::size_t utf8_columns(std::string_view text);
