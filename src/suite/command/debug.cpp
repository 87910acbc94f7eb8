// "show debugging", "debug all" and "no debug all" of the platform: handed to every registered callback.
#include "suite/command/cli.h"

#include <iterator>

namespace {

struct {
    debug_callback callback;
    void* arg;
} callbacks[16];
std::size_t callback_count;

enum : std::int32_t { DEBUG_SHOW = 0, DEBUG_CLEAR = 1, DEBUG_SET = 2 };

int tell_all(cli* terminal, std::int32_t op) {
    for (std::size_t i = 0; i < callback_count; i++) callbacks[i].callback(terminal, op, callbacks[i].arg);
    return CLI_SUCCESS;
}

int show_debugging(cli* terminal, int, char**) {
    return tell_all(terminal, DEBUG_SHOW);
}

int debug_all(cli* terminal, int, char**) {
    return tell_all(terminal, DEBUG_SET);
}

int no_debug_all(cli* terminal, int, char**) {
    return tell_all(terminal, DEBUG_CLEAR);
}

const cli_element show_debugging_cmd = {"show debugging", show_debugging};
const cli_element debug_all_cmd = {"debug all", debug_all};
const cli_element no_debug_all_cmd = {"no debug all", no_debug_all};

const cli_help help_texts[] = {
    {"", "debug", "Switch debug messages on"},
    {"debug", "all", "Of every part"},
    {"show", "debugging", "Debug messages that are on"},
};

}  // namespace

int debug_callback_register(debug_callback callback, void* arg) {
    for (std::size_t i = 0; i < callback_count; i++)
        if (callbacks[i].callback == callback && callbacks[i].arg == arg) return 0;
    if (callback_count == sizeof callbacks / sizeof callbacks[0]) return -1;
    callbacks[callback_count++] = {callback, arg};
    return 0;
}

int cli_debug_install(cli_tree* tree) {
    return cli_install(tree, EXEC_MODE, &show_debugging_cmd) | cli_install(tree, DEBUG_MODE, &debug_all_cmd) |
           cli_install(tree, DEBUG_MODE, &no_debug_all_cmd) |
           cli_install_help(tree, help_texts, std::size(help_texts));
}
