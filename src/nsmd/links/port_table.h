// The ports that esmcd is told of, and the bridges that they are in: which link is a port, which index it
// gets, what changed. Fed by the link watcher, read by the server's dump and the clock backends.
//
// Indexes: 1 to 255, the kernel's own where it is in that range and free, else the lowest free one. A port
// keeps its index as long as it lives, and one that returns under its name finds it again, unless more than
// 255 ports were seen meanwhile. With a file to keep them in, both hold over a restart of nsmd.
#pragma once

#include <cstdint>

#include "nsmd/links/message.h"
#include "suite/base/text.h"

constexpr std::uint32_t PORT_INDEX_MAX = 255;

struct nsmd_port {
    std::uint32_t kernel_ifindex;
    std::uint32_t ifindex;  // esmcd's; 0 while the port waits for one
    char name[LINK_NAME_SIZE];
    std::uint8_t mac[6];
    bool up;
    bool has_dpll_pin;
    std::uint32_t dpll_pin;
    std::uint32_t master;
    std::uint32_t carrier_changes;
    std::uint32_t carrier_downs;
    std::uint32_t sweep;  // the dump in which it was seen last
    bool refused_logged;  // said that there was no index left
    std::uint64_t flaps;  // for the status report
    nsmd_port* next;
};

struct nsmd_bridge {
    std::uint32_t kernel_ifindex;
    char name[LINK_NAME_SIZE];
    std::uint8_t mac[6];
    std::uint32_t sweep;
    nsmd_bridge* next;
};

// What the clock identity of the switch is made from.
struct bridge_identity {
    bool known;
    char name[LINK_NAME_SIZE];  // of the bridge, or of the port whose address serves instead
    std::uint32_t id;           // the bridge's kernel index, 0 without one
    std::uint8_t mac[6];
};

enum class port_event {
    added,    // bound for the first time, or its address or kernel index changed
    removed,  // gone; the record is still readable during the call
    up,
    down,
    pin_changed,  // the clock pin behind the port is another one
};

struct port_table_sink {
    void (*port)(void* arg, const nsmd_port& port, port_event event);
    void (*bridge)(void* arg, const bridge_identity& identity);
    void* arg;
};

struct port_table;

// `patterns`: shell patterns of the names that are ports beside the physical ones; they must outlive the
// table. Null when memory is exhausted.
port_table* port_table_create(const char* const* patterns, std::size_t pattern_count,
                              const port_table_sink& sink);
// Indexes are numbered as this file says, and it is kept true. Before the first dump; `path` must outlive the
// table. Without it a new table numbers anew.
void port_table_keep_indexes(port_table* table, const char* path);
void port_table_free(port_table* table);  // reports nothing; null is ignored

// One link as the kernel states it (a complete record), or its end.
void port_table_link(port_table* table, const link_info& link);
void port_table_link_gone(port_table* table, std::uint32_t kernel_ifindex);

// A dump: links stated between begin and end are kept, the others are gone at the end. New ports get their
// index at the end, those first that can have the kernel's, so that a restart numbers alike. A dump that
// failed half-way is begun again.
void port_table_dump_begin(port_table* table);
void port_table_dump_end(port_table* table);

const nsmd_port* port_table_first(const port_table* table);  // in the order in which they were added
const nsmd_port* port_table_find(const port_table* table, std::uint32_t ifindex);
const bridge_identity& port_table_bridge(const port_table* table);
bool port_table_status(const port_table* table, text_buffer* out);  // a line a port, for the status report
