// What the files of the line editor share: its screen and line (line_editor.cpp), its history
// (line_history.cpp), the search in it (line_search.cpp). Nobody else includes this.
#pragma once

#include "suite/editor/line_editor.h"

constexpr std::uint8_t ctrl(char letter) {
    return static_cast<std::uint8_t>(letter & 0x1f);
}
constexpr std::uint8_t KEY_ESCAPE = 27, KEY_DELETE = 127;

// line_editor.cpp
void line_show(line_editor* e, text_buffer* out);  // the row anew, unless the line is hidden
std::size_t line_room(const line_editor* e);       // columns for the line behind the prompt
void line_bell(text_buffer* out);
void line_replace(line_editor* e, const char* text);  // the cursor behind it

// line_history.cpp
void line_browse(line_editor* e, bool older, text_buffer* out);
void line_leave_history(line_editor* e);  // the line being typed is a new one
void line_history_free(line_editor* e);

// line_search.cpp
void line_search_start(line_editor* e, text_buffer* out);  // or on to the next hit
// True when the key belonged to the search; other keys end it with the line found and mean what they mean.
bool line_search_key(line_editor* e, std::uint8_t octet, text_buffer* out);
