// The log's commands: where it goes, from which level on, and its last lines.
#include <iterator>

#include "suite/host/state.h"
#include "suite/log/log.h"
#include "suite/log/place.h"
#include "suite/process/log_writer.h"
#include "suite/terminal/session.h"

namespace {

// The writer logs itself what could not be opened.
void on_opened(lib_globals*, void* owner, const char* why) {
    text_buffer text;
    auto* t = static_cast<host_task*>(owner);
    if (why) (void)text_printf(&text, "%% %s: %s\n", host_task_what(t), why);  // it has been logged
    (void)host_task_end(t, !why, text.view());                                 // nobody else is to be told
    text_free(&text);
}

int refuse_file(cli* terminal, const char* path, const char* why) {
    terminal->out_func(terminal->out_val, "%% Can't open %s: %s\n", path, why);
    // Read from the configuration file, the line's output goes nowhere.
    log_suite(LOG_LEVEL_WARNING, "log file %s can't be opened: %s", path, why);
    return CLI_ERROR;
}

int log_file(cli* terminal, int, char** argv) {
    host_task* t = nullptr;
    const bool waits = session_running(terminal) && !log_place_refusal(argv[0]);
    if (waits && !(t = host_task_create(terminal, "Can't open", argv[0]))) return CLI_ERROR;
    const char* why = log_writer_open(terminal->zg, argv[0], t ? on_opened : nullptr, t);
    if (!why) return t ? host_task_wait(t, terminal) : CLI_SUCCESS;
    if (t) (void)host_task_end(t, false, {});
    return refuse_file(terminal, argv[0], why);
}

int no_log_file(cli*, int, char**) {
    log_writer_close();
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
