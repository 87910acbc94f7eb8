// The pool of interface indexes, and its file: one line "INDEX NAME" each, those that were left longest ago
// first. Part of the port table's record, which alone calls it; no allocation. The file lies where a reboot
// forgets it, so it need not reach a disk. What it says is a wish: wrong lines are passed over.
#include "nsmd/links/port_index.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "suite/base/overwrite.h"

namespace {

std::uint32_t take(port_index_pool* pool, std::uint32_t index, const char* name) {
    pool->used[index] = true;
    port_index_rename(pool, index, name);
    return index;
}

constexpr std::size_t LINE_SIZE = LINK_NAME_SIZE + 4;  // "255 ", the name, a newline for its zero
constexpr std::size_t FILE_SIZE = port_index_pool::COUNT * LINE_SIZE;

void reserve(port_index_pool* pool, const char* line) {
    static_assert(LINK_NAME_SIZE == 16);
    char name[LINK_NAME_SIZE];
    unsigned index;
    if (std::sscanf(line, "%9u %15s", &index, name) != 2) return;
    if (index == 0 || index >= port_index_pool::COUNT || pool->used[index]) return;
    port_index_rename(pool, index, name);
    port_index_leave(pool, index);
}

std::size_t add_line(const port_index_pool& pool, std::uint32_t index, char* out) {
    const int length = std::snprintf(out, LINE_SIZE + 1, "%u %s\n", index, pool.name[index]);
    return length > 0 ? static_cast<std::size_t>(length) : 0;
}

std::size_t compose(const port_index_pool& pool, char* out) {
    std::uint32_t order[port_index_pool::COUNT];
    std::uint32_t count = 0;
    for (std::uint32_t i = 1; i < port_index_pool::COUNT; ++i)
        if (pool.name[i][0]) order[count++] = i;
    std::sort(order, order + count, [&](std::uint32_t a, std::uint32_t b) {
        if (pool.used[a] != pool.used[b]) return !pool.used[a];
        return pool.used[a] ? a < b : pool.left[a] < pool.left[b];
    });
    std::size_t length = 0;
    for (std::uint32_t i = 0; i < count; ++i) length += add_line(pool, order[i], out + length);
    return length;
}

int write_file(const char* path, std::string_view text) {
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0640);
    if (fd < 0) return -errno;
    const int result = write_all(fd, text);
    close(fd);
    return result;
}

// For another user than root, who may not make files in /run. What would be half old and half new is emptied.
int write_in_place(const char* path, std::string_view text) {
    const int fd = open(path, O_WRONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return -errno;
    const int result = overwrite(fd, text);
    if (result < 0) (void)!ftruncate(fd, 0);
    close(fd);
    return result;
}

}  // namespace

std::uint32_t port_index_take_back(port_index_pool* pool, const char* name) {
    for (std::uint32_t i = 1; i < port_index_pool::COUNT; ++i)
        if (!pool->used[i] && pool->name[i][0] && std::strcmp(pool->name[i], name) == 0)
            return take(pool, i, name);
    return 0;
}

std::uint32_t port_index_take_own(port_index_pool* pool, const char* name, std::uint32_t kernel_ifindex) {
    if (kernel_ifindex == 0 || kernel_ifindex >= port_index_pool::COUNT) return 0;
    if (pool->used[kernel_ifindex] || pool->name[kernel_ifindex][0]) return 0;
    return take(pool, kernel_ifindex, name);
}

std::uint32_t port_index_take_any(port_index_pool* pool, const char* name) {
    std::uint32_t oldest = 0;
    for (std::uint32_t i = 1; i < port_index_pool::COUNT; ++i) {
        if (pool->used[i]) continue;
        if (!pool->name[i][0]) return take(pool, i, name);
        if (oldest == 0 || pool->left[i] < pool->left[oldest]) oldest = i;
    }
    return oldest == 0 ? 0 : take(pool, oldest, name);
}

void port_index_rename(port_index_pool* pool, std::uint32_t index, const char* name) {
    // A name has one index: what was kept for it elsewhere is free for others.
    for (std::uint32_t i = 1; i < port_index_pool::COUNT; ++i)
        if (i != index && !pool->used[i] && std::strcmp(pool->name[i], name) == 0) pool->name[i][0] = 0;
    std::snprintf(pool->name[index], LINK_NAME_SIZE, "%s", name);
}

void port_index_leave(port_index_pool* pool, std::uint32_t index) {
    if (index == 0 || index >= port_index_pool::COUNT) return;
    pool->used[index] = false;
    pool->left[index] = ++pool->leaves;
}

void port_index_load(port_index_pool* pool, const char* path) {
    const int fd = open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return;
    char text[FILE_SIZE + 1];
    const ssize_t got = read(fd, text, FILE_SIZE);
    close(fd);
    if (got <= 0) return;
    text[got] = 0;
    char* rest = text;
    while (char* end = std::strchr(rest, '\n')) {
        *end = 0;
        reserve(pool, rest);
        rest = end + 1;
    }
}

int port_index_save(const port_index_pool* pool, const char* path) {
    char text[FILE_SIZE + 1];
    char next[128];
    const int length = std::snprintf(next, sizeof next, "%s.new", path);
    if (length < 0 || static_cast<std::size_t>(length) >= sizeof next) return -ENAMETOOLONG;
    const std::string_view content(text, compose(*pool, text));
    int result = write_file(next, content);
    if (result == 0 && rename(next, path) == 0) return 0;
    if (result == 0) result = -errno;
    unlink(next);
    return result == -EACCES ? write_in_place(path, content) : result;
}
