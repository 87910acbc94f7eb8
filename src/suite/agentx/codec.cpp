// The octets of AgentX. Every length that comes from outside is compared with what is left before it is used,
// and every field begins on a multiple of four octets, as the payload itself does.
#include "suite/agentx/codec.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr snmp_oid INTERNET[] = {1, 3, 6, 1};  // what a prefix octet stands behind
constexpr std::size_t LENGTH_AT = 16;          // of the payload, in the header

std::size_t padding(std::size_t length) {
    return (4 - length % 4) % 4;
}

const_octets take(agentx_reader* r, std::size_t count) {
    if (r->bad || r->data.size() - r->at < count) {
        r->bad = true;
        return {};
    }
    const const_octets taken = r->data.subspan(r->at, count);
    r->at += count;
    return taken;
}

std::uint32_t word(const_octets b, std::size_t at, bool big_endian) {
    const std::uint32_t value = get_be32(b, at);
    return big_endian ? value : __builtin_bswap32(value);
}

void put(agentx_writer* w, const void* data, std::size_t count) {
    if (!w->full && !text_append(w->out, data, count)) w->full = true;
}

void begin_variable(agentx_writer* w, std::uint16_t type, const snmp_oid* name, std::size_t length) {
    agentx_put_u16(w, type);
    agentx_put_u16(w, 0);
    agentx_put_oid(w, name, length);
}

void take_cell(agentx_reader* r, agentx_variable* out) {
    out->cell = agentx_take_u32(r);
    out->value = reinterpret_cast<const std::uint8_t*>(&out->cell);
    out->value_length = sizeof out->cell;
}

void take_counter64(agentx_reader* r, agentx_variable* out) {
    const std::uint64_t first = agentx_take_u32(r);
    const std::uint64_t second = agentx_take_u32(r);
    out->number = r->big_endian ? first << 32 | second : second << 32 | first;
    out->value = reinterpret_cast<const std::uint8_t*>(&out->number);
    out->value_length = sizeof out->number;
}

void take_value(agentx_reader* r, agentx_variable* out) {
    switch (out->type) {
        case AGENTX_INTEGER:
        case AGENTX_COUNTER32:
        case AGENTX_GAUGE32:
        case AGENTX_TIME_TICKS:
            return take_cell(r, out);
        case AGENTX_COUNTER64:
            return take_counter64(r, out);
        case AGENTX_OBJECT_ID:
            agentx_take_oid(r, &out->oid);
            out->value = reinterpret_cast<const std::uint8_t*>(out->oid.id);
            out->value_length = out->oid.length * sizeof out->oid.id[0];
            return;
        case AGENTX_OCTET_STRING:
        case AGENTX_IP_ADDRESS:
        case AGENTX_OPAQUE: {
            const const_octets text = agentx_take_string(r);
            out->value = text.data();
            out->value_length = text.size();
            return;
        }
        case AGENTX_NULL:
        case AGENTX_NO_SUCH_OBJECT:
        case AGENTX_NO_SUCH_INSTANCE:
        case AGENTX_END_OF_MIB_VIEW:
            return;
        default:
            r->bad = true;
    }
}

}  // namespace

bool agentx_read_header(const_octets data, agentx_header* header) {
    *header = {data[0], data[1], data[2], 0, 0, 0, 0};
    const bool big_endian = agentx_is_big_endian(*header);
    header->session = word(data, 4, big_endian);
    header->transaction = word(data, 8, big_endian);
    header->packet = word(data, 12, big_endian);
    header->length = word(data, LENGTH_AT, big_endian);
    return header->version == AGENTX_VERSION && header->type >= AGENTX_OPEN &&
           header->type <= AGENTX_RESPONSE && header->length % 4 == 0;
}

std::uint8_t agentx_take_u8(agentx_reader* r) {
    const const_octets b = take(r, 1);
    return b.empty() ? std::uint8_t{0} : b[0];
}

std::uint16_t agentx_take_u16(agentx_reader* r) {
    const const_octets b = take(r, 2);
    if (b.empty()) return 0;
    const std::uint16_t value = get_be16(b, 0);
    return r->big_endian ? value : __builtin_bswap16(value);
}

std::uint32_t agentx_take_u32(agentx_reader* r) {
    const const_octets b = take(r, 4);
    return b.empty() ? 0 : word(b, 0, r->big_endian);
}

void agentx_take_oid(agentx_reader* r, agentx_oid* out) {
    out->length = 0;
    const std::size_t count = agentx_take_u8(r);
    const std::uint8_t prefix = agentx_take_u8(r);
    out->include = agentx_take_u8(r) != 0;
    (void)agentx_take_u8(r);  // reserved
    if (prefix) {
        std::copy(std::begin(INTERNET), std::end(INTERNET), out->id);
        out->id[std::size(INTERNET)] = prefix;
        out->length = std::size(INTERNET) + 1;
    }
    if (out->length + count > AGENTX_OID_MAX) r->bad = true;
    for (std::size_t i = 0; i < count && !r->bad; ++i) out->id[out->length++] = agentx_take_u32(r);
    if (r->bad) out->length = 0;
}

const_octets agentx_take_string(agentx_reader* r) {
    const std::size_t length = agentx_take_u32(r);
    const const_octets text = take(r, length);
    (void)take(r, padding(length));
    return r->bad ? const_octets{} : text;
}

void agentx_take_range(agentx_reader* r, agentx_oid* start, agentx_oid* end) {
    agentx_take_oid(r, start);
    agentx_take_oid(r, end);
}

void agentx_take_variable(agentx_reader* r, agentx_variable* out) {
    out->type = agentx_take_u16(r);
    (void)agentx_take_u16(r);  // reserved
    agentx_take_oid(r, &out->name);
    out->value = nullptr;
    out->value_length = 0;
    if (!r->bad) take_value(r, out);
}

int agentx_compare(const snmp_oid* one, std::size_t one_length, const snmp_oid* other,
                   std::size_t other_length) {
    const std::size_t common = std::min(one_length, other_length);
    for (std::size_t i = 0; i < common; ++i)
        if (one[i] != other[i]) return one[i] < other[i] ? -1 : 1;
    return one_length == other_length ? 0 : one_length < other_length ? -1 : 1;
}

void agentx_begin(agentx_writer* w, const agentx_header& header) {
    w->start = w->out->length;
    w->big_endian = agentx_is_big_endian(header);
    w->full = false;
    agentx_put_u8(w, AGENTX_VERSION);
    agentx_put_u8(w, header.type);
    agentx_put_u8(w, header.flags);
    agentx_put_u8(w, 0);
    agentx_put_u32(w, header.session);
    agentx_put_u32(w, header.transaction);
    agentx_put_u32(w, header.packet);
    agentx_put_u32(w, 0);
}

bool agentx_end(agentx_writer* w) {
    if (w->full) {
        w->out->length = w->start;
        if (w->out->data) w->out->data[w->start] = 0;
        return false;
    }
    agentx_patch_u32(w, LENGTH_AT,
                     static_cast<std::uint32_t>(w->out->length - w->start - AGENTX_HEADER_SIZE));
    return true;
}

void agentx_put_u8(agentx_writer* w, std::uint8_t value) {
    put(w, &value, sizeof value);
}

void agentx_put_u16(agentx_writer* w, std::uint16_t value) {
    std::uint8_t b[2];
    put_be16(b, 0, w->big_endian ? value : __builtin_bswap16(value));
    put(w, b, sizeof b);
}

void agentx_put_u32(agentx_writer* w, std::uint32_t value) {
    std::uint8_t b[4];
    put_be32(b, 0, w->big_endian ? value : __builtin_bswap32(value));
    put(w, b, sizeof b);
}

void agentx_put_oid(agentx_writer* w, const snmp_oid* id, std::size_t length, bool include) {
    constexpr std::size_t head = std::size(INTERNET) + 1;
    const bool short_form = length >= head && std::equal(std::begin(INTERNET), std::end(INTERNET), id) &&
                            id[head - 1] > 0 && id[head - 1] <= UINT8_MAX;
    const std::size_t skipped = short_form ? head : 0;
    agentx_put_u8(w, static_cast<std::uint8_t>(length - skipped));
    agentx_put_u8(w, short_form ? static_cast<std::uint8_t>(id[head - 1]) : std::uint8_t{0});
    agentx_put_u8(w, include ? 1 : 0);
    agentx_put_u8(w, 0);
    for (std::size_t i = skipped; i < length; ++i) agentx_put_u32(w, id[i]);
}

void agentx_put_string(agentx_writer* w, const void* data, std::size_t length) {
    constexpr std::uint8_t zeros[3] = {};
    agentx_put_u32(w, static_cast<std::uint32_t>(length));
    put(w, data, length);
    put(w, zeros, padding(length));
}

void agentx_put_empty(agentx_writer* w, std::uint16_t type, const snmp_oid* name, std::size_t name_length) {
    begin_variable(w, type, name, name_length);
}

void agentx_put_number(agentx_writer* w, std::uint16_t type, const snmp_oid* name, std::size_t name_length,
                       std::uint32_t value) {
    begin_variable(w, type, name, name_length);
    agentx_put_u32(w, value);
}

void agentx_put_text(agentx_writer* w, const snmp_oid* name, std::size_t name_length, const void* data,
                     std::size_t length) {
    begin_variable(w, AGENTX_OCTET_STRING, name, name_length);
    agentx_put_string(w, data, length);
}

void agentx_put_oid_value(agentx_writer* w, const snmp_oid* name, std::size_t name_length,
                          const snmp_oid* value, std::size_t value_length) {
    begin_variable(w, AGENTX_OBJECT_ID, name, name_length);
    agentx_put_oid(w, value, value_length);
}

void agentx_patch_u16(agentx_writer* w, std::size_t at, std::uint16_t value) {
    if (w->full) return;
    const std::uint16_t ordered = w->big_endian ? value : __builtin_bswap16(value);
    std::uint8_t b[2];
    put_be16(b, 0, ordered);
    std::memcpy(w->out->data + w->start + at, b, sizeof b);
}

void agentx_patch_u32(agentx_writer* w, std::size_t at, std::uint32_t value) {
    if (w->full) return;
    const std::uint32_t ordered = w->big_endian ? value : __builtin_bswap32(value);
    std::uint8_t b[4];
    put_be32(b, 0, ordered);
    std::memcpy(w->out->data + w->start + at, b, sizeof b);
}
