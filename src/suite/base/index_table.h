// Records by number, found in constant time: an open-addressed table, at most half full, with linear probing.
// The numbers stand in the table itself, so that a search touches no record but the one that it finds. Two
// records never have the same number; the table does not own them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "suite/base/memory.h"

struct index_slot {
    std::uint32_t key;
    void* record;  // null: a free slot
};

// Zero at first: empty, without memory.
struct index_table {
    index_slot* slots;
    std::uint32_t room;  // a power of two, or 0
};

// Room for `count` records in all. False when memory is exhausted; the table is then as before.
[[nodiscard]] bool index_table_reserve(index_table* t, std::size_t count, memory_type type);
void index_table_put(index_table* t, std::uint32_t key, void* record);  // for which room was reserved
void index_table_remove(index_table* t, std::uint32_t key);             // an unknown number is ignored
void* index_table_any(const index_table* t);                            // null when it is empty
void index_table_free(index_table* t, memory_type type);

// Multiplied, so that numbers that differ in their high bits alone do not all meet in one slot.
inline std::uint32_t index_table_home(const index_table* t, std::uint32_t key) {
    return (key * 0x9e3779b1u) >> 7 & (t->room - 1);
}

// Null when unknown.
inline void* index_table_find(const index_table* t, std::uint32_t key) {
    if (t->room == 0) return nullptr;
    for (std::uint32_t i = index_table_home(t, key); t->slots[i].record; i = (i + 1) & (t->room - 1))
        if (t->slots[i].key == key) return t->slots[i].record;
    return nullptr;
}
