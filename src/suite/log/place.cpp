// The path is walked a folder at a time from the root on, each opened below the one before and none through a
// link, so that nobody who may write in one of them can lead the walk elsewhere while it goes on.
#include "suite/log/place.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string_view>

#include "suite/base/slice.h"

namespace {

std::string_view root = "/var/log";

constexpr const char* LINK = "a part of the path is a symbolic link";

// The next part of the path, taken off its front. False when it is none that has a name.
bool take_part(std::string_view* path, char (&part)[NAME_MAX + 1]) {
    path->remove_prefix(1);  // the slash
    const std::string_view name = slice(*path, 0, path->find('/'));
    if (name.empty() || name == "." || name == ".." || name.size() > NAME_MAX) return false;
    std::memcpy(part, name.data(), name.size());
    part[name.size()] = 0;
    path->remove_prefix(name.size());
    return true;
}

const char* what_is_wrong(const struct stat& file) {
    if (S_ISLNK(file.st_mode)) return LINK;
    if (!S_ISREG(file.st_mode)) return "not a regular file";
    return file.st_nlink > 1 ? "the file has other names" : nullptr;
}

int open_folder(int parent, const char* name, const char** why) {
    const int fd = openat(parent, name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd >= 0) return fd;
    *why = std::strerror(errno);
    struct stat found {};
    if (fstatat(parent, name, &found, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(found.st_mode)) *why = LINK;
    return -1;
}

// Looked at before, since opening alone has effects on some devices, and behind, since only then it stays.
int open_file(int parent, const char* name, const char** why) {
    struct stat file {};
    *why = fstatat(parent, name, &file, AT_SYMLINK_NOFOLLOW) == 0 ? what_is_wrong(file) : nullptr;
    if (*why) return -1;
    constexpr int flags = O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const int fd = openat(parent, name, flags, 0640);
    *why = fd < 0 || fstat(fd, &file) != 0 ? std::strerror(errno) : what_is_wrong(file);
    if (!*why) return fd;
    if (fd >= 0) close(fd);
    return -1;
}

}  // namespace

const char* log_place_refusal(const char* path) {
    std::string_view rest = path;
    if (!rest.starts_with(root) || rest.size() == root.size() || rest[root.size()] != '/')
        return "a log file lies below /var/log";
    char part[NAME_MAX + 1];
    while (!rest.empty())
        if (!take_part(&rest, part)) return "not a plain path";
    return nullptr;
}

int log_place_open(const char* path, const char** why) {
    *why = log_place_refusal(path);
    if (*why) return -1;
    int folder = open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) *why = std::strerror(errno);
    char part[NAME_MAX + 1];
    std::string_view rest = path;
    while (folder >= 0 && take_part(&rest, part)) {
        const int next = rest.empty() ? open_file(folder, part, why) : open_folder(folder, part, why);
        close(folder);
        folder = next;
        if (rest.empty()) break;
    }
    return folder;
}

void log_place_set_root(const char* folder) {
    root = folder;
}
