// Called by whoever saves a file that is not the program's to replace: the configuration, nsmd's indexes.
#include "suite/base/overwrite.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace {

// Blocks beyond the end of the file; its size stays. Where a file system can't promise room, the write tells.
int make_room(int fd, std::size_t size) {
    struct stat before {};
    if (size == 0 || fstat(fd, &before) != 0) return size ? -errno : 0;
    if (fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(size)) == 0) return 0;
    if (errno == EOPNOTSUPP || errno == ENOSYS || errno == EPERM) return 0;
    const int error = errno;
    (void)!ftruncate(fd, before.st_size);  // gives back what it got; the error is reported
    return -error;
}

}  // namespace

int write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(fd, text.data(), text.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return -errno;
        if (count == 0) return -ENOSPC;
        text.remove_prefix(static_cast<std::size_t>(count));
    }
    return 0;
}

int overwrite(int fd, std::string_view text) {
    int result = make_room(fd, text.size());
    if (result == 0 && lseek(fd, 0, SEEK_SET) < 0) result = -errno;
    if (result == 0) result = write_all(fd, text);
    if (result != 0) return result;
    return ftruncate(fd, static_cast<off_t>(text.size())) == 0 ? 0 : -errno;
}
