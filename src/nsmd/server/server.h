// The server side of the NSM link: takes clients on, gives each the dump, tells all of them what changes, and
// hands their requests on.
#pragma once

#include <cstdint>

#include "nsmd/clock/dpll.h"
#include "nsmd/links/port_table.h"
#include "nsmd/server/peer.h"
#include "suite/base/context.h"
#include "suite/manager/wire.h"

// Messages of this server beyond those of the daemon's link. A client that says BYE before it closes ends on
// purpose; one whose link just breaks may be restarting. STATUS_GET is taken from anybody, HELLO or not; the
// answer is any number of STATUS_TEXT (a piece of text each), the last one empty.
enum nsmd_message : std::uint16_t {
    NSMD_MSG_STATUS_GET = 300,
    NSMD_MSG_STATUS_TEXT = 301,
};

constexpr std::size_t NSM_REQUEST_WORDS = 3;

struct nsmd_server;

struct nsmd_server_sink {
    // A client was accepted: state all there is through nsmd_server_send_* with this peer.
    void (*dump)(void* arg, nsmd_peer* peer);
    // A request; words that its type does not have are 0.
    void (*request)(void* arg, std::uint16_t type, const std::uint32_t (&words)[NSM_REQUEST_WORDS]);
    // A greeted client came or went, and how many there are now. `clean`: it went with a BYE.
    void (*clients)(void* arg, std::uint32_t count, bool clean);
    bool (*status)(void* arg, text_buffer* out);
    void* arg;
};

// Null when memory is exhausted. It has no socket yet.
nsmd_server* nsmd_server_create(lib_globals* ctx, const nsmd_server_sink& sink);
// Listens on `path`; a stale file is replaced, a live server's is not. 0, or -1 with a log line.
int nsmd_server_listen(nsmd_server* server, const char* path);
// Closes all and removes the file, if it is still ours. Null is ignored.
void nsmd_server_free(nsmd_server* server);

// Takes a connected descriptor as a client. What the listener does; tests hand in one end of a pair.
nsmd_peer* nsmd_server_adopt(nsmd_server* server, int fd);

// To one peer, or with null to all greeted ones.
void nsmd_server_send_port(nsmd_server* server, nsmd_peer* peer, const nsmd_port& port);
void nsmd_server_send_port_gone(nsmd_server* server, const nsmd_port& port);
void nsmd_server_send_link(nsmd_server* server, const nsmd_port& port);
void nsmd_server_send_bridge(nsmd_server* server, nsmd_peer* peer, const bridge_identity& identity);
void nsmd_server_send_clock(nsmd_server* server, nsmd_peer* peer, std::uint32_t state, std::uint32_t source);

void nsmd_server_send_detail(nsmd_server* server, nsmd_peer* peer, const dpll_detail& detail);

bool nsmd_server_status(const nsmd_server* server, text_buffer* out);

// The other side of STATUS_GET, for `nsmd --status`: prints the answer of the server at this path. The exit
// status: 0, or 1 with a line on standard error when nobody answers.
int nsmd_status_print(const char* socket_path);
