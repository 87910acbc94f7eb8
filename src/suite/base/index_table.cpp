// See index_table.h. Removal shifts later entries back, so there are no marks of removed ones to collect.
#include "suite/base/index_table.h"

namespace {

constexpr std::uint32_t FIRST_ROOM = 32;

}  // namespace

bool index_table_reserve(index_table* t, std::size_t count, memory_type type) {
    std::uint32_t room = t->room == 0 ? FIRST_ROOM : t->room;
    while (room / 2 < count) room *= 2;
    if (room == t->room) return true;
    auto* slots = static_cast<index_slot*>(memmgr_calloc(room * sizeof(index_slot), type));
    if (!slots) return false;
    const index_table former = *t;
    *t = {slots, room};
    for (std::uint32_t i = 0; i < former.room; i++)
        if (former.slots[i].record) index_table_put(t, former.slots[i].key, former.slots[i].record);
    memmgr_free(former.slots, type);
    return true;
}

void index_table_put(index_table* t, std::uint32_t key, void* record) {
    std::uint32_t i = index_table_home(t, key);
    while (t->slots[i].record) i = (i + 1) & (t->room - 1);
    t->slots[i] = {key, record};
}

void index_table_remove(index_table* t, std::uint32_t key) {
    if (t->room == 0) return;
    const std::uint32_t mask = t->room - 1;
    std::uint32_t hole = index_table_home(t, key);
    while (t->slots[hole].record && t->slots[hole].key != key) hole = (hole + 1) & mask;
    if (!t->slots[hole].record) return;
    for (std::uint32_t i = (hole + 1) & mask; t->slots[i].record; i = (i + 1) & mask) {
        // An entry may move back into the hole unless its home lies between the hole and where it is.
        if (((i - index_table_home(t, t->slots[i].key)) & mask) < ((i - hole) & mask)) continue;
        t->slots[hole] = t->slots[i];
        hole = i;
    }
    t->slots[hole] = {};
}

void* index_table_any(const index_table* t) {
    for (std::uint32_t i = 0; i < t->room; i++)
        if (t->slots[i].record) return t->slots[i].record;
    return nullptr;
}

void index_table_free(index_table* t, memory_type type) {
    memmgr_free(t->slots, type);
    *t = {};
}
