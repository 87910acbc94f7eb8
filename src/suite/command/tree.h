// The command tree as the engine's own files see it: compiled commands, lists of them by mode, writers, help
// texts. Everything else uses suite/command/cli.h.
//
// A command string compiles to at most 64 tokens. Which tokens may follow a token is one 64-bit mask, so that
// matching a line is a walk over masks without recursion, whatever the line looks like.
#pragma once

#include <cstddef>
#include <cstdint>

#include "suite/command/cli.h"

constexpr std::size_t CLI_MAX_TOKENS = 64;

enum class cli_token_kind : std::uint8_t { keyword, range, ifname, word, secret, line };

struct cli_token {
    const char* text;  // as written in the command string: "synce", "<1-255>", "IFNAME"
    std::size_t length;
    cli_token_kind kind;
    bool argument;  // what matches is handed to the handler
    bool may_end;   // the command may end behind this token
    std::uint32_t low, high;
    std::uint64_t next;  // tokens that may follow
};

struct cli_command {
    const cli_element* element;
    std::int32_t mode;
    std::int32_t privilege;
    std::uint32_t flags;
    std::uint64_t start;  // tokens that may come first
    std::size_t count;
    cli_token* tokens;
};

struct cli_command_list {
    cli_command** items;
    std::size_t count;
    std::size_t room;
};

struct cli_writer_entry {
    std::int32_t mode;
    cli_writer writer;
};

struct cli_help_table {
    const cli_help* texts;
    std::size_t count;
};

constexpr std::size_t CLI_MAX_WRITERS = 16, CLI_MAX_HELP_TABLES = 24;
// Writers of the platform: before all others, and behind all others.
constexpr std::int32_t CLI_WRITERS_FIRST = 0, CLI_WRITERS_LAST = CLI_MODE_COUNT - 1;

struct cli_tree {
    cli_command_list modes[CLI_MODE_COUNT];
    bool has_default[CLI_MODE_COUNT];
    cli_writer_entry writers[CLI_MAX_WRITERS];
    std::size_t writer_count;
    cli_help_table help[CLI_MAX_HELP_TABLES];
    std::size_t help_count;
    // Told of every command that succeeded; the host drops kept lines that the command made stale.
    void (*after_run)(cli* terminal, const cli_command* command);
    // A line is about to be refused for how it is written: terminals explain it. `terminal` is in the mode in
    // which the line was read, which "do" may have changed.
    void (*before_refusal)(cli* terminal);
};

// Compiles a command string into one block of memory (give it back with memmgr_free, MTYPE_CLI_TREE). Null
// when the string is malformed or memory is exhausted (logged).
cli_command* cli_compile(const cli_element* element);
