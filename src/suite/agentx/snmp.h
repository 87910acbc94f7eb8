// SNMP sub-agent: registration of a MIB module, the handler model, notifications. The sub-agent connects to
// an AgentX master by itself, and again whenever it is lost; nothing here waits for the master.
#pragma once

#include <cstddef>
#include <cstdint>

#include "suite/base/clock.h"
#include "suite/base/context.h"

using snmp_oid = std::uint32_t;

enum : std::uint8_t {
    SNMP_TYPE_INTEGER = 2,
    SNMP_TYPE_OCTET_STRING = 4,
    SNMP_TYPE_COUNTER32 = 65,
    SNMP_TYPE_GAUGE32 = 66,
    SNMP_TYPE_TIME_TICKS = 67,  // hundredths of a second
    SNMP_TYPE_COUNTER64 = 70,   // its value has eight octets; those of the other numbers have four
};
enum : std::uint8_t { SNMP_NOT_ACCESSIBLE = 0, SNMP_READ_ONLY = 1, SNMP_READ_WRITE = 2 };

// Error statuses of RFC 3416 that handlers return.
enum snmp_status : int {
    SNMP_NO_ERROR = 0,
    SNMP_NO_SUCH_NAME = 2,
    SNMP_READ_ONLY_ERROR = 4,
    SNMP_GEN_ERR = 5,
    SNMP_WRONG_TYPE = 7,
    SNMP_WRONG_VALUE = 10,
    SNMP_NO_CREATION = 11,
    SNMP_INCONSISTENT_VALUE = 12,
    SNMP_RESOURCE_UNAVAILABLE = 13,
    SNMP_COMMIT_FAILED = 14,
    SNMP_UNDO_FAILED = 15,
    SNMP_NOT_WRITABLE = 17,
};

// The SET phase that the sub-agent gives to a write handler: a new value, or the value that the read handler
// gave before, when a SET is taken back. A handler of an object that reads values which it would not accept,
// or whose values are steps, tells them apart; all others need not look. Not one of the phases of RFC 3416
// agents, so that a handler may be called with those too.
enum : int { SNMP_ACTION_SET = 0, SNMP_ACTION_RESTORE = 100 };

struct snmp_variable;

// Applies a SET; returns an error status of RFC 3416. `state` is what the read handler returned, or null.
using snmp_write_handler = int (*)(int action, const std::uint8_t* value, std::uint8_t value_type,
                                   std::size_t value_length, const std::uint8_t* state, const snmp_oid* name,
                                   std::size_t name_length, const snmp_variable* variable);
// Returns the address of the value, or null. Names are those below the module's base: the object's suffix,
// then the instance; `variable` is the table's own entry. `name` holds room for 128 sub-identifiers; GETNEXT
// (exact 0) writes the found instance into it and sets *name_length; a null value with a name that moved
// forward says that the found instance has no value, and the sub-agent asks on behind it. Asked for exactly a
// name that is of none of its objects, a handler of several sets *name_length to 0 (noSuchObject; else a null
// value is noSuchInstance). *write, which is null before the call, takes the object's write handler, also
// when there is no value.
using snmp_read_handler = const void* (*)(const snmp_variable* variable, snmp_oid* name,
                                          std::size_t* name_length, int exact, std::size_t* value_length,
                                          snmp_write_handler* write);

// One entry of a module's table, 544 octets on every platform.
struct snmp_variable {
    std::uint32_t magic;
    std::uint8_t type;
    std::uint8_t access;
    std::uint16_t suffix_length;
    alignas(8) snmp_read_handler read;
    alignas(8) snmp_oid suffix[132];
};
static_assert(sizeof(snmp_variable) == 544);

// Keeps the registration; the module appears below 1.3.6.1.4.1 followed by `base`. The entries are in the
// order of their suffixes, none of which begins with another; name and entries live as long as the context.
// The last five arguments are 0. 0 or negative.
int agentx_register_mib(lib_globals* ctx, const char* name, const snmp_variable* variables,
                        std::size_t entry_size, std::size_t entry_count, const snmp_oid* base,
                        std::size_t base_length, int, int, int, int, int);
// Begins to connect, from the next turn of the loop on. 0, or -1 when memory is exhausted.
int snmp_start(lib_globals* ctx);
void snmp_stop(lib_globals* ctx);  // says good-bye to the master; frees the registrations

// Checks a scalar's request against its object: exact: name equals object.0; next: name sorts before
// object.0, which is then written to `name`. 0 when it matches, -1 otherwise. Sets *write to null and
// *value_length to 4.
int snmp_header_generic(const snmp_variable* variable, snmp_oid* name, std::size_t* name_length, int exact,
                        std::size_t* value_length, snmp_write_handler* write);
// The master's up-time at a moment of the loop's clock: what a TimeStamp reads. 0 for a moment before its
// start, and for none (0).
std::uint32_t snmp_time_stamp(const lib_globals* ctx, nanoseconds moment);
// 1 when `value` can be the index of an interface of that type code.
int snmp_api_ifindex_check(std::int32_t value, std::uint16_t type);

// Notifications. They are off until `snmp notifications` is configured. While they are on, `check` runs every
// 200 ms: it compares what it last told with what is, and calls snmp_notify. `start` runs when they are
// switched on: what is then, is known; `stop` when they are switched off and at the end of the sub-agent.
struct snmp_notifier {
    void (*start)();
    void (*check)();
    void (*stop)();
};
int snmp_set_notifier(lib_globals* ctx, const snmp_notifier* notifier);  // 0, or -1 when exhausted

// An object that a notification carries: its instance's name below the module's base, and its value.
struct snmp_notify_object {
    snmp_oid name[8];
    std::size_t name_length;
    std::int32_t value;
    const char* text = nullptr;  // in place of the value
};
// Tells what became of a notification, once: the master has taken it, or it may be lost and should be sent
// again.
using snmp_notify_done = void (*)(std::uint32_t tag, bool delivered);
// Sends base.0.number with its objects. 0, or -1 when it can't be sent now (no master, too many unanswered):
// `done` is not called then.
[[nodiscard]] int snmp_notify(lib_globals* ctx, const snmp_oid* base, std::size_t base_length,
                              snmp_oid number, const snmp_notify_object* objects, std::size_t count,
                              snmp_notify_done done, std::uint32_t tag);
