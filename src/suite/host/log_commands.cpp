// The log's commands: where it goes, from which level on, and its last lines.
#include <iterator>

#include "suite/host/state.h"
#include "suite/log/log.h"

namespace {

int log_file(cli* terminal, int, char** argv) {
    const char* why = log_set_file(argv[0]);
    if (!why) return CLI_SUCCESS;
    terminal->out_func(terminal->out_val, "%% Can't open %s: %s\n", argv[0], why);
    // Read from the configuration file, the line's output goes nowhere.
    log_suite(LOG_LEVEL_WARNING, "log file %s can't be opened: %s", argv[0], why);
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

void print_log_line(void* arg, const char* line, std::size_t length) {
    auto* terminal = static_cast<cli*>(arg);
    terminal->out_func(terminal->out_val, "%.*s\n", static_cast<int>(length), line);
}

int show_log(cli* terminal, int, char**) {
    log_walk_recent(print_log_line, terminal);
    std::uint64_t dropped = log_dropped_lines();
    if (dropped)
        terminal->out_func(terminal->out_val, "%llu lines dropped by slow sinks\n",
                           static_cast<unsigned long long>(dropped));
    return CLI_SUCCESS;
}

const cli_element show_log_cmd = {"show log", show_log};
const cli_element config_commands[] = {
    {"log file PATH", log_file},
    {"no log file", no_log_file},
    {"log syslog", log_to_syslog},
    {"no log syslog", no_log_syslog},
    {"log stderr", log_stderr},
    {"no log stderr", no_log_stderr},
    {"log level (error|warning|info|debug)", log_level},
    {"no log level", no_log_level},
};

const cli_help help_texts[] = {
    {"show", "log", "The last log messages"},
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

void write_sink(cli* terminal, const log_settings& log, log_sink sink, const char* name) {
    if (((log.sinks ^ log.default_sinks) & sink) == 0) return;
    terminal->out_func(terminal->out_val, "%slog %s\n", log.sinks & sink ? "" : "no ", name);
}

}  // namespace

void host_log_write(cli* terminal) {
    const log_settings log = log_get_settings();
    write_sink(terminal, log, LOG_SINK_STDERR, "stderr");
    write_sink(terminal, log, LOG_SINK_SYSLOG, "syslog");
    if (log.file) terminal->out_func(terminal->out_val, "log file %s\n", log.file);
    if (log.level != LOG_LEVEL_DEBUG)
        terminal->out_func(terminal->out_val, "log level %s\n", log_level_word(log.level));
}

int host_log_install(cli_tree* tree) {
    int result = cli_install(tree, EXEC_MODE, &show_log_cmd);
    for (const cli_element& element : config_commands)
        result |= cli_install_gen(tree, CONFIG_MODE, PRIVILEGE_MAX, 0, &element);
    return result | cli_install_help(tree, help_texts, std::size(help_texts));
}
