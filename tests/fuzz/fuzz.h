// What every fuzz target may need: an input to take from, and the end of a process whose rule was broken.
#pragma once

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "suite/base/octets.h"

inline void must(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "FAULT rule broken: %s\n", what);
    std::abort();
}

// What is left of an input; reads of nothing are zeros.
struct input {
    const std::uint8_t* at;
    std::size_t left;

    std::uint8_t octet() {
        if (left == 0) return 0;
        --left;
        return *at++;
    }
    const_octets take(std::size_t count) {
        count = std::min(count, left);
        const const_octets taken(at, count);
        at += count;
        left -= count;
        return taken;
    }
};
