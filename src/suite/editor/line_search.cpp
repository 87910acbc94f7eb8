// The line editor's search backwards through its history: each key narrows the pattern, the last line that
// holds it becomes the line.
#include <cstring>

#include "suite/editor/line_parts.h"
#include "suite/editor/utf8.h"

namespace {

// Search: from the entry before `from` back, the first one that holds the pattern becomes the line.
void search(line_editor* e, std::size_t from, text_buffer* out) {
    e->pattern[e->pattern_length] = 0;
    for (std::size_t i = from; i > 0 && e->pattern_length; i--) {
        if (!std::strstr(e->history[i - 1], e->pattern)) continue;
        e->found = i - 1;
        line_replace(e, e->history[i - 1]);
        return line_show(e, out);
    }
    line_bell(out);
    line_show(e, out);
}

}  // namespace

void line_search_start(line_editor* e, text_buffer* out) {
    if (e->hidden) return;
    if (e->searching) return search(e, e->found, out);
    e->searching = true;
    e->pattern_length = 0;
    e->found = e->history_count;
    line_show(e, out);
}

bool line_search_key(line_editor* e, std::uint8_t octet, text_buffer* out) {
    if (octet == ctrl('R')) {
        line_search_start(e, out);
    } else if (octet == ctrl('H') || octet == KEY_DELETE) {
        if (e->pattern_length) e->pattern_length -= utf8_last_length({e->pattern, e->pattern_length});
        search(e, e->history_count, out);
    } else if (octet == ctrl('G')) {
        e->searching = false;
        line_replace(e, "");
        line_show(e, out);
    } else if (octet >= 0x20 && e->pattern_length + 1 < sizeof e->pattern) {
        e->pattern[e->pattern_length++] = static_cast<char>(octet);
        search(e, e->found < e->history_count ? e->found + 1 : e->history_count, out);
    } else {
        e->searching = false;
        line_show(e, out);
        return false;
    }
    return true;
}
