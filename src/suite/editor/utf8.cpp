// Decoding of UTF-8, strict: overlong forms, surrogates and what is above U+10FFFF are single octets of no
// meaning. The table of widths holds the blocks that occur in names, not every character of Unicode.
#include "suite/editor/utf8.h"
#include "suite/base/slice.h"

namespace {

struct block {
    std::uint32_t first, last;
    std::size_t columns;
};
constexpr block blocks[] = {
    {0x0300, 0x036f, 0},   {0x200b, 0x200f, 0},   {0x20d0, 0x20ff, 0}, {0xfe00, 0xfe0f, 0},
    {0x1100, 0x115f, 2},   {0x2e80, 0x303e, 2},   {0x3041, 0xa4cf, 2}, {0xac00, 0xd7a3, 2},
    {0xf900, 0xfaff, 2},   {0xfe30, 0xfe6f, 2},   {0xff00, 0xff60, 2}, {0xffe0, 0xffe6, 2},
    {0x1f300, 0x1faff, 2}, {0x20000, 0x3fffd, 2},
};

std::size_t columns_of(std::uint32_t code) {
    for (const block& b : blocks)
        if (code >= b.first && code <= b.last) return b.columns;
    return 1;
}

std::size_t expected_length(std::uint8_t lead) {
    if (lead >= 0xc2 && lead <= 0xdf) return 2;
    if (lead >= 0xe0 && lead <= 0xef) return 3;
    if (lead >= 0xf0 && lead <= 0xf4) return 4;
    return 1;
}

constexpr std::uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};

}  // namespace

utf8_character utf8_first(std::string_view text) {
    auto lead = static_cast<std::uint8_t>(text[0]);
    std::size_t length = expected_length(lead);
    if (length == 1) return {1, 1, lead >= 0x20 && lead < 0x7f};
    if (length > text.size()) return {1, 1, false};
    std::uint32_t code = lead & (0x7fu >> length);
    for (std::size_t i = 1; i < length; i++) {
        auto octet = static_cast<std::uint8_t>(text[i]);
        if ((octet & 0xc0) != 0x80) return {1, 1, false};
        code = code << 6 | (octet & 0x3fu);
    }
    bool valid = code >= smallest[length] && code <= 0x10ffff && !(code >= 0xd800 && code <= 0xdfff);
    if (!valid) return {1, 1, false};
    if (code < 0xa0) return {length, 1, false};  // the second set of control characters
    return {length, columns_of(code), true};
}

std::size_t utf8_last_length(std::string_view text) {
    for (std::size_t length = 2; length <= 4 && length <= text.size(); length++) {
        std::string_view tail = slice(text, text.size() - length);
        if (utf8_first(tail).length == length) return length;
    }
    return 1;
}

std::size_t utf8_columns(std::string_view text) {
    std::size_t columns = 0;
    while (!text.empty()) {
        utf8_character c = utf8_first(text);
        columns += c.columns;
        text.remove_prefix(c.length);
    }
    return columns;
}
