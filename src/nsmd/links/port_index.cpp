// The pool of interface indexes. Part of the port table's record, which alone calls it; no allocation, and
// the only failure is that all 255 are in use.
#include "nsmd/links/port_index.h"

#include <cstring>

namespace {

std::uint32_t take(port_index_pool* pool, std::uint32_t index, const char* name) {
    pool->used[index] = true;
    port_index_rename(pool, index, name);
    return index;
}

}  // namespace

std::uint32_t port_index_take_back(port_index_pool* pool, const char* name) {
    for (std::uint32_t i = 1; i < port_index_pool::COUNT; ++i)
        if (!pool->used[i] && pool->name[i][0] && std::strcmp(pool->name[i], name) == 0)
            return take(pool, i, name);
    return 0;
}

std::uint32_t port_index_take_own(port_index_pool* pool, const char* name, std::uint32_t kernel_ifindex) {
    if (kernel_ifindex == 0 || kernel_ifindex >= port_index_pool::COUNT) return 0;
    if (pool->used[kernel_ifindex] || pool->name[kernel_ifindex][0]) return 0;
    return take(pool, kernel_ifindex, name);
}

std::uint32_t port_index_take_any(port_index_pool* pool, const char* name) {
    std::uint32_t oldest = 0;
    for (std::uint32_t i = 1; i < port_index_pool::COUNT; ++i) {
        if (pool->used[i]) continue;
        if (!pool->name[i][0]) return take(pool, i, name);
        if (oldest == 0 || pool->left[i] < pool->left[oldest]) oldest = i;
    }
    return oldest == 0 ? 0 : take(pool, oldest, name);
}

void port_index_rename(port_index_pool* pool, std::uint32_t index, const char* name) {
    // A name has one index: what was kept for it elsewhere is free for others.
    for (std::uint32_t i = 1; i < port_index_pool::COUNT; ++i)
        if (i != index && !pool->used[i] && std::strcmp(pool->name[i], name) == 0) pool->name[i][0] = 0;
    std::strncpy(pool->name[index], name, LINK_NAME_SIZE - 1);
    pool->name[index][LINK_NAME_SIZE - 1] = 0;
}

void port_index_leave(port_index_pool* pool, std::uint32_t index) {
    if (index == 0 || index >= port_index_pool::COUNT) return;
    pool->used[index] = false;
    pool->left[index] = ++pool->leaves;
}
