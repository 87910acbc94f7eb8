// Memory manager: every allocation of the programs goes through it, under a memory type, so that
// `show memory` tells who holds what and a test can make any single allocation fail.
// Blocks come zeroed, in size classes; freed blocks of a class are kept for the next taker. What a block held
// is overwritten as soon as it is given back.
// Nothing here aborts: exhausted memory is a null pointer, which the caller must handle.
#pragma once

#include <cstddef>
#include <cstdint>

using memory_type = std::int32_t;

// The suite's own memory types. A daemon's types are its own numbers (0 to 1023) named with memmgr_name_type.
enum : memory_type {
    MTYPE_NONE = 0,
    MTYPE_LIB = 1,     // library context
    MTYPE_THREAD = 2,  // events, timers, descriptors' sources of the loop
    MTYPE_LOG = 3,
    MTYPE_CLI_TREE = 4,  // command tree
    MTYPE_CLI_SESSION = 5,
    MTYPE_TEXT = 6,     // growable text and octet buffers
    MTYPE_HOST = 7,     // configuration, pending lines
    MTYPE_IF = 8,       // interface records and list
    MTYPE_NSM = 9,      // NSM client
    MTYPE_SLOW = 10,    // slow-protocol socket
    MTYPE_AGENTX = 11,  // SNMP sub-agent
    MTYPE_NSMD = 12,    // nsmd's own records
};

// A size class. malloc_sizes ends with an entry of 0 octets; sizes ascend.
struct malloc_size {
    std::size_t octets;
};
extern const malloc_size malloc_sizes[];

// Prepares the manager for a process with this protocol identifier. May be called again; counts are kept.
void memory_init(std::int32_t protocol_id);

// Where our own mistakes (a block given back twice, or under another type) are told. The log names itself
// when it opens; until then they go to standard error.
using memory_report = void (*)(const char* text);
void memmgr_set_report(memory_report report);

// Zeroed block of the given class (a pointer into malloc_sizes), or null. Counted under `type`.
[[nodiscard]] void* _memmgr_calloc(const malloc_size* size_class, memory_type type);

// Zeroed block of at least `octets`: picks the class; above the largest class the exact size. Null when
// exhausted.
[[nodiscard]] void* memmgr_calloc(std::size_t octets, memory_type type);

// As realloc: contents kept, growth zeroed; on failure null and the old block untouched. `block` may be null.
[[nodiscard]] void* memmgr_realloc(void* block, std::size_t octets, memory_type type);

// Gives a block back. Null is ignored. A type that differs from the allocation's is logged as an error and
// the block is freed under the type that it was allocated with.
void memmgr_free(void* block, memory_type type);

// The name that `show memory` prints. `name` must live as long as the process.
void memmgr_name_type(memory_type type, const char* name);

struct memmgr_stats {
    std::uint64_t blocks;  // held now
    std::uint64_t octets;  // held now, as rounded up to the size class
    std::uint64_t peak_octets;
    std::uint64_t failures;  // allocations refused
};
memmgr_stats memmgr_type_stats(memory_type type);
const char* memmgr_type_name(memory_type type);  // never null

// Tests: the n-th allocation from now fails (1 = the next), once. 0 switches it off.
void memmgr_fail_at(std::uint64_t nth);
// Allocations made since the process began, failed ones included.
std::uint64_t memmgr_allocations();
