// Generic netlink: one socket for one family.
//
// The kernel works a request off while it is being sent, so its answer is there when the send returns: a
// request is sent and its answer read in one go, without waiting. Notifications that come in between are
// handed to the same sink as those that come later.
#pragma once

#include <cstdint>

#include "nsmd/netlink/netlink.h"
#include "nsmd/netlink/socket.h"

struct genl_message {
    std::uint8_t command;
    bool notification;  // else part of the answer to the request under way
    const_octets attributes;
};

struct genl_sink {
    void (*message)(void* arg, const genl_message& message);
    void (*lost)(void* arg);  // notifications were lost: what is known may be old
    void* arg;
};

struct genl {
    netlink_edge edge;
    genl_sink sink;
    int fd = -1;
    std::uint16_t family = 0;
    std::uint32_t sequence = 0;
    std::uint8_t buffer[32768];
};

// Finds the family and joins its multicast group (null: none). 0, -ENOENT when the kernel has no such family,
// or another negative errno; nothing is open then.
int genl_open(genl* g, const netlink_edge& edge, const char* family, const char* group,
              const genl_sink& sink);
void genl_close(genl* g);  // may be called twice

// Begins a request of the family in *b; attributes are added with nl_put.
void genl_begin(genl* g, nl_builder* b, std::uint8_t command, std::uint8_t version, bool dump);
// Sends it; the sink gets the parts of the answer. 0, or the kernel's negative errno. -EAGAIN: a dump that
// the kernel says was disturbed.
int genl_transact(genl* g, const nl_builder& request);
// Reads what is there: notifications.
void genl_read(genl* g);
