// What the files of the slow-protocol socket share: the open socket and its counts, its ports (slow_ports.h),
// and how it is opened. Nobody else includes this.
#pragma once

#include "suite/ports/slow_ports.h"

constexpr std::size_t SLOW_HEADER = 14;  // destination, source, EtherType
constexpr std::uint8_t SLOW_GROUP[6] = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x02};

struct slow_state {
    slow_opened opened;
    lib_globals* ctx;  // of the open socket
    slow_stats totals;
    const slow_edge* edge;  // null: the real one
};
extern slow_state slow;  // slow_socket.cpp

// slow_edge.cpp
slow_opened slow_edge_open_real();
// A packet socket that receives nothing and sends on any port. Negative errno on failure.
int slow_edge_open_sender();

// slow_receive.cpp
void slow_receive_start();   // the socket has been opened
void slow_receive_forget();  // frames that were read ahead are dropped

// slow_send.cpp
void slow_send_forget(slow_port* port);  // closes the port's own sending socket, if it has one
