// The log. log_sys formats only when a sink or the ring buffer wants the level. No sink can block: what can't
// be written at once is dropped, counted, and "N log lines dropped" is said once the sink works again.
#pragma once

#include <cstddef>
#include <cstdint>

enum log_level : int { LOG_LEVEL_ERROR = 3, LOG_LEVEL_WARNING = 4, LOG_LEVEL_INFO = 6, LOG_LEVEL_DEBUG = 7 };

enum log_sink : unsigned { LOG_SINK_STDERR = 1, LOG_SINK_SYSLOG = 2, LOG_SINK_FILE = 4 };

// `module` is the caller's module number and is not printed. The suite itself uses module 0.
void log_sys(int module, int level, const char* format, ...) __attribute__((format(printf, 3, 4)));

// What the suite's own code and nsmd call: the same, with the suite's module number.
void log_suite(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

bool log_wants(int level);  // cheap: for callers whose arguments cost something

// Program name for syslog; the default sink is stderr, at level debug.
void log_open(const char* progname);
void log_close();
// For a child, whose sinks are not its own: it logs nothing, and its settings stay to be looked at.
void log_silence();
void log_use_sink(log_sink sink, bool on);
// What the program's mode implies (`log_sink` bits: stderr in the foreground, syslog in daemon mode): used
// from now on, and not written as configuration.
void log_set_default_sinks(unsigned sinks);
// Lines go to `fd` as well, which is taken over and does not block: the way to whoever writes the file `path`
// (suite/process/log_writer.h). -1: no more. False when there is no memory for the name; all is as before
// then.
[[nodiscard]] bool log_use_file(int fd, const char* path);
void log_set_level(int level);
bool log_level_of(const char* word, int* level);  // "error", "warning", "info", "debug"
const char* log_level_word(int level);

struct log_settings {
    unsigned sinks, default_sinks;  // `log_sink` bits in use, and those of log_set_default_sinks
    int level;
    const char* file;  // null: none
};
log_settings log_get_settings();

// Taps: terminals with `terminal monitor`, and tests. Called with the finished line without newline. A tap
// must neither block nor log.
using log_tap = void (*)(void* arg, int level, const char* line, std::size_t length);
int log_add_tap(log_tap tap, void* arg);  // -1 when all 64 are taken
void log_remove_tap(log_tap tap, void* arg);

// The last lines (a ring of 64 KiB), oldest first, for `show log`.
void log_walk_recent(void (*visit)(void* arg, const char* line, std::size_t length), void* arg);
std::uint64_t log_dropped_lines();

// The event loop's: a sink holds back the rest of a line or a count of dropped lines; log_retry tries again.
bool log_backlog();
void log_retry();
