// Help texts: looked up by the words before a token and the token itself. The entry with the longest list of
// words that is the tail of what came before wins, so a table can say a text once for all places ("IFNAME")
// and again for one place where it means something else.
#include <cstring>
#include <string_view>

#include "suite/base/slice.h"
#include "suite/command/parse.h"
#include "suite/command/tree.h"

namespace {

// Compares `before` with the tail of the words, from the last one on. Its number of words, or -1.
int tail_length(std::string_view before, const char* const* words, std::size_t count) {
    int length = 0;
    while (true) {
        while (!before.empty() && before.back() == ' ') before.remove_suffix(1);
        if (before.empty()) return length;
        if (count == 0) return -1;
        std::size_t blank = before.rfind(' ');
        std::size_t first = blank == std::string_view::npos ? 0 : blank + 1;
        if (slice(before, first) != words[--count]) return -1;
        before = slice(before, 0, first);
        length++;
    }
}

}  // namespace

const char* cli_help_find_words(const cli_tree* tree, const char* const* words, std::size_t count,
                                const char* token) {
    const char* found = nullptr;
    int best = -1;
    for (std::size_t t = 0; t < tree->help_count; t++) {
        for (std::size_t i = 0; i < tree->help[t].count; i++) {
            const cli_help& entry = tree->help[t].texts[i];
            if (std::strcmp(entry.token, token) != 0) continue;
            int length = tail_length(entry.before, words, count);
            if (length > best) {
                best = length;
                found = entry.text;
            }
        }
    }
    return found;
}

const char* cli_help_find(const cli_tree* tree, const cli_next_token& next) {
    if (!next.token) return nullptr;
    const char* words[CLI_MAX_TOKENS];
    for (std::size_t k = 0; k < next.path_length; k++) words[k] = next.command->tokens[next.path[k]].text;
    return cli_help_find_words(tree, words, next.path_length, next.token->text);
}

namespace {

// The words of one way to a token, by the tokens before it. Every token has one: the compiler made it so.
std::size_t one_path(const cli_command* command, std::size_t token, const char** words) {
    std::uint8_t path[CLI_MAX_TOKENS];
    std::size_t length = 0, at = token;
    while (!(command->start >> at & 1)) {
        std::size_t before = 0;
        while (!(command->tokens[before].next >> at & 1)) before++;
        path[length++] = static_cast<std::uint8_t>(before);
        at = before;
    }
    for (std::size_t k = 0; k < length; k++) words[k] = command->tokens[path[length - 1 - k]].text;
    return length;
}

}  // namespace

void cli_walk_tokens(const cli_tree* tree, void (*visit)(void* arg, const cli_token_place& place),
                     void* arg) {
    const char* words[CLI_MAX_TOKENS];
    for (const cli_command_list& list : tree->modes) {
        for (std::size_t i = 0; i < list.count; i++) {
            const cli_command* command = list.items[i];
            for (std::size_t t = 0; t < command->count; t++) {
                std::size_t count = one_path(command, t, words);
                const char* text = command->tokens[t].text;
                visit(arg, {command->element, command->mode, words, count, text,
                            cli_help_find_words(tree, words, count, text)});
            }
        }
    }
}
