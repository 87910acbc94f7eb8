// Children with a pipe. A job is in the list from its start until its child has been reaped, which is later
// than its owner's last word when it was cancelled, or when the system is slow to end it.
//
// No signal is sent to a child, as the system call filter has none for it (suite/rights/calls.cpp): with the
// right to signal one's children comes the right to signal whoever runs as the same user. A child looks
// itself, now and then, whether somebody still reads what it writes.
#include "suite/process/job.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>

#include "suite/base/clock.h"
#include "suite/base/memory.h"
#include "suite/base/text.h"
#include "suite/loop/thread.h"

struct job {
    job* next;
    lib_globals* ctx;
    job_done done;  // null: cancelled
    void* owner;
    std::size_t result_max;
    pid_t child;
    int fd;  // -1: at its end, or cancelled
    thread* event;
    text_buffer result;
    bool failed;            // too much was written
    std::uint32_t reap_ms;  // until it is tried again
};

namespace {

constexpr std::uint32_t REAP_FIRST_MS = 5, REAP_LAST_MS = 1000;
constexpr int STOP_TRIES = 100;  // of a millisecond each
constexpr std::uint32_t LOOK_FIRST_MS = 10, LOOK_LAST_MS = 1000;

job* jobs;

void close_range_of(unsigned first, unsigned last) {
    if (first > last) return;
#ifdef __NR_close_range
    if (syscall(__NR_close_range, first, last, 0) == 0) return;
#endif
    rlimit limit{};
    (void)getrlimit(RLIMIT_NOFILE, &limit);  // 0 when it fails: the least is closed all the same
    const auto most =
        static_cast<unsigned>(std::min<rlim_t>(std::max<rlim_t>(limit.rlim_cur, 1024), 1u << 20));
    for (unsigned fd = first; fd <= last && fd < most; fd++) close(static_cast<int>(fd));
}

// All descriptors but `out` and those to keep, from one of these to the next.
void close_others(const job_order& order, int out) {
    for (unsigned from = 0;;) {
        auto next = static_cast<unsigned>(out) >= from ? static_cast<unsigned>(out) : ~0u;
        for (std::size_t i = 0; i < order.keep_count; i++) {
            const auto kept = static_cast<unsigned>(order.keep[i]);
            if (kept >= from && kept < next) next = kept;
        }
        if (next == ~0u) return close_range_of(from, next);
        if (next > 0) close_range_of(from, next - 1);
        from = next + 1;
    }
}

// The child's own.
struct {
    int pipe;
    std::uint32_t limit_ms, age_ms, next_ms;
} self;

bool is_read() {
    pollfd pipe{self.pipe, 0, 0};
    return poll(&pipe, 1, 0) != 1 || !(pipe.revents & POLLERR);
}

void look_later(std::uint32_t ms) {
    self.next_ms = ms;
    const itimerval once = {{0, 0}, {ms / 1000, static_cast<suseconds_t>(ms % 1000 * 1000)}};
    setitimer(ITIMER_REAL, &once, nullptr);
}

// Nobody reads any more, or the time is up: the next signal of the timer ends the process. A young child
// looks often, an old one now and then.
void look(int) {
    const int reason = errno;
    self.age_ms += self.next_ms;
    const bool ends = !is_read() || self.age_ms >= self.limit_ms;
    if (ends) std::signal(SIGALRM, SIG_DFL);
    look_later(ends ? 1 : std::clamp(self.age_ms / 8, LOOK_FIRST_MS, LOOK_LAST_MS));
    errno = reason;
}

// Whatever it waits for, it goes with this process; without a limit its work is interrupted by nothing else.
void end_in_time(int out, std::uint32_t limit_s) {
    self = {out, limit_s * 1000, 0, 0};
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
    if (!is_read()) _exit(1);
    if (limit_s == 0) return;
    struct sigaction action {};
    action.sa_handler = look;
    action.sa_flags = SA_RESTART;
    sigaction(SIGALRM, &action, nullptr);
    look_later(LOOK_FIRST_MS);
}

[[noreturn]] void run_child(const job_order& order, int out) {
    for (int number : {SIGHUP, SIGINT, SIGTERM, SIGUSR1, SIGUSR2, SIGXCPU, SIGXFSZ})
        std::signal(number, SIG_DFL);
    close_others(order, out);
    end_in_time(out, order.limit_s);
    _exit(order.work(order.arg, out));
}

void close_pipe(job* j) {
    if (j->fd < 0) return;
    thread_forget_fd(j->ctx, j->fd);
    close(j->fd);
    j->fd = -1;
    j->event = nullptr;
}

void release(job* j) {
    job** at = &jobs;
    while (*at != j) at = &(*at)->next;
    *at = j->next;
    thread_cancel(j->event);
    text_free(&j->result);
    memmgr_free(j, MTYPE_LIB);
}

// True when the child is no more; its status then stands in `*status`.
bool reaped(const job* j, int* status) {
    pid_t got;
    while ((got = waitpid(j->child, status, WNOHANG)) < 0 && errno == EINTR) {
    }
    return got != 0;  // one that somebody else has reaped is gone as well, with a status of failure
}

int try_reap(thread* event);

void finish(job* j, int status);

void reap(job* j) {
    int status = -1;
    if (!reaped(j, &status)) {
        j->event = thread_add_timer_msec(j->ctx, try_reap, j, j->reap_ms);
        j->reap_ms = std::min(2 * j->reap_ms, REAP_LAST_MS);
        if (j->event) return;
        (void)waitpid(j->child, &status, 0);  // no memory for a timer; it is at its end
    }
    finish(j, status);
}

void finish(job* j, int status) {
    const job_done done = j->done;
    void* const owner = j->owner;
    lib_globals* const ctx = j->ctx;
    text_buffer result = j->result;
    const int code = WIFEXITED(status) && !j->failed ? WEXITSTATUS(status) : -1;
    j->result = {};
    release(j);
    if (done) done(ctx, owner, code, result.view());
    text_free(&result);
}

int try_reap(thread* event) {
    auto* j = static_cast<job*>(event->arg);
    j->event = nullptr;
    reap(j);
    return 0;
}

// The end of the pipe is nearly the end of the child.
void at_end(job* j) {
    close_pipe(j);
    reap(j);
}

// False at the end of what the child writes.
bool take_result(job* j) {
    char chunk[4096];
    const ssize_t count = read(j->fd, chunk, sizeof chunk);
    if (count > 0) {
        const auto length = static_cast<std::size_t>(count);
        j->failed = j->result.length + length > j->result_max || !text_append(&j->result, chunk, length);
        explicit_bzero(chunk, length);
    }
    return count > 0 || (count < 0 && (errno == EAGAIN || errno == EINTR));
}

int on_result(thread* event) {
    auto* j = static_cast<job*>(event->arg);
    j->event = nullptr;
    const bool more = take_result(j);
    if (more && !j->failed) j->event = thread_add_read(j->ctx, on_result, j, j->fd);
    if (j->event) return 0;
    j->failed = j->failed || more;  // too much, or no memory to go on
    at_end(j);
    return 0;
}

void discard(job* j, const int (&ends)[2]) {
    const int reason = errno;
    if (ends[0] >= 0) close(ends[0]);
    if (ends[1] >= 0) close(ends[1]);
    memmgr_free(j, MTYPE_LIB);
    errno = reason;
}

}  // namespace

job* job_start(lib_globals* ctx, const job_order& order) {
    int ends[2] = {-1, -1};
    auto* j = static_cast<job*>(memmgr_calloc(sizeof(job), MTYPE_LIB));
    if (!j || pipe2(ends, O_CLOEXEC) != 0 || fcntl(ends[0], F_SETFL, O_NONBLOCK) != 0) {
        discard(j, ends);
        return nullptr;
    }
    // The event first: once there is a child, nothing can fail any more.
    j->event = thread_add_read(ctx, on_result, j, ends[0]);
    if (!j->event) errno = ENOMEM;
    j->child = j->event ? fork() : -1;
    if (j->child == 0) run_child(order, ends[1]);
    if (j->child < 0) {
        const int reason = errno;
        if (j->event) thread_forget_fd(ctx, ends[0]);
        errno = reason;
        discard(j, ends);
        return nullptr;
    }
    close(ends[1]);
    j->ctx = ctx;
    j->done = order.done;
    j->owner = order.owner;
    j->result_max = order.result_max;
    j->reap_ms = REAP_FIRST_MS;
    j->fd = ends[0];
    j->next = jobs;
    jobs = j;
    return j;
}

long job_process(const job* j) {
    return j ? j->child : 0;
}

void job_cancel(job* j) {
    if (!j) return;
    j->done = nullptr;
    thread_cancel(j->event);
    j->event = nullptr;
    at_end(j);
}

bool job_wait(job* j, std::uint32_t limit_ms) {
    const nanoseconds end = monotonic_now() + limit_ms * NS_PER_MS;
    const timespec moment = {0, 1'000'000};
    thread_cancel(j->event);
    j->event = nullptr;
    int status = -1;
    while (monotonic_now() < end) {
        pollfd pipe{j->fd, POLLIN, 0};
        const bool ready = j->fd >= 0 && poll(&pipe, 1, 1) == 1;
        if (ready && (!take_result(j) || j->failed)) close_pipe(j);
        if (j->fd < 0 && reaped(j, &status)) {
            finish(j, status);
            return true;
        }
        if (j->fd < 0) nanosleep(&moment, nullptr);
    }
    return false;
}

void jobs_stop(lib_globals* ctx) {
    for (job* j = jobs; j; j = j->next)
        if (j->ctx == ctx) close_pipe(j);
    const timespec moment = {0, 1'000'000};
    for (job *j = jobs, *next; j; j = next) {
        next = j->next;
        if (j->ctx != ctx) continue;
        for (int status, tries = 0; !reaped(j, &status) && tries < STOP_TRIES; tries++)
            nanosleep(&moment, nullptr);
        release(j);
    }
}
