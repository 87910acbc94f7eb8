// The line editor's history: lines that were entered, oldest first, bounded in number and in octets. Looking
// through it keeps the line that was being typed, and gives it back at the end.
#include <cstring>

#include "suite/base/memory.h"
#include "suite/editor/line_parts.h"

namespace {

char* copy_of(std::string_view text) {
    auto* copy = static_cast<char*>(memmgr_calloc(text.size() + 1, MTYPE_CLI_SESSION));
    if (copy) std::memcpy(copy, text.data(), text.size());
    return copy;
}

void drop_oldest(line_editor* e) {
    e->history_octets -= std::strlen(e->history[0]) + 1;
    memmgr_free(e->history[0], MTYPE_CLI_SESSION);
    e->history_count--;
    std::memmove(e->history, e->history + 1, e->history_count * sizeof e->history[0]);
}

void drop_draft(line_editor* e) {
    memmgr_free(e->draft, MTYPE_CLI_SESSION);
    e->draft = nullptr;
}

}  // namespace

// `browsing` walks from history_count (the line being typed, kept in `draft`) down to 0.
void line_browse(line_editor* e, bool older, text_buffer* out) {
    if (e->hidden || (older ? e->browsing == 0 : e->browsing >= e->history_count)) return line_bell(out);
    if (e->browsing == e->history_count && !e->draft) e->draft = copy_of({e->text, e->length});
    e->browsing = older ? e->browsing - 1 : e->browsing + 1;
    if (e->browsing < e->history_count) {
        line_replace(e, e->history[e->browsing]);
    } else {
        line_replace(e, e->draft ? e->draft : "");
        drop_draft(e);
    }
    line_show(e, out);
}

void line_leave_history(line_editor* e) {
    e->browsing = e->history_count;
    drop_draft(e);
}

void line_history_free(line_editor* e) {
    while (e->history_count) drop_oldest(e);
    drop_draft(e);
}

void line_editor_remember(line_editor* e, std::string_view line) {
    bool blank = line.find_first_not_of(" \t") == std::string_view::npos;
    if (blank || line.size() + 1 > LINE_EDITOR_HISTORY_OCTETS || std::memchr(line.data(), 0, line.size()))
        return;
    if (e->history_count && line == e->history[e->history_count - 1]) return;
    char* copy = copy_of(line);
    if (!copy) return;
    while (e->history_count == LINE_EDITOR_HISTORY ||
           e->history_octets + line.size() + 1 > LINE_EDITOR_HISTORY_OCTETS)
        drop_oldest(e);
    e->history[e->history_count++] = copy;
    e->history_octets += line.size() + 1;
    e->browsing = e->history_count;
}
