// What `show slow-protocols` needs beyond the public counters. Private to the slow-protocol socket.
#pragma once

#include "suite/slow_socket_edge.h"

slow_opened slow_socket_opened();
