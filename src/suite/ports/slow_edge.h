// How the slow-protocol socket is opened. Private to the slow-protocol socket.
#pragma once

#include <cstdint>

enum class slow_kind : std::uint8_t {
    closed,
    native,    // the switch kernel's own family: datagrams and addresses as the daemon wants them
    packet,    // AF_PACKET: whole Ethernet frames, kernel indexes
    replaced,  // a test's edge: whole Ethernet frames, kernel indexes
};

struct slow_opened {
    int fd;  // or a negative errno
    slow_kind kind;
    bool filtered;                    // packet: the kernel hands over nothing but untagged ESMC frames
    int receive_buffer, send_buffer;  // octets, as the kernel counts them
};

slow_opened slow_edge_open_real();
// A packet socket that receives nothing and sends on any port. Negative errno on failure.
int slow_edge_open_sender();
