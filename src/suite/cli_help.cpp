// Help texts: looked up by the words before a token and the token itself. The entry with the longest list of
// words that is the tail of what came before wins, so a table can say a text once for all places ("IFNAME")
// and again for one place where it means something else.
#include <cstring>
#include <string_view>

#include "suite/cli_parse.h"
#include "suite/cli_tree.h"

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
        if (before.substr(first) != words[--count]) return -1;
        before = before.substr(0, first);
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
