// Reads and writes the file of interface indexes: one line "INDEX NAME" each, those that were left longest
// ago first. Called by the port table; owns nothing. The file lies where a reboot forgets it, so it need not
// reach a disk. What it says is a wish: wrong lines are passed over.
#include "nsmd/links/port_index_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "suite/base/overwrite.h"

namespace {

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
    if (result < 0) (void)ftruncate(fd, 0);
    close(fd);
    return result;
}

}  // namespace

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
