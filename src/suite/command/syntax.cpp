// Compiles command strings. Called at installation only; a string that can't be read is a mistake of ours, so
// it is logged as an error and the command stays out of the tree.
//
// Each word or choice of the string is a group. The compiler keeps the set of tokens that a next group would
// follow (`open`); a group that may be empty leaves the former set open beside its own last tokens.
#include <cstring>

#include "suite/base/memory.h"
#include "suite/command/parse.h"
#include "suite/command/tree.h"
#include "suite/log/log.h"

namespace {

struct compiler {
    const char* at;
    cli_token tokens[CLI_MAX_TOKENS];  // text points into the string until the command is built
    std::size_t count;
    std::uint64_t open;
    std::uint64_t start;
    bool at_start;  // no group that must be there has been seen
    const char* fault;
};

std::uint64_t bit(std::size_t index) {
    return std::uint64_t{1} << index;
}

bool ends_word(char c) {
    return c == 0 || cli_is_blank(c) || c == '(' || c == ')' || c == '|';
}

void skip_blanks(compiler* c) {
    while (cli_is_blank(*c->at)) c->at++;
}

// "<low-high>"
bool read_range(cli_token* t) {
    std::uint64_t value[2] = {0, 0};
    const char* at = t->text + 1;
    for (int i = 0; i < 2; i++) {
        const char* first = at;
        for (; *at >= '0' && *at <= '9' && value[i] <= UINT32_MAX; at++)
            value[i] = value[i] * 10 + static_cast<unsigned>(*at - '0');
        if (at == first || value[i] > UINT32_MAX || *at != (i == 0 ? '-' : '>')) return false;
        at++;
    }
    t->low = static_cast<std::uint32_t>(value[0]);
    t->high = static_cast<std::uint32_t>(value[1]);
    return at == t->text + t->length && value[0] <= value[1];
}

bool text_is(const cli_token* t, const char* text) {
    return std::strlen(text) == t->length && std::memcmp(t->text, text, t->length) == 0;
}

bool classify(cli_token* t) {
    t->kind = cli_token_kind::keyword;
    if (t->text[0] == '<') {
        t->kind = cli_token_kind::range;
        return read_range(t);
    }
    if (t->text[0] < 'A' || t->text[0] > 'Z') return true;
    if (text_is(t, "IFNAME") || text_is(t, "IFPHYSICAL"))
        t->kind = cli_token_kind::ifname;
    else if (text_is(t, "LINE"))
        t->kind = cli_token_kind::line;
    else if (text_is(t, "SECRET"))
        t->kind = cli_token_kind::secret;
    else
        t->kind = cli_token_kind::word;
    return true;
}

// Reads the word at c->at as a new token; returns its index, or CLI_MAX_TOKENS with c->fault set.
std::size_t read_token(compiler* c, bool in_choice) {
    if (c->count == CLI_MAX_TOKENS) {
        c->fault = "too many words";
        return CLI_MAX_TOKENS;
    }
    cli_token* t = &c->tokens[c->count];
    *t = {};
    t->text = c->at;
    while (!ends_word(*c->at)) c->at++;
    t->length = static_cast<std::size_t>(c->at - t->text);
    if (!classify(t)) {
        c->fault = "bad range";
        return CLI_MAX_TOKENS;
    }
    t->argument = in_choice || t->kind != cli_token_kind::keyword;
    return c->count++;
}

void close_group(compiler* c, std::uint64_t firsts, std::uint64_t lasts, bool optional) {
    for (std::size_t i = 0; i < c->count; i++)
        if (c->open & bit(i)) c->tokens[i].next |= firsts;
    if (c->at_start) c->start |= firsts;
    if (optional) {
        c->open |= lasts;
    } else {
        c->open = lasts;
        c->at_start = false;
    }
}

// One alternative up to "|" or ")": a chain of words, or nothing.
void read_alternative(compiler* c, std::uint64_t* firsts, std::uint64_t* lasts, bool* optional) {
    std::size_t before = CLI_MAX_TOKENS;
    for (skip_blanks(c); !c->fault && *c->at && *c->at != '|' && *c->at != ')'; skip_blanks(c)) {
        if (*c->at == '(') {
            c->fault = "choice within a choice";
            return;
        }
        std::size_t index = read_token(c, true);
        if (c->fault) return;
        if (before == CLI_MAX_TOKENS)
            *firsts |= bit(index);
        else
            c->tokens[before].next |= bit(index);
        before = index;
    }
    if (before == CLI_MAX_TOKENS)
        *optional = true;
    else
        *lasts |= bit(before);
}

void read_choice(compiler* c) {
    std::uint64_t firsts = 0, lasts = 0;
    bool optional = false;
    do {
        c->at++;  // "(" or "|"
        read_alternative(c, &firsts, &lasts, &optional);
    } while (!c->fault && *c->at == '|');
    if (c->fault) return;
    if (*c->at != ')') {
        c->fault = "choice without an end";
        return;
    }
    c->at++;
    close_group(c, firsts, lasts, optional);
}

void read_string(compiler* c) {
    for (skip_blanks(c); *c->at && !c->fault; skip_blanks(c)) {
        if (*c->at == '(') {
            read_choice(c);
        } else if (ends_word(*c->at)) {
            c->fault = "stray character";
        } else {
            std::size_t index = read_token(c, false);
            if (!c->fault) close_group(c, bit(index), bit(index), false);
        }
    }
    if (!c->fault && c->at_start) c->fault = "no word that must be there";
    for (std::size_t i = 0; i < c->count && !c->fault; i++) {
        c->tokens[i].may_end = (c->open & bit(i)) != 0;
        if (c->tokens[i].kind == cli_token_kind::line && c->tokens[i].next) c->fault = "words behind LINE";
    }
}

cli_command* build(const compiler* c, const cli_element* element) {
    std::size_t text_size = 0;
    for (std::size_t i = 0; i < c->count; i++) text_size += c->tokens[i].length + 1;
    std::size_t tokens_size = c->count * sizeof(cli_token);
    auto* command = static_cast<cli_command*>(
        memmgr_calloc(sizeof(cli_command) + tokens_size + text_size, MTYPE_CLI_TREE));
    if (!command) return nullptr;
    command->element = element;
    command->start = c->start;
    command->count = c->count;
    command->tokens = reinterpret_cast<cli_token*>(command + 1);
    char* text = reinterpret_cast<char*>(command->tokens + c->count);
    for (std::size_t i = 0; i < c->count; i++) {
        command->tokens[i] = c->tokens[i];
        std::memcpy(text, c->tokens[i].text, c->tokens[i].length);
        command->tokens[i].text = text;
        text += c->tokens[i].length + 1;
    }
    return command;
}

}  // namespace

static_assert(sizeof(cli_command) % alignof(cli_token) == 0);

cli_command* cli_compile(const cli_element* element) {
    compiler c{};
    c.at = element->string;
    c.at_start = true;
    read_string(&c);
    if (c.fault) {
        log_suite(LOG_LEVEL_ERROR, "command \"%s\": %s", element->string, c.fault);
        return nullptr;
    }
    cli_command* command = build(&c, element);
    if (!command) log_suite(LOG_LEVEL_ERROR, "command \"%s\": out of memory", element->string);
    return command;
}
