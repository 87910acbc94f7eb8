// Matching of lines against the command tree, without running anything.
//
// How a word matches has a rank: a whole keyword beats a number in its range and the name of a known
// interface, those beat a shortened keyword, that beats other names. The matches of the whole line are
// compared word by word; the best one counts. Two best matches that read a word as different keywords are
// ambiguous, one that needs more words is incomplete.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "suite/command/cli.h"
#include "suite/command/tree.h"

struct cli_parsed {
    cli_result result;           // ok, unknown, ambiguous, incomplete or empty
    const cli_command* command;  // of an ok line, else null
    std::int32_t mode;  // the mode in which it runs: the session's; the configuration mode when an interface
                        // line is a command of that mode only; the exec mode of a show, which a terminal may
                        // ask for in the configuration modes too
    std::size_t count;  // words matched
    std::uint8_t tokens[CLI_MAX_TOKENS];     // per word: the command's token
    std::string_view words[CLI_MAX_TOKENS];  // per word: as typed; for LINE the rest of the line
};

// Parses a line as `terminal` (mode, privilege, interfaces) would run it. `out->words` point into `line`.
void cli_parse(const cli_tree* tree, const cli* terminal, std::string_view line, cli_parsed* out);

bool cli_known_interface(const cli* terminal, std::string_view word);

// The show command that the line is, whole and to be run as it is: filters may follow it. Null: it is none.
const cli_command* cli_find_show(const cli_tree* tree, const cli* terminal, std::string_view line);
// The first word that would become a name and may not (see cli_is_plain); parsed.count when none is.
std::size_t cli_bad_name(const cli* terminal, const cli_parsed& parsed);

// Whether a text means nothing but itself wherever it may be read again, by a shell above all: no control
// characters, no quotes, none of $ & ( ) ; < > \ ` |.
bool cli_is_plain(std::string_view text);

// How much of a line may be shown to others: up to the first word that fits no command of a terminal in any
// of its modes, or may be a secret. Keywords may be shortened, and a line that is refused is often a slip of
// the pen, so what is not known is not shown.
struct cli_visible {
    std::size_t length;  // octets at the line's front
    bool secret;         // it may hold one
};
cli_visible cli_visible_part(const cli_tree* tree, const cli* terminal, std::string_view line);

// What argument `k` of the parsed words is in full: the keyword's whole text, or the word as typed.
std::string_view cli_parsed_text(const cli_parsed& parsed, std::size_t k);
// The last argument of an ok line, empty when it has none.
std::string_view cli_parsed_last_argument(const cli_parsed& parsed);

// A token that may follow. `token` null: the line may end here. `path` are the tokens before it.
struct cli_next_token {
    const cli_command* command;
    const cli_token* token;
    const std::uint8_t* path;
    std::size_t path_length;
};

// Calls visit for every token that may follow the words of `line` (hidden commands excepted); the same word
// may come up more than once. The result is ok, unknown (nothing may follow), or ambiguous: what comes up may
// follow one of several readings of the words.
cli_result cli_list_next(const cli_tree* tree, const cli* terminal, std::string_view line,
                         void (*visit)(void* arg, const cli_next_token& next), void* arg);
// Of an ambiguous line: the place of the first word that can be read in several ways, and a visit for each
// (`token` what it may be, `path` the tokens before it). npos: no word can.
std::size_t cli_list_meanings(const cli_tree* tree, const cli* terminal, std::string_view line,
                              void (*visit)(void* arg, const cli_next_token& meaning), void* arg);

// Help text for a token that may follow, or null.
const char* cli_help_find(const cli_tree* tree, const cli_next_token& next);
// The same for any token of a command string: `words` are the tokens' texts before it.
const char* cli_help_find_words(const cli_tree* tree, const char* const* words, std::size_t count,
                                const char* token);

// A token of a command string, with the words of one way that leads to it and its help text (null: none).
struct cli_token_place {
    const cli_element* element;
    std::int32_t mode;
    const char* const* words;
    std::size_t word_count;
    const char* token;
    const char* help;
};
// Every token of every command, for tests and documents.
void cli_walk_tokens(const cli_tree* tree, void (*visit)(void* arg, const cli_token_place& place), void* arg);

inline bool cli_is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}
