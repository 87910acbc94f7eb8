// The octets of AgentX. Every length that comes from outside is compared with what is left before it is used,
// and every field begins on a multiple of four octets, as the payload itself does.
#include "suite/agentx/codec.h"

#include <algorithm>

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

// Between the host's order and the PDU's: put_be and get_be take it from there.
std::uint16_t in_order(std::uint16_t value, bool big_endian) {
    return big_endian ? value : __builtin_bswap16(value);
}
std::uint32_t in_order(std::uint32_t value, bool big_endian) {
    return big_endian ? value : __builtin_bswap32(value);
}

void put(agentx_writer* w, const void* data, std::size_t count) {
    if (!w->full && !text_append(w->out, data, count)) w->full = true;
}

octets pdu(const agentx_writer* w) {
    return {reinterpret_cast<std::uint8_t*>(w->out->data + w->start), w->out->length - w->start};
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
    header->session = in_order(get_be32(data, 4), big_endian);
    header->transaction = in_order(get_be32(data, 8), big_endian);
    header->packet = in_order(get_be32(data, 12), big_endian);
    header->length = in_order(get_be32(data, LENGTH_AT), big_endian);
    return header->version == AGENTX_VERSION && header->type >= AGENTX_OPEN &&
           header->type <= AGENTX_RESPONSE && header->length % 4 == 0;
}

std::uint8_t agentx_take_u8(agentx_reader* r) {
    const const_octets b = take(r, 1);
    return b.empty() ? std::uint8_t{0} : b[0];
}

std::uint16_t agentx_take_u16(agentx_reader* r) {
    const const_octets b = take(r, 2);
    return b.empty() ? std::uint16_t{0} : in_order(get_be16(b, 0), r->big_endian);
}

std::uint32_t agentx_take_u32(agentx_reader* r) {
    const const_octets b = take(r, 4);
    return b.empty() ? 0 : in_order(get_be32(b, 0), r->big_endian);
}

void agentx_take_oid(agentx_reader* r, agentx_oid* out) {
    out->length = 0;
    const std::size_t count = agentx_take_u8(r);
    const std::uint8_t prefix = agentx_take_u8(r);
    out->include = agentx_take_u8(r) != 0;
    (void)agentx_take_u8(r);  // reserved
    if (prefix) {
        agentx_append(out, INTERNET);
        out->id[out->length++] = prefix;
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

void agentx_append(agentx_oid* to, agentx_name more) {
    const std::size_t count = std::min(more.size(), AGENTX_OID_MAX - to->length);
    std::copy_n(more.data(), count, to->id + to->length);
    to->length += count;
}

int agentx_compare(agentx_name one, agentx_name other) {
    const std::size_t common = std::min(one.size(), other.size());
    for (std::size_t i = 0; i < common; ++i)
        if (one[i] != other[i]) return one[i] < other[i] ? -1 : 1;
    return one.size() == other.size() ? 0 : one.size() < other.size() ? -1 : 1;
}

bool agentx_begins_with(agentx_name name, agentx_name head) {
    return name.size() >= head.size() && std::equal(head.begin(), head.end(), name.begin());
}

agentx_writer agentx_begin(text_buffer* out, const agentx_header& header) {
    agentx_writer w = {out, out->length, agentx_is_big_endian(header), false};
    agentx_put_u8(&w, AGENTX_VERSION);
    agentx_put_u8(&w, header.type);
    agentx_put_u8(&w, header.flags);
    agentx_put_u8(&w, 0);
    agentx_put_u32(&w, header.session);
    agentx_put_u32(&w, header.transaction);
    agentx_put_u32(&w, header.packet);
    agentx_put_u32(&w, 0);
    return w;
}

bool agentx_end(agentx_writer* w) {
    if (w->full) {
        w->out->length = w->start;
        if (w->out->data) w->out->data[w->start] = 0;
        return false;
    }
    agentx_patch_u32(w, LENGTH_AT, static_cast<std::uint32_t>(pdu(w).size() - AGENTX_HEADER_SIZE));
    return true;
}

void agentx_put_u8(agentx_writer* w, std::uint8_t value) {
    put(w, &value, sizeof value);
}

void agentx_put_u16(agentx_writer* w, std::uint16_t value) {
    std::uint8_t b[2];
    put_be16(b, 0, in_order(value, w->big_endian));
    put(w, b, sizeof b);
}

void agentx_put_u32(agentx_writer* w, std::uint32_t value) {
    std::uint8_t b[4];
    put_be32(b, 0, in_order(value, w->big_endian));
    put(w, b, sizeof b);
}

void agentx_put_oid(agentx_writer* w, agentx_name name, bool include) {
    constexpr std::size_t head = std::size(INTERNET) + 1;
    const bool short_form = name.size() >= head && agentx_begins_with(name, INTERNET) && name[head - 1] > 0 &&
                            name[head - 1] <= UINT8_MAX;
    const agentx_name rest = name.subspan(short_form ? head : 0);
    agentx_put_u8(w, static_cast<std::uint8_t>(rest.size()));
    agentx_put_u8(w, short_form ? static_cast<std::uint8_t>(name[head - 1]) : std::uint8_t{0});
    agentx_put_u8(w, include ? 1 : 0);
    agentx_put_u8(w, 0);
    for (const snmp_oid id : rest) agentx_put_u32(w, id);
}

void agentx_put_string(agentx_writer* w, const void* data, std::size_t length) {
    constexpr std::uint8_t zeros[3] = {};
    agentx_put_u32(w, static_cast<std::uint32_t>(length));
    put(w, data, length);
    put(w, zeros, padding(length));
}

void agentx_put_empty(agentx_writer* w, std::uint16_t type, agentx_name name) {
    agentx_put_u16(w, type);
    agentx_put_u16(w, 0);
    agentx_put_oid(w, name);
}

void agentx_put_number(agentx_writer* w, std::uint16_t type, agentx_name name, std::uint32_t value) {
    agentx_put_empty(w, type, name);
    agentx_put_u32(w, value);
}

void agentx_put_counter64(agentx_writer* w, agentx_name name, std::uint64_t value) {
    const auto high = static_cast<std::uint32_t>(value >> 32), low = static_cast<std::uint32_t>(value);
    agentx_put_empty(w, AGENTX_COUNTER64, name);
    agentx_put_u32(w, w->big_endian ? high : low);
    agentx_put_u32(w, w->big_endian ? low : high);
}

void agentx_put_text(agentx_writer* w, agentx_name name, const void* data, std::size_t length) {
    agentx_put_empty(w, AGENTX_OCTET_STRING, name);
    agentx_put_string(w, data, length);
}

void agentx_put_oid_value(agentx_writer* w, agentx_name name, agentx_name value) {
    agentx_put_empty(w, AGENTX_OBJECT_ID, name);
    agentx_put_oid(w, value);
}

void agentx_patch_u16(agentx_writer* w, std::size_t at, std::uint16_t value) {
    if (!w->full) put_be16(pdu(w), at, in_order(value, w->big_endian));
}

void agentx_patch_u32(agentx_writer* w, std::size_t at, std::uint32_t value) {
    if (!w->full) put_be32(pdu(w), at, in_order(value, w->big_endian));
}
