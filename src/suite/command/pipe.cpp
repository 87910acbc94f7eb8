// See pipe.h. A filter stands between a show command and the terminal's own output function while the
// command runs. Text is compared as it is, without patterns.
#include "suite/command/pipe.h"

#include <cstdarg>
#include <cstring>

#include "suite/base/slice.h"
#include "suite/command/parse.h"

namespace {

constexpr std::size_t PIECE_MAX = 64 * 1024;

constexpr cli_help filters[] = {
    {"|", "begin", "Show from the first line that holds TEXT"},
    {"|", "count", "Show the number of lines"},
    {"|", "exclude", "Show lines that do not hold TEXT"},
    {"|", "include", "Show lines that hold TEXT"},
    {"|", "json", "Show it as JSON"},
};

void pass(cli_pipe* pipe, std::string_view line) {
    if (line.starts_with("% ") || line.starts_with(" % ")) {  // a refusal is not to be missed
        pipe->out(pipe->out_val, "%.*s\n", static_cast<int>(line.size()), line.data());
        return;
    }
    bool hit = line.find(pipe->pattern) != std::string_view::npos;
    switch (pipe->kind) {
        case cli_pipe_kind::include:
            break;
        case cli_pipe_kind::exclude:
            hit = !hit;
            break;
        case cli_pipe_kind::begin:
            hit = pipe->begun = pipe->begun || hit;
            break;
        case cli_pipe_kind::count:
            pipe->lines++;
            return;
        case cli_pipe_kind::json:
            break;
    }
    if (hit) pipe->out(pipe->out_val, "%.*s\n", static_cast<int>(line.size()), line.data());
}

void pass_lines(cli_pipe* pipe) {
    std::string_view rest = pipe->line.view();
    for (std::size_t end = rest.find('\n'); end != std::string_view::npos; end = rest.find('\n')) {
        pass(pipe, slice(rest, 0, end));
        rest.remove_prefix(end + 1);
    }
    if (rest.size() > PIECE_MAX) {
        pass(pipe, rest);
        rest = {};
    }
    text_consume(&pipe->line, pipe->line.length - rest.size());
}

std::string_view take_word(std::string_view* text) {
    while (!text->empty() && cli_is_blank(text->front())) text->remove_prefix(1);
    std::size_t end = 0;
    while (end < text->size() && !cli_is_blank((*text)[end])) end++;
    std::string_view word = slice(*text, 0, end);
    text->remove_prefix(end);
    while (!text->empty() && cli_is_blank(text->front())) text->remove_prefix(1);
    while (!text->empty() && cli_is_blank(text->back())) text->remove_suffix(1);
    return word;
}

}  // namespace

std::span<const cli_help> cli_pipe_filters() {
    return filters;
}

std::size_t cli_pipe_find(std::string_view line) {
    for (std::size_t i = 1; i < line.size(); i++)
        if (line[i] == '|' && cli_is_blank(line[i - 1])) return i;
    return std::string_view::npos;
}

bool cli_pipe_parse(std::string_view behind_bar, cli_pipe* pipe, bool* incomplete) {
    std::string_view word = take_word(&behind_bar);
    *incomplete = word.empty();
    if (word.empty()) return false;
    constexpr cli_pipe_kind kinds[] = {cli_pipe_kind::begin, cli_pipe_kind::count, cli_pipe_kind::exclude,
                                       cli_pipe_kind::include, cli_pipe_kind::json};
    for (std::size_t i = 0; i < std::size(filters); i++) {
        if (!std::string_view(filters[i].token).starts_with(word)) continue;
        pipe->kind = kinds[i];
        pipe->pattern = behind_bar;
        const bool alone = pipe->kind == cli_pipe_kind::count || pipe->kind == cli_pipe_kind::json;
        *incomplete = !alone && behind_bar.empty();
        return alone == behind_bar.empty();
    }
    return false;
}

int cli_pipe_output(void* out_val, const char* format, ...) {
    auto* pipe = static_cast<cli_pipe*>(out_val);
    va_list args;
    va_start(args, format);
    bool kept = text_vprintf(&pipe->line, format, args);
    va_end(args);
    if (kept) pass_lines(pipe);
    return kept ? 0 : -1;
}

void cli_pipe_resume(cli_pipe* pipe, cli_part* part) {
    pipe->begun = part->begun;
    pipe->lines = part->lines;
    pipe->line = part->line;
    part->line = {};
}

void cli_pipe_pause(cli_pipe* pipe, cli_part* part) {
    part->begun = pipe->begun;
    part->lines = pipe->lines;
    part->line = pipe->line;
    pipe->line = {};
}

void cli_pipe_finish(cli_pipe* pipe) {
    if (pipe->line.length) pass(pipe, pipe->line.view());
    if (pipe->kind == cli_pipe_kind::count)
        pipe->out(pipe->out_val, "%llu\n", static_cast<unsigned long long>(pipe->lines));
    text_free(&pipe->line);
}
