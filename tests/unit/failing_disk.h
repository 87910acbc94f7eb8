// A disk that fails at a chosen moment: the calls that change files pass through here on their way to the C
// library. Include it in one file of a program only.
#pragma once

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

namespace failing_disk {

enum class fault {
    once,    // the call fails
    cut,     // a write takes half of what it is given
    full,    // from that call on, nothing that needs room works
    killed,  // the process is gone before the call
};

struct plan {
    std::string path;  // calls on files with this in their names count
    fault kind;
    int at;    // the call that it hits, from 1; 0: none
    int seen;  // calls so far
};
inline plan now;

inline void arm(const std::string& path, fault kind, int at) {
    now = {path, kind, at, 0};
}
// Whether the fault came to pass.
inline bool disarm() {
    const bool struck = now.at != 0 && now.seen >= now.at;
    now.at = 0;
    return struck;
}

inline bool strikes(const char* path, bool needs_room) {
    if (now.at == 0 || !std::strstr(path, now.path.c_str())) return false;
    if (now.kind == fault::full && !needs_room) return false;
    ++now.seen;
    if (now.kind == fault::killed && now.seen == now.at) _exit(99);
    const bool hit = now.kind == fault::full ? now.seen >= now.at : now.seen == now.at;
    if (hit) errno = ENOSPC;
    return hit;
}

inline bool strikes(int fd, bool needs_room) {
    if (now.at == 0) return false;
    char path[PATH_MAX] = "";
    const ssize_t length = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path - 1);
    return length > 0 && strikes(path, needs_room);
}

template <typename call>
call* real(const char* name) {
    return reinterpret_cast<call*>(dlsym(RTLD_NEXT, name));
}

// `put` writes that much; a write that is cut takes half.
template <typename writer>
ssize_t write_through(int fd, std::size_t count, writer put) {
    if (!strikes(fd, true)) return put(count);
    return now.kind == fault::cut ? put(count / 2) : -1;
}

}  // namespace failing_disk

extern "C" {

inline __attribute__((used)) ssize_t write(int fd, const void* data, std::size_t count) {
    static auto* const next = failing_disk::real<ssize_t(int, const void*, std::size_t)>("write");
    return failing_disk::write_through(fd, count, [&](std::size_t n) { return next(fd, data, n); });
}

inline __attribute__((used)) ssize_t pwrite(int fd, const void* data, std::size_t count, off_t at) {
    static auto* const next = failing_disk::real<ssize_t(int, const void*, std::size_t, off_t)>("pwrite64");
    return failing_disk::write_through(fd, count, [&](std::size_t n) { return next(fd, data, n, at); });
}

inline __attribute__((used)) int open(const char* path, int flags, ...) {
    static auto* const next = failing_disk::real<int(const char*, int, ...)>("open64");
    va_list args;
    va_start(args, flags);
    const unsigned mode = flags & O_CREAT ? va_arg(args, unsigned) : 0;
    va_end(args);
    if (flags & (O_WRONLY | O_RDWR) && failing_disk::strikes(path, (flags & O_CREAT) != 0)) return -1;
    return next(path, flags, mode);
}

inline __attribute__((used)) int fallocate(int fd, int mode, off_t from, off_t length) {
    static auto* const next = failing_disk::real<int(int, int, off_t, off_t)>("fallocate64");
    return failing_disk::strikes(fd, true) ? -1 : next(fd, mode, from, length);
}

inline __attribute__((used)) int fsync(int fd) {
    static auto* const next = failing_disk::real<int(int)>("fsync");
    return failing_disk::strikes(fd, true) ? -1 : next(fd);
}

inline __attribute__((used)) int close(int fd) {
    static auto* const next = failing_disk::real<int(int)>("close");
    const bool fails = failing_disk::strikes(fd, false);
    const int result = next(fd);
    if (fails) errno = ENOSPC;
    return fails ? -1 : result;
}

inline __attribute__((used)) int ftruncate(int fd, off_t length) noexcept {
    static auto* const next = failing_disk::real<int(int, off_t)>("ftruncate64");
    return failing_disk::strikes(fd, false) ? -1 : next(fd, length);
}

inline __attribute__((used)) int fchmod(int fd, mode_t mode) noexcept {
    static auto* const next = failing_disk::real<int(int, mode_t)>("fchmod");
    return failing_disk::strikes(fd, false) ? -1 : next(fd, mode);
}

inline __attribute__((used)) int rename(const char* from, const char* to) noexcept {
    static auto* const next = failing_disk::real<int(const char*, const char*)>("rename");
    return failing_disk::strikes(to, false) ? -1 : next(from, to);
}

inline __attribute__((used)) int unlink(const char* path) noexcept {
    static auto* const next = failing_disk::real<int(const char*)>("unlink");
    return failing_disk::strikes(path, false) ? -1 : next(path);
}

}  // extern "C"
