// nsmd put together: links, ports, server and clock.
#pragma once

#include "nsmd/netlink/socket.h"
#include "nsmd/options.h"
#include "suite/base/context.h"

struct nsmd;
struct nsmd_server;

// Where nsmd meets the world; tests put their own in place.
struct nsmd_edges {
    netlink_edge netlink;
    const char* socket_path;           // null: no listening socket, clients are handed to the server
    int link_wait_ms;                  // how long the start waits for the kernel's links; 0: not at all
    const char* index_path = nullptr;  // the file that keeps the ports' indexes; null: none
};

// Starts everything; `options` and the texts in it must outlive it. Null with a log line on failure.
nsmd* nsmd_start(lib_globals* ctx, const nsmd_options& options, const nsmd_edges& edges);
// The start is over: what may wait for a driver goes to helper processes, which have the rights that this one
// has by now. Without it the loop waits itself. False without memory.
bool nsmd_detach(nsmd* n);
void nsmd_stop(nsmd* n);  // null is ignored

nsmd_server* nsmd_server_of(nsmd* n);
const port_table* nsmd_table_of(const nsmd* n);
