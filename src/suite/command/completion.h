// What may follow at the cursor: for TAB and for "?".
#pragma once

#include <cstddef>
#include <string_view>

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
