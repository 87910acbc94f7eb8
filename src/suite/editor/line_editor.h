// The line editor of interactive terminals: a pure state machine. Keys go in octet by octet, what the
// terminal should show comes out as octets, and now and then an event. It knows nothing of commands or
// sockets.
//
// The line is shown on one row, scrolled sideways when it is wider than the window. Text is UTF-8; octets
// that are none are kept in the line and shown as "?". A line that grows beyond LINE_EDITOR_MAX is not cut:
// it is refused as a whole when Enter comes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "suite/base/text.h"

constexpr std::size_t LINE_EDITOR_MAX = 4096;
constexpr std::size_t LINE_EDITOR_HISTORY = 64;            // lines
constexpr std::size_t LINE_EDITOR_HISTORY_OCTETS = 16384;  // of all lines together
constexpr std::size_t LINE_EDITOR_PATTERN_MAX = 64;
constexpr std::size_t LINE_EDITOR_PROMPT_MAX = 128;

enum class editor_event : std::uint8_t {
    none,
    line,       // Enter: the line stands in line_editor_text; the terminal is on a new row
    too_long,   // Enter behind a line that was too long
    interrupt,  // Ctrl-C: the line is empty, the terminal is on a new row
    leave,      // Ctrl-D on an empty line
    end_mode,   // Ctrl-Z
    complete,   // TAB
    help,       // "?"
};

struct line_editor {
    char text[LINE_EDITOR_MAX];  // zeros behind the line: what was erased is not kept
    std::size_t length, cursor, scroll;
    bool too_long;
    bool hidden;  // passwords: nothing is shown, nothing is remembered
    std::uint8_t key_state;
    std::uint8_t key_number;  // of an escape sequence
    bool last_was_cr;
    std::uint8_t utf8_left;  // octets of a character still to come
    char prompt[LINE_EDITOR_PROMPT_MAX];
    std::size_t columns;
    char* history[LINE_EDITOR_HISTORY];  // oldest first
    std::size_t history_count, history_octets;
    std::size_t browsing;  // index in the history; history_count: the line being typed
    char* draft;           // the line being typed while the history is looked through
    bool searching;
    char pattern[LINE_EDITOR_PATTERN_MAX];
    std::size_t pattern_length;
    std::size_t found;  // history index of the hit; history_count: none
};

line_editor* line_editor_create();  // null when memory is exhausted
void line_editor_free(line_editor* e);

// Begins a new, empty line behind this prompt.
void line_editor_start(line_editor* e, std::string_view prompt, text_buffer* out);
// One octet from the keyboard.
editor_event line_editor_key(line_editor* e, std::uint8_t octet, text_buffer* out);
// Puts text in at the cursor, as if typed.
void line_editor_insert(line_editor* e, std::string_view text, text_buffer* out);
// Shows prompt and line again on the present row.
void line_editor_redraw(line_editor* e, text_buffer* out);
// Clears the row, for output that is to appear above the line.
void line_editor_hide(const line_editor* e, text_buffer* out);
// 0: not known, 80.
void line_editor_resize(line_editor* e, std::size_t columns);
// Empties the line, also in memory.
void line_editor_clear(line_editor* e);
// Puts a line into the history. Blank lines and repetitions of the last one are left out.
void line_editor_remember(line_editor* e, std::string_view line);

inline std::string_view line_editor_text(const line_editor* e) {
    return {e->text, e->length};
}
inline std::string_view line_editor_before_cursor(const line_editor* e) {
    return {e->text, e->cursor};
}
