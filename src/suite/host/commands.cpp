// The platform's everyday commands: configuration files, host name, log. What only shows state is in
// suite/host/show.cpp.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "suite/host/show.h"
#include "suite/host/state.h"
#include "suite/log/log.h"

namespace {

int configure_terminal(cli* session, int, char**) {
    session->mode = CONFIG_MODE;
    session->index = nullptr;
    session->name[0] = 0;
    return CLI_SUCCESS;
}

int save(cli* session, int, char**) {
    return host_save(host_of(session), session) ? CLI_SUCCESS : CLI_ERROR;
}

int hostname(cli* session, int, char** argv) {
    host_state* host = host_of(session);
    if (std::strlen(argv[0]) >= sizeof host->name) return host_refuse(session, "Name too long");
    std::snprintf(host->name, sizeof host->name, "%s", argv[0]);
    return CLI_SUCCESS;
}

int no_hostname(cli* session, int, char**) {
    host_of(session)->name[0] = 0;
    return CLI_SUCCESS;
}

int no_interface(cli* session, int, char** argv) {
    if (pending_drop(host_of(session), argv[0])) return CLI_SUCCESS;
    return host_refuse(session, "No lines wait for that interface");
}

int log_file(cli* session, int, char** argv) {
    if (log_set_file(argv[0]) == 0) return CLI_SUCCESS;
    const int error = errno;
    session->out_func(session->out_val, "%% Can't open %s: %s\n", argv[0], std::strerror(error));
    // Read from the configuration file, the line's output goes nowhere.
    log_suite(LOG_LEVEL_WARNING, "log file %s can't be opened: %s", argv[0], std::strerror(error));
    return CLI_ERROR;
}

int no_log_file(cli*, int, char**) {
    (void)log_set_file(nullptr);  // closing can't fail
    return CLI_SUCCESS;
}

int log_to_syslog(cli*, int, char**) {
    log_use_sink(LOG_SINK_SYSLOG, true);
    return CLI_SUCCESS;
}

int no_log_syslog(cli*, int, char**) {
    log_use_sink(LOG_SINK_SYSLOG, false);
    return CLI_SUCCESS;
}

int log_stderr(cli*, int, char**) {
    log_use_sink(LOG_SINK_STDERR, true);
    return CLI_SUCCESS;
}

int no_log_stderr(cli*, int, char**) {
    log_use_sink(LOG_SINK_STDERR, false);
    return CLI_SUCCESS;
}

int log_level(cli*, int, char** argv) {
    int level = LOG_LEVEL_DEBUG;
    if (log_level_of(argv[0], &level)) log_set_level(level);
    return CLI_SUCCESS;
}

int no_log_level(cli*, int, char**) {
    log_set_level(LOG_LEVEL_DEBUG);
    return CLI_SUCCESS;
}

const cli_element exec_commands[] = {
    {"configure terminal", configure_terminal},
    {"write", save},
    {"copy running-config startup-config", save},
};

const cli_element config_commands[] = {
    {"hostname WORD", hostname},           {"no hostname", no_hostname},
    {"no interface IFNAME", no_interface}, {"log file PATH", log_file},
    {"no log file", no_log_file},          {"log syslog", log_to_syslog},
    {"no log syslog", no_log_syslog},      {"log stderr", log_stderr},
    {"no log stderr", no_log_stderr},      {"log level (error|warning|info|debug)", log_level},
    {"no log level", no_log_level},
};

const cli_help help_texts[] = {
    {"", "configure", "Enter the configuration mode"},
    {"configure", "terminal", "Configure from this terminal"},
    {"", "copy", "Copy a configuration"},
    {"", "write", "Save the running configuration"},
    {"", "running-config", "The configuration that is in force"},
    {"", "startup-config", "The configuration that the next start reads"},
    {"", "no", "Undo a setting"},
    {"", "hostname", "Name of this switch in the prompt"},
    {"hostname", "WORD", "Name, at most 63 octets"},
    {"", "interface", "Configure one port"},
    {"no", "interface", "Forget lines that wait for a port"},
    {"interface", "IFNAME", "Name of a port"},
    {"", "IFNAME", "Name of a port"},
    {"", "IFPHYSICAL", "Name of a port"},
    {"", "log", "Where log messages go"},
    {"log", "file", "Into a file"},
    {"log file", "PATH", "The file, made if it is not there"},
    {"log", "level", "How important a message must be"},
    {"log level", "error", "Errors only"},
    {"log level", "warning", "Warnings and errors"},
    {"log level", "info", "What happens, warnings and errors"},
    {"log level", "debug", "Everything"},
    {"log", "stderr", "To standard error"},
    {"log", "syslog", "To the system's log"},
};

int write_own_lines(cli* session) {
    const host_state* host = host_of(session);
    if (host->name[0]) session->out_func(session->out_val, "hostname %s\n", host->name);
    host_terminal_write(host, session);
    return log_config_write(session);
}

}  // namespace

int host_commands_install(host_state* host) {
    cli_tree* tree = host->ctx->ctree;
    int result = 0;
    for (const cli_element& element : exec_commands)
        result |= cli_install_gen(tree, EXEC_MODE, PRIVILEGE_MAX, CLI_FLAG_INTERACTIVE, &element);
    for (const cli_element& element : config_commands)
        result |= cli_install_gen(tree, CONFIG_MODE, PRIVILEGE_MAX, 0, &element);
    result |= cli_install_config(tree, CLI_WRITERS_FIRST, write_own_lines);
    result |= cli_install_config(tree, CLI_WRITERS_LAST, pending_write);
    return result | host_terminal_install(tree) | host_show_install(tree) |
           cli_install_help(tree, help_texts, std::size(help_texts));
}
