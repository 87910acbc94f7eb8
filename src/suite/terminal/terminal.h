// The two listeners that sessions come from.
#pragma once

#include "suite/host/state.h"

// The local socket: mode 0660, at most SESSION_MAX sessions. A socket file that no process answers at is
// replaced; one of a daemon that runs is not. 0, or -1 (logged).
int local_terminal_start(host_state* host, const char* path);
void local_terminal_stop(host_state* host);

// The TCP terminal on host->vty_port of 127.0.0.1 and ::1. Failing is logged, and not fatal.
void tcp_terminal_start(host_state* host);
void tcp_terminal_stop(host_state* host);
