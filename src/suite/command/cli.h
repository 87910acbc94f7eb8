// The command-line engine: command objects, the tree of modes, and the context in which a handler runs.
//
// Command strings: words separated by blanks. A word is a keyword in lower case; "(a|b c|)" is a choice of
// alternatives (blanks around "|" do not matter; an alternative that is empty may be left out on the line and
// gives no argument); "<1-255>" is a decimal range; a word in upper case is a parameter:
//   IFNAME, IFPHYSICAL   the name of an interface (known or not)
//   WORD                 any one word
//   SECRET               any one word that is not to be shown (the log, the history, shows of files)
//   LINE                 the rest of the line
// Names and words may end up in files: a line whose word a shell would take as more than text (see
// cli_is_plain) is refused before its handler is called. A SECRET may hold anything, and is not written.
// argv holds what matched choices, ranges and parameters, in their order; fixed keywords are not passed.
// Keywords, also those inside choices, may be shortened to what is unambiguous; the handler gets them in
// full.
#pragma once

#include <cstdint>
#include <string_view>

#include "suite/base/context.h"
#include "suite/base/text.h"
#include "suite/ports/interface.h"

enum cli_mode : std::int32_t {
    EXEC_MODE = 4,        // prompt NAME#; show commands; also the mode of the global configuration writers
    CONFIG_MODE = 5,      // NAME(config)#
    INTERFACE_MODE = 16,  // NAME(config-if)#; the session's `index` is the interface
    DEBUG_MODE = 77,      // its commands are entered in the exec mode and in both configuration modes
};
constexpr std::int32_t CLI_MODE_COUNT = 96;

constexpr std::int32_t PRIVILEGE_NORMAL = 1, PRIVILEGE_MAX = 15;

// A handler's result.
// Deferred: what the line prints, and whether it succeeded, its session is told later.
// More: a part has been printed; the rest is asked for by another call with the same arguments, which goes on
// where terminal->part says. Only after cli_is_full said so.
constexpr int CLI_SUCCESS = 0, CLI_ERROR = 1, CLI_DEFERRED = 2, CLI_MORE = 3;

struct cli;
struct cli_tree;

using cli_output = int (*)(void* out_val, const char* format, ...);
using cli_handler = int (*)(cli* terminal, int argc, char** argv);
using cli_writer = int (*)(cli* terminal);

// A command object. Lives as long as the process; the tree keeps the pointer.
struct cli_element {
    const char* string;
    cli_handler handler;
};

// How far a listing has come that is printed in parts; all zero at its begin.
struct cli_part {
    // The handler's: serial number of the last interface that it has passed, and of the last one that was
    // there at the begin, how many it has shown, and a number of its own.
    std::uint32_t passed, last, shown;
    std::uint64_t mark;
    // The filter's: see cli_pipe.
    bool begun;
    std::uint64_t lines;
    text_buffer line;
};

// What a handler sees of the terminal, or of the file, that its line came from.
struct cli {
    cli_output out_func;   // printf-like
    void* out_val;         // its first argument
    lib_globals* zg;       // library context
    const if_master* ifm;  // the interface table of the session's virtual router
    std::int32_t mode;     // a handler may set it (enter a mode)
    void* index;    // current object: the interface in the interface mode, null when the name is unknown
    char name[64];  // the name as typed with "interface NAME"
    std::int32_t privilege;  // what the daemon itself makes has PRIVILEGE_MAX: it knows no lesser users
    // The session's own record (suite/terminal/session.h), null for configuration files. A session may ask
    // for shows in the configuration modes; a file may not.
    void* line;
    bool json;                          // "| json": what CLI_FLAG_JSON promises is asked for
    bool (*full)(const cli* terminal);  // null: never
    cli_part part;
};

// The terminal would rather take the rest of a long listing later (CLI_MORE).
inline bool cli_is_full(const cli* terminal) {
    return terminal->full && terminal->full(terminal);
}
void cli_part_end(cli* terminal);  // the listing is over, or will not be gone on with

// Flags of cli_install_gen.
enum : std::uint32_t {
    // In a configuration file the line is kept until the interface that its last argument names is bound.
    CLI_FLAG_AFTER_BIND = 1,
    // May not be run from a configuration file or a piped configuration.
    CLI_FLAG_INTERACTIVE = 2,
    // Not offered by `?` and TAB.
    CLI_FLAG_HIDDEN = 4,
    // A show whose handler prints JSON (RFC 8259), one value on one line, when terminal->json is set.
    CLI_FLAG_JSON = 8,
};

cli_tree* cli_tree_create();  // null when exhausted
void cli_tree_free(cli_tree* tree);

// 0, or -1 when the string can't be parsed (logged; our own mistake) or memory is exhausted.
int cli_install(cli_tree* tree, std::int32_t mode, const cli_element* element);
int cli_install_gen(cli_tree* tree, std::int32_t mode, std::int32_t privilege, std::uint32_t flags,
                    const cli_element* element);
// Writers are called in the order of their registration, all those of EXEC_MODE before those of other modes.
int cli_install_config(cli_tree* tree, std::int32_t mode, cli_writer writer);
// Help texts, in tables of their own: for the token `token` ("clock", "<1-255>", "IFNAME") where it
// follows the words `before` ("clock synce"); the entry with the longest `before` that is the tail of what
// was typed counts. Installing a table a second time does nothing.
struct cli_help {
    const char* before;
    const char* token;
    const char* text;
};
int cli_install_help(cli_tree* tree, const cli_help* texts, std::size_t count);

// more: see CLI_MORE; the same line is to be run again. Only of a terminal that can be full.
enum class cli_result { ok, failed, unknown, ambiguous, incomplete, empty, deferred, more };

// Parses and runs one line in terminal->mode, within terminal->privilege. Says "% Unknown command",
// "% Ambiguous command" and "% Incomplete command" itself, each alone on a line; the tree's `before_refusal`
// is called first.
// Lines of blanks, and lines that begin with "!" or "#", are `empty` and succeed.
// The tree's `after_run` hears of a line that succeeded.
cli_result cli_run_line(cli_tree* tree, cli* terminal, std::string_view line);

// Mode, interface and name as they were in `before`.
void cli_go_back(cli* terminal, const cli& before);

// Every installed command, for tests and documents: visit(arg, mode, element, flags).
void cli_walk(const cli_tree* tree,
              void (*visit)(void* arg, std::int32_t mode, const cli_element* element, std::uint32_t flags),
              void* arg);

// Assembles the running configuration through the terminal's output function.
void cli_write_running(cli_tree* tree, cli* terminal);

// Says "% TEXT"; what the handler returns then.
int cli_refuse(cli* terminal, const char* text);

// Decimal text to a number. *status is 0, or negative when the text is not a whole decimal number of 32 bits.
std::int32_t cmd_str2int(const char* text, int* status);

// "show debugging", "debug all" and "no debug all" call everyone who is registered: op 0 shows, 1 clears,
// 2 sets.
using debug_callback = void (*)(cli* terminal, std::int32_t op, void* arg);
int debug_callback_register(debug_callback callback, void* arg);
int cli_debug_install(cli_tree* tree);
