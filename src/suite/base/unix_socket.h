// Unix sockets by the path of their file: connecting to one, and making one that others connect to. `type` is
// SOCK_STREAM or SOCK_SEQPACKET, with SOCK_NONBLOCK where it is wanted; every socket is closed on exec.
#pragma once

#include <sys/types.h>
#include <sys/un.h>

// A connected descriptor, or a negative errno. Connecting succeeds or fails at once, unless the server's
// backlog is full: a non-blocking socket is then refused with -EAGAIN, another one waits, `limit_s` seconds
// at most (0: without limit).
int unix_connect(const char* path, int type, int limit_s = 0);

// Where a server makes its socket: at `path`, or, when root has put a symbolic link there, where that leads:
// to a directory in which the server's user may make files. Neither making nor removing a socket follows a
// link. False: too long for an address.
bool unix_place(const char* path, char (&place)[sizeof(sockaddr_un::sun_path)]);

// What tells a socket's file from one that another server has put in its place.
struct unix_file {
    dev_t device;
    ino_t inode;  // 0: none
};

// Makes the file, with `mode` from its first moment on, and listens. A socket that nobody listens on any more
// is replaced. -EADDRINUSE when the path is taken by anything else: a server that is stopped or busy counts
// as one that is there.
int unix_listen(const char* path, int type, mode_t mode, unix_file* made);
// Removes the file, if it is still the one that was made.
void unix_remove(const char* path, const unix_file& made);
