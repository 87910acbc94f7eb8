// The edge towards the kernel's netlink sockets. Whoever uses netlink holds one of these tables; tests put a
// kernel of their own in its place while everything behind it stays the real code.
#pragma once

#include <cstddef>

#include "suite/base/octets.h"

struct netlink_edge {
    // A non-blocking socket of the netlink protocol (NETLINK_ROUTE, ...), bound; or a negative errno.
    int (*open)(void* arg, int protocol);
    // Joins a multicast group. 0 or a negative errno.
    int (*join)(void* arg, int fd, unsigned group);
    // Octets of the next datagram, 0 when it did not come from the kernel (skip it), or a negative errno;
    // -EMSGSIZE for a datagram that did not fit.
    int (*receive)(void* arg, int fd, octets buffer);
    // 0 or a negative errno.
    int (*send)(void* arg, int fd, const_octets message);
    void (*close)(void* arg, int fd);
    void* arg;
};

const netlink_edge& netlink_system_edge();
