// Why a line is refused for how it is written: the place where it goes wrong, and what could stand there.
#pragma once

#include <cstddef>
#include <string_view>

#include "suite/base/text.h"
#include "suite/command/cli.h"
#include "suite/command/completion.h"

struct cli_explanation {
    // Octet of the line that begins the word; behind the line's end, a blank away, when a word is missing.
    std::size_t at;
    completion_list possible;  // what could stand there; may_end: nothing need
};

// As `terminal` would have read the line, whose mode is the one in which it was typed. False when there is
// nothing to explain: the line is none that is refused for how it is written, or it may hold a secret.
bool cli_explain(const cli_tree* tree, const cli* terminal, std::string_view line, cli_explanation* out);

// Appends the words of a list to lines of `columns`: one a line with its help text, or, where that would be
// more than fits a small screen, side by side. When memory is short the rest is left out.
void cli_print_possible(const completion_list& list, std::size_t columns, text_buffer* out);
