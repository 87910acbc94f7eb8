// Watches the kernel's links and keeps the port table true.
#pragma once

#include <cstdint>

#include "nsmd/links/port_table.h"
#include "nsmd/netlink/channel.h"
#include "suite/base/context.h"
#include "suite/base/text.h"

struct link_watch;

// The kernel may hold a lost carrier back for a second before it says so. These are the intervals, in ms, at
// which ports that are up are asked for: `fast` for a second after anything happened to any link, `slow`
// otherwise (0: not at all). Each time some of the ports have their turn, so many that what it costs does not
// grow with their number; in the fast rounds the preferred one and those that changed last always have.
struct link_poll {
    std::uint32_t fast_ms = 50;
    std::uint32_t slow_ms = 100;
};

// Opens the socket and asks for all links; the answer comes through the loop. Null with a log line when the
// kernel refuses or memory is exhausted. `edge` must outlive the watcher.
link_watch* link_watch_start(lib_globals* ctx, port_table* table, const netlink_edge& edge, link_poll poll);
void link_watch_stop(link_watch* watch);  // null is ignored

// The port whose loss must be known first, by esmcd's index: the clock's source. 0: none.
void link_watch_prefer(link_watch* watch, std::uint32_t ifindex);

// Asks for all links again: something about them changed that the kernel does not tell.
void link_watch_refresh(link_watch* watch);

// Once a second while nsmd serves, the first time when it begins to: from then on nothing waits for the
// kernel, which may let a question wait for any driver.
void link_watch_tend(link_watch* watch);

// The first dump is through: the port table is complete.
bool link_watch_ready(const link_watch* watch);
// Before the loop runs: waits, at most `timeout_ms`, until the table is complete. False when it is not.
bool link_watch_wait_ready(link_watch* watch, int timeout_ms);

bool link_watch_status(const link_watch* watch, text_buffer* out);  // lines for the status report
