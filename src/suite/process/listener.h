// A listening socket on the event loop: takes one connection a turn. When descriptors or memory run out it
// rests for a while, because the client that waits would make every turn ready.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include "suite/base/unix_socket.h"
#include "suite/log/limit.h"

struct lib_globals;
struct thread;

// Owns `fd` from here on: non-blocking and closed on exec.
using listener_accepted = void (*)(void* arg, int fd, const sockaddr_storage& peer);

// Its owner's, at one place as long as it is open; zero when it is not.
struct listener {
    lib_globals* ctx;  // null: not open
    listener_accepted accepted;
    void* arg;
    int fd;
    thread* event;                             // the next connection, or the end of a rest
    char path[sizeof(sockaddr_un::sun_path)];  // empty: no file
    unix_file file;
    log_limit exhausted;
    bool (*has_place)(void* arg);  // asked at the end of a rest: false begins another one; null: always
    std::uint32_t rest_ms;
};

// Serves `fd`, which listens already and belongs to the listener from here on. 0 or -ENOMEM: `fd` is closed.
int listener_start(listener* l, lib_globals* ctx, int fd, listener_accepted accepted, void* arg);
// Listens on a Unix socket of mode 0660; see unix_listen for the file that is there already. 0 or a negative
// errno.
int listener_start_unix(listener* l, lib_globals* ctx, const char* path, int type, listener_accepted accepted,
                        void* arg);
// Takes nobody for so long; who comes meanwhile waits in the kernel's queue. Also from inside `accepted`.
void listener_rest(listener* l, std::uint32_t milliseconds);
// Closes, and removes the file unless another server's has taken its place.
void listener_stop(listener* l);
