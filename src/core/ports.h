// The port table: the suite's interface list, walked in its own order, and the port records, which lie
// together in memory.
#pragma once

#include "core/records.h"

inline bool ssm_if_usable(const interface* intf) {
    return intf && intf->type == IF_TYPE_SYNCE;
}

// The port record of a usable interface, or null.
inline ssm_port* ssm_if_port(const interface* intf) {
    return ssm_if_usable(intf) ? static_cast<ssm_port*>(intf->port) : nullptr;
}

// Calls visit(port) for every port record in list order, until it returns true; says whether one did.
template <typename Visit>
inline bool ssm_port_walk_until(Visit&& visit) {
    if (!g_p_esmcd) return false;
    for (interface* intf : if_list(g_p_esmcd->ifm)) {
        ssm_port* port = ssm_if_port(intf);
        if (port && visit(port)) return true;
    }
    return false;
}

template <typename Visit>
inline void ssm_port_walk(Visit&& visit) {
    ssm_port_walk_until([&](ssm_port* port) {
        visit(port);
        return false;
    });
}

// A block of the memory manager with room for as many records as fill one of its size classes.
constexpr std::size_t SSM_RECORDS_IN_BLOCK = 15;
struct ssm_record_block {
    ssm_record_block* next;
    ssm_port* end;  // behind the last record that is taken
    ssm_port records[SSM_RECORDS_IN_BLOCK];
    ssm_statistics statistics[SSM_RECORDS_IN_BLOCK];
};

// A zeroed record for this interface; null when memory is exhausted.
[[nodiscard]] ssm_port* ssm_record_take(interface* intf);
void ssm_pin_forget(ssm_port* port);  // what was told of its clock pin
void ssm_record_give_back(ssm_port* port);

// Every port record in the order in which they lie in memory, for decisions that don't depend on it. Places
// that became free among them are visited too: zeroed records, with SyncE off like a port that nobody
// configured.
template <typename Visit>
inline void ssm_record_walk(Visit&& visit) {
    for (ssm_record_block* block = g_s_master->record_blocks; block; block = block->next)
        for (ssm_port* port = block->records; port != block->end; ++port) visit(port);
}

// Calls fn on every port; a negative result is logged and the walk goes on.
void ssm_opts_port_list_loop(std::int32_t (*fn)(ssm_port*));

// The first port whose interface index equals the low eight bits of the key; null if none.
ssm_port* ssm_port_lookup_by_ifindex(std::uint32_t key);
