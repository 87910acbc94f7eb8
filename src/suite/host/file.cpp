// The configuration file's way to the disk. Called by the host and, for another user than root, by start-up.
//
// Where names may be changed: a new file beside the old one is written, synced, renamed over it, and the
// directory synced.
//
// Where not, as in /etc for another user than root: the text goes into the spare file and is synced, then a
// line that says that it is whole, synced; only then is it written over the old content, synced as well, and
// the spare emptied. A spare that is whole at start tells of a save that was cut off after that line: it is
// finished. One that is not whole is of no account: the file was not touched yet.
#include "suite/host/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "suite/base/overwrite.h"
#include "suite/host/state.h"
#include "suite/log/log.h"
#include "suite/rights/user.h"

namespace {

constexpr std::string_view WHOLE = "! whole\n";

// A symbolic link stays one: the file that it names is replaced.
struct file_names {
    char target[PATH_MAX];
    char spare[PATH_MAX];
    char directory[PATH_MAX];
};

int find_names(const char* path, file_names* out) {
    if (!realpath(path, out->target) &&
        std::snprintf(out->target, sizeof out->target, "%s", path) >= PATH_MAX)
        return -ENAMETOOLONG;
    if (std::snprintf(out->spare, sizeof out->spare, "%s.new", out->target) >= PATH_MAX) return -ENAMETOOLONG;
    const char* slash = std::strrchr(out->target, '/');
    const char* directory = slash ? out->target : ".";
    const bool is_first = !slash || slash == out->target;  // "." or "/"
    const std::size_t length = is_first ? 1 : static_cast<std::size_t>(slash - out->target);
    std::memcpy(out->directory, directory, length);
    out->directory[length] = 0;
    return 0;
}

// Ends an attempt to write: what was asked, or the first error.
int sync_and_close(int fd, int result) {
    if (result == 0 && fsync(fd) != 0) result = -errno;
    if (close(fd) != 0 && result == 0) result = -errno;
    return result;
}

// What the new file has of the old one: the mode in any case, group and owner as far as the daemon may give
// files away. Others never get to read it: it holds the password's hash.
int take_rights(int fd, const char* former) {
    struct stat old {
    }, now{};
    if (stat(former, &old) != 0) return fchmod(fd, 0640) == 0 ? 0 : -errno;
    if (fstat(fd, &now) != 0) return -errno;
    if (old.st_gid != now.st_gid) (void)!fchown(fd, static_cast<uid_t>(-1), old.st_gid);
    if (fchmod(fd, old.st_mode & 0770) != 0) return -errno;
    if (old.st_uid != now.st_uid) (void)!fchown(fd, old.st_uid, static_cast<gid_t>(-1));
    return 0;
}

// Writes a file that must not exist, with its content safe on the disk. 0 or a negative errno.
int write_new_file(const char* path, const char* former, std::string_view text) {
    const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0) return -errno;
    int result = write_all(fd, text);
    if (result == 0) result = take_rights(fd, former);
    result = sync_and_close(fd, result);
    if (result != 0) (void)unlink(path);  // what is left of it is of no use; the error is reported
    return result;
}

int sync_directory(const char* path) {
    const int fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return -errno;
    const int result =
        fsync(fd) == 0 || errno == EINVAL ? 0 : -errno;  // some file systems can't sync a directory
    close(fd);
    return result;
}

int replace_by_name(const file_names& names, std::string_view text) {
    // Left behind by a save that was cut off.
    if (unlink(names.spare) != 0 && errno != ENOENT) return -errno;
    int result = write_new_file(names.spare, names.target, text);
    if (result != 0) return result;
    if (rename(names.spare, names.target) != 0) {
        result = -errno;
        (void)unlink(names.spare);  // the error is reported
        return result;
    }
    return sync_directory(names.directory);
}

int open_existing(const char* path, int flags) {
    const int fd = open(path, O_WRONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | flags);
    return fd < 0 ? -errno : fd;
}

int empty_spare(const file_names& names) {
    const int fd = open_existing(names.spare, O_TRUNC);
    return fd < 0 ? fd : sync_and_close(fd, 0);
}

int fill_spare(const file_names& names, std::string_view text) {
    const int fd = open_existing(names.spare, O_TRUNC);
    if (fd < 0) return fd;
    int result = write_all(fd, text);
    if (result == 0 && fsync(fd) != 0) result = -errno;
    if (result == 0) result = write_all(fd, WHOLE);
    return sync_and_close(fd, result);
}

int fill_target(const file_names& names, std::string_view text) {
    const int fd = open_existing(names.target, 0);
    if (fd < 0) return fd;
    struct stat status {};
    const bool is_closed = fstat(fd, &status) == 0 && !(status.st_mode & 07);
    const int result = is_closed || fchmod(fd, status.st_mode & 0770) == 0 ? overwrite(fd, text) : -errno;
    return sync_and_close(fd, result);
}

// The spare's text without the line at its end; false when it is not whole, or not there.
bool read_spare(const file_names& names, text_buffer* text) {
    if (host_read_file(names.spare, text) != 0 || !text->view().ends_with(WHOLE)) return false;
    text->length -= WHOLE.size();
    return true;
}

// 0: nothing to finish; 1: finished; a negative errno: it could not be, and the spare is kept.
int finish_save(const file_names& names) {
    text_buffer text;
    int result = 0;
    if (read_spare(names, &text)) {
        result = fill_target(names, text.view());
        if (result == 0) result = empty_spare(names);
        if (result == 0) result = 1;
    }
    text_free(&text);
    return result;
}

// The old text is put back over what is half done. If even that fails, the spare stays for the next start.
host_file_result fill_target_or_restore(const file_names& names, std::string_view text) {
    text_buffer old;
    int result = host_read_file(names.target, &old);
    const bool is_known = result == 0;
    if (is_known) result = fill_target(names, text);
    const bool is_mixed = is_known && result != 0 && fill_target(names, old.view()) != 0;
    text_free(&old);
    if (is_mixed) return {result, true};
    const int emptied = empty_spare(names);
    return {result ? result : emptied, false};
}

host_file_result replace_in_place(const file_names& names, std::string_view text) {
    int result = finish_save(names);
    if (result < 0) return {result, false};
    result = fill_spare(names, text);
    if (result != 0) {
        (void)empty_spare(names);  // gives the room back; it is not whole, so it need not succeed
        return {result, false};
    }
    return fill_target_or_restore(names, text);
}

bool may_write_in_place(const file_names& names) {
    return access(names.target, W_OK) == 0 && access(names.spare, W_OK) == 0;
}

}  // namespace

host_file_result host_file_replace(const char* path, std::string_view text) {
    file_names names;
    const int named = find_names(path, &names);
    if (named != 0) return {named, false};
    struct stat status {};
    // A device, /dev/null above all, must not become a file.
    if (stat(names.target, &status) == 0 && !S_ISREG(status.st_mode)) return {-ENOTSUP, false};
    const int result = replace_by_name(names, text);
    const bool refused = result == -EACCES || result == -EPERM;
    if (refused && may_write_in_place(names)) return replace_in_place(names, text);
    return {result, false};
}

int host_file_settle(const char* path) {
    file_names names;
    if (find_names(path, &names) != 0) return 0;  // nor can it be read
    const int result = finish_save(names);
    if (result > 0)
        log_suite(LOG_LEVEL_WARNING, "%s: the last save had been cut off, it is finished now", path);
    else if (result < 0)
        log_suite(LOG_LEVEL_ERROR,
                  "%s: the last save was cut off, its text is in %s, and can't be put in place: %s", path,
                  names.spare, std::strerror(-result));
    return result < 0 ? result : 0;
}

void host_file_give(const char* path, const rights_user& user) {
    file_names names;
    if (find_names(path, &names) != 0) return;
    int result = rights_give(names.target, user, true);
    if (result > 0) result = rights_give(names.spare, user, true);
    if (result < 0)
        log_suite(LOG_LEVEL_WARNING, "can't give %s to user %s: %s", names.target, user.name,
                  std::strerror(-result));
}

void host_file_check(const char* path, const rights_user& user) {
    file_names names;
    struct stat status {};
    if (find_names(path, &names) != 0) return;
    if (stat(names.target, &status) == 0 && !S_ISREG(status.st_mode)) return;
    if (access(names.directory, W_OK | X_OK) == 0) return;
    if (may_write_in_place(names))
        log_suite(LOG_LEVEL_INFO, "user %s may not make files in %s: %s is saved in place, by way of %s",
                  user.name, names.directory, names.target, names.spare);
    else
        log_suite(LOG_LEVEL_WARNING,
                  "user %s may not write in %s: the configuration can't be saved; -f names a file elsewhere",
                  user.name, names.directory);
}
