// Generic netlink: one channel for one family, and one request at a time.
//
// The kernel works a request off while it is being sent. On a channel of its own its answer is there when
// genl_request returns; behind a helper it comes through the loop, by genl_read. Either way the request is
// over when genl_waits says no. Notifications that come in between are handed to the same sink as those that
// come later.
#pragma once

#include <cstdint>

#include "nsmd/netlink/channel.h"
#include "nsmd/netlink/netlink.h"

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
    netlink_channel channel;
    genl_sink sink;
    std::uint16_t family;
    std::uint32_t sequence;
    std::uint32_t waiting;  // number of the request under way; 0: none
    bool disturbed;         // a dump, by changes meanwhile
    int result;             // of the last request that is over
    std::uint8_t buffer[32768];
};

// Finds the family and joins its multicast group (null: none). 0, -ENOENT when the kernel has no such family,
// or another negative errno; nothing is open then.
int genl_open(genl* g, const netlink_edge& edge, const char* family, const char* group,
              const genl_sink& sink);
void genl_close(genl* g);  // may be called twice
// As netlink_channel_tend; the sink hears of what was lost.
void genl_tend(genl* g, const char* subject);

// Begins a request of the family in *b; attributes are added with nl_put.
void genl_begin(genl* g, nl_builder* b, std::uint8_t command, std::uint8_t version, bool dump);
// Sends it; the sink gets the parts of the answer, and `result` tells how it ended: 0, or the kernel's
// negative errno. -EAGAIN: a dump that the kernel says was disturbed. Not while another one is under way.
void genl_request(genl* g, const nl_builder& request);
bool genl_waits(const genl* g);
// Reads what is there: notifications and answers.
void genl_read(genl* g);
