// Where finished log lines go: standard error, a file, syslog. Used by suite/log/log.cpp alone. Nothing here
// blocks, and nothing here logs.
#pragma once

#include <cstddef>
#include <cstdint>

// The longest line with its time, level and newline; longer text is cut.
constexpr std::size_t LOG_LINE_MAX = 4096;

// Writes a whole line of at most LOG_LINE_MAX octets, newline included, to standard error as it is now (it
// may have been redirected since the line before).
void log_stderr_write(int level, const char* line, std::size_t length);
// Lets go of what was opened for it: a pipe that is held on to keeps its reader waiting for the end.
void log_stderr_close();

// See log_use_file.
[[nodiscard]] bool log_file_use(int fd, const char* path);
const char* log_file_path();  // null when closed
void log_file_write(const char* line, std::size_t length);

void log_syslog_open(const char* progname);
void log_syslog_set_path(const char* path);  // tests: another socket than /dev/log; must outlive its use
void log_syslog_close();
// `text` is the line without time, level and newline.
void log_syslog_write(int level, const char* text, std::size_t length);

// True while a sink holds back the rest of a line or a count of dropped lines; log_sinks_retry tries again.
bool log_sinks_backlog();
void log_sinks_retry();
void log_sinks_close();
std::uint64_t log_sinks_dropped();

// log.cpp: "<time> <level word> " in front of a line; returns its length.
std::size_t log_format_prefix(char* out, std::size_t size, int level);
