// Matches lines against compiled commands. For each command the set of tokens that the words so far can have
// reached is carried along, each with the best way (path) that leads there; so the work is bounded by the
// size of the command, whatever the line holds.
#include "suite/command/parse.h"

#include <bit>
#include <cstring>

#include "suite/base/slice.h"
#include "suite/ports/interface.h"

bool cli_known_interface(const cli* terminal, std::string_view word) {
    char name[IF_NAME_SIZE];
    if (!terminal->ifm || word.size() >= sizeof name) return false;
    std::memcpy(name, word.data(), word.size());
    name[word.size()] = 0;
    return if_lookup_by_name(terminal->ifm, name) != nullptr;
}

namespace {

enum match_rank : std::uint8_t {
    RANK_NONE = 0,
    RANK_LINE,
    RANK_WORD,
    RANK_NAME,   // the name of an interface that is not known
    RANK_SHORT,  // a keyword's beginning
    RANK_VALUE,  // a number in its range, the name of a known interface
    RANK_EXACT,
};

struct word_list {
    std::string_view items[CLI_MAX_TOKENS];
    std::size_t count = 0;
    bool more = false;  // there are words beyond
    const char* end = nullptr;
};

struct match_path {
    std::uint8_t tokens[CLI_MAX_TOKENS];
    std::uint8_t ranks[CLI_MAX_TOKENS];
    bool ambiguous;
    bool swallowed;  // a LINE took the rest
};

constexpr std::size_t NOT_PINNED = CLI_MAX_TOKENS;

struct matcher {
    const cli_command* command;
    const cli* terminal;
    const word_list* words;
    std::size_t pinned_word = NOT_PINNED;  // may be read as this token only
    std::size_t pinned_token = 0;
};

word_list split(std::string_view line) {
    word_list words;
    while (!line.empty() && cli_is_blank(line.back())) line.remove_suffix(1);
    words.end = line.data() + line.size();
    std::size_t at = 0;
    while (at < line.size()) {
        if (cli_is_blank(line[at])) {
            at++;
            continue;
        }
        if (words.count == CLI_MAX_TOKENS) {
            words.more = true;
            break;
        }
        std::size_t first = at;
        while (at < line.size() && !cli_is_blank(line[at])) at++;
        words.items[words.count++] = slice(line, first, at - first);
    }
    return words;
}

std::string_view rest_of_line(const word_list& words, std::size_t k) {
    return {words.items[k].data(), static_cast<std::size_t>(words.end - words.items[k].data())};
}

// Arguments become C strings and are printed: no control characters. Octets above 0x7f are let through, so
// names in UTF-8 do no harm.
bool is_printable(std::string_view text, bool blanks) {
    for (char c : text) {
        auto octet = static_cast<unsigned char>(c);
        if (octet == 0x7f || (octet < 0x20 && !(blanks && c == '\t'))) return false;
    }
    return true;
}

bool in_range(const cli_token& token, std::string_view word) {
    std::uint64_t value = 0;
    for (char c : word) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + static_cast<unsigned>(c - '0');
        if (value > token.high) return false;
    }
    return value >= token.low;
}

match_rank match_token(const matcher& m, const cli_token& token, std::size_t k) {
    std::string_view word = m.words->items[k];
    switch (token.kind) {
        case cli_token_kind::keyword:
            if (word.size() > token.length || std::memcmp(word.data(), token.text, word.size()) != 0)
                return RANK_NONE;
            return word.size() == token.length ? RANK_EXACT : RANK_SHORT;
        case cli_token_kind::range:
            return in_range(token, word) ? RANK_VALUE : RANK_NONE;
        case cli_token_kind::ifname:
            if (!is_printable(word, false)) return RANK_NONE;
            return cli_known_interface(m.terminal, word) ? RANK_VALUE : RANK_NAME;
        case cli_token_kind::word:
        case cli_token_kind::secret:
            return is_printable(word, false) ? RANK_WORD : RANK_NONE;
        case cli_token_kind::line:
            return is_printable(rest_of_line(*m.words, k), true) ? RANK_LINE : RANK_NONE;
    }
    return RANK_NONE;
}

bool same_texts(const cli_command* a, const match_path& pa, const cli_command* b, const match_path& pb,
                std::size_t length) {
    for (std::size_t k = 0; k < length; k++)
        if (std::strcmp(a->tokens[pa.tokens[k]].text, b->tokens[pb.tokens[k]].text) != 0) return false;
    return true;
}

// Puts the path at `slot` unless a better one is there.
void merge(const matcher& m, match_path* slot, bool* taken, const match_path& path, std::size_t length) {
    if (*taken) {
        int order = std::memcmp(path.ranks, slot->ranks, length);
        if (order < 0) return;
        if (order == 0) {
            if (!same_texts(m.command, path, m.command, *slot, length)) slot->ambiguous = true;
            return;
        }
    }
    *slot = path;
    *taken = true;
}

// The paths alive after a word, one a token.
struct match_front {
    match_path paths[CLI_MAX_TOKENS];
    bool taken[CLI_MAX_TOKENS];
    std::size_t alive;
};

void step(const matcher& m, const match_path& from, std::uint64_t candidates, std::size_t k,
          match_front* front) {
    for (std::uint64_t left = candidates; left; left &= left - 1) {
        auto index = static_cast<std::size_t>(std::countr_zero(left));
        if (k == m.pinned_word && index != m.pinned_token) continue;
        match_rank rank = match_token(m, m.command->tokens[index], k);
        if (rank == RANK_NONE) continue;
        match_path path = from;
        path.tokens[k] = static_cast<std::uint8_t>(index);
        path.ranks[k] = rank;
        if (m.command->tokens[index].kind == cli_token_kind::line) {
            path.swallowed = true;
            std::memset(path.ranks + k + 1, 0, sizeof path.ranks - k - 1);
            std::memset(path.tokens + k + 1, static_cast<int>(index), sizeof path.tokens - k - 1);
        }
        if (!front->taken[index]) front->alive++;
        merge(m, &front->paths[index], &front->taken[index], path, k + 1);
    }
}

// The front before a word and the one behind it. 16 KiB, kept off the stack of nested "do" lines; visitors of
// match_command must not match anything themselves.
match_front fronts[2];

// A function of a command and one path through it. Compiled once for all callers, as templates would not be.
struct path_visitor {
    template <typename Function>
    path_visitor(const Function& f)
        : call([](const void* g, const cli_command* command, const match_path& path) {
              (*static_cast<const Function*>(g))(command, path);
          }),
          function(&f) {}
    void (*call)(const void* function, const cli_command* command, const match_path& path);
    const void* function;
};

// Calls visit for every way in which all words can be read as (the beginning of) the command.
void match_command(const matcher& m, const path_visitor& visit) {
    match_front *now = &fronts[0], *then = &fronts[1];
    std::memset(then->taken, 0, sizeof then->taken);
    then->alive = 0;
    step(m, match_path{}, m.command->start, 0, then);
    for (std::size_t k = 1; k < m.words->count && then->alive; k++) {
        match_front* swap = now;
        now = then;
        then = swap;
        std::memset(then->taken, 0, sizeof then->taken);
        then->alive = 0;
        for (std::size_t i = 0; i < m.command->count; i++) {
            if (!now->taken[i]) continue;
            if (!now->paths[i].swallowed) {
                step(m, now->paths[i], m.command->tokens[i].next, k, then);
            } else {
                then->paths[i] = now->paths[i];
                then->taken[i] = true;
                then->alive++;
            }
        }
    }
    for (std::size_t i = 0; i < m.command->count && then->alive; i++)
        if (then->taken[i] && (!m.words->more || then->paths[i].swallowed))
            visit.call(visit.function, m.command, then->paths[i]);
}

// Commands among which words are looked for.
struct command_set {
    std::int32_t mode;
    std::int32_t privilege;
    bool only_shows;
};

bool is_show(const cli_command* command) {
    return std::strcmp(command->tokens[0].text, "show") == 0;
}

// Calls visit(command) for the commands that are entered in a mode with that privilege.
template <typename Visit>
void for_commands(const cli_tree* tree, const command_set& set, Visit&& visit) {
    bool debug_too = set.mode == EXEC_MODE || set.mode == CONFIG_MODE || set.mode == INTERFACE_MODE;
    std::int32_t modes[2] = {set.mode, DEBUG_MODE};
    for (int i = 0; i < (debug_too ? 2 : 1); i++) {
        if (modes[i] < 0 || modes[i] >= CLI_MODE_COUNT) continue;
        const cli_command_list& list = tree->modes[modes[i]];
        for (std::size_t c = 0; c < list.count; c++) {
            if (list.items[c]->privilege > set.privilege || (set.only_shows && !is_show(list.items[c])))
                continue;
            visit(list.items[c]);
        }
    }
}

void match_all(const cli_tree* tree, const cli* terminal, const command_set& set, const word_list& words,
               const path_visitor& visit) {
    for_commands(tree, set, [&](const cli_command* command) {
        match_command({command, terminal, &words}, visit);
    });
}

// Where a terminal's lines are looked for, in this order: in its mode; of an interface, in the mode of the
// configuration; and, in both of them and where somebody reads the answer, among the shows.
struct search_order {
    command_set sets[3];
    std::size_t count;
};

search_order sets_of(const cli* terminal) {
    search_order order{{{terminal->mode, terminal->privilege, false}}, 1};
    if (terminal->mode == INTERFACE_MODE)
        order.sets[order.count++] = {CONFIG_MODE, terminal->privilege, false};
    if (terminal->line && (terminal->mode == INTERFACE_MODE || terminal->mode == CONFIG_MODE))
        order.sets[order.count++] = {EXEC_MODE, terminal->privilege, true};
    return order;
}

struct best_match {
    const cli_command* command = nullptr;
    match_path path{};
    bool complete = false;
    bool ambiguous = false;
};

void offer(best_match* best, const cli_command* command, const match_path& path, std::size_t words) {
    std::size_t last = words - 1;
    bool complete = command->tokens[path.tokens[last]].may_end;
    int order = best->command ? std::memcmp(path.ranks, best->path.ranks, words) : 1;
    if (order < 0) return;
    if (order > 0) {
        *best = {command, path, complete, path.ambiguous};
        return;
    }
    if (!same_texts(command, path, best->command, best->path, words)) {
        best->ambiguous = true;
    } else if (complete && !best->complete) {
        bool ambiguous = best->ambiguous || path.ambiguous;
        *best = {command, path, complete, ambiguous};
    }
}

// Of the first set that the words mean something to, which is left in *set.
best_match find_best(const cli_tree* tree, const cli* terminal, const word_list& words, command_set* set) {
    best_match best;
    const search_order order = sets_of(terminal);
    for (std::size_t i = 0; i < order.count && !best.command; i++) {
        *set = order.sets[i];
        match_all(tree, terminal, *set, words, [&](const cli_command* command, const match_path& path) {
            offer(&best, command, path, words.count);
        });
    }
    return best;
}

cli_result result_of(const best_match& best) {
    if (!best.command) return cli_result::unknown;
    if (best.ambiguous) return cli_result::ambiguous;
    return best.complete ? cli_result::ok : cli_result::incomplete;
}

void keep_words(cli_parsed* out, const best_match& best, const word_list& words) {
    out->command = best.command;
    for (std::size_t k = 0; k < words.count; k++) {
        out->tokens[k] = best.path.tokens[k];
        out->words[k] = words.items[k];
        out->count = k + 1;
        if (best.command->tokens[best.path.tokens[k]].kind == cli_token_kind::line) {
            out->words[k] = rest_of_line(words, k);
            break;
        }
    }
}

}  // namespace

void cli_parse(const cli_tree* tree, const cli* terminal, std::string_view line, cli_parsed* out) {
    out->command = nullptr;
    out->count = 0;
    out->mode = terminal->mode;
    word_list words = split(line);
    if (words.count == 0 || words.items[0][0] == '!' || words.items[0][0] == '#') {
        out->result = cli_result::empty;
        return;
    }
    command_set set;
    best_match best = find_best(tree, terminal, words, &set);
    if (best.command) out->mode = set.mode;
    out->result = result_of(best);
    if (out->result == cli_result::ok) keep_words(out, best, words);
}

bool cli_is_plain(std::string_view text) {
    return is_printable(text, true) && text.find_first_of("\"$&'();<>\\`|") == std::string_view::npos;
}

const cli_command* cli_find_show(const cli_tree* tree, const cli* terminal, std::string_view line) {
    cli_parsed parsed;
    cli_parse(tree, terminal, line, &parsed);
    const bool is_show = parsed.result == cli_result::ok && cli_parsed_text(parsed, 0) == "show";
    return is_show ? parsed.command : nullptr;
}

namespace {

// Names that are known are not the operator's to choose, and the line behind "do" is looked at word by word.
bool is_free_word(const cli* terminal, const cli_parsed& parsed, std::size_t k) {
    const cli_token_kind kind = parsed.command->tokens[parsed.tokens[k]].kind;
    if (kind == cli_token_kind::word) return true;
    return kind == cli_token_kind::ifname && !cli_known_interface(terminal, parsed.words[k]);
}

}  // namespace

std::size_t cli_bad_name(const cli* terminal, const cli_parsed& parsed) {
    std::size_t k = 0;
    while (k < parsed.count && (!is_free_word(terminal, parsed, k) || cli_is_plain(parsed.words[k]))) k++;
    return k;
}

namespace {

// What the last of some words is, in all commands that they can be read as the beginning of.
struct last_word {
    bool known, secret, rest_of_line;
};

last_word read_last_word(const cli_tree* tree, const cli* terminal, const word_list& words) {
    last_word found{};
    const bool is_plain = cli_is_plain(words.items[words.count - 1]);
    for (std::int32_t mode : {EXEC_MODE, CONFIG_MODE, INTERFACE_MODE})
        match_all(tree, terminal, {mode, PRIVILEGE_MAX, false}, words,
                  [&](const cli_command* command, const match_path& path) {
                      const cli_token_kind kind = command->tokens[path.tokens[words.count - 1]].kind;
                      found.known = found.known || is_plain;
                      found.secret = found.secret || kind == cli_token_kind::secret;
                      found.rest_of_line = found.rest_of_line || kind == cli_token_kind::line;
                  });
    return found;
}

// Words that are not known are taken for slips of the pen by their first letters.
constexpr std::size_t LETTERS = 3;

bool introduces_secret(const cli_tree* tree, std::string_view word) {
    bool found = false;
    for (std::int32_t mode : {EXEC_MODE, CONFIG_MODE, INTERFACE_MODE})
        for_commands(tree, {mode, PRIVILEGE_MAX, false}, [&](const cli_command* command) {
            for (std::size_t i = 0; i < command->count; i++) {
                const cli_token& token = command->tokens[i];
                if (!std::string_view(token.text, token.length).starts_with(slice(word, 0, LETTERS)))
                    continue;
                for (std::uint64_t left = token.next; left; left &= left - 1)
                    found = found || command->tokens[std::countr_zero(left)].kind == cli_token_kind::secret;
            }
        });
    return found;
}

// Of a line that is no command.
bool may_hold_secret(const cli_tree* tree, const word_list& words) {
    for (std::size_t k = 0; k < words.count; k++)
        if (words.items[k].size() >= LETTERS && introduces_secret(tree, words.items[k])) return true;
    return false;
}

// A line of "do do do" makes as many lines within lines. No command is so deep.
constexpr int DEPTH_MAX = 4;

cli_visible visible_part(const cli_tree* tree, const cli* terminal, std::string_view line, int depth) {
    if (depth == DEPTH_MAX) return {0, true};
    const word_list words = split(line);
    word_list front = words;
    front.more = false;
    const char* shown = line.data();
    for (front.count = 1; front.count <= words.count; front.count++) {
        const std::string_view word = words.items[front.count - 1];
        front.end = word.data() + word.size();
        const last_word last = read_last_word(tree, terminal, front);
        const auto before = static_cast<std::size_t>(shown - line.data());
        if (last.secret) return {before, true};
        if (!last.known && !last.rest_of_line) return {before, may_hold_secret(tree, words)};
        if (last.rest_of_line) {  // "do": a line of its own
            const auto start = static_cast<std::size_t>(word.data() - line.data());
            const cli_visible rest = visible_part(tree, terminal, slice(line, start), depth + 1);
            return {rest.length ? start + rest.length : before, rest.secret};
        }
        shown = front.end;
    }
    return {words.more ? static_cast<std::size_t>(shown - line.data()) : line.size(), false};
}

}  // namespace

cli_visible cli_visible_part(const cli_tree* tree, const cli* terminal, std::string_view line) {
    return visible_part(tree, terminal, line, 0);
}

std::string_view cli_parsed_text(const cli_parsed& parsed, std::size_t k) {
    const cli_token& token = parsed.command->tokens[parsed.tokens[k]];
    if (token.kind == cli_token_kind::keyword) return {token.text, token.length};
    return parsed.words[k];
}

std::string_view cli_parsed_last_argument(const cli_parsed& parsed) {
    for (std::size_t k = parsed.count; k > 0; k--)
        if (parsed.command->tokens[parsed.tokens[k - 1]].argument) return cli_parsed_text(parsed, k - 1);
    return {};
}

namespace {

struct next_lister {
    void (*visit)(void* arg, const cli_next_token& next);
    void* arg;
    std::size_t words;
};

void list_after(const next_lister& lister, const cli_command* command, const match_path* path) {
    cli_next_token next{command, nullptr, path ? path->tokens : nullptr, lister.words};
    std::uint64_t follow = command->start;
    if (path) {
        const cli_token& last = command->tokens[path->tokens[lister.words - 1]];
        follow = last.next;
        if (last.may_end) lister.visit(lister.arg, next);
    }
    for (std::uint64_t left = follow; left; left &= left - 1) {
        next.token = &command->tokens[std::countr_zero(left)];
        lister.visit(lister.arg, next);
    }
}

}  // namespace

namespace {

void list_firsts(const cli_tree* tree, const cli* terminal, const next_lister& lister) {
    const search_order order = sets_of(terminal);
    for (std::size_t i = 0; i < order.count; i++) {
        if (i > 0 && !order.sets[i].only_shows) continue;  // an interface offers its own commands
        for_commands(tree, order.sets[i], [&](const cli_command* command) {
            if (!(command->flags & CLI_FLAG_HIDDEN)) list_after(lister, command, nullptr);
        });
    }
}

}  // namespace

cli_result cli_list_next(const cli_tree* tree, const cli* terminal, std::string_view line,
                         void (*visit)(void* arg, const cli_next_token& next), void* arg) {
    word_list words = split(line);
    next_lister lister{visit, arg, words.count};
    if (words.count == 0) {
        list_firsts(tree, terminal, lister);
        return cli_result::ok;
    }
    command_set set;
    const best_match best = find_best(tree, terminal, words, &set);
    if (!best.command) return cli_result::unknown;
    match_all(tree, terminal, set, words, [&](const cli_command* command, const match_path& path) {
        if (command->flags & CLI_FLAG_HIDDEN) return;
        if (std::memcmp(path.ranks, best.path.ranks, words.count) == 0) list_after(lister, command, &path);
    });
    return best.ambiguous ? cli_result::ambiguous : cli_result::ok;
}

namespace {

// The ways in which the words can be read that are as good as the best one.
struct readings {
    const cli_tree* tree;
    const cli* terminal;
    const word_list* words;
    command_set set;
    best_match best;
};

bool is_reading(const readings& r, const matcher& m, match_path* path) {
    bool found = false;
    match_command(m, [&](const cli_command*, const match_path& p) {
        if (std::memcmp(p.ranks, r.best.path.ranks, r.words->count) != 0) return;
        *path = p;
        found = true;
    });
    return found;
}

// Calls visit for each token that word `k` is in some reading of the whole line.
template <typename Visit>
void for_meanings(const readings& r, std::size_t k, Visit&& visit) {
    for_commands(r.tree, r.set, [&](const cli_command* command) {
        matcher m{command, r.terminal, r.words};
        match_path path;
        if ((command->flags & CLI_FLAG_HIDDEN) || !is_reading(r, m, &path)) return;
        m.pinned_word = k;
        for (m.pinned_token = 0; m.pinned_token < command->count; m.pinned_token++)
            if (is_reading(r, m, &path)) visit({command, &command->tokens[m.pinned_token], path.tokens, k});
    });
}

bool has_many_meanings(const readings& r, std::size_t k) {
    const char* first = nullptr;
    bool many = false;
    for_meanings(r, k, [&](const cli_next_token& meaning) {
        if (!first) first = meaning.token->text;
        many = many || std::strcmp(first, meaning.token->text) != 0;
    });
    return many;
}

}  // namespace

std::size_t cli_list_meanings(const cli_tree* tree, const cli* terminal, std::string_view line,
                              void (*visit)(void* arg, const cli_next_token& meaning), void* arg) {
    const word_list words = split(line);
    readings r{tree, terminal, &words, {}, {}};
    if (words.count) r.best = find_best(tree, terminal, words, &r.set);
    for (std::size_t k = 0; k < words.count && r.best.command; k++) {
        if (!has_many_meanings(r, k)) continue;
        for_meanings(r, k, [&](const cli_next_token& meaning) { visit(arg, meaning); });
        return static_cast<std::size_t>(words.items[k].data() - line.data());
    }
    return std::string_view::npos;
}
