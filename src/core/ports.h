// The port table: the suite's interface list, walked in its own order.
#pragma once

#include "core/records.h"

// Zeroed block from the memory manager's size classes, or null.
[[nodiscard]] void* ssm_calloc(std::size_t octets, memory_type type);

std::int32_t ssm_master_init();              // defaults into *g_s_master; 0
std::int32_t ssm_port_init(ssm_port* port);  // defaults, `intf` kept; 0

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
    for (interface* intf : if_list(&g_p_esmcd->ifm)) {
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

// Calls fn on every port; a negative result is logged and the walk goes on.
void ssm_opts_port_list_loop(std::int32_t (*fn)(ssm_port*));

// The first port whose interface index equals the low eight bits of the key; null if none.
ssm_port* ssm_port_lookup_by_ifindex(std::uint32_t key);
