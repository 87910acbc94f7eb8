// One netlink socket of nsmd, and the helper process that uses it once nsmd serves.
//
// The kernel runs a driver's code inside the call that asks for it: a request that is sent, and a dump that
// is read, take as long as the driver does, and nothing makes them not wait. So the event loop does neither.
// At the start, while nobody is served, the socket is the caller's own and each answer is there when the send
// returns. Detached, a child process holds the socket instead: it sends what comes through a socket pair, one
// request after the other, and passes on what the kernel says, answers and notifications in their order.
// A driver that hangs holds the child only; the loop turns, and nsmd ends without it.
#pragma once

#include <cstdint>

#include "nsmd/netlink/socket.h"
#include "suite/base/clock.h"
#include "suite/base/context.h"
#include "suite/base/text.h"
#include "suite/loop/thread.h"
#include "suite/process/job.h"

struct netlink_channel {
    netlink_edge edge;
    int protocol;
    unsigned group;  // joined; 0: none
    int fd;          // the socket, or our end of the pair; -1: closed, or the helper is gone
    bool detached;
    job* helper;
    std::uint64_t asked, worked_off;  // requests to this helper
    nanoseconds waiting_since;        // of the oldest that is not worked off
    std::uint32_t said_s;             // how long a wait was told in the log, 0: not at all
    std::uint64_t helpers;            // how many there were
    int refused;                      // why there is none, told in the log; 0: there is
    // What the loop calls when there is something to receive; `readable` null: not attached yet.
    lib_globals* ctx;
    thread_func readable;
    void* arg;
    bool is_high;  // in the loop's high class
};

// 0 or a negative errno; nothing is open then.
int netlink_channel_open(netlink_channel* c, const netlink_edge& edge, int protocol);
int netlink_channel_join(netlink_channel* c, unsigned group);  // before it is detached
void netlink_channel_close(netlink_channel* c);                // may be called twice

// Calls `readable` when there is something to receive, once: netlink_channel_listen after each call.
// False when memory is exhausted.
bool netlink_channel_attach(netlink_channel* c, lib_globals* ctx, thread_func readable, void* arg,
                            bool is_high);
bool netlink_channel_listen(netlink_channel* c);

// Once a second or so while nsmd serves, and when it begins to: detaches the attached channel, makes a helper
// in the place of one that died, and says in the log that `subject` ("the driver of ...") does not answer, at
// ever longer intervals. Where no helper can be had, the socket stays or becomes our own until the next time.
// True: the socket is another one, in the same group. What was asked and not answered stays so, and
// notifications were lost.
bool netlink_channel_tend(netlink_channel* c, const char* subject);
// The helper died, and there is no other yet.
bool netlink_channel_is_broken(const netlink_channel* c);

// 0 or a negative errno. Detached, the answer comes through the loop; -EAGAIN when too much waits already.
int netlink_channel_send(netlink_channel* c, const_octets message);
// As netlink_edge's `receive`. Detached, behind the last that the kernel said to a request comes an error
// message with its number, the code that sending it ended with, or -ETIMEDOUT: for who was not answered.
// -EPIPE: the helper died.
int netlink_channel_receive(netlink_channel* c, octets buffer);

// A request is with the helper and not worked off.
bool netlink_channel_waits(const netlink_channel* c);
bool netlink_channel_status(const netlink_channel* c, const char* subject, text_buffer* out);
