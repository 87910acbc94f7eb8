// Start and stop of the library: the one room that knows all the others.
#pragma once

#include "suite/base/context.h"

// Null when memory is exhausted.
lib_globals* lib_create(const char* name);
// Opens the log and makes the command tree; the daemon sets `master` itself. Negative on failure.
int lib_start(lib_globals* ctx);
// Closes terminals, sub-agent, event master, interface list; frees the context. Null is ignored.
void lib_stop(lib_globals* ctx);

// "esmcd version X" and a newline on standard output.
void print_version(const char* progname);
