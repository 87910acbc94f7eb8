// A mark under a place of a line that was typed: "^" on a row of its own.
#pragma once

#include <cstddef>
#include <string_view>

#include "suite/base/text.h"
#include "suite/editor/line_editor.h"

// Beneath the row that the editor has shown, right after Enter; where octet `at` (or a blank behind the
// line's end) is not on that row, beneath a part of the line that is shown anew. When memory is short there
// is less.
void line_mark(const line_editor* e, std::size_t at, text_buffer* out);
// Always anew, for a line that is not on the screen or not where the editor would have put it.
void line_mark_anew(std::string_view line, std::size_t at, std::size_t columns, text_buffer* out);
