// Commands about single parts of the suite: shows and settings, for a daemon that has the part. All return 0,
// or negative when memory is exhausted.
#pragma once

#include "suite/base/context.h"

int slow_socket_cli_init(lib_globals* ctx);  // show slow-protocols, slow-protocols rate-limit
int nsm_client_cli_init(lib_globals* ctx);   // show nsm
int agentx_cli_init(lib_globals* ctx);       // show snmp, snmp ...; after snmp_start
