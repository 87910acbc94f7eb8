// The only place that fills a Unix socket's address. A path that does not fit is refused, never cut: a cut
// one would be another server's.
#include "suite/base/unix_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

constexpr int BACKLOG = 32;

// A new socket and the address of `path`, or a negative errno.
int prepare(const char* path, int type, sockaddr_un* address) {
    *address = {};
    address->sun_family = AF_UNIX;
    const std::size_t length = std::strlen(path);
    if (length >= sizeof address->sun_path) return -ENAMETOOLONG;
    std::memcpy(address->sun_path, path, length);  // the rest is zero
    const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    return fd < 0 ? -errno : fd;
}

int close_failed(int fd, int error) {
    close(fd);
    return -error;
}

const sockaddr* generic(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

// It holds for connecting as well.
void limit_sending(int fd, int seconds) {
    const timeval limit{seconds, 0};
    (void)setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);  // without it one only waits longer
}

// A socket file whose server is gone. Only a refusal says so: anything else means that somebody is there, or
// that it can't be known. Connecting to a file that is no socket is refused too.
bool is_stale(const char* path, int type) {
    struct stat file {};
    if (lstat(path, &file) < 0 || !S_ISSOCK(file.st_mode)) return false;
    const int fd = unix_connect(path, type | SOCK_NONBLOCK);
    if (fd >= 0) close(fd);
    return fd == -ECONNREFUSED;
}

int bind_once(int fd, const sockaddr_un& address, mode_t mode) {
    const mode_t mask = umask(~mode & 0777);
    const int result = bind(fd, generic(address), sizeof address) < 0 ? -errno : 0;
    umask(mask);
    return result;
}

}  // namespace

int unix_connect(const char* path, int type, int limit_s) {
    sockaddr_un address;
    const int fd = prepare(path, type, &address);
    if (fd < 0) return fd;
    if (limit_s) limit_sending(fd, limit_s);
    if (connect(fd, generic(address), sizeof address) < 0) return close_failed(fd, errno);
    if (limit_s) limit_sending(fd, 0);
    return fd;
}

bool unix_place(const char* path, char (&place)[sizeof(sockaddr_un::sun_path)]) {
    struct stat file {};
    const bool is_link = lstat(path, &file) == 0 && S_ISLNK(file.st_mode) && file.st_uid == 0;
    const ssize_t linked = is_link ? readlink(path, place, sizeof place) : -1;
    const bool leads = linked > 0 && place[0] == '/';
    const std::size_t length = leads ? static_cast<std::size_t>(linked) : std::strlen(path);
    if (length >= sizeof place) return false;
    if (!leads) std::memcpy(place, path, length);
    place[length] = 0;
    return true;
}

int unix_listen(const char* path, int type, mode_t mode, unix_file* made) {
    sockaddr_un address;
    const int fd = prepare(path, type, &address);
    if (fd < 0) return fd;
    int result = bind_once(fd, address, mode);
    if (result == -EADDRINUSE && is_stale(path, type)) {
        (void)unlink(path);  // the second bind tells if it did not go
        result = bind_once(fd, address, mode);
    }
    if (result < 0) return close_failed(fd, -result);
    struct stat file {};
    *made = lstat(path, &file) == 0 ? unix_file{file.st_dev, file.st_ino} : unix_file{};
    if (listen(fd, BACKLOG) == 0) return fd;
    const int error = errno;
    unix_remove(path, *made);
    return close_failed(fd, error);
}

void unix_remove(const char* path, const unix_file& made) {
    struct stat file {};
    if (made.inode && lstat(path, &file) == 0 && file.st_dev == made.device && file.st_ino == made.inode)
        (void)unlink(path);  // a user who may not leaves it: the next server finds that nobody answers
}
