// Table of the slow-protocol socket's ports: two open-addressing indexes (daemon's index, kernel's index)
// over the same records, so that a received frame finds its port and a sent one its device in constant time.
// Filled by slow_socket.cpp as interfaces are bound and unbound.
//
// What can go wrong: memory, when a port is added; the table is then as before.
#include "suite/ports/slow_ports.h"

#include "suite/base/memory.h"

namespace {

// Linear probing over a power of two that is kept at most half full; removal shifts later entries back, so
// there are no tombstones to collect.
struct index_table {
    slow_port** slots;
    std::uint32_t mask;  // slots - 1; meaningless while slots is null
    std::uint32_t (*key)(const slow_port*);
};

index_table by_ifindex{nullptr, 0, [](const slow_port* p) { return p->ifindex; }};
index_table by_kernel{nullptr, 0, [](const slow_port* p) { return p->kernel_ifindex; }};
std::uint32_t port_count;

constexpr std::uint32_t FIRST_SLOTS = 64;

// Indexes are small and dense: the lowest bits alone spread them best.
std::uint32_t slot_of(const index_table& t, std::uint32_t key) {
    return key & t.mask;
}

slow_port* find(const index_table& t, std::uint32_t key) {
    if (!t.slots) return nullptr;
    for (std::uint32_t i = slot_of(t, key); t.slots[i]; i = (i + 1) & t.mask)
        if (t.key(t.slots[i]) == key) return t.slots[i];
    return nullptr;
}

void insert(index_table& t, slow_port* port) {
    std::uint32_t i = slot_of(t, t.key(port));
    while (t.slots[i]) i = (i + 1) & t.mask;
    t.slots[i] = port;
}

void remove(index_table& t, const slow_port* port) {
    std::uint32_t hole = slot_of(t, t.key(port));
    while (t.slots[hole] != port) {
        if (!t.slots[hole]) return;
        hole = (hole + 1) & t.mask;
    }
    for (std::uint32_t i = (hole + 1) & t.mask; t.slots[i]; i = (i + 1) & t.mask) {
        const std::uint32_t home = slot_of(t, t.key(t.slots[i]));
        // An entry may move back into the hole unless its home lies between the hole and where it is.
        if (((i - home) & t.mask) < ((i - hole) & t.mask)) continue;
        t.slots[hole] = t.slots[i];
        hole = i;
    }
    t.slots[hole] = nullptr;
}

void rehash(index_table& t, slow_port** slots, std::uint32_t count) {
    slow_port** const old = t.slots;
    const std::uint32_t old_count = old ? t.mask + 1 : 0;
    t.slots = slots;
    t.mask = count - 1;
    for (std::uint32_t i = 0; i < old_count; ++i)
        if (old[i]) insert(t, old[i]);
    memmgr_free(old, MTYPE_SLOW);
}

bool make_room() {
    const std::uint32_t now = by_ifindex.slots ? by_ifindex.mask + 1 : 0;
    if ((port_count + 1) * 2 <= now) return true;
    const std::uint32_t wanted = now ? now * 2 : FIRST_SLOTS;
    auto* one = static_cast<slow_port**>(memmgr_calloc(wanted * sizeof(slow_port*), MTYPE_SLOW));
    auto* other = static_cast<slow_port**>(memmgr_calloc(wanted * sizeof(slow_port*), MTYPE_SLOW));
    if (!one || !other) {
        memmgr_free(one, MTYPE_SLOW);
        memmgr_free(other, MTYPE_SLOW);
        return false;
    }
    rehash(by_ifindex, one, wanted);
    rehash(by_kernel, other, wanted);
    return true;
}

// A port without a kernel index sends to device 0, which the kernel refuses as unknown.
void set_kernel(slow_port* port, std::uint32_t kernel_ifindex) {
    port->kernel_ifindex = kernel_ifindex;
    port->to.sll_ifindex = static_cast<int>(kernel_ifindex);
}

void release_tables() {
    memmgr_free(by_ifindex.slots, MTYPE_SLOW);
    memmgr_free(by_kernel.slots, MTYPE_SLOW);
    by_ifindex.slots = by_kernel.slots = nullptr;
}

}  // namespace

slow_port* slow_port_by_ifindex(std::uint32_t ifindex) {
    return find(by_ifindex, ifindex);
}

slow_port* slow_port_by_kernel(std::uint32_t kernel_ifindex) {
    return find(by_kernel, kernel_ifindex);
}

slow_port* slow_port_take(std::uint32_t ifindex) {
    if (slow_port* known = find(by_ifindex, ifindex)) return known;
    if (!make_room()) return nullptr;
    auto* port = static_cast<slow_port*>(memmgr_calloc(sizeof(slow_port), MTYPE_SLOW));
    if (!port) {
        if (port_count == 0) release_tables();
        return nullptr;
    }
    port->ifindex = ifindex;
    port->own_fd = -1;
    insert(by_ifindex, port);
    ++port_count;
    return port;
}

void slow_port_map_kernel(slow_port* port, std::uint32_t kernel_ifindex) {
    if (port->kernel_ifindex == kernel_ifindex) return;
    if (port->kernel_ifindex != 0) remove(by_kernel, port);
    set_kernel(port, 0);
    if (kernel_ifindex == 0) return;
    if (slow_port* former = find(by_kernel, kernel_ifindex)) {
        remove(by_kernel, former);
        set_kernel(former, 0);
    }
    set_kernel(port, kernel_ifindex);
    insert(by_kernel, port);
}

void slow_port_drop(slow_port* port) {
    slow_port_map_kernel(port, 0);
    remove(by_ifindex, port);
    memmgr_free(port, MTYPE_SLOW);
    if (--port_count == 0) release_tables();
}

slow_port* slow_port_any() {
    for (std::uint32_t i = 0; by_ifindex.slots && i <= by_ifindex.mask; ++i)
        if (by_ifindex.slots[i]) return by_ifindex.slots[i];
    return nullptr;
}
