// The listening end of the NSM socket.
#pragma once

#include "suite/start/lib.h"

struct nsm_listener;

// Listens on `path` and hands every connection to `connected`, which owns the descriptor then. A file that
// nobody listens on is replaced; where a server answers, null. Null with a log line on failure.
nsm_listener* nsm_listen_start(lib_globals* ctx, const char* path, void (*connected)(void* arg, int fd),
                               void* arg);
// Removes the file unless another server's has taken its place. Null is ignored.
void nsm_listen_stop(nsm_listener* listener);
