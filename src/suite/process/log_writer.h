// Writing log lines to files without ever waiting for a disk: each file, and standard error when it is one,
// has a child process that opens it, reads lines from a pipe and writes them. The pipe is the queue: when it
// is full, lines are dropped and counted as with every sink. A child ends when its pipe is closed, by a
// change of the file or by the end of the daemon however it comes, and writes first what is left.
//
// Until log_writers_start nothing is opened, so that no child has more rights than the daemon keeps; lines
// wait in the pipe.
#pragma once

#include <cstdint>

struct lib_globals;

// `why` null: the log goes there from now on. Otherwise nothing has changed.
using log_writer_done = void (*)(lib_globals* ctx, void* owner, const char* why);

// Null: the file is being opened, and `done` will be called, unless it is null; else why it can't be. Before
// log_writers_start the log goes there at once, and a file that can't be opened then is said in the log.
[[nodiscard]] const char* log_writer_open(lib_globals* ctx, const char* path, log_writer_done done,
                                          void* owner);
// No log file any more.
void log_writer_close();
// The owner does not wait any more: the file is not used when it opens after all.
void log_writer_forget(const void* owner);

// Once the rights are what they will be.
void log_writers_start(lib_globals* ctx);
// Closes all, and waits a moment for what is still to be written.
void log_writers_stop(lib_globals* ctx);
