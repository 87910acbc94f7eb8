// Help texts of the platform's own commands.
#include "suite/host/state.h"

namespace {

constexpr cli_help texts[] = {
    {"", "configure", "Enter the configuration mode"},
    {"configure", "terminal", "Configure from this terminal"},
    {"", "copy", "Copy a configuration"},
    {"", "write", "Save the running configuration"},
    {"", "running-config", "The configuration that is in force"},
    {"", "startup-config", "The configuration that the next start reads"},
    {"running-config", "diff", "What a save would change"},
    {"", "debug", "Switch debug messages on"},
    {"", "no", "Undo a setting"},
    {"debug", "all", "Of every part"},
    {"", "do", "Run a command of the exec mode"},
    {"do", "LINE", "The command"},
    {"", "end", "Go back to the exec mode"},
    {"", "exit", "Leave this mode; from the exec mode, the session"},
    {"", "help", "How to get help"},
    {"", "exec-timeout", "Minutes after which an idle terminal is closed (default 10)"},
    {"exec-timeout", "<0-35791>", "Minutes; 0: never"},
    {"", "hostname", "Name of this switch in the prompt"},
    {"hostname", "WORD", "Name, at most 63 octets"},
    {"", "interface", "Configure one port"},
    {"no", "interface", "Forget lines that wait for a port"},
    {"interface", "IFNAME", "Name of a port"},
    {"", "IFNAME", "Name of a port"},
    {"", "IFPHYSICAL", "Name of a port"},
    {"", "log", "Where log messages go"},
    {"show", "log", "The last log messages"},
    {"log", "file", "Into a file"},
    {"log file", "PATH", "The file, made if it is not there"},
    {"log", "level", "How important a message must be"},
    {"log level", "error", "Errors only"},
    {"log level", "warning", "Warnings and errors"},
    {"log level", "info", "What happens, warnings and errors"},
    {"log level", "debug", "Everything"},
    {"log", "stderr", "To standard error"},
    {"log", "syslog", "To the system's log"},
    {"", "password", "Password of the TCP terminal"},
    {"password", "WORD", "The password; its hash is kept"},
    {"password", "encrypted", "Give the hash itself"},
    {"password encrypted", "WORD", "Hash, as the running configuration shows it"},
    {"", "show", "Show state and configuration"},
    {"show", "debugging", "Debug messages that are on"},
    {"show", "events", "The event loop: runs, longest run, what is pending"},
    {"show", "interfaces", "Ports, their state and frames"},
    {"show", "memory", "Memory by purpose"},
    {"show", "version", "Version of the program"},
    {"show", "nsm", "The link to the network services manager, and what it was asked for"},
    {"show", "slow-protocols", "The packet socket and its counters"},
    {"", "terminal", "Settings of this terminal"},
    {"terminal", "length", "Lines of a page (default: the window)"},
    {"terminal length", "<0-512>", "Lines; 0: no pages"},
    {"terminal", "monitor", "Show log messages here"},
};

}  // namespace

int host_help_install(cli_tree* tree) {
    return cli_install_help(tree, texts, sizeof texts / sizeof texts[0]);
}
