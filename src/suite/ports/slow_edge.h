// How the slow-protocol socket is opened. Private to the slow-protocol socket.
#pragma once

#include "suite/ports/slow_socket.h"

slow_opened slow_edge_open_real();
// A packet socket that receives nothing and sends on any port. Negative errno on failure.
int slow_edge_open_sender();
