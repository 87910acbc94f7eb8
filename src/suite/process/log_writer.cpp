// A writer is a child, the pipe of its lines, and until the file is open the pipe of its report. Opening may
// hang as well as writing: a writer whose file is not open yet is not the log's, and what is never opened
// is one of the few that there may be.
#include "suite/process/log_writer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "suite/base/clock.h"
#include "suite/base/memory.h"
#include "suite/base/overwrite.h"
#include "suite/log/log.h"
#include "suite/log/place.h"
#include "suite/log/sinks.h"
#include "suite/loop/thread.h"
#include "suite/process/job.h"

namespace {

constexpr std::size_t WRITERS_MAX = 4;  // the log's, and those that hang on their disk
constexpr std::size_t REPORT_MAX = 128;
constexpr std::uint32_t STOP_MS = 1000;
constexpr int RETRY_MS = 1000;
constexpr const char* OPEN = "+";
constexpr nanoseconds STEADY = 60 * NS_PER_S;  // one that ends sooner is not replaced

struct writer {
    writer* next;
    lib_globals* ctx;
    job* child;      // null: not started yet
    int lines[2];    // -1: closed, or the other side's
    int report[2];   // the same
    int target;      // standard error's file; -1: the file is opened by name
    thread* event;   // the report is awaited
    bool forgotten;  // nobody wants the file any more
    log_writer_done done;
    void* owner;
    nanoseconds since;
    const char* path() const { return reinterpret_cast<const char*>(this + 1); }
};

writer* writers;
writer* current;  // whose pipe the log has
bool started;

void close_end(int* fd) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
}

void drop(writer* w) {
    for (writer** at = &writers; *at; at = &(*at)->next) {
        if (*at != w) continue;
        *at = w->next;
        break;
    }
    if (w->report[0] >= 0) thread_forget_fd(w->ctx, w->report[0]);
    for (int* fd : {&w->lines[0], &w->lines[1], &w->report[0], &w->report[1], &w->target}) close_end(fd);
    memmgr_free(w, MTYPE_LOG);
}

// Null with errno. The log's end of the pipe does not block.
writer* make_writer(lib_globals* ctx, const char* path, int target) {
    const std::size_t size = std::strlen(path) + 1;
    auto* w = static_cast<writer*>(memmgr_calloc(sizeof(writer) + size, MTYPE_LOG));
    errno = ENOMEM;
    if (!w) return nullptr;
    *w = {writers, ctx, nullptr, {-1, -1}, {-1, -1}, target, nullptr, false, nullptr, nullptr, 0};
    std::memcpy(w + 1, path, size);
    writers = w;
    if (pipe2(w->lines, O_CLOEXEC) == 0 && pipe2(w->report, O_CLOEXEC) == 0 &&
        fcntl(w->lines[1], F_SETFL, O_NONBLOCK) == 0)
        return w;
    const int error = errno;
    drop(w);
    errno = error;
    return nullptr;
}

// Whole lines go out; what is left stands at the beginning of the buffer.
std::size_t pass_lines(char* text, std::size_t length, std::size_t room) {
    std::size_t at = 0;
    while (const void* newline = std::memchr(text + at, '\n', length - at)) {
        const auto end = static_cast<std::size_t>(static_cast<const char*>(newline) - text) + 1;
        log_file_write(text + at, end - at);
        at = end;
    }
    if (at == 0 && length == room) {  // no line of the log is so long: another writer to standard error
        log_file_write(text, length);
        return 0;
    }
    std::memmove(text, text + at, length - at);
    return length - at;
}

// Up to the end of the pipe. A full disk is tried again while nothing comes.
void write_lines(int in) {
    static char text[LOG_LINE_MAX];
    std::size_t length = 0;
    while (true) {
        pollfd waiting{in, POLLIN, 0};
        if (log_backlog() && poll(&waiting, 1, RETRY_MS) == 0) {
            log_retry();
            continue;
        }
        const ssize_t count = read(in, text + length, sizeof text - length);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        length = pass_lines(text, length + static_cast<std::size_t>(count), sizeof text);
    }
    if (length) log_file_write(text, length);
    log_retry();
}

// In the child. What ends the daemon is not for it: what the daemon said last is still to be written.
int write_file(const void* arg, int) {
    const auto* w = static_cast<const writer*>(arg);
    (void)prctl(PR_SET_PDEATHSIG, 0, 0, 0, 0);
    for (int number : {SIGHUP, SIGINT, SIGTERM, SIGUSR1, SIGUSR2, SIGXFSZ}) std::signal(number, SIG_IGN);
    log_close();  // of this copy, whose descriptors are closed already
    log_silence();
    const char* why = nullptr;
    const int fd = w->target >= 0 ? w->target : log_place_open(w->path(), &why);
    if (w->target >= 0) (void)fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_APPEND);
    if (fd >= 0 && !log_use_file(fd, w->path())) why = "Out of memory";
    if (write_all(w->report[1], why ? why : OPEN) != 0 || why) return 1;
    close(w->report[1]);
    write_lines(w->lines[0]);
    return 0;
}

bool use(writer* w) {
    if (!log_use_file(w->lines[1], w->path())) return false;
    w->lines[1] = -1;
    current = w;
    return true;
}

// What became of opening: null when the file is open.
const char* read_report(writer* w, char (&text)[REPORT_MAX]) {
    const ssize_t count = read(w->report[0], text, sizeof text - 1);
    thread_forget_fd(w->ctx, w->report[0]);
    close_end(&w->report[0]);
    w->event = nullptr;
    if (count <= 0) return "its writer has ended";
    text[count] = 0;
    return std::strcmp(text, OPEN) == 0 ? nullptr : text;
}

// The log's pipe from now on, unless it is that already or standard error's; else the child ends.
const char* take_into_use(writer* w, const char* why) {
    if (w->target >= 0) return why;
    if (!why && !w->forgotten && w != current && !use(w)) why = "Out of memory";
    if (why && w == current) log_writer_close();
    if (w != current) close_end(&w->lines[1]);
    return why;
}

void take_report(writer* w) {
    char text[REPORT_MAX];
    const char* why = take_into_use(w, read_report(w, text));
    if (why && !w->forgotten) log_suite(LOG_LEVEL_WARNING, "log file %s can't be opened: %s", w->path(), why);
    const log_writer_done done = w->done;
    w->done = nullptr;
    if (done) done(w->ctx, w->owner, why);
}

int on_report(thread* event) {
    take_report(static_cast<writer*>(event->arg));
    return 0;
}

// Standard error is the file itself again, and its writer's pipe at its end.
void give_standard_error_back(writer* w) {
    log_stderr_close();
    (void)dup2(w->target, STDERR_FILENO);  // else the pipe stays, whose lines are dropped
}

void on_end(lib_globals* ctx, void* arg, int, std::string_view) {
    auto* w = static_cast<writer*>(arg);
    w->child = nullptr;
    if (w->report[0] >= 0) take_report(w);
    if (w->target >= 0) {
        give_standard_error_back(w);
        log_suite(LOG_LEVEL_WARNING, "the writer of standard error has ended");
    } else if (w == current) {
        log_writer_close();
        log_suite(LOG_LEVEL_WARNING, "the writer of log file %s has ended", w->path());
        const bool was_steady = monotonic_now() - w->since > STEADY;
        if (was_steady) (void)log_writer_open(ctx, w->path(), nullptr, nullptr);  // it was said
    }
    drop(w);
}

// False with errno.
bool start_child(writer* w) {
    const int keep[] = {w->lines[0], w->report[1], w->target};
    const std::size_t kept = w->target >= 0 ? 3 : 2;
    w->event = thread_add_read(w->ctx, on_report, w, w->report[0]);
    errno = ENOMEM;
    if (w->event) w->child = job_start(w->ctx, {write_file, w, keep, kept, 0, 0, on_end, w});
    if (!w->child) return false;
    w->since = monotonic_now();
    close_end(&w->lines[0]);
    close_end(&w->report[1]);
    return true;
}

std::size_t count_writers() {
    std::size_t count = 0;
    for (const writer* w = writers; w; w = w->next) count += w->target < 0;
    return count;
}

void start_waiting(writer* w) {
    if (start_child(w)) return;
    log_suite(LOG_LEVEL_WARNING, "log file %s can't be opened: %s", w->path(), std::strerror(errno));
    if (w == current) log_writer_close();
    drop(w);
}

// Other files (devices, pipes, sockets) never hold up who writes to them as the log does.
void take_standard_error(lib_globals* ctx) {
    struct stat status {};
    if (fstat(STDERR_FILENO, &status) != 0 || !S_ISREG(status.st_mode)) return;
    const int file = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    writer* w = file >= 0 ? make_writer(ctx, "", file) : nullptr;
    if (w && start_child(w) && dup2(w->lines[1], STDERR_FILENO) >= 0) {
        close_end(&w->lines[1]);
        return;
    }
    log_suite(LOG_LEVEL_WARNING, "standard error is written directly: %s", std::strerror(errno));
    if (w && w->child) return close_end(&w->lines[1]);
    if (w) drop(w);
}

}  // namespace

const char* log_writer_open(lib_globals* ctx, const char* path, log_writer_done done, void* owner) {
    if (const char* wrong = log_place_refusal(path)) return wrong;
    if (count_writers() >= WRITERS_MAX) return "log files opened before still wait for their disk";
    writer* w = make_writer(ctx, path, -1);
    if (!w || (started ? !start_child(w) : !use(w))) {
        const char* why = std::strerror(errno);
        if (w) drop(w);
        return why;
    }
    w->done = done;
    w->owner = owner;
    return nullptr;
}

void log_writer_close() {
    current = nullptr;
    (void)log_use_file(-1, nullptr);  // needs no memory
}

void log_writer_forget(const void* owner) {
    for (writer* w = writers; w; w = w->next) {
        if (!w->done || w->owner != owner) continue;
        w->done = nullptr;
        w->forgotten = true;
    }
}

void log_writers_start(lib_globals* ctx) {
    started = true;
    for (writer *w = writers, *next; w; w = next) {
        next = w->next;
        if (!w->child) start_waiting(w);
    }
    take_standard_error(ctx);
}

void log_writers_stop(lib_globals* ctx) {
    const nanoseconds end = monotonic_now() + STOP_MS * NS_PER_MS;
    started = false;
    log_writer_close();
    for (writer *w = writers, *next; w; w = next) {
        next = w->next;
        if (w->ctx != ctx) continue;
        if (w->target >= 0) give_standard_error_back(w);
        close_end(&w->target);
        close_end(&w->lines[1]);
        w->done = nullptr;
        w->forgotten = true;
        const nanoseconds now = monotonic_now();
        const auto left = static_cast<std::uint32_t>(now < end ? (end - now) / NS_PER_MS : 0);
        if (!w->child || !job_wait(w->child, left)) drop(w);
    }
}
