// The commands that every mode has: exit, end, do, help. The exec mode has no end and no do.
#include <iterator>

#include "suite/command/tree.h"
#include "suite/terminal/session.h"
#include "suite/terminal/terminal.h"

namespace {

void enter(cli* terminal, std::int32_t mode) {
    terminal->mode = mode;
    terminal->index = nullptr;
    terminal->name[0] = 0;
}

// One mode up; out of the exec mode the terminal's session ends.
int do_exit(cli* terminal, int, char**) {
    if (terminal->mode == EXEC_MODE)
        session_end(terminal);
    else
        enter(terminal, terminal->mode == CONFIG_MODE ? EXEC_MODE : CONFIG_MODE);
    return CLI_SUCCESS;
}

int do_end(cli* terminal, int, char**) {
    enter(terminal, EXEC_MODE);
    return CLI_SUCCESS;
}

// Runs an exec command from a configuration mode and comes back, whatever mode that command entered.
int do_do(cli* terminal, int, char** argv) {
    const cli before = *terminal;
    enter(terminal, EXEC_MODE);
    cli_result result = cli_run_line(terminal->zg->ctree, terminal, argv[0]);
    cli_go_back(terminal, before);
    if (result == cli_result::deferred) return CLI_DEFERRED;
    if (result == cli_result::more) return CLI_MORE;
    return result == cli_result::ok || result == cli_result::empty ? CLI_SUCCESS : CLI_ERROR;
}

int do_help(cli* terminal, int, char**) {
    terminal->out_func(
        terminal->out_val, "%s",
        "Type ? at any place of a line for what may follow there, TAB to complete a word.\n"
        "Words may be shortened to what is unambiguous. The lines of `show` commands can be\n"
        "filtered: | include TEXT, | exclude TEXT, | begin TEXT, | count; some have | json.\n");
    return CLI_SUCCESS;
}

const cli_element exit_cmd = {"exit", do_exit};
const cli_element end_cmd = {"end", do_end};
const cli_element do_cmd = {"do LINE", do_do};
const cli_element help_cmd = {"help", do_help};

const cli_help help_texts[] = {
    {"", "do", "Run a command of the exec mode"},
    {"do", "LINE", "The command"},
    {"", "end", "Go back to the exec mode"},
    {"", "exit", "Leave this mode; from the exec mode, the session"},
    {"", "help", "How to get help"},
};

}  // namespace

int cli_install_default(cli_tree* tree, std::int32_t mode) {
    if (!tree || mode < 0 || mode >= CLI_MODE_COUNT) return -1;
    if (tree->has_default[mode]) return 0;
    tree->has_default[mode] = true;
    int result = cli_install(tree, mode, &exit_cmd) | cli_install(tree, mode, &help_cmd);
    if (mode != EXEC_MODE) result |= cli_install(tree, mode, &end_cmd) | cli_install(tree, mode, &do_cmd);
    return result | cli_install_help(tree, help_texts, std::size(help_texts));
}
