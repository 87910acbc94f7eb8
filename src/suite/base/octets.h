// Big-endian fields in a buffer of octets. Every offset is counted from the start of the span; the
// caller has checked that the span is long enough (asserted in debug builds by the span itself).
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

using octets = std::span<std::uint8_t>;
using const_octets = std::span<const std::uint8_t>;

inline std::uint16_t get_be16(const_octets b, std::size_t at) {
    return static_cast<std::uint16_t>(b[at] << 8 | b[at + 1]);
}

inline std::uint32_t get_be32(const_octets b, std::size_t at) {
    return static_cast<std::uint32_t>(get_be16(b, at)) << 16 | get_be16(b, at + 2);
}

inline std::uint64_t get_be64(const_octets b, std::size_t at) {
    return static_cast<std::uint64_t>(get_be32(b, at)) << 32 | get_be32(b, at + 4);
}

inline void put_be16(octets b, std::size_t at, std::uint16_t v) {
    b[at] = static_cast<std::uint8_t>(v >> 8);
    b[at + 1] = static_cast<std::uint8_t>(v);
}

inline void put_be32(octets b, std::size_t at, std::uint32_t v) {
    put_be16(b, at, static_cast<std::uint16_t>(v >> 16));
    put_be16(b, at + 2, static_cast<std::uint16_t>(v));
}

inline void put_be64(octets b, std::size_t at, std::uint64_t v) {
    put_be32(b, at, static_cast<std::uint32_t>(v >> 32));
    put_be32(b, at + 4, static_cast<std::uint32_t>(v));
}
