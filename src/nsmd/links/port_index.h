// Which index belongs to which name. An index stays reserved for a name that left, and is given to another
// only when no other is free: then the one that was left longest ago. In a file the names outlive nsmd: to
// the daemon a port with another index is another port, and its neighbours would notice.
#pragma once

#include <cstdint>

#include "nsmd/links/message.h"

struct port_index_pool {
    static constexpr std::uint32_t COUNT = 256;  // index 0 is never given out
    bool used[COUNT];
    char name[COUNT][LINK_NAME_SIZE];  // of the present or last holder; empty: never given out
    std::uint64_t left[COUNT];         // when the last holder left, as a count
    std::uint64_t leaves;
};

// The index that this name had before and may have again; 0 for none.
std::uint32_t port_index_take_back(port_index_pool* pool, const char* name);
// The kernel's own index, when it is in range, free and reserved for nobody; else 0.
std::uint32_t port_index_take_own(port_index_pool* pool, const char* name, std::uint32_t kernel_ifindex);
// The lowest free index, else the one left longest ago; 0 when all are in use.
std::uint32_t port_index_take_any(port_index_pool* pool, const char* name);
void port_index_rename(port_index_pool* pool, std::uint32_t index, const char* name);
void port_index_leave(port_index_pool* pool, std::uint32_t index);

// Reserves each index for the name that the file gives it. A file that is missing or makes no sense reserves
// nothing.
void port_index_load(port_index_pool* pool, const char* path);
// 0 or a negative errno. The file is replaced as a whole: a kill leaves the old or the new one. Where no file
// may be made beside it, it is written over in place.
[[nodiscard]] int port_index_save(const port_index_pool* pool, const char* path);
