// AgentX (RFC 2741) on octets: headers, object identifiers, strings, ranges and variables, in both byte
// orders. Pure functions over memory: nothing is opened, and a reader allocates nothing.
//
// A reader never goes past its octets: after the first field that does not fit it is `bad`, and everything
// that it gives from then on is zero. Callers look at `bad` where it matters, not after each field. A writer
// appends to a text_buffer, and is `full` from the first append that failed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "suite/agentx/snmp.h"
#include "suite/base/octets.h"
#include "suite/base/text.h"

constexpr std::size_t AGENTX_HEADER_SIZE = 20;
constexpr std::uint8_t AGENTX_VERSION = 1;
constexpr std::size_t AGENTX_OID_MAX = 128;

enum agentx_type : std::uint8_t {
    AGENTX_OPEN = 1,
    AGENTX_CLOSE = 2,
    AGENTX_REGISTER = 3,
    AGENTX_GET = 5,
    AGENTX_GET_NEXT = 6,
    AGENTX_GET_BULK = 7,
    AGENTX_TEST_SET = 8,
    AGENTX_COMMIT_SET = 9,
    AGENTX_UNDO_SET = 10,
    AGENTX_CLEANUP_SET = 11,
    AGENTX_NOTIFY = 12,
    AGENTX_PING = 13,
    AGENTX_RESPONSE = 18,
};

enum : std::uint8_t { AGENTX_FLAG_CONTEXT = 0x08, AGENTX_FLAG_BIG_ENDIAN = 0x10 };

// Types of a variable's value; the first two are SNMP_TYPE_INTEGER and SNMP_TYPE_OCTET_STRING.
enum agentx_value_type : std::uint16_t {
    AGENTX_INTEGER = 2,
    AGENTX_OCTET_STRING = 4,
    AGENTX_NULL = 5,
    AGENTX_OBJECT_ID = 6,
    AGENTX_IP_ADDRESS = 64,
    AGENTX_COUNTER32 = 65,
    AGENTX_GAUGE32 = 66,
    AGENTX_TIME_TICKS = 67,
    AGENTX_OPAQUE = 68,
    AGENTX_COUNTER64 = 70,
    AGENTX_NO_SUCH_OBJECT = 128,
    AGENTX_NO_SUCH_INSTANCE = 129,
    AGENTX_END_OF_MIB_VIEW = 130,
};

// Errors of a response beyond those of SNMP.
enum agentx_error : std::uint16_t {
    AGENTX_NOT_OPEN = 257,
    AGENTX_UNSUPPORTED_CONTEXT = 262,
    AGENTX_PARSE_ERROR = 266,
};

enum agentx_close_reason : std::uint8_t {
    AGENTX_CLOSE_OTHER = 1,
    AGENTX_CLOSE_PARSE_ERROR = 2,
    AGENTX_CLOSE_SHUTDOWN = 5,
};

struct agentx_header {
    std::uint8_t version, type, flags;
    std::uint32_t session, transaction, packet;
    std::uint32_t length;  // of the payload
};

using agentx_name = std::span<const snmp_oid>;

// A name with its memory.
struct agentx_oid {
    std::size_t length;
    bool include;  // of a range's start: it counts itself
    snmp_oid id[AGENTX_OID_MAX];
    agentx_name name() const { return {id, length}; }
};
void agentx_append(agentx_oid* to, agentx_name more);  // as far as it fits

struct agentx_reader {
    const_octets data;
    std::size_t at;
    bool big_endian;
    bool bad;
};

// `value` as a handler takes it: four octets in the host's order for the 32-bit types, sub-identifiers for an
// object identifier, else the octets themselves. It points into the reader's data or into `number` or `oid`.
struct agentx_variable {
    agentx_oid name;
    std::uint16_t type;
    const std::uint8_t* value;
    std::size_t value_length;
    std::uint64_t number;  // Counter64
    std::uint32_t cell;    // the 32-bit types
    agentx_oid oid;
};

// `data` holds at least AGENTX_HEADER_SIZE octets. False: not a header of this protocol.
[[nodiscard]] bool agentx_read_header(const_octets data, agentx_header* header);
inline bool agentx_is_big_endian(const agentx_header& header) {
    return (header.flags & AGENTX_FLAG_BIG_ENDIAN) != 0;
}

inline bool agentx_at_end(const agentx_reader* r) {
    return r->bad || r->at == r->data.size();
}
std::uint8_t agentx_take_u8(agentx_reader* r);
std::uint16_t agentx_take_u16(agentx_reader* r);
std::uint32_t agentx_take_u32(agentx_reader* r);
void agentx_take_oid(agentx_reader* r, agentx_oid* out);
const_octets agentx_take_string(agentx_reader* r);  // with its padding
void agentx_take_range(agentx_reader* r, agentx_oid* start, agentx_oid* end);
void agentx_take_variable(agentx_reader* r, agentx_variable* out);  // an unknown type is bad

// Lexicographical order: negative, 0 or positive.
int agentx_compare(agentx_name one, agentx_name other);
bool agentx_begins_with(agentx_name name, agentx_name head);
inline agentx_name agentx_suffix(const snmp_variable* v) {
    return {v->suffix, v->suffix_length};
}

struct agentx_writer {
    text_buffer* out;
    std::size_t start;  // of the PDU at hand
    bool big_endian;
    bool full;
};

// Begins a PDU behind what `out` holds; agentx_end fills in the length of its payload, or takes back what was
// written when it did not fit. True when the PDU is whole.
agentx_writer agentx_begin(text_buffer* out, const agentx_header& header);
[[nodiscard]] bool agentx_end(agentx_writer* w);

void agentx_put_u8(agentx_writer* w, std::uint8_t value);
void agentx_put_u16(agentx_writer* w, std::uint16_t value);
void agentx_put_u32(agentx_writer* w, std::uint32_t value);
void agentx_put_oid(agentx_writer* w, agentx_name name, bool include = false);
void agentx_put_string(agentx_writer* w, const void* data, std::size_t length);
// Types without a value, Integer and the other 32-bit types, and Counter64.
void agentx_put_empty(agentx_writer* w, std::uint16_t type, agentx_name name);
void agentx_put_number(agentx_writer* w, std::uint16_t type, agentx_name name, std::uint32_t value);
void agentx_put_counter64(agentx_writer* w, agentx_name name, std::uint64_t value);
void agentx_put_text(agentx_writer* w, agentx_name name, const void* data, std::size_t length);
void agentx_put_oid_value(agentx_writer* w, agentx_name name, agentx_name value);
// Overwrites 16 or 32 bits of the PDU at hand, `at` octets behind its start.
void agentx_patch_u16(agentx_writer* w, std::size_t at, std::uint16_t value);
void agentx_patch_u32(agentx_writer* w, std::size_t at, std::uint32_t value);
