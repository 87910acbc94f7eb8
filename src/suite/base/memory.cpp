// The memory manager. Owns a cache of freed blocks for each size class and the counts of each memory type.
//
// A block is preceded by a header of 16 octets that says what it is, so a free needs no size and a wrong type
// is noticed. The header's mark also tells a block that was given back already (or memory that never came
// from here) from a live one: such a free is logged and not carried out. Freed blocks are kept up to a bound
// for each class; what is above it goes back to the C library. Either way a block is overwritten with zeros
// when it is given back, not when it is taken again: nobody knows for how long nobody takes it, and it may
// have held a password.
//
// Under AddressSanitizer nothing is cached and blocks have their exact size, so that it sees every use after
// free and every overrun.
#include "suite/base/memory.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#if defined(__SANITIZE_ADDRESS__)
#define MEMORY_EXACT 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MEMORY_EXACT 1
#endif
#endif
#ifndef MEMORY_EXACT
#define MEMORY_EXACT 0
#endif

const malloc_size malloc_sizes[] = {
    {32},   {48},   {64},   {96},   {128},  {192},   {256},   {384},   {512},   {768},   {1024},  {1536},
    {2048}, {3072}, {4096}, {6144}, {8192}, {12288}, {16384}, {24576}, {32768}, {49152}, {65536}, {0},
};

namespace {

constexpr std::size_t CLASS_COUNT = sizeof malloc_sizes / sizeof malloc_sizes[0] - 1;
constexpr std::uint16_t CLASS_NONE = 0xffff;  // larger than the largest class: sized exactly
constexpr std::size_t TYPE_COUNT = 1024;
constexpr std::uint32_t MARK_LIVE = 0x4d424c4b, MARK_FREE = 0x66726565;

constexpr std::size_t CACHE_OCTETS = 65536;  // kept for each class, within these numbers of blocks
constexpr std::uint32_t CACHE_LEAST = 4, CACHE_MOST = 64;

// Sixteen octets everywhere, so that a block is as well aligned as what malloc returns.
struct alignas(8) block_header {
    std::uint32_t mark;
    std::uint16_t type;
    std::uint16_t size_class;
    union {
        std::size_t octets;         // live: what was asked for
        block_header* next_cached;  // free: the next one of the class
        std::uint64_t fill;
    };
};
static_assert(sizeof(block_header) == 16);

struct type_record {
    const char* name;
    memmgr_stats stats;
};

struct class_cache {
    block_header* first;
    std::uint32_t count;
};

type_record types[TYPE_COUNT];
class_cache caches[CLASS_COUNT];
std::uint64_t allocations;
std::uint64_t fail_countdown;
memory_report report = nullptr;

__attribute__((format(printf, 1, 2))) void tell(const char* format, ...) {
    char text[128];
    va_list args;
    va_start(args, format);
    (void)std::vsnprintf(text, sizeof text, format, args);  // cut at the end
    va_end(args);
    if (report != nullptr)
        report(text);
    else
        std::fprintf(stderr, "%s\n", text);
}

std::uint16_t type_slot(memory_type type) {
    return type >= 0 && static_cast<std::size_t>(type) < TYPE_COUNT ? static_cast<std::uint16_t>(type)
                                                                    : static_cast<std::uint16_t>(MTYPE_NONE);
}

std::size_t class_for(std::size_t octets) {
    std::size_t low = 0, high = CLASS_COUNT;
    while (low < high) {
        const std::size_t middle = (low + high) / 2;
        if (malloc_sizes[middle].octets < octets) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return low;
}

// What a block counts for in the statistics.
std::size_t counted_octets(const block_header* h) {
    return h->size_class == CLASS_NONE ? h->octets : malloc_sizes[h->size_class].octets;
}

// How far a block can grow where it is.
std::size_t block_room(const block_header* h) {
    return MEMORY_EXACT ? h->octets : counted_octets(h);
}

void count_taken(const block_header* h) {
    memmgr_stats& s = types[h->type].stats;
    s.blocks++;
    s.octets += counted_octets(h);
    if (s.octets > s.peak_octets) s.peak_octets = s.octets;
}

void count_given_back(const block_header* h) {
    memmgr_stats& s = types[h->type].stats;
    s.blocks--;
    s.octets -= counted_octets(h);
}

// Counts an allocation and says whether a test wants it to fail.
bool allocation_refused() {
    allocations++;
    return fail_countdown != 0 && --fail_countdown == 0;
}

void* take_block(std::size_t size_class, std::size_t octets, memory_type type) {
    const std::uint16_t slot = type_slot(type);
    if (allocation_refused() || octets > SIZE_MAX / 2) {
        types[slot].stats.failures++;
        return nullptr;
    }
    block_header* h = nullptr;
    if (!MEMORY_EXACT && size_class < CLASS_COUNT && caches[size_class].first != nullptr) {
        h = caches[size_class].first;
        caches[size_class].first = h->next_cached;
        caches[size_class].count--;
    } else {
        const std::size_t room =
            MEMORY_EXACT || size_class >= CLASS_COUNT ? octets : malloc_sizes[size_class].octets;
        h = static_cast<block_header*>(std::calloc(1, sizeof *h + room));
    }
    if (h == nullptr) {
        types[slot].stats.failures++;
        return nullptr;
    }
    h->mark = MARK_LIVE;
    h->type = slot;
    h->size_class = size_class < CLASS_COUNT ? static_cast<std::uint16_t>(size_class) : CLASS_NONE;
    h->octets = octets;
    count_taken(h);
    return h + 1;
}

block_header* live_header(void* block, const char* what) {
    block_header* h = static_cast<block_header*>(block) - 1;
    if (h->mark == MARK_LIVE) return h;
    tell("memory: %s of %s block %p", what, h->mark == MARK_FREE ? "an already freed" : "an unknown", block);
    return nullptr;
}

std::uint32_t cache_bound(std::size_t size_class) {
    const std::size_t fits = CACHE_OCTETS / malloc_sizes[size_class].octets;
    return fits > CACHE_MOST    ? CACHE_MOST
           : fits < CACHE_LEAST ? CACHE_LEAST
                                : static_cast<std::uint32_t>(fits);
}

void release_block(block_header* h) {
    count_given_back(h);
    h->mark = MARK_FREE;
    explicit_bzero(h + 1, block_room(h));
    const std::uint16_t size_class = h->size_class;
    if (MEMORY_EXACT || size_class == CLASS_NONE || caches[size_class].count >= cache_bound(size_class)) {
        std::free(h);
        return;
    }
    h->next_cached = caches[size_class].first;
    caches[size_class].first = h;
    caches[size_class].count++;
}

void check_type(const block_header* h, memory_type type) {
    if (h->type == type_slot(type)) return;
    tell("memory: block of type %s given back as %s", memmgr_type_name(h->type), memmgr_type_name(type));
}

constexpr struct {
    memory_type type;
    const char* name;
} own_types[] = {
    {MTYPE_NONE, "other"},
    {MTYPE_LIB, "library context"},
    {MTYPE_THREAD, "event loop"},
    {MTYPE_LOG, "log"},
    {MTYPE_CLI_TREE, "command tree"},
    {MTYPE_CLI_SESSION, "terminal sessions"},
    {MTYPE_TEXT, "text buffers"},
    {MTYPE_HOST, "configuration"},
    {MTYPE_IF, "interfaces"},
    {MTYPE_NSM, "NSM client"},
    {MTYPE_SLOW, "slow-protocol socket"},
    {MTYPE_AGENTX, "SNMP sub-agent"},
    {MTYPE_NSMD, "network services manager"},
};

}  // namespace

// The identifier tells the processes of a suite apart in shared statistics; this manager keeps none.
void memory_init(std::int32_t) {
    for (const auto& own : own_types) memmgr_name_type(own.type, own.name);
}

void* _memmgr_calloc(const malloc_size* size_class, memory_type type) {
    if (size_class < malloc_sizes || size_class >= malloc_sizes + CLASS_COUNT) {
        (void)allocation_refused();  // counted as a refused allocation either way
        types[type_slot(type)].stats.failures++;
        return nullptr;
    }
    return take_block(static_cast<std::size_t>(size_class - malloc_sizes), size_class->octets, type);
}

void* memmgr_calloc(std::size_t octets, memory_type type) {
    return take_block(class_for(octets), octets, type);
}

void* memmgr_realloc(void* block, std::size_t octets, memory_type type) {
    if (block == nullptr) return memmgr_calloc(octets, type);
    block_header* h = live_header(block, "growth");
    if (h == nullptr) return nullptr;
    check_type(h, type);
    const std::size_t before = h->octets;
    if (octets <= block_room(h) && (MEMORY_EXACT || h->size_class != CLASS_NONE)) {
        // What a shrunk block leaves behind must not show when it grows again.
        if (octets < before) std::memset(static_cast<char*>(block) + octets, 0, before - octets);
        if (!MEMORY_EXACT) h->octets = octets;
        return block;
    }
    void* moved = take_block(class_for(octets), octets, h->type);
    if (moved == nullptr) return nullptr;
    std::memcpy(moved, block, before < octets ? before : octets);
    release_block(h);
    return moved;
}

void memmgr_free(void* block, memory_type type) {
    if (block == nullptr) return;
    block_header* h = live_header(block, "free");
    if (h == nullptr) return;
    check_type(h, type);
    release_block(h);
}

void memmgr_set_report(memory_report to) {
    report = to;
}

void memmgr_name_type(memory_type type, const char* name) {
    types[type_slot(type)].name = name;
}

memmgr_stats memmgr_type_stats(memory_type type) {
    return types[type_slot(type)].stats;
}

const char* memmgr_type_name(memory_type type) {
    const char* name = types[type_slot(type)].name;
    return name != nullptr ? name : "unnamed";
}

void memmgr_fail_at(std::uint64_t nth) {
    fail_countdown = nth;
}

std::uint64_t memmgr_allocations() {
    return allocations;
}
