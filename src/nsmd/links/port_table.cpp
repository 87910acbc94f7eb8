// Turns what the kernel says about links into ports that come, go, rise and fall. Owns the port and bridge
// records and the index pool. Called by the link watcher on the event loop; calls its sink for each change,
// after its own records are true. Exhausted memory costs the port that could not be stored: it is logged, and
// the next message or dump about the link tries again.
//
// New ports met in a dump wait for the dump's end, because the index of one hangs on which others there are.
#include "nsmd/links/port_table.h"

#include <fnmatch.h>
#include <linux/if_arp.h>

#include <algorithm>
#include <cinttypes>
#include <cstring>

#include "nsmd/links/port_index.h"
#include "suite/base/memory.h"
#include "suite/log/log.h"

struct port_table {
    const char* const* patterns;
    std::size_t pattern_count;
    port_table_sink sink;
    nsmd_port* ports;
    nsmd_bridge* bridges;
    bridge_identity identity;
    std::uint32_t sweep;
    bool dumping;
    port_index_pool indexes;
    const char* index_path;  // null: they end with the table
    bool save_failed;        // said already
};

namespace {

bool has_address(const std::uint8_t (&mac)[6]) {
    static constexpr std::uint8_t zero[6] = {};
    return std::memcmp(mac, zero, sizeof zero) != 0;
}

bool is_bridge(const link_info& link) {
    return std::strcmp(link.kind, "bridge") == 0;
}

bool is_port(const port_table* table, const link_info& link) {
    if (link.hardware_type != ARPHRD_ETHER || is_bridge(link)) return false;
    if (!link.kind[0] || std::strcmp(link.kind, "dsa") == 0) return true;
    return std::any_of(table->patterns, table->patterns + table->pattern_count,
                       [&](const char* pattern) { return fnmatch(pattern, link.name, 0) == 0; });
}

template <typename record>
record* find_by_kernel(record* first, std::uint32_t kernel_ifindex) {
    while (first && first->kernel_ifindex != kernel_ifindex) first = first->next;
    return first;
}

template <typename record>
void append(record** first, record* added) {
    while (*first) first = &(*first)->next;
    *first = added;
}

template <typename record>
void unlink_record(record** first, record* removed) {
    while (*first && *first != removed) first = &(*first)->next;
    if (*first) *first = removed->next;
}

// Nobody knows of a port that waits for its index.
void tell(port_table* table, const nsmd_port& port, port_event event) {
    if (port.ifindex) table->sink.port(table->sink.arg, port, event);
}

void copy_name(char (&to)[LINK_NAME_SIZE], const char (&from)[LINK_NAME_SIZE]) {
    std::memcpy(to, from, LINK_NAME_SIZE);
}

bridge_identity choose_identity(const port_table* table) {
    bridge_identity out{};
    for (const nsmd_bridge* b = table->bridges; b; b = b->next) {
        const bool lower = out.id == 0 || b->kernel_ifindex < out.id;
        bool ours = false;
        for (const nsmd_port* p = table->ports; p && !ours; p = p->next)
            ours = p->ifindex && p->master == b->kernel_ifindex;
        if (!ours || !lower || !has_address(b->mac)) continue;
        out.known = true;
        out.id = b->kernel_ifindex;
        copy_name(out.name, b->name);
        std::memcpy(out.mac, b->mac, sizeof out.mac);
    }
    if (out.known) return out;
    for (const nsmd_port* p = table->ports; p; p = p->next) {
        if (!p->ifindex || !has_address(p->mac)) continue;
        if (out.known && std::memcmp(p->mac, out.mac, sizeof out.mac) >= 0) continue;
        out.known = true;
        copy_name(out.name, p->name);
        std::memcpy(out.mac, p->mac, sizeof out.mac);
    }
    return out;
}

// The address stays the last known one when there is none any more: a switch without ports keeps its
// identity.
void refresh_identity(port_table* table) {
    if (table->dumping) return;
    const bridge_identity now = choose_identity(table);
    const bridge_identity& old = table->identity;
    if (!now.known) return;
    if (old.known && old.id == now.id && std::memcmp(old.mac, now.mac, sizeof now.mac) == 0) return;
    table->identity = now;
    table->sink.bridge(table->sink.arg, table->identity);
}

// Called before anybody hears of a new index: whoever is told of it must find it again after a kill.
void save_indexes(port_table* table) {
    if (!table->index_path) return;
    const int result = port_index_save(&table->indexes, table->index_path);
    if (result < 0 && !table->save_failed)
        log_suite(LOG_LEVEL_WARNING, "can't write %s: %s; a restart may number the ports anew",
                  table->index_path, std::strerror(-result));
    table->save_failed = result < 0;
}

void give_index(port_table* table, nsmd_port* port, bool own_only) {
    if (port->ifindex) return;
    std::uint32_t index = port_index_take_back(&table->indexes, port->name);
    const bool is_known = index != 0;
    if (!index) index = port_index_take_own(&table->indexes, port->name, port->kernel_ifindex);
    if (!index && !own_only) index = port_index_take_any(&table->indexes, port->name);
    if (!index) {
        if (!own_only && !port->refused_logged)
            log_suite(LOG_LEVEL_WARNING, "port %s is left out: all %u interface indexes are in use",
                      port->name, PORT_INDEX_MAX);
        port->refused_logged |= !own_only;
        return;
    }
    port->ifindex = index;
    if (!is_known) save_indexes(table);
    tell(table, *port, port_event::added);
}

// Two rounds: who can have the kernel's index comes before who takes the lowest free one.
void give_indexes(port_table* table) {
    for (const bool own_only : {true, false})
        for (nsmd_port* p = table->ports; p; p = p->next) give_index(table, p, own_only);
}

void remove_port(port_table* table, nsmd_port* port) {
    unlink_record(&table->ports, port);
    port_index_leave(&table->indexes, port->ifindex);
    tell(table, *port, port_event::removed);
    memmgr_free(port, MTYPE_NSMD);
    if (!table->dumping) give_indexes(table);
}

// The carrier went and came back since the last message: the port is up in both, the counters tell.
bool has_flapped(const nsmd_port& port, const link_info& link) {
    if (!port.up || !link_is_up(link)) return false;
    if (link.has_carrier_downs) return link.carrier_downs != port.carrier_downs;
    return link.carrier_changes - port.carrier_changes >= 2;
}

// All that the message says of a port but its name and its state.
void take_over(nsmd_port* port, const link_info& link) {
    std::memcpy(port->mac, link.mac, sizeof port->mac);
    port->has_dpll_pin = link.has_dpll_pin;
    port->dpll_pin = link.dpll_pin;
    port->carrier_changes = link.carrier_changes;
    port->carrier_downs = link.carrier_downs;
    port->master = link.master;
}

void add_port(port_table* table, const link_info& link) {
    auto* port = static_cast<nsmd_port*>(memmgr_calloc(sizeof(nsmd_port), MTYPE_NSMD));
    if (!port) {
        log_suite(LOG_LEVEL_ERROR, "no memory for port %s", link.name);
        return;
    }
    port->kernel_ifindex = link.kernel_ifindex;
    copy_name(port->name, link.name);
    port->up = link_is_up(link);
    port->sweep = table->sweep;
    take_over(port, link);
    append(&table->ports, port);
    if (!table->dumping) give_index(table, port, false);
}

// esmcd knows an interface by its name: to it a renamed one is an old one gone and a new one come. The index
// stays.
void rename_port(port_table* table, nsmd_port* port, const link_info& link) {
    if (port->ifindex) {
        port->up = false;
        tell(table, *port, port_event::removed);
        port_index_rename(&table->indexes, port->ifindex, link.name);
        save_indexes(table);
    }
    copy_name(port->name, link.name);
    port->up = link_is_up(link);
    take_over(port, link);
    tell(table, *port, port_event::added);
}

void change_port(port_table* table, nsmd_port* port, const link_info& link) {
    const bool flapped = has_flapped(*port, link), up = link_is_up(link);
    const bool moved = std::memcmp(port->mac, link.mac, sizeof port->mac) != 0;
    const bool repinned =
        port->has_dpll_pin != link.has_dpll_pin || (link.has_dpll_pin && port->dpll_pin != link.dpll_pin);
    take_over(port, link);
    if (flapped) {
        ++port->flaps;
        port->up = false;
        tell(table, *port, port_event::down);
    }
    if (up != port->up) {
        port->up = up;
        tell(table, *port, up ? port_event::up : port_event::down);
    }
    if (moved) tell(table, *port, port_event::added);
    if (repinned) tell(table, *port, port_event::pin_changed);
}

void take_bridge(port_table* table, const link_info& link) {
    nsmd_bridge* bridge = find_by_kernel(table->bridges, link.kernel_ifindex);
    if (!bridge) {
        bridge = static_cast<nsmd_bridge*>(memmgr_calloc(sizeof(nsmd_bridge), MTYPE_NSMD));
        if (!bridge) {
            log_suite(LOG_LEVEL_ERROR, "no memory for bridge %s", link.name);
            return;
        }
        bridge->kernel_ifindex = link.kernel_ifindex;
        append(&table->bridges, bridge);
    }
    copy_name(bridge->name, link.name);
    std::memcpy(bridge->mac, link.mac, sizeof bridge->mac);
    bridge->sweep = table->sweep;
}

void remove_bridge(port_table* table, nsmd_bridge* bridge) {
    unlink_record(&table->bridges, bridge);
    memmgr_free(bridge, MTYPE_NSMD);
}

void sweep_unseen(port_table* table) {
    for (nsmd_port *p = table->ports, *next; p; p = next) {
        next = p->next;
        if (p->sweep != table->sweep) remove_port(table, p);
    }
    for (nsmd_bridge *b = table->bridges, *next; b; b = next) {
        next = b->next;
        if (b->sweep != table->sweep) remove_bridge(table, b);
    }
}

}  // namespace

port_table* port_table_create(const char* const* patterns, std::size_t pattern_count,
                              const port_table_sink& sink) {
    auto* table = static_cast<port_table*>(memmgr_calloc(sizeof(port_table), MTYPE_NSMD));
    if (!table) return nullptr;
    table->patterns = patterns;
    table->pattern_count = pattern_count;
    table->sink = sink;
    return table;
}

void port_table_keep_indexes(port_table* table, const char* path) {
    table->index_path = path;
    port_index_load(&table->indexes, path);
}

void port_table_free(port_table* table) {
    if (!table) return;
    while (nsmd_port* port = table->ports) {
        table->ports = port->next;
        memmgr_free(port, MTYPE_NSMD);
    }
    while (table->bridges) remove_bridge(table, table->bridges);
    memmgr_free(table, MTYPE_NSMD);
}

void port_table_link(port_table* table, const link_info& link) {
    nsmd_port* port = find_by_kernel(table->ports, link.kernel_ifindex);
    nsmd_bridge* bridge = find_by_kernel(table->bridges, link.kernel_ifindex);
    if (is_bridge(link)) {
        if (port) remove_port(table, port);  // an index that came back as something else
        take_bridge(table, link);
    } else {
        if (bridge) remove_bridge(table, bridge);
        if (!is_port(table, link)) {
            if (port) remove_port(table, port);
        } else if (!port) {
            add_port(table, link);
        } else {
            port->sweep = table->sweep;
            if (std::strcmp(port->name, link.name) != 0)
                rename_port(table, port, link);
            else
                change_port(table, port, link);
        }
    }
    refresh_identity(table);
}

void port_table_link_gone(port_table* table, std::uint32_t kernel_ifindex) {
    if (nsmd_port* port = find_by_kernel(table->ports, kernel_ifindex)) remove_port(table, port);
    if (nsmd_bridge* bridge = find_by_kernel(table->bridges, kernel_ifindex)) remove_bridge(table, bridge);
    refresh_identity(table);
}

void port_table_dump_begin(port_table* table) {
    table->dumping = true;
    ++table->sweep;
}

void port_table_dump_end(port_table* table) {
    sweep_unseen(table);
    table->dumping = false;
    give_indexes(table);
    refresh_identity(table);
}

const nsmd_port* port_table_first(const port_table* table) {
    return table->ports;
}

const nsmd_port* port_table_find(const port_table* table, std::uint32_t ifindex) {
    if (ifindex == 0) return nullptr;
    for (const nsmd_port* p = table->ports; p; p = p->next)
        if (p->ifindex == ifindex) return p;
    return nullptr;
}

const bridge_identity& port_table_bridge(const port_table* table) {
    return table->identity;
}

bool port_table_status(const port_table* table, text_buffer* out) {
    bool ok = true;
    for (const nsmd_port* p = table->ports; ok && p; p = p->next) {
        ok = text_printf(out, "port %u %s: kernel index %u, %s, flaps %" PRIu64, p->ifindex, p->name,
                         p->kernel_ifindex, p->up ? "up" : "down", p->flaps);
        if (ok && p->has_dpll_pin) ok = text_printf(out, ", clock pin %u", p->dpll_pin);
        ok = ok && text_printf(out, "\n");
    }
    return ok;
}
