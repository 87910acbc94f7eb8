// FNV-1a of 64 bits: tells what was written in part, or is another text; no guard against who means harm.
#pragma once

#include <cstdint>
#include <string_view>

constexpr std::uint64_t CHECKSUM_BEGIN = 0xcbf29ce484222325;

// Of what `sum` is of, and of this behind it.
constexpr std::uint64_t checksum_add(std::uint64_t sum, std::string_view text) {
    for (const char c : text) sum = (sum ^ static_cast<unsigned char>(c)) * 0x100000001b3;
    return sum;
}
