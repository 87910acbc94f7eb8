// The claim on a lock file. Called by the programs' start-up before anything else is opened. Never given back
// but by the end of the process: what it guards is removed on the way there.
#include "suite/process/single.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "suite/log/log.h"

namespace {

int claimed = -1;

// The kernel drops a record lock when any descriptor of its file is closed: nobody else opens this one.
struct flock whole_file() {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

// A file that is there can't be passed over: whoever made it may hold it.
bool without_file(const char* path, int error) {
    struct stat file {};
    const bool is_missing = lstat(path, &file) != 0 && errno == ENOENT;
    log_suite(is_missing ? LOG_LEVEL_WARNING : LOG_LEVEL_ERROR, "can't know whether another one runs: %s: %s",
              path, std::strerror(error));
    return is_missing;
}

bool refuse(int fd, const char* path, const char* why, int error) {
    log_suite(LOG_LEVEL_ERROR, "%s: %s%s%s", why, path, error ? ": " : "", error ? std::strerror(error) : "");
    close(fd);
    return false;
}

}  // namespace

bool single_claim(const char* path) {
    const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
    if (fd < 0) return without_file(path, errno);
    if (flock(fd, LOCK_EX | LOCK_NB) != 0)
        return errno == EWOULDBLOCK ? refuse(fd, path, "another one is starting", 0)
                                    : refuse(fd, path, "can't know whether another one runs", errno);
    struct flock holder = whole_file();
    if (fcntl(fd, F_GETLK, &holder) != 0)
        return refuse(fd, path, "can't know whether another one runs", errno);
    if (holder.l_type != F_UNLCK) return refuse(fd, path, "another one runs already", 0);
    claimed = fd;
    return true;
}

void single_hold() {
    if (claimed < 0) return;
    struct flock lock = whole_file();
    if (fcntl(claimed, F_SETLK, &lock) == 0)
        (void)flock(claimed, LOCK_UN);
    else
        log_suite(LOG_LEVEL_WARNING, "another one may be started: %s", std::strerror(errno));
}
