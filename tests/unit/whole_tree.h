// The command tree as the running daemon has it: the platform's commands beside the daemon's own, which the
// fixture has installed, and the sub-agent with its table. Nothing is connected: the events wait in a loop
// that no test runs.
#pragma once

#include "daemon_fixture.h"
#include "snmp/mib.h"
#include "suite/agentx/snmp.h"
#include "suite/host/host.h"
#include "suite/ports/slow_socket.h"

inline void install_whole_tree(lib_globals* ctx) {
    ASSERT_EQ(host_vty_init(ctx), 0);
    ASSERT_EQ(memmgr_cli_init(ctx), 0);
    ASSERT_EQ(slow_socket_cli_init(ctx), 0);
    ASSERT_EQ(nsm_client_cli_init(ctx), 0);
    ASSERT_EQ(agentx_register_mib(ctx, "mibII/ssm", ssm_variables, sizeof ssm_variables[0],
                                  SSM_VARIABLE_COUNT, ssm_oid, SSM_OID_LENGTH, 0, 0, 0, 0, 0),
              0);
    ASSERT_EQ(snmp_start(ctx), 0);
}
