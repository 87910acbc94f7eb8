// The running configuration as text, and its way into the file: a new file beside the old one is written,
// synced, renamed over it, and the directory synced, so that a full disk or a loss of power at any point
// leaves the old content or the new one, whole.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "suite/host_state.h"
#include "suite/log.h"

namespace {

constexpr std::size_t FILE_MAX = 64 * 1024 * 1024;

int write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        ssize_t count = write(fd, text.data(), text.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return -errno;
        if (count == 0) return -ENOSPC;
        text.remove_prefix(static_cast<std::size_t>(count));
    }
    return 0;
}

// Writes a file that must not exist, with its content safe on the disk. 0 or a negative errno.
int write_new_file(const char* path, std::string_view text) {
    int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0640);
    if (fd < 0) return -errno;
    int result = fchmod(fd, 0640) != 0 ? -errno : write_all(fd, text);
    if (result == 0 && fsync(fd) != 0) result = -errno;
    if (close(fd) != 0 && result == 0) result = -errno;
    if (result != 0) (void)unlink(path);  // what is left of it is of no use; the error is reported
    return result;
}

int sync_directory(const char* path) {
    char directory[PATH_MAX];
    std::snprintf(directory, sizeof directory, "%s", path);
    char* slash = std::strrchr(directory, '/');
    if (!slash)
        std::strcpy(directory, ".");
    else if (slash == directory)
        slash[1] = 0;
    else
        *slash = 0;
    int fd = open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return -errno;
    int result = fsync(fd) == 0 || errno == EINVAL ? 0 : -errno;  // some file systems can't sync a directory
    close(fd);
    return result;
}

// 0 or a negative errno; in the second case `path` holds what it held, unless only the last sync failed.
int replace_file(const char* path, std::string_view text) {
    char target[PATH_MAX], temporary[PATH_MAX];
    // A symbolic link stays one: the file that it names is replaced.
    if (!realpath(path, target) && std::snprintf(target, sizeof target, "%s", path) >= PATH_MAX)
        return -ENAMETOOLONG;
    if (std::snprintf(temporary, sizeof temporary, "%s.new", target) >= PATH_MAX) return -ENAMETOOLONG;
    if (unlink(temporary) != 0 && errno != ENOENT) return -errno;  // left behind by a save that was cut off
    int result = write_new_file(temporary, text);
    if (result != 0) return result;
    if (rename(temporary, target) != 0) {
        result = -errno;
        (void)unlink(temporary);  // the error is reported
        return result;
    }
    return sync_directory(target);
}

}  // namespace

int text_output_print(void* out_val, const char* format, ...) {
    auto* out = static_cast<text_output*>(out_val);
    va_list args;
    va_start(args, format);
    if (!text_vprintf(&out->text, format, args)) out->cut = true;
    va_end(args);
    return 0;
}

bool host_running_text(host_state* host, text_buffer* out) {
    text_output output{};
    cli session = host_plain_session(host, EXEC_MODE, text_output_print, &output);
    cli_write_running(host->ctx->ctree, &session);
    *out = output.text;
    return !output.cut;
}

bool host_save(host_state* host, cli* session) {
    if (!host->config_file) {  // none given yet, or no memory for its name
        session->out_func(session->out_val, "%% No configuration file is known, nothing is saved\n");
        return false;
    }
    if (host->unreadable || host->lossy) {
        session->out_func(session->out_val, "%% %s was not read completely at start, it is not overwritten\n",
                          host->config_file);
        return false;
    }
    text_buffer text;
    int result = host_running_text(host, &text) ? replace_file(host->config_file, text.view()) : -ENOMEM;
    text_free(&text);
    if (result == 0) return true;
    session->out_func(session->out_val, "%% Can't save %s: %s\n", host->config_file, std::strerror(-result));
    log_suite(LOG_LEVEL_ERROR, "configuration not saved to %s: %s", host->config_file,
              std::strerror(-result));
    return false;
}

int host_read_file(const char* path, text_buffer* out) {
    int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) return -errno;
    int result = 0;
    char chunk[4096];
    while (result == 0) {
        ssize_t count = read(fd, chunk, sizeof chunk);
        if (count == 0) break;
        if (count < 0 && errno == EINTR) continue;
        if (count < 0)
            result = -errno;
        else if (out->length > FILE_MAX)
            result = -EFBIG;
        else if (!text_append(out, chunk, static_cast<std::size_t>(count)))
            result = -ENOMEM;
    }
    close(fd);
    return result;
}
