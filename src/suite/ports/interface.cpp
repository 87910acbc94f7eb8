// The interface list: an array of pointers in the order of first addition, and beside it a table by
// interface index, because every received frame looks its port up. The records are owned here; the
// port record in `port` belongs to the hooks. A hook may add or look up interfaces, but not remove the one
// that it runs for.
#include "suite/ports/interface.h"

#include <cstring>

#include "suite/base/memory.h"
#include "suite/log/log.h"

namespace {

constexpr std::size_t FIRST_ROOM = 16;

// Room for one record more in the list and in the table.
bool make_room(if_master* ifm) {
    if (!index_table_reserve(&ifm->by_index, ifm->count + 1, MTYPE_IF)) return false;
    if (ifm->count < ifm->room) return true;
    const std::size_t room = ifm->room == 0 ? FIRST_ROOM : ifm->room * 2;
    void* items = memmgr_realloc(ifm->items, room * sizeof(interface*), MTYPE_IF);
    if (items == nullptr) return false;
    ifm->items = static_cast<interface**>(items);
    ifm->room = room;
    return true;
}

// False when the hook failed.
bool run_hook(if_master* ifm, if_callback callback, interface* intf) {
    const if_hook hook = ifm->hooks[callback];
    if (hook == nullptr) return true;
    const int result = hook(intf);
    if (result < 0) {
        log_suite(LOG_LEVEL_DEBUG, "interface %s: hook %d returned %d", intf->name,
                  static_cast<int>(callback), result);
    }
    return result >= 0;
}

}  // namespace

int if_add_hook(if_master* ifm, std::int32_t callback, if_hook hook) {
    switch (callback) {
        case IF_CALLBACK_UP:
        case IF_CALLBACK_DOWN:
        case IF_CALLBACK_VR_BIND:
        case IF_CALLBACK_VR_UNBIND:
            ifm->hooks[callback] = hook;
            return 0;
        default:
            return -1;
    }
}

interface* if_lookup_by_name(const if_master* ifm, const char* name) {
    if (name == nullptr) return nullptr;
    for (interface* intf : if_list(ifm)) {
        if (std::strcmp(intf->name, name) == 0) return intf;
    }
    return nullptr;
}

interface* if_lookup_by_index(const if_master* ifm, std::uint32_t ifindex) {
    return static_cast<interface*>(index_table_find(&ifm->by_index, ifindex));
}

interface* ifg_get_by_name(const if_master* ifm, const char* name) {
    return if_lookup_by_name(ifm, name);
}

interface* if_add(if_master* ifm, const char* name, std::uint32_t ifindex, std::uint16_t type) {
    if (if_lookup_by_index(ifm, ifindex) != nullptr || !make_room(ifm)) return nullptr;
    interface* intf = static_cast<interface*>(memmgr_calloc(sizeof(interface), MTYPE_IF));
    if (intf == nullptr) return nullptr;
    std::strncpy(intf->name, name, IF_NAME_SIZE - 1);
    intf->ifindex = ifindex;
    intf->type = type;
    intf->serial = ++ifm->added;
    ifm->items[ifm->count++] = intf;
    index_table_put(&ifm->by_index, ifindex, intf);
    return intf;
}

void if_bind(if_master* ifm, interface* intf) {
    const bool taken = run_hook(ifm, IF_CALLBACK_VR_BIND, intf);
    // A first bind that failed (no memory for the port) is none: the next one tries again, and the lines that
    // wait for the interface go on waiting.
    if (!taken && !intf->bound) return;
    intf->bound = true;
    if (ifm->after_bind != nullptr) ifm->after_bind(ifm->ctx, intf);
}

void if_unbind(if_master* ifm, interface* intf) {
    if (!intf->bound) return;
    (void)run_hook(ifm, IF_CALLBACK_VR_UNBIND, intf);  // it is unbound in any case
    intf->bound = false;
}

void if_up(if_master* ifm, interface* intf) {
    intf->up = true;
    (void)run_hook(ifm, IF_CALLBACK_UP, intf);
}

void if_down(if_master* ifm, interface* intf) {
    intf->up = false;
    (void)run_hook(ifm, IF_CALLBACK_DOWN, intf);
}

void if_remove(if_master* ifm, interface* intf) {
    if_unbind(ifm, intf);
    for (std::size_t i = 0; i < ifm->count; i++) {
        if (ifm->items[i] != intf) continue;
        ifm->count--;
        std::memmove(ifm->items + i, ifm->items + i + 1, (ifm->count - i) * sizeof(interface*));
        index_table_remove(&ifm->by_index, intf->ifindex);
        memmgr_free(intf, MTYPE_IF);
        return;
    }
}

void if_finish(if_master* ifm) {
    for (interface* intf : if_list(ifm)) memmgr_free(intf, MTYPE_IF);
    memmgr_free(ifm->items, MTYPE_IF);
    index_table_free(&ifm->by_index, MTYPE_IF);
    ifm->items = nullptr;
    ifm->count = ifm->room = 0;
}
