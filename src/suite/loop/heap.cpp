// The loop's timers: a heap with four children to a node, its keys side by side in one array, so that a
// restart touches few cache lines. Owned by the event master; grows by doubling and never shrinks, so that a
// timer that is restarted allocates nothing.
#include <algorithm>

#include "suite/base/memory.h"
#include "suite/loop/master.h"

namespace {

constexpr std::size_t CHILDREN = 4;
constexpr std::size_t FIRST_ROOM = 64;

bool before(const timer_item& a, const timer_item& b) {
    return a.due != b.due ? a.due < b.due : a.order < b.order;
}

void place(timer_heap* heap, std::size_t slot, const timer_item& item) {
    heap->items[slot] = item;
    item.event->slot = static_cast<std::uint32_t>(slot);
}

// Both find the place of `item`, starting from a hole at `slot`.
void sift_up(timer_heap* heap, std::size_t slot, const timer_item& item) {
    while (slot != 0) {
        const std::size_t parent = (slot - 1) / CHILDREN;
        if (!before(item, heap->items[parent])) break;
        place(heap, slot, heap->items[parent]);
        slot = parent;
    }
    place(heap, slot, item);
}

void sift_down(timer_heap* heap, std::size_t slot, const timer_item& item) {
    for (;;) {
        const std::size_t first = slot * CHILDREN + 1;
        if (first >= heap->count) break;
        const std::size_t end = std::min(first + CHILDREN, heap->count);
        std::size_t least = first;
        for (std::size_t child = first + 1; child < end; child++) {
            if (before(heap->items[child], heap->items[least])) least = child;
        }
        if (!before(heap->items[least], item)) break;
        place(heap, slot, heap->items[least]);
        slot = least;
    }
    place(heap, slot, item);
}

}  // namespace

bool timer_heap_reserve(timer_heap* heap) {
    if (heap->count < heap->room) return true;
    const std::size_t room = heap->room == 0 ? FIRST_ROOM : heap->room * 2;
    void* items = memmgr_realloc(heap->items, room * sizeof(timer_item), MTYPE_THREAD);
    if (items == nullptr) return false;
    heap->items = static_cast<timer_item*>(items);
    heap->room = room;
    return true;
}

void timer_heap_push(timer_heap* heap, const timer_item& item) {
    sift_up(heap, heap->count++, item);
}

void timer_heap_remove(timer_heap* heap, std::size_t slot) {
    const timer_item last = heap->items[--heap->count];
    if (slot == heap->count) return;
    if (slot != 0 && before(last, heap->items[(slot - 1) / CHILDREN])) {
        sift_up(heap, slot, last);
    } else {
        sift_down(heap, slot, last);
    }
}

void timer_heap_shift_back(timer_heap* heap, nanoseconds by) {
    for (std::size_t i = 0; i < heap->count; i++) {
        timer_item& item = heap->items[i];
        item.due -= std::min(item.due, by);
        item.event->due = item.due;
    }
    // Due times that met at zero are now in the order of their addition only; a sorted array is a heap.
    std::sort(heap->items, heap->items + heap->count, before);
    for (std::size_t i = 0; i < heap->count; i++) heap->items[i].event->slot = static_cast<std::uint32_t>(i);
}
