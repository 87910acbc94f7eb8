// What `show slow-protocols` needs beyond the public counters. Private to the slow-protocol socket.
#pragma once

#include "suite/ports/slow_edge.h"

slow_opened slow_socket_opened();
