// What the host's own files share: its record, the lines of the configuration file that wait for their
// interface, reading and saving. Everything else uses suite/host/host.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "suite/base/text.h"
#include "suite/command/cli.h"
#include "suite/command/tree.h"
#include "suite/host/host.h"
#include "suite/process/job.h"

constexpr std::size_t HOST_PENDING_MAX = 4 * 1024 * 1024;  // octets of kept lines

// A line of the configuration file that waits. Text follows the record.
struct pending_line {
    pending_line* next;
    const cli_command* command;  // of a global line (CLI_FLAG_AFTER_BIND); null for an interface's line
    std::uint32_t number;        // in the file
    std::size_t length;
    const char* text() const { return reinterpret_cast<const char*>(this + 1); }
};

// What waits for one interface, in the order of the file: its own lines, or global ones that name it. They
// are two blocks, so that the blocks of each kind stand in the order in which they are written.
struct pending_block {
    pending_block* next;
    pending_line* first;
    pending_line* last;
    bool global() const { return first->command != nullptr; }
    const char* name() const { return reinterpret_cast<const char*>(this + 1); }
};

struct cli_parsed;
struct host_task;

struct host_state {
    lib_globals* ctx;
    char* config_file;
    bool unreadable;  // the file was there at start and could not be read
    bool lossy;       // a line could not be kept for want of memory
    pending_block* pending;
    std::size_t pending_octets;
    host_task* tasks;
};

inline host_state* host_of(const cli* terminal) {
    return terminal->zg->host;
}

// A `cli` for lines that come from no terminal: all privileges, `mode`, output to out(out_val, ...).
cli host_plain_session(host_state* host, std::int32_t mode, cli_output out, void* out_val);
// The output of one whose words nobody wants.
int host_discard(void* out_val, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Waiting lines. False when memory (or HOST_PENDING_MAX) is exhausted.
[[nodiscard]] bool pending_keep(host_state* host, std::string_view name, std::string_view line,
                                std::uint32_t number, const cli_command* command);
void pending_run(host_state* host, interface* intf);    // the host's after_bind
bool pending_drop(host_state* host, const char* name);  // false when nothing waits for it
void pending_replaced(host_state* host,
                      const cli_command* command);  // the same command, or its no form, was run
int pending_write(cli* terminal);
void pending_free(host_state* host);

// Reads host->config_file through the tree.
void host_config_read(host_state* host);
void host_log_refused(host_state* host, std::uint32_t number, std::string_view line);

// A line of a configuration that is looked at.
struct host_config_line {
    std::string_view block;  // name of the interface whose line it is; empty: none
    std::string_view text;
    std::uint32_t number;      // from 1
    const cli* terminal;       // in whose mode it is read
    const cli_parsed* parsed;  // null: it is refused
};
struct host_config_look {
    void (*visit)(void* arg, const host_config_line& line);
    void* arg;
    bool runs;  // lines are run, and those that are refused shown; else all are shown, and none is run
};
// The lines of a text as those of the file. What is for interfaces that are not there and fits no command
// waits, and is not shown.
void host_config_take(host_state* host, std::string_view text, const host_config_look& look);
// Makes the running configuration that of the text. False, and `answer` says why, when that was not done or
// not in full.
bool host_config_replace(host_state* host, std::string_view file, text_buffer* answer);
int host_replace(cli* terminal, int argc, char** argv);  // the command: with the configuration file
// Saves atomically; prints "% ..." when the file is as before. A handler's result.
int host_save(host_state* host, cli* terminal);
// The file's content. 0, or a negative errno. -EFBIG above 64 MiB.
int host_read_file(const char* path, text_buffer* out);

// A command's work that waits for a disk, done by a child while the command's session is busy; only for
// commands that session_running knows a session for. A session that waits too long is told "% VERB PATH: the
// disk does not answer". Null when there are too many, which is said.
host_task* host_task_create(cli* terminal, const char* verb, const char* path);
// Starts the child; its `done` ends the task. The handler's result; when it can't be started that is said,
// and the task is gone.
int host_task_start(host_task* t, cli* terminal, const job_order& order, bool saves);
// Just waits for host_task_end.
int host_task_wait(host_task* t, cli* terminal);
const char* host_task_what(const host_task* t);  // "VERB PATH"
// The work is done. False when nobody was waiting any more.
bool host_task_end(host_task* t, bool good, std::string_view output);
bool host_task_saves(const host_state* host);  // a save has not come to its end
bool host_task_awaited(const host_task* t);    // somebody waits for it still
// Runs the session's line in a child, whose handlers find no session that runs, and shows what it prints.
int host_task_show(cli* terminal, const char* path);
void host_tasks_stop(host_state* host);  // waits some seconds for a save

// printf-like output into a text_buffer (out_val); what does not fit is remembered in `cut`.
struct text_output {
    text_buffer text;
    bool cut;
};
int text_output_print(void* out_val, const char* format, ...) __attribute__((format(printf, 2, 3)));

int host_commands_install(host_state* host);
// show running-config, startup-config, version, interfaces, events.
int host_show_install(cli_tree* tree);
// log ..., show log, and their configuration lines.
int host_log_install(cli_tree* tree);
void host_log_write(cli* terminal);

// What a save would change: lines that would go begin with "-", new ones with "+", the interface line of a
// changed block stands above it. False when memory is exhausted.
[[nodiscard]] bool host_diff(std::string_view before, std::string_view now, text_buffer* out);
