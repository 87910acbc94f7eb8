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

// The C library's function of that name.
template <typename call>
call* real(const char* name) {
    return reinterpret_cast<call*>(dlsym(RTLD_NEXT, name));
}

// A write that is cut takes half.
template <typename... rest>
ssize_t write_through(const char* name, int fd, const void* data, std::size_t count, rest... at) {
    auto* const next = real<ssize_t(int, const void*, std::size_t, rest...)>(name);
    if (!strikes(fd, true)) return next(fd, data, count, at...);
    return now.kind == fault::cut ? next(fd, data, count / 2, at...) : -1;
}

template <typename file, typename... arguments>
int pass_through(const char* name, bool needs_room, file what, arguments... given) {
    return strikes(what, needs_room) ? -1 : real<int(file, arguments...)>(name)(what, given...);
}

}  // namespace failing_disk

#define PASSES_HERE extern "C" inline __attribute__((used))

PASSES_HERE ssize_t write(int fd, const void* data, std::size_t count) {
    return failing_disk::write_through("write", fd, data, count);
}
PASSES_HERE ssize_t pwrite(int fd, const void* data, std::size_t count, off_t at) {
    return failing_disk::write_through("pwrite64", fd, data, count, at);
}
PASSES_HERE int open(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const unsigned mode = flags & O_CREAT ? va_arg(args, unsigned) : 0;
    va_end(args);
    if (flags & (O_WRONLY | O_RDWR) && failing_disk::strikes(path, (flags & O_CREAT) != 0)) return -1;
    return failing_disk::real<int(const char*, int, ...)>("open64")(path, flags, mode);
}
PASSES_HERE int fallocate(int fd, int mode, off_t from, off_t length) {
    return failing_disk::pass_through("fallocate64", true, fd, mode, from, length);
}
PASSES_HERE int fsync(int fd) {
    return failing_disk::pass_through("fsync", true, fd);
}
PASSES_HERE int close(int fd) {
    const bool fails = failing_disk::strikes(fd, false);
    const int result = failing_disk::real<int(int)>("close")(fd);
    if (fails) errno = ENOSPC;
    return fails ? -1 : result;
}
PASSES_HERE int ftruncate(int fd, off_t length) noexcept {
    return failing_disk::pass_through("ftruncate64", false, fd, length);
}
PASSES_HERE int fchmod(int fd, mode_t mode) noexcept {
    return failing_disk::pass_through("fchmod", false, fd, mode);
}
PASSES_HERE int rename(const char* from, const char* to) noexcept {
    if (failing_disk::strikes(to, false)) return -1;
    return failing_disk::real<int(const char*, const char*)>("rename")(from, to);
}
PASSES_HERE int unlink(const char* path) noexcept {
    return failing_disk::pass_through("unlink", false, path);
}
