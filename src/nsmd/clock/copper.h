// Timing roles of copper ports: which end of the line gives the clock. Set through ethtool's master-slave
// setting, where the port's driver has it.
#pragma once

#include "nsmd/links/port_table.h"
#include "nsmd/netlink/socket.h"
#include "suite/base/context.h"
#include "suite/base/text.h"

// A copper port's timing role, as asked for last.
struct copper_role {
    std::uint32_t ifindex;
    bool set;       // false: no role any more
    bool is_slave;  // recovers its timing from the neighbour
};

struct copper;

// Never fails for want of the kernel's interface: then every role is logged as not settable. Null only when
// memory is exhausted.
copper* copper_create(const port_table* table, const netlink_edge& edge);
void copper_free(copper* c);  // roles stay as they are; null is ignored

// Gives the port the role, or what it had before its first. A role that it has already is not set again: the
// line would be negotiated anew and go down for seconds.
void copper_set(copper* c, const copper_role& role);

// Once a second while nsmd serves, the first time when it begins to: from then on nothing waits for a driver.
void copper_tend(copper* c, lib_globals* ctx);

// The port left: what returns in its place begins without a role.
void copper_forget(copper* c, std::uint32_t ifindex);

bool copper_status(const copper* c, text_buffer* out);
