// SNMP sub-agent: registration of a MIB module and the handler model.
#pragma once

#include <cstddef>
#include <cstdint>

#include "suite/lib.h"

using snmp_oid = std::uint32_t;

enum : std::uint8_t { SNMP_TYPE_INTEGER = 2, SNMP_TYPE_OCTET_STRING = 4 };
enum : std::uint8_t { SNMP_NOT_ACCESSIBLE = 0, SNMP_READ_ONLY = 1, SNMP_READ_WRITE = 2 };

struct snmp_variable;

// Applies a SET; returns an error status of RFC 3416.
using snmp_write_handler = int (*)(int action, const std::uint8_t* value, std::uint8_t value_type,
                                   std::size_t value_length, const std::uint8_t* state, const snmp_oid* name,
                                   std::size_t name_length, const snmp_variable* variable);
// Returns the address of the value, or null. `name` holds room for 128 sub-identifiers; GETNEXT (exact 0)
// writes the found instance into it and sets *name_length.
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

// Keeps the registration; the module appears below 1.3.6.1.4.1 followed by `base`. The last five arguments
// are 0. 0 or negative.
int agentx_register_mib(lib_globals* ctx, const char* name, const snmp_variable* variables,
                        std::size_t entry_size, std::size_t entry_count, const snmp_oid* base,
                        std::size_t base_length, int, int, int, int, int);
int snmp_start(lib_globals* ctx);
void snmp_stop(lib_globals* ctx);

// Checks a scalar's request against its object: exact: name equals object.0; next: name sorts before
// object.0, which is then written to `name`. 0 when it matches, -1 otherwise. Sets *write to null and
// *value_length to 4.
int snmp_header_generic(const snmp_variable* variable, snmp_oid* name, std::size_t* name_length, int exact,
                        std::size_t* value_length, snmp_write_handler* write);
// 1 when `value` can be the index of an interface of that type code.
int snmp_api_ifindex_check(std::int32_t value, std::uint16_t type);
