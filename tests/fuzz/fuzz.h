// What every fuzz target may need: an input to take from, a file that says it, and the end of a process whose
// rule was broken.
#pragma once

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string_view>

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

// A file in memory, and a path that opens it.
struct memory_file {
    int fd = memfd_create("input", MFD_CLOEXEC);
    char path[32];

    explicit memory_file(std::string_view text) {
        std::snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
        must(fchmod(fd, 0600) == 0, "only its owner may write it");
        must(write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()), "there is memory");
    }
    ~memory_file() { close(fd); }
    memory_file(const memory_file&) = delete;
    memory_file& operator=(const memory_file&) = delete;
};
