// See explain.h. The place is found by reading ever longer beginnings of the line, so it is by nature where
// the parser itself has given up; "do" and filters are looked through as they are when a line is run.
#include "suite/command/explain.h"

#include "suite/base/slice.h"
#include "suite/command/parse.h"
#include "suite/command/pipe.h"

namespace {

constexpr std::size_t ROWS_MAX = 10;  // of help texts

struct question {
    const cli_tree* tree;
    cli terminal;
    std::string_view line;
    cli_explanation* out;
};

std::size_t skip_blanks(std::string_view line, std::size_t at) {
    while (at < line.size() && cli_is_blank(line[at])) at++;
    return at;
}

std::size_t end_of_word(std::string_view line, std::size_t at) {
    while (at < line.size() && !cli_is_blank(line[at])) at++;
    return at;
}

std::size_t behind_words(std::string_view line) {
    std::size_t end = line.size();
    while (end && cli_is_blank(line[end - 1])) end--;
    return end + 1;
}

bool answer(const question& q, std::size_t at) {
    q.out->at = at;
    completion_next(q.tree, &q.terminal, slice(q.line, 0, at), &q.out->possible);
    return true;
}

bool fits(const question& q, std::size_t end) {
    const auto ignore = [](void*, const cli_next_token&) {};
    return cli_list_next(q.tree, &q.terminal, slice(q.line, 0, end), ignore, nullptr) != cli_result::unknown;
}

bool explain_unknown(const question& q) {
    for (std::size_t at = skip_blanks(q.line, 0); at < q.line.size(); at = skip_blanks(q.line, at)) {
        const std::size_t end = end_of_word(q.line, at);
        if (!fits(q, end)) return answer(q, at);
        at = end;
    }
    return false;
}

bool explain_ambiguous(const question& q) {
    q.out->at = completion_meanings(q.tree, &q.terminal, q.line, &q.out->possible);
    return q.out->at != std::string_view::npos;
}

bool explain_bad_name(const question& q, const cli_parsed& parsed) {
    const std::size_t k = cli_bad_name(&q.terminal, parsed);
    return k != parsed.count && answer(q, static_cast<std::size_t>(parsed.words[k].data() - q.line.data()));
}

// A filter's name is missing, or is none that the command has, or what follows it is wrong.
bool explain_filter(const question& q, const cli_command* show, std::size_t bar) {
    cli_pipe pipe{};
    bool incomplete = false;
    completion_list* possible = &q.out->possible;
    const bool with_json = show->flags & CLI_FLAG_JSON;
    const bool is_good = cli_pipe_parse(slice(q.line, bar + 1), &pipe, &incomplete);
    if (is_good && (with_json || pipe.kind != cli_pipe_kind::json)) return false;
    const std::size_t name = skip_blanks(q.line, bar + 1), end = end_of_word(q.line, name);
    completion_filters(slice(q.line, name, end - name), with_json, possible);
    q.out->at = name < q.line.size() ? name : behind_words(q.line);
    if (name == end || possible->count == 0) {
        completion_filters({}, with_json, possible);
        return true;
    }
    q.out->at = incomplete ? behind_words(q.line) : skip_blanks(q.line, end);
    possible->count = incomplete ? 1 : 0;
    possible->items[0] = {"TEXT", "What the lines hold"};
    possible->may_end = !incomplete;
    return true;
}

bool explain(question* q);

// The line behind "do" is one of the exec mode.
bool explain_do(question* q, const cli_parsed& parsed) {
    const auto start = static_cast<std::size_t>(parsed.words[1].data() - q->line.data());
    q->terminal.mode = EXEC_MODE;
    q->line = slice(q->line, start);
    if (!explain(q)) return false;
    q->out->at += start;
    return true;
}

bool explain(question* q) {
    const std::size_t bar = cli_pipe_find(q->line);
    const cli_command* show = nullptr;
    if (bar != std::string_view::npos) show = cli_find_show(q->tree, &q->terminal, slice(q->line, 0, bar));
    if (show) {
        if (explain_filter(*q, show, bar)) return true;
        q->line = slice(q->line, 0, bar);
    }
    cli_parsed parsed;
    cli_parse(q->tree, &q->terminal, q->line, &parsed);
    switch (parsed.result) {
        case cli_result::unknown:
            return explain_unknown(*q);
        case cli_result::ambiguous:
            return explain_ambiguous(*q);
        case cli_result::incomplete:
            return answer(*q, behind_words(q->line));
        case cli_result::ok:
            if (cli_parsed_text(parsed, 0) == "do") return explain_do(q, parsed);
            return explain_bad_name(*q, parsed);
        default:
            return false;
    }
}

}  // namespace

bool cli_explain(const cli_tree* tree, const cli* terminal, std::string_view line, cli_explanation* out) {
    if (cli_visible_part(tree, terminal, line).secret) return false;
    out->possible.count = 0;
    out->possible.may_end = false;
    question q{tree, *terminal, line, out};
    return explain(&q);
}

void cli_print_possible(const completion_list& list, std::size_t columns, text_buffer* out) {
    if (list.count <= ROWS_MAX)
        completion_print_rows(list, out);
    else
        completion_print_columns(list, columns, out);
}
