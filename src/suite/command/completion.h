// What may follow at the cursor: for TAB and for "?".
#pragma once

#include <cstddef>
#include <string_view>

#include "suite/base/text.h"
#include "suite/command/cli.h"

constexpr std::size_t COMPLETION_MAX = 512;

struct completion_item {
    const char* text;  // the word, or how a number or name is written in help ("<1-255>", "IFNAME")
    const char* help;  // never null
};

struct completion_list {
    cli_result result;         // ok, unknown or ambiguous
    std::string_view partial;  // the word that the cursor is in or behind; empty behind a blank
    bool may_end;              // the line may end here
    std::size_t count;         // items, in alphabetical order; beyond COMPLETION_MAX they are left out
    completion_item items[COMPLETION_MAX];
};

// Help: keywords that begin with the word at the cursor, and ranges and names.
void completion_help(const cli_tree* tree, const cli* terminal, std::string_view line, completion_list* out);
// Completion: whole words only, interface names among them.
void completion_words(const cli_tree* tree, const cli* terminal, std::string_view line, completion_list* out);
// The longest beginning that all items share.
std::string_view completion_common(const completion_list& list);

// What may follow these words, to say so: of ambiguous ones, what may follow any reading of them.
void completion_next(const cli_tree* tree, const cli* terminal, std::string_view words, completion_list* out);
// Of an ambiguous line: where the word stands that may mean several things, and these. npos: there is none.
std::size_t completion_meanings(const cli_tree* tree, const cli* terminal, std::string_view line,
                                completion_list* out);
// The filters that begin so; "json" where the command has that form.
void completion_filters(std::string_view partial, bool with_json, completion_list* out);

// The items, and "<cr>" for a line that may end: one a row with its help text, or side by side in rows of
// `columns`. When memory is short the rest is left out.
void completion_print_rows(const completion_list& list, text_buffer* out);
void completion_print_columns(const completion_list& list, std::size_t columns, text_buffer* out);
