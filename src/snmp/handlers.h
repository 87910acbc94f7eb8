// The handlers of the SSM module and the magic numbers by which they know their objects. Used by the table.
#pragma once

#include "snmp/values.h"
#include "suite/agentx/snmp.h"
#include "suite/ports/interface.h"

// Magic numbers: a scalar's is its place below the module's base, but for the loop guard's.
enum ssm_mib_scalar : std::uint32_t {
    SSM_MIB_CLOCK_ID = 1,
    SSM_MIB_GLOBAL_ENABLE = 2,
    SSM_MIB_SSM_ENABLE = 3,
    SSM_MIB_DEVICE_TYPE = 4,
    SSM_MIB_LOCAL_QUALITY = 5,
    SSM_MIB_CURRENT_QUALITY = 6,
    SSM_MIB_LOCAL_PRIORITY = 7,
    SSM_MIB_SELECTED_PORT = 8,
    SSM_MIB_EXTENSION = 9,
    SSM_MIB_RUNNING_STATE = 10,
    SSM_MIB_OPTION = 11,
    SSM_MIB_FORCE_SWITCH = 12,
    SSM_MIB_PORT_TABLE = 13,
    SSM_MIB_RECOVERY_SELECT = 15,
    SSM_MIB_GUARD = 18,  // a node: below it stand the loop guard's, numbered from SSM_MIB_GUARD_FIRST on
    // Groups of read-only objects, each an entry of the table.
    SSM_MIB_SUPERVISION = 19,
    SSM_MIB_PORT_COUNTERS = 20,
    SSM_MIB_PORT_TIMES = 21,
    SSM_MIB_PORT_STATES = 22,
    SSM_MIB_LAST_CHANGES = 23,
    SSM_MIB_PORT_IDENTITIES = 24,
    SSM_MIB_GUARD_FIRST = 201,
    SSM_MIB_GUARD_ENABLE = SSM_MIB_GUARD_FIRST,
    SSM_MIB_GUARD_HOLD,
    SSM_MIB_GUARD_HOPS,
    SSM_MIB_GUARD_REFUSED,
    SSM_MIB_GUARD_HOLDS,
    SSM_MIB_GUARD_LONGEST_HOLD,
    SSM_MIB_GUARD_HOLD_LEFT,
};

// A column's magic number lies apart from the scalars'.
constexpr std::uint32_t SSM_MIB_COLUMN = 100;
enum ssm_mib_column : std::uint32_t {
    SSM_MIB_INDEX = 1,
    SSM_MIB_SYNCE_ENABLE = 2,
    SSM_MIB_ESMC_MODE = 3,
    SSM_MIB_PRIORITY = 4,
    SSM_MIB_LINK = 5,
    SSM_MIB_RECEIVED_QUALITY = 6,
    SSM_MIB_SEND_TIMER = 7,
    SSM_MIB_TIMEOUT_TIMER = 8,
    SSM_MIB_SENT_QUALITY = 9,
    SSM_MIB_DNU_GROUP = 10,
    SSM_MIB_REPLACE_CLOCKID = 11,
    SSM_MIB_FORCED_RX_QUALITY = 12,
    SSM_MIB_FORCED_TX_QUALITY = 13,
    SSM_MIB_NEIGHBOUR = 14,
    SSM_MIB_HELD_BACK = 15,
};

// Objects of the groups that notifications carry.
enum : snmp_oid {
    SSM_MIB_COMMAND = 1,
    SSM_MIB_COMMAND_PORT = 2,
    SSM_MIB_LOCKED_OUT = 3,
    SSM_MIB_FLAPPING = 7
};

// The external command that is active: none, forced, manual; and its port, 9999 for the external input, or 0.
struct ssm_mib_command {
    ssm_mib_value kind, port;
};
ssm_mib_command ssm_mib_active_command();

ssm_mib_value ssm_mib_dpll_state();

// The state of the clock as its object reads it, and the index of the selected port or 0.
ssm_mib_value ssm_mib_running_state();
ssm_mib_value ssm_mib_selected_index();

// The interface of the port table with this index, or (exact 0) the one with the smallest index above it,
// null when there is none.
interface* ssm_mib_find_interface(std::uint32_t index, int exact);

// One read handler a scalar; they exist for those of ssm_mib_scalar but the table, the node and the groups.
template <std::uint32_t Object>
const void* ssm_mib_read_scalar(const snmp_variable* variable, snmp_oid* name, std::size_t* name_length,
                                int exact, std::size_t* value_length, snmp_write_handler* write);
// All columns of the port table.
const void* ssm_mib_read_port(const snmp_variable* variable, snmp_oid* name, std::size_t* name_length,
                              int exact, std::size_t* value_length, snmp_write_handler* write);
// All objects of the groups.
const void* ssm_mib_read_group(const snmp_variable* variable, snmp_oid* name, std::size_t* name_length,
                               int exact, std::size_t* value_length, snmp_write_handler* write);
