#include "restart/state_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "restart/checksum.h"
#include "suite/rights/user.h"

namespace {

const char* state_path = STATE_FILE;

constexpr std::uint32_t MAGIC = 0x45534d53;

// In front of each place; in the order of octets of this machine, which wrote it and reads it.
struct place_head {
    std::uint32_t magic, number, length, zero;
    std::uint64_t sum;  // of number, length and what follows
};
constexpr off_t PLACE_SIZE = sizeof(place_head) + STATE_SIZE_MAX;

std::uint64_t checksum(const place_head& head, std::string_view state) {
    return checksum_add(CHECKSUM_BEGIN ^ head.number ^ std::uint64_t{head.length} << 32, state);
}

bool read_whole(int fd, void* to, std::size_t size, off_t at) {
    return pread(fd, to, size, at) == static_cast<ssize_t>(size);
}

// Takes the place's content if it is whole and newer than `*number`.
bool take_place(int fd, off_t at, std::uint32_t* number, text_buffer* out) {
    place_head head;
    if (!read_whole(fd, &head, sizeof head, at) || head.magic != MAGIC || head.length > STATE_SIZE_MAX ||
        head.number <= *number)
        return false;
    text_buffer found;
    found.limit = STATE_SIZE_MAX;
    char chunk[4096];
    bool good = true;
    for (std::size_t done = 0; good && done < head.length; done += sizeof chunk) {
        const std::size_t part = head.length - done < sizeof chunk ? head.length - done : sizeof chunk;
        good = read_whole(fd, chunk, part, at + static_cast<off_t>(sizeof head + done)) &&
               text_append(&found, chunk, part);
    }
    if (!good || checksum(head, found.view()) != head.sum) {
        text_free(&found);
        return false;
    }
    text_free(out);
    *out = found;
    *number = head.number;
    return true;
}

// Nobody else may have written what is believed here.
bool ours_alone(int fd) {
    struct stat info;
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) return false;
    return (info.st_uid == 0 || info.st_uid == geteuid()) && (info.st_mode & 022) == 0 && info.st_nlink == 1;
}

int open_state(int flags) {
    const int fd = open(state_path, flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0600);
    return fd < 0 ? -errno : fd;
}

}  // namespace

void state_file_use(const char* path) {
    state_path = path ? path : STATE_FILE;
}

int state_file_take(text_buffer* out) {
    const int fd = open_state(O_RDWR);
    if (fd < 0) return fd;
    if (!ours_alone(fd)) {
        close(fd);
        (void)unlink(state_path);
        return -EPERM;
    }
    struct stat info;
    const bool empty = fstat(fd, &info) == 0 && info.st_size == 0;
    std::uint32_t number = 0;
    bool found = take_place(fd, 0, &number, out);
    found |= take_place(fd, PLACE_SIZE, &number, out);
    // Believed once: a state that ends its reader must not end the next one too.
    const int result = ftruncate(fd, 0) != 0 ? -errno : found ? 0 : empty ? -ENOENT : -EBADMSG;
    close(fd);
    (void)unlink(state_path);  // where only root may, it stays, empty
    return result;
}

int state_file_give(const rights_user& user) {
    const int given = rights_give(state_path, user, true);
    return given < 0 ? given : 0;
}

int state_file_write(state_file* file, const_octets state) {
    if (state.size() > STATE_SIZE_MAX) return -EFBIG;
    if (file->fd < 0) {
        file->fd = open_state(O_RDWR | O_CREAT);
        if (file->fd < 0) return file->fd;
        if (!ours_alone(file->fd)) {
            close(file->fd);
            file->fd = -1;
            return -EPERM;
        }
    }
    place_head head = {MAGIC, file->number + 1, static_cast<std::uint32_t>(state.size()), 0, 0};
    head.sum = checksum(head, {reinterpret_cast<const char*>(state.data()), state.size()});
    const off_t at = head.number % 2 ? 0 : PLACE_SIZE;
    if (pwrite(file->fd, &head, sizeof head, at) != sizeof head) return errno ? -errno : -EIO;
    const ssize_t written =
        pwrite(file->fd, state.data(), state.size(), at + static_cast<off_t>(sizeof head));
    if (written != static_cast<ssize_t>(state.size())) return written < 0 ? -errno : -ENOSPC;
    file->number = head.number;
    return 0;
}

void state_file_discard(state_file* file) {
    if (file->fd < 0) return;
    (void)unlink(state_path);  // as above
    (void)!ftruncate(file->fd, 0);
    close(file->fd);
    *file = {};
}
