// Netlink messages as octets: walking and building them without casts over the buffer, so that it also holds
// where a 32-bit machine traps on unaligned access. Numbers are in host order, as the kernel sends them.
// Nothing here does input or output.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "suite/base/octets.h"
#include "suite/base/slice.h"

struct nl_message {
    std::uint16_t type;
    std::uint16_t flags;
    std::uint32_t sequence;
    std::uint32_t port;
    const_octets body;  // behind the 16-octet header
};

struct nl_attr {
    std::uint16_t type;  // without the nesting and byte-order bits
    const_octets value;
};

// Takes the next message (attribute) off the front of *rest. False at the end, and where the lengths make no
// sense: what follows such a place can't be found and is left alone.
bool nl_next_message(const_octets* rest, nl_message* out);
bool nl_next_attr(const_octets* rest, nl_attr* out);

// Values of attributes; 0 where the attribute is too short for its type.
std::uint8_t nl_u8(const_octets value);
std::uint16_t nl_u16(const_octets value);
std::uint32_t nl_u32(const_octets value);
std::uint64_t nl_u64(const_octets value);
std::int64_t nl_sint(const_octets value);  // a signed number of 4 or 8 octets, as its size says
// The text up to its zero, or to the end where a sender left the zero out.
std::string_view nl_text(const_octets value);
// The text as one of C, cut to what `out` holds.
template <std::size_t size>
void nl_copy_text(char (&out)[size], const_octets value) {
    const std::string_view text = slice(nl_text(value), 0, size - 1);
    std::memcpy(out, text.data(), text.size());
    out[text.size()] = 0;
}

// The code of an NLMSG_ERROR message: 0 for an acknowledgement, else a negative errno.
int nl_error_code(const nl_message& message);

// A request being built. A message that does not fit is marked `overflow` and not to be sent.
struct nl_builder {
    std::uint8_t data[512];
    std::size_t length = 0;
    bool overflow = false;

    const_octets message() const { return {data, length}; }
};

void nl_begin(nl_builder* b, std::uint16_t type, std::uint16_t flags, std::uint32_t sequence);
// Family headers (ifinfomsg, genlmsghdr) behind the message header, padded to four octets.
void nl_put_raw(nl_builder* b, const void* octets_in, std::size_t count);
void nl_put(nl_builder* b, std::uint16_t type, const void* value, std::size_t count);
void nl_put_u32(nl_builder* b, std::uint16_t type, std::uint32_t value);
void nl_put_text(nl_builder* b, std::uint16_t type, std::string_view text);  // a zero is appended
std::size_t nl_nest_begin(nl_builder* b, std::uint16_t type);                // returns where it began
void nl_nest_end(nl_builder* b, std::size_t begin);
