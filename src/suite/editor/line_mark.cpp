// See line_mark.h. Columns are counted as the editor counts them. A part of a line is chosen so that the
// marked word begins in the left two thirds, with what comes before it as far as there is room.
#include "suite/editor/line_mark.h"

#include <algorithm>

#include "suite/base/slice.h"
#include "suite/editor/line_parts.h"
#include "suite/editor/utf8.h"

namespace {

constexpr std::size_t INDENT = 2, COLUMNS_LEAST = 20;
constexpr std::string_view CUT = "...";

void put_mark(text_buffer* out, std::size_t column) {
    (void)text_printf(out, "%*s^\n", static_cast<int>(column), "");
}

// From the beginning of the line to the place, which may be behind its end.
std::size_t columns_to(std::string_view line, std::size_t at) {
    return utf8_columns(slice(line, 0, at)) + (at > line.size() ? at - line.size() : 0);
}

void put_character(text_buffer* out, std::string_view line, const utf8_character& c) {
    const char* shown = c.shown ? line.data() : line[0] == '\t' ? " " : "?";
    (void)text_append(out, shown, c.shown ? c.length : 1);
}

// As much of the line as fits; what does not is stood for by dots.
void put_part(text_buffer* out, std::string_view line, std::size_t room) {
    const bool fits = utf8_columns(line) <= room;
    std::size_t left = fits ? room : room - CUT.size();
    while (!line.empty()) {
        const utf8_character c = utf8_first(line);
        if (c.columns > left) break;
        left -= c.columns;
        put_character(out, line, c);
        line.remove_prefix(c.length);
    }
    (void)text_printf(out, fits ? "\n" : "...\n");
}

}  // namespace

void line_mark(const line_editor* e, std::size_t at, text_buffer* out) {
    const std::string_view line = line_editor_text(e);
    const std::string_view shown = slice(line, e->scroll);
    const std::size_t column = at < e->scroll ? 0 : columns_to(shown, at - e->scroll);
    const std::size_t before = utf8_columns(e->prompt);
    const std::size_t width = at < line.size() ? utf8_first(slice(line, at)).columns : 1;
    if (at < e->scroll || column + width > line_room(e) || before + column >= e->columns)
        return line_mark_anew(line, at, e->columns, out);
    put_mark(out, before + column);
}

void line_mark_anew(std::string_view line, std::size_t at, std::size_t columns, text_buffer* out) {
    const std::size_t room = std::max(columns, COLUMNS_LEAST) - INDENT - CUT.size() - 1;
    std::size_t from = 0, column = columns_to(line, at);
    while (column > room * 2 / 3 && from < line.size()) {
        const utf8_character c = utf8_first(slice(line, from));
        from += c.length;
        column -= c.columns;
    }
    (void)text_printf(out, "%*s%s", static_cast<int>(INDENT), "", from ? "..." : "");
    put_part(out, slice(line, from), from ? room : room + CUT.size());
    put_mark(out, INDENT + (from ? CUT.size() : 0) + column);
}
