// The session with the network services manager: starts the client; its hooks and callbacks turn what NSM
// reports into port records, link states, the clock identity and the DPLL state.
#pragma once

#include "core/records.h"

std::int32_t ssm_nsm_client_init();  // 0, -1 (no client) or SSM_E_INIT_FAILED

// Interface hooks.
int ssm_port_create(interface* intf);
int ssm_port_delete(interface* intf);
int _ssm_nsm_recv_interface_up(interface* intf);
int _ssm_nsm_recv_interface_down(interface* intf);

// Message callbacks.
int _ssm_nsm_recv_bridge_add(void* header, void* client, void* message);
int _ssm_nsm_recv_clock_state(void* header, void* client, void* message);
int _ssm_nsm_recv_clock_detail(void* header, void* client, void* message);
