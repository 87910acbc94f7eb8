// Walks and builds netlink messages. Used by the link watcher and by everything that speaks generic netlink.
// Input is whatever a socket gave, so each length is checked against what is there before it is followed; a
// wrong length ends the walk and nothing else goes wrong.
#include "nsmd/netlink/netlink.h"

#include <linux/netlink.h>

#include <cerrno>
#include <cstring>

namespace {

constexpr int MAX_ERRNO = 4095;  // the kernel's own limit

constexpr std::size_t MESSAGE_HEADER = 16, ATTR_HEADER = 4;

constexpr std::size_t aligned(std::size_t n) {
    return (n + 3) & ~std::size_t{3};
}

template <typename T>
T read_as(const_octets value) {
    T v = 0;
    if (value.size() >= sizeof v) std::memcpy(&v, value.data(), sizeof v);
    return v;
}

void drop_front(const_octets* rest, std::size_t count) {
    *rest = count >= rest->size() ? const_octets{} : rest->subspan(count);
}

void patch_length(nl_builder* b) {
    const auto total = static_cast<std::uint32_t>(b->length);
    std::memcpy(b->data, &total, sizeof total);
}

std::uint8_t* grow(nl_builder* b, std::size_t count) {
    const std::size_t room = aligned(count);
    if (b->overflow || room > sizeof b->data - b->length) {
        b->overflow = true;
        return nullptr;
    }
    std::uint8_t* at = b->data + b->length;
    std::memset(at, 0, room);
    b->length += room;
    patch_length(b);
    return at;
}

}  // namespace

bool nl_next_message(const_octets* rest, nl_message* out) {
    if (rest->size() < MESSAGE_HEADER) return false;
    const std::uint32_t length = nl_u32(*rest);
    if (length < MESSAGE_HEADER || length > rest->size()) return false;
    out->type = nl_u16(rest->subspan(4));
    out->flags = nl_u16(rest->subspan(6));
    out->sequence = nl_u32(rest->subspan(8));
    out->port = nl_u32(rest->subspan(12));
    out->body = rest->subspan(MESSAGE_HEADER, length - MESSAGE_HEADER);
    drop_front(rest, aligned(length));
    return true;
}

bool nl_next_attr(const_octets* rest, nl_attr* out) {
    if (rest->size() < ATTR_HEADER) return false;
    const std::uint16_t length = nl_u16(*rest);
    if (length < ATTR_HEADER || length > rest->size()) return false;
    out->type = nl_u16(rest->subspan(2)) & NLA_TYPE_MASK;
    out->value = rest->subspan(ATTR_HEADER, length - ATTR_HEADER);
    drop_front(rest, aligned(length));
    return true;
}

std::uint8_t nl_u8(const_octets value) {
    return value.empty() ? std::uint8_t{0} : value[0];
}
std::uint16_t nl_u16(const_octets value) {
    return read_as<std::uint16_t>(value);
}
std::uint32_t nl_u32(const_octets value) {
    return read_as<std::uint32_t>(value);
}
std::uint64_t nl_u64(const_octets value) {
    return read_as<std::uint64_t>(value);
}

std::int64_t nl_sint(const_octets value) {
    return value.size() >= 8 ? read_as<std::int64_t>(value) : read_as<std::int32_t>(value);
}

std::string_view nl_text(const_octets value) {
    std::size_t length = 0;
    while (length < value.size() && value[length] != 0) ++length;
    return {reinterpret_cast<const char*>(value.data()), length};
}

int nl_error_code(const nl_message& message) {
    const int code = static_cast<int>(nl_u32(message.body));
    return code <= 0 && code >= -MAX_ERRNO ? code : -EPROTO;
}

void nl_begin(nl_builder* b, std::uint16_t type, std::uint16_t flags, std::uint32_t sequence) {
    b->length = 0;
    b->overflow = false;
    std::uint8_t* at = grow(b, MESSAGE_HEADER);
    std::memcpy(at + 4, &type, sizeof type);
    std::memcpy(at + 6, &flags, sizeof flags);
    std::memcpy(at + 8, &sequence, sizeof sequence);
}

void nl_put_raw(nl_builder* b, const void* octets_in, std::size_t count) {
    std::uint8_t* at = grow(b, count);
    if (at && count) std::memcpy(at, octets_in, count);
}

void nl_put(nl_builder* b, std::uint16_t type, const void* value, std::size_t count) {
    std::uint8_t* at = grow(b, ATTR_HEADER + count);
    if (!at) return;
    const auto length = static_cast<std::uint16_t>(ATTR_HEADER + count);
    std::memcpy(at, &length, sizeof length);
    std::memcpy(at + 2, &type, sizeof type);
    if (count) std::memcpy(at + ATTR_HEADER, value, count);
}

void nl_put_u32(nl_builder* b, std::uint16_t type, std::uint32_t value) {
    nl_put(b, type, &value, sizeof value);
}

void nl_put_text(nl_builder* b, std::uint16_t type, std::string_view text) {
    char copy[256];
    if (text.size() >= sizeof copy) {
        b->overflow = true;
        return;
    }
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = 0;
    nl_put(b, type, copy, text.size() + 1);
}

std::size_t nl_nest_begin(nl_builder* b, std::uint16_t type) {
    const std::size_t begin = b->length;
    nl_put(b, static_cast<std::uint16_t>(type | NLA_F_NESTED), nullptr, 0);
    return begin;
}

void nl_nest_end(nl_builder* b, std::size_t begin) {
    if (b->overflow) return;
    const auto length = static_cast<std::uint16_t>(b->length - begin);
    std::memcpy(b->data + begin, &length, sizeof length);
}
