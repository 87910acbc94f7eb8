// The platform's everyday commands: configuration files, and lines that wait. What only shows state is in
// suite/host/show.cpp.
#include <iterator>

#include "suite/host/state.h"
#include "suite/terminal/terminal.h"

namespace {

int configure_terminal(cli* terminal, int, char**) {
    terminal->mode = CONFIG_MODE;
    terminal->index = nullptr;
    terminal->name[0] = 0;
    return CLI_SUCCESS;
}

int save(cli* terminal, int, char**) {
    return host_save(host_of(terminal), terminal);
}

int no_interface(cli* terminal, int, char** argv) {
    if (pending_drop(host_of(terminal), argv[0])) return CLI_SUCCESS;
    return cli_refuse(terminal, "No lines wait for that interface");
}

const cli_element exec_commands[] = {
    {"configure terminal", configure_terminal},
    {"configure replace startup-config", host_replace},
    {"write", save},
    {"copy running-config startup-config", save},
};

const cli_element no_interface_cmd = {"no interface IFNAME", no_interface};

const cli_help help_texts[] = {
    {"", "configure", "Change the configuration"},
    {"configure", "terminal", "Configure from this terminal"},
    {"configure", "replace", "Put another configuration in force"},
    {"", "copy", "Copy a configuration"},
    {"", "write", "Save the running configuration"},
    {"", "running-config", "The configuration that is in force"},
    {"", "startup-config", "The configuration that the next start reads"},
    {"", "no", "Undo a setting"},
    {"", "interface", "Configure one port"},
    {"no", "interface", "Forget lines that wait for a port"},
    {"interface", "IFNAME", "Name of a port"},
    {"", "IFNAME", "Name of a port"},
    {"", "IFPHYSICAL", "Name of a port"},
};

int write_own_lines(cli* terminal) {
    terminals_write(terminal);
    host_log_write(terminal);
    return CLI_SUCCESS;
}

}  // namespace

int host_commands_install(host_state* host) {
    cli_tree* tree = host->ctx->ctree;
    int result = 0;
    for (const cli_element& element : exec_commands)
        result |= cli_install_gen(tree, EXEC_MODE, PRIVILEGE_MAX, CLI_FLAG_INTERACTIVE, &element);
    result |= cli_install_gen(tree, CONFIG_MODE, PRIVILEGE_MAX, 0, &no_interface_cmd);
    result |= cli_install_config(tree, CLI_WRITERS_FIRST, write_own_lines);
    result |= cli_install_config(tree, CLI_WRITERS_LAST, pending_write);
    result |= terminals_install(tree) | host_log_install(tree) | host_show_install(tree);
    return result | cli_install_help(tree, help_texts, std::size(help_texts));
}
