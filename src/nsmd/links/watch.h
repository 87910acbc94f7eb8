// Watches the kernel's links and keeps the port table true.
#pragma once

#include <cstdint>

#include "nsmd/links/port_table.h"
#include "nsmd/netlink/socket.h"
#include "suite/base/context.h"
#include "suite/base/text.h"

struct link_watch;

// The kernel may hold a lost carrier back for a second before it says so. These are the intervals, in ms, at
// which ports that are up are asked for: `fast` for a second after anything happened to any link, `slow`
// otherwise (0: not at all).
struct link_poll {
    std::uint32_t fast_ms = 50;
    std::uint32_t slow_ms = 100;
};

// Opens the socket and asks for all links; the answer comes through the loop. Null with a log line when the
// kernel refuses or memory is exhausted. `edge` must outlive the watcher.
link_watch* link_watch_start(lib_globals* ctx, port_table* table, const netlink_edge& edge, link_poll poll);
void link_watch_stop(link_watch* watch);  // null is ignored

// The first dump is through: the port table is complete.
bool link_watch_ready(const link_watch* watch);
// Before the loop runs: waits, at most `timeout_ms`, until the table is complete. False when it is not.
bool link_watch_wait_ready(link_watch* watch, int timeout_ms);

bool link_watch_status(const link_watch* watch, text_buffer* out);  // lines for the status report
