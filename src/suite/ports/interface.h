// Interface records and their list. The NSM client is the only writer; everybody else walks and looks up.
// The list keeps the order in which interfaces were first added. Hooks run in the order of their numbers'
// events: bind before up, down and unbind before the record goes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "suite/base/index_table.h"

struct lib_globals;

constexpr std::size_t IF_NAME_SIZE = 17;    // 16 octets and the terminating zero
constexpr std::uint16_t IF_TYPE_SYNCE = 2;  // an Ethernet port that can carry SyncE
// A frame finds its port by the low eight bits of the index: what comes in on a greater one would be taken
// for another port's, and goes no further than the slow-protocol socket.
constexpr std::uint32_t IF_INDEX_HEARD_MAX = 255;

struct interface {
    char name[IF_NAME_SIZE];       // first, printable with %s
    std::uint16_t type;            // IF_TYPE_SYNCE or another code
    std::uint32_t ifindex;         // the index that the whole daemon uses
    void* port;                    // the protocol's port record, or null: the hooks' slot
    std::uint32_t kernel_ifindex;  // what the packet socket uses
    std::uint8_t mac[6];
    bool bound;            // between the bind and unbind hooks
    bool up;               // as NSM last said
    std::uint32_t serial;  // from 1 on, greater than those before it in the list; never used again
};

// Hook numbers.
enum if_callback : std::int32_t {
    IF_CALLBACK_UP = 2,
    IF_CALLBACK_DOWN = 3,
    IF_CALLBACK_VR_BIND = 5,
    IF_CALLBACK_VR_UNBIND = 6,
};
constexpr std::size_t IF_CALLBACK_COUNT = 8;

// A negative result is logged at debug level; of the bind hook it means that it failed.
using if_hook = int (*)(interface*);

struct if_master {
    lib_globals* ctx;
    interface** items;  // `count` records in list order
    std::size_t count;
    std::size_t room;
    std::uint32_t added;  // interfaces ever
    if_hook hooks[IF_CALLBACK_COUNT];
    // Runs after the bind hook and before an up: the host's pending configuration lines of the interface.
    void (*after_bind)(lib_globals*, interface*);
    index_table by_index;  // the list's own; an interface keeps its index as long as it is in the list
};

// One hook a number; a second one replaces the first. -1 for an unknown number.
int if_add_hook(if_master* ifm, std::int32_t callback, if_hook hook);

inline std::span<interface* const> if_list(const if_master* ifm) {
    return {ifm->items, ifm->count};
}

interface* if_lookup_by_name(const if_master* ifm, const char* name);        // null when unknown
interface* if_lookup_by_index(const if_master* ifm, std::uint32_t ifindex);  // null when unknown
// For the CLI's "interface NAME": as if_lookup_by_name, never makes a record.
interface* ifg_get_by_name(const if_master* ifm, const char* name);

// For the NSM client and for tests. if_add returns null when exhausted, or for an index that is taken.
interface* if_add(if_master* ifm, const char* name, std::uint32_t ifindex, std::uint16_t type);
// Hook, `bound`, after_bind; a second bind calls the hook again. An interface whose first bind fails stays
// unbound.
void if_bind(if_master* ifm, interface* intf);
void if_unbind(if_master* ifm, interface* intf);  // hook; an interface that is not bound is ignored
void if_up(if_master* ifm, interface* intf);
void if_down(if_master* ifm, interface* intf);
void if_remove(if_master* ifm, interface* intf);  // unbinds first, then leaves the list and frees the record
void if_finish(if_master* ifm);                   // frees all records without calling hooks
