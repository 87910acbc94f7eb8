// Table of the slow-protocol socket's ports: two indexes (daemon's index, kernel's index) over the same
// records, so that a received frame finds its port and a sent one its device in constant time. Filled by
// slow_socket.cpp as interfaces are bound and unbound.
//
// What can go wrong: memory, when a port is added; the table is then as before.
#include "suite/ports/slow_ports.h"

#include "suite/base/index_table.h"
#include "suite/base/memory.h"

namespace {

index_table by_ifindex, by_kernel;
std::uint32_t port_count;

slow_port* find(const index_table& table, std::uint32_t key) {
    return static_cast<slow_port*>(index_table_find(&table, key));
}

// A port without a kernel index sends to device 0, which the kernel refuses as unknown.
void set_kernel(slow_port* port, std::uint32_t kernel_ifindex) {
    port->kernel_ifindex = kernel_ifindex;
    port->to.sll_ifindex = static_cast<int>(kernel_ifindex);
}

void release_tables() {
    index_table_free(&by_ifindex, MTYPE_SLOW);
    index_table_free(&by_kernel, MTYPE_SLOW);
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
    slow_port* port = nullptr;
    if (index_table_reserve(&by_ifindex, port_count + 1, MTYPE_SLOW) &&
        index_table_reserve(&by_kernel, port_count + 1, MTYPE_SLOW))
        port = static_cast<slow_port*>(memmgr_calloc(sizeof(slow_port), MTYPE_SLOW));
    if (!port) {
        if (port_count == 0) release_tables();
        return nullptr;
    }
    port->ifindex = ifindex;
    port->own_fd = -1;
    index_table_put(&by_ifindex, ifindex, port);
    ++port_count;
    return port;
}

void slow_port_map_kernel(slow_port* port, std::uint32_t kernel_ifindex) {
    if (port->kernel_ifindex == kernel_ifindex) return;
    index_table_remove(&by_kernel, port->kernel_ifindex);  // 0 is in no table
    set_kernel(port, 0);
    if (kernel_ifindex == 0) return;
    if (slow_port* former = find(by_kernel, kernel_ifindex)) {
        index_table_remove(&by_kernel, kernel_ifindex);
        set_kernel(former, 0);
    }
    set_kernel(port, kernel_ifindex);
    index_table_put(&by_kernel, kernel_ifindex, port);
}

void slow_port_drop(slow_port* port) {
    slow_port_map_kernel(port, 0);
    index_table_remove(&by_ifindex, port->ifindex);
    memmgr_free(port, MTYPE_SLOW);
    if (--port_count == 0) release_tables();
}

slow_port* slow_port_any() {
    return static_cast<slow_port*>(index_table_any(&by_ifindex));
}
