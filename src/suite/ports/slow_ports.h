// The ports of the slow-protocol socket, found by either of their two indexes. Private to the slow-protocol
// socket.
#pragma once

#include <linux/if_packet.h>
#include <sys/socket.h>

#include <cstdint>

#include "suite/base/clock.h"
#include "suite/ports/slow_socket.h"

struct slow_port {
    std::uint32_t ifindex;         // the daemon's
    std::uint32_t kernel_ifindex;  // 0: not known to the kernel, or taken over by another port
    std::uint32_t joined;          // kernel index on which the socket is a member of the group
    bool deaf;                     // joining failed, and is tried again
    std::uint32_t joins;           // how often it was joined there; 0: not a member
    int own_fd;                    // sending socket of this port alone, -1 while it shares the common one
    std::uint8_t mac[6];
    sockaddr_ll to;          // ready for sending
    nanoseconds paid_until;  // rate limit: each frame taken moves it on by the time that a frame is worth
    slow_port_stats stats;
};

// Both in constant time; null when unknown.
slow_port* slow_port_by_ifindex(std::uint32_t ifindex);
slow_port* slow_port_by_kernel(std::uint32_t kernel_ifindex);

// Finds or makes the port. Null when memory is exhausted.
slow_port* slow_port_take(std::uint32_t ifindex);
// Maps a kernel index to the port. A port that had it before loses it: the kernel has given it away.
void slow_port_map_kernel(slow_port* port, std::uint32_t kernel_ifindex);
void slow_port_drop(slow_port* port);

slow_port* slow_port_any();  // null when there is none
