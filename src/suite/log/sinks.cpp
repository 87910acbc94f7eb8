// The sinks of the log. Owns the descriptors of the way to the log file, of a private non-blocking opening of
// standard error, and of the syslog socket.
//
// A stream sink that takes only part of a line keeps the rest and writes it before anything else, so that no
// two halves are ever mixed; while a rest is held back, lines are dropped and counted. The count is said in a
// line of its own as soon as the sink takes lines again.
//
// Standard error is shared with other processes, so its flags are not ours to change: it is opened anew
// through /proc, which works for terminals, pipes and files. Where it does not (sockets), each write is made
// only after poll said that there is room, or as a send that does not wait.
//
// Where standard error is the journal's (JOURNAL_STREAM names it), a line begins with its level as <4>, which
// the journal takes for the record's priority and does not keep.
#include "suite/log/sinks.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "suite/base/clock.h"
#include "suite/base/memory.h"
#include "suite/log/log.h"

namespace {

enum class writing { plain, poll_first, socket };

constexpr std::size_t MARK_LENGTH = 3;  // "<4>"

struct stream_sink {
    int fd = -1;
    writing how = writing::plain;
    std::uint64_t dropped = 0;  // since the count was last said
    std::size_t held_at = 0, held_length = 0;
    bool marked = false;                    // lines begin with their level
    char held[MARK_LENGTH + LOG_LINE_MAX];  // the rest of a line that was taken in part
};

stream_sink error_sink;
dev_t error_device;
ino_t error_inode;
stream_sink file_sink;
char* file_path;

struct {
    int fd = -1;
    std::uint64_t dropped = 0;
    nanoseconds tried = 0;  // when connecting was last tried
    const char* path = "/dev/log";
    char name[64];
} syslog_sink;

std::uint64_t total_dropped;

void drop_line(std::uint64_t* count) {
    ++*count;
    ++total_dropped;
}

// Octets written, or -1. Never blocks.
ssize_t write_some(const stream_sink& sink, const char* data, std::size_t length) {
    switch (sink.how) {
        case writing::socket:
            return send(sink.fd, data, length, MSG_DONTWAIT | MSG_NOSIGNAL);
        case writing::poll_first: {
            pollfd p{sink.fd, POLLOUT, 0};
            if (poll(&p, 1, 0) != 1 || (p.revents & POLLOUT) == 0) {
                errno = EAGAIN;
                return -1;
            }
            // A pipe that reports room takes this much at once.
            return write(sink.fd, data, length < PIPE_BUF ? length : PIPE_BUF);
        }
        default:
            return write(sink.fd, data, length);
    }
}

// As much as the sink takes now.
std::size_t write_now(const stream_sink& sink, const char* data, std::size_t length) {
    std::size_t done = 0;
    while (done < length) {
        const ssize_t n = write_some(sink, data + done, length - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<std::size_t>(n);
    }
    return done;
}

// False when nothing of the line went out. What went out in part is completed later.
bool write_line(stream_sink* sink, const char* line, std::size_t length) {
    const std::size_t done = write_now(*sink, line, length);
    if (done == 0) return false;
    if (done < length) {
        sink->held_length = length - done;
        sink->held_at = 0;
        std::memcpy(sink->held, line + done, sink->held_length);
    }
    return true;
}

// Octets put in front of a line.
std::size_t mark(const stream_sink& sink, int level, char* out) {
    if (!sink.marked) return 0;
    out[0] = '<';
    out[1] = static_cast<char>('0' + level);
    out[2] = '>';
    return MARK_LENGTH;
}

// Completes what was begun and says what was dropped. True when the sink can take a line.
bool catch_up(stream_sink* sink) {
    if (sink->fd < 0) return false;
    if (sink->held_length != 0) {
        const std::size_t done = write_now(*sink, sink->held + sink->held_at, sink->held_length);
        sink->held_at += done;
        sink->held_length -= done;
        if (sink->held_length != 0) return false;
    }
    if (sink->dropped == 0) return true;
    char line[128];
    std::size_t length = mark(*sink, LOG_LEVEL_WARNING, line);
    length += log_format_prefix(line + length, sizeof line - length, LOG_LEVEL_WARNING);
    length += static_cast<std::size_t>(std::snprintf(line + length, sizeof line - length,
                                                     "%llu log lines dropped\n",
                                                     static_cast<unsigned long long>(sink->dropped)));
    if (!write_line(sink, line, length)) return false;
    sink->dropped = 0;
    return sink->held_length == 0;
}

void stream_write(stream_sink* sink, const char* line, std::size_t length) {
    if (!catch_up(sink) || !write_line(sink, line, length)) drop_line(&sink->dropped);
}

void close_stream(stream_sink* sink, bool owned) {
    if (sink->fd >= 0 && owned) close(sink->fd);
    sink->fd = -1;
    sink->held_length = 0;
}

void close_error_sink() {
    close_stream(&error_sink, error_sink.fd != STDERR_FILENO);
}

bool is_journal(const struct stat& now) {
    const char* stream = std::getenv("JOURNAL_STREAM");
    char own[64];
    std::snprintf(own, sizeof own, "%llu:%llu", static_cast<unsigned long long>(now.st_dev),
                  static_cast<unsigned long long>(now.st_ino));
    return stream != nullptr && std::strcmp(stream, own) == 0;
}

// Follows descriptor 2 when it was redirected, as the switch into daemon mode does.
void follow_standard_error() {
    struct stat now {};
    if (fstat(STDERR_FILENO, &now) != 0) {
        close_error_sink();
        return;
    }
    if (error_sink.fd >= 0 && now.st_dev == error_device && now.st_ino == error_inode) return;
    close_error_sink();
    error_device = now.st_dev;
    error_inode = now.st_ino;
    error_sink.marked = is_journal(now);
    error_sink.fd = STDERR_FILENO;
    error_sink.how = S_ISSOCK(now.st_mode) ? writing::socket : writing::poll_first;
    if (S_ISSOCK(now.st_mode)) return;
    // Whoever else writes to descriptor 2 (messages of a refused start) must not write over the lines.
    if (S_ISREG(now.st_mode)) (void)fcntl(STDERR_FILENO, F_SETFL, fcntl(STDERR_FILENO, F_GETFL) | O_APPEND);
    const int own = open("/proc/self/fd/2", O_WRONLY | O_APPEND | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (own < 0) return;
    error_sink.fd = own;
    error_sink.how = writing::plain;
}

bool connect_syslog() {
    if (syslog_sink.fd >= 0) return true;
    const nanoseconds now = monotonic_now();
    if (syslog_sink.tried != 0 && now - syslog_sink.tried < NS_PER_S) return false;
    syslog_sink.tried = now;
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return false;
    sockaddr_un to{};
    to.sun_family = AF_UNIX;
    std::snprintf(to.sun_path, sizeof to.sun_path, "%s", syslog_sink.path);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) {
        close(fd);
        return false;
    }
    syslog_sink.fd = fd;
    return true;
}

bool send_syslog(int level, const char* text, std::size_t length) {
    constexpr int facility_daemon = 3 << 3;
    if (!connect_syslog()) return false;
    const std::time_t seconds = std::time(nullptr);
    tm local{};
    localtime_r(&seconds, &local);
    char stamp[32];
    // Month names are English here: nothing sets a locale.
    if (std::strftime(stamp, sizeof stamp, "%b %e %H:%M:%S", &local) == 0) return false;
    char datagram[LOG_LINE_MAX + 128];
    int n =
        std::snprintf(datagram, sizeof datagram, "<%d>%s %s[%ld]: %.*s", facility_daemon | (level & 7), stamp,
                      syslog_sink.name, static_cast<long>(getpid()), static_cast<int>(length), text);
    if (n < 0) return false;
    if (static_cast<std::size_t>(n) >= sizeof datagram) n = sizeof datagram - 1;
    if (send(syslog_sink.fd, datagram, static_cast<std::size_t>(n), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0)
        return true;
    if (errno != EAGAIN && errno != ENOBUFS && errno != EMSGSIZE && errno != EINTR) log_syslog_close();
    return false;
}

bool syslog_catch_up() {
    if (syslog_sink.dropped == 0) return true;
    char text[64];
    const int n = std::snprintf(text, sizeof text, "%llu log lines dropped",
                                static_cast<unsigned long long>(syslog_sink.dropped));
    if (!send_syslog(LOG_LEVEL_WARNING, text, static_cast<std::size_t>(n))) return false;
    syslog_sink.dropped = 0;
    return true;
}

}  // namespace

void log_stderr_write(int level, const char* line, std::size_t length) {
    follow_standard_error();
    if (error_sink.fd < 0) {
        drop_line(&error_sink.dropped);
        return;
    }
    char marked[MARK_LENGTH + LOG_LINE_MAX];
    const std::size_t begin = mark(error_sink, level, marked);
    std::memcpy(marked + begin, line, length);
    stream_write(&error_sink, marked, begin + length);
}

void log_stderr_close() {
    close_error_sink();
}

bool log_file_use(int fd, const char* path) {
    char* copy = nullptr;
    if (fd >= 0) {
        const std::size_t size = std::strlen(path) + 1;
        copy = static_cast<char*>(memmgr_calloc(size, MTYPE_LOG));
        if (copy == nullptr) return false;
        std::memcpy(copy, path, size);
    }
    close_stream(&file_sink, true);
    file_sink.dropped = 0;
    memmgr_free(file_path, MTYPE_LOG);
    file_path = copy;
    file_sink.fd = fd;
    return true;
}

const char* log_file_path() {
    return file_path;
}

void log_file_write(const char* line, std::size_t length) {
    if (file_sink.fd >= 0) stream_write(&file_sink, line, length);
}

void log_syslog_open(const char* progname) {
    std::snprintf(syslog_sink.name, sizeof syslog_sink.name, "%s", progname);
}

void log_syslog_set_path(const char* path) {
    log_syslog_close();
    syslog_sink.path = path;
    syslog_sink.tried = 0;
}

void log_syslog_close() {
    if (syslog_sink.fd >= 0) close(syslog_sink.fd);
    syslog_sink.fd = -1;
}

void log_syslog_write(int level, const char* text, std::size_t length) {
    if (!syslog_catch_up() || !send_syslog(level, text, length)) drop_line(&syslog_sink.dropped);
}

bool log_sinks_backlog() {
    return error_sink.held_length != 0 || error_sink.dropped != 0 || file_sink.held_length != 0 ||
           file_sink.dropped != 0 || syslog_sink.dropped != 0;
}

void log_sinks_retry() {
    if (error_sink.held_length != 0 || error_sink.dropped != 0) {
        follow_standard_error();
        (void)catch_up(&error_sink);  // what stays is tried again later
    }
    if (file_sink.held_length != 0 || file_sink.dropped != 0) (void)catch_up(&file_sink);
    (void)syslog_catch_up();
}

void log_sinks_close() {
    close_error_sink();
    error_sink.dropped = 0;
    (void)log_file_use(-1, nullptr);  // needs no memory
    log_syslog_close();
    syslog_sink.dropped = 0;
    syslog_sink.tried = 0;
}

std::uint64_t log_sinks_dropped() {
    return total_dropped;
}
