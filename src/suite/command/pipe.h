// Filters of show commands: "show ... | include TEXT", "| exclude TEXT", "| begin TEXT", "| count".
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

#include "suite/command/cli.h"

// Where the bar that begins a filter stands in the line: the first word that begins with "|". npos: none.
std::size_t cli_pipe_find(std::string_view line);
// Filter words and their help texts.
std::span<const cli_help> cli_pipe_filters();

enum class cli_pipe_kind : std::uint8_t { include, exclude, begin, count };

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

// Reads what stands behind the bar. False when it is no filter (*incomplete: words are missing).
bool cli_pipe_parse(std::string_view behind_bar, cli_pipe* pipe, bool* incomplete);
// The session's output function while the filter is in place; its first argument is the cli_pipe.
int cli_pipe_output(void* out_val, const char* format, ...) __attribute__((format(printf, 2, 3)));
// Hands on what is left, and the count. Frees the line buffer.
void cli_pipe_finish(cli_pipe* pipe);
