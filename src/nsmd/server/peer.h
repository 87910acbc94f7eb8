// One client of the NSM socket: its descriptor, what waits to be sent to it, and the reading of its messages.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "suite/base/context.h"
#include "suite/base/octets.h"
#include "suite/base/text.h"

struct thread;
struct nsmd_peer;

struct nsmd_peer_sink {
    // One packet as it came, header included, at most NSM_MESSAGE_MAX octets; `truncated` when it was longer.
    void (*packet)(void* arg, nsmd_peer* peer, const_octets packet, bool truncated);
    // The link broke, by the client or because it took too little. The peer is closed already; its record is
    // freed when this returns to the loop.
    void (*closed)(void* arg, nsmd_peer* peer);
    void* arg;
};

struct nsmd_peer {
    lib_globals* ctx;
    nsmd_peer_sink sink;
    int fd;  // -1 once closed
    pid_t pid;
    bool greeted;   // HELLO taken: gets what everybody gets
    bool said_bye;  // the client announced that it ends on purpose
    bool close_when_sent;
    std::uint32_t sequence;  // of the last message sent
    text_buffer queue;       // packets that the socket did not take: u16 length in host order, octets
    thread* read;
    thread* write;
    thread* reap;
    nsmd_peer* next;  // the server's list
};

// Takes the descriptor over (also when it fails: it is closed then). Null when memory is exhausted.
nsmd_peer* nsmd_peer_create(lib_globals* ctx, int fd, const nsmd_peer_sink& sink);

// Sends one message: the header is made here, with the length and the peer's next sequence number. What the
// socket does not take is queued; a peer whose queue is full is closed.
void nsmd_peer_send(nsmd_peer* peer, std::uint16_t type, const_octets body);

// Closes once the queue is sent.
void nsmd_peer_finish(nsmd_peer* peer);
// Closes at once and reports it. The record lives until the loop turns.
void nsmd_peer_close(nsmd_peer* peer);
// Closes without a report and frees: the end of the server.
void nsmd_peer_free(nsmd_peer* peer);
