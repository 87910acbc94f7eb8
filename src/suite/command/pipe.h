// What may stand behind the bar of a show command: the filters "| include TEXT", "| exclude TEXT", "| begin
// TEXT" and "| count", and "| json", which asks the command itself for another form.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

#include "suite/command/cli.h"

// Where the bar that begins a filter stands in the line: the first word that begins with "|". npos: none.
std::size_t cli_pipe_find(std::string_view line);
// Words behind the bar and their help texts, "json" last.
std::span<const cli_help> cli_pipe_filters();

enum class cli_pipe_kind : std::uint8_t { include, exclude, begin, count, json };

// One running filter. Output goes through it line by line; a line longer than 64 KiB is taken in pieces.
struct cli_pipe {
    cli_pipe_kind kind;
    std::string_view pattern;  // within the operator's line
    bool begun;
    std::uint64_t lines;
    text_buffer line;
    cli_output out;  // where what passes goes
    void* out_val;
};

// Reads what stands behind the bar. False when it is none of them (*incomplete: words are missing).
bool cli_pipe_parse(std::string_view behind_bar, cli_pipe* pipe, bool* incomplete);
// The session's output function while the filter is in place; its first argument is the cli_pipe.
int cli_pipe_output(void* out_val, const char* format, ...) __attribute__((format(printf, 2, 3)));
// Between two parts of a listing the filter's state is kept there.
void cli_pipe_resume(cli_pipe* pipe, cli_part* part);
void cli_pipe_pause(cli_pipe* pipe, cli_part* part);
// Hands on what is left, and the count. Frees the line buffer.
void cli_pipe_finish(cli_pipe* pipe);
