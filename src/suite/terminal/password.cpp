// One child a job. It gets the clear text by being a copy of this process, writes the hash to a pipe, and
// leaves without running anything of ours on the way out. A child that hangs is ended by its own alarm.
#include "suite/terminal/password.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#ifdef ESMC_HAVE_CRYPT
#include <crypt.h>
#endif

#include "suite/base/memory.h"
#include "suite/log/log.h"
#include "suite/loop/thread.h"

struct password_job {
    password_job* next;
    lib_globals* ctx;
    password_done done;
    void* owner;
    pid_t child;
    int fd;
    thread* event;
    char hash[PASSWORD_HASH_SIZE];
    std::size_t length;
};

namespace {

constexpr unsigned CHILD_LIMIT_S = 30;

password_job* jobs;

bool compute(const char* clear, const char* setting, char (&hash)[PASSWORD_HASH_SIZE]) {
#ifdef ESMC_HAVE_CRYPT
    static_assert(CRYPT_OUTPUT_SIZE <= PASSWORD_HASH_SIZE);
    static crypt_data data;  // 32 KiB
    char fresh[CRYPT_GENSALT_OUTPUT_SIZE];
    if (!setting) {
        char salt[16];
        if (getrandom(salt, sizeof salt, 0) != sizeof salt) return false;
        setting = crypt_gensalt_rn("$y$", 0, salt, sizeof salt, fresh, sizeof fresh);
        if (!setting) return false;
    }
    const char* result = crypt_rn(clear, setting, &data, sizeof data);
    bool good = result && result[0] != '*' && std::strlen(result) < sizeof hash;
    if (good) std::memcpy(hash, result, std::strlen(result) + 1);
    explicit_bzero(&data, sizeof data);
    return good;
#else
    (void)clear;
    (void)setting;
    (void)hash;
    return false;
#endif
}

[[noreturn]] void run_child(int fd, const char* clear, const char* setting) {
    for (int number : {SIGHUP, SIGINT, SIGTERM, SIGUSR1, SIGXCPU, SIGXFSZ}) std::signal(number, SIG_DFL);
    alarm(CHILD_LIMIT_S);
    (void)!nice(10);  // only a courtesy
    char hash[PASSWORD_HASH_SIZE];
    bool good = compute(clear, setting, hash);
    std::size_t length = good ? std::strlen(hash) : 0;
    bool told = write(fd, hash, length) == static_cast<ssize_t>(length);
    _exit(good && told ? 0 : 1);
}

void unlink_job(const password_job* job) {
    for (password_job** at = &jobs; *at; at = &(*at)->next) {
        if (*at != job) continue;
        *at = job->next;
        return;
    }
}

void release(password_job* job) {
    unlink_job(job);
    thread_cancel(job->event);
    thread_forget_fd(job->ctx, job->fd);
    close(job->fd);
    explicit_bzero(job->hash, sizeof job->hash);
    memmgr_free(job, MTYPE_HOST);
}

void finish(password_job* job) {
    int status = -1;
    while (waitpid(job->child, &status, 0) < 0 && errno == EINTR) {
    }
    bool good = WIFEXITED(status) && WEXITSTATUS(status) == 0 && job->length > 0;
    char hash[PASSWORD_HASH_SIZE];
    std::memcpy(hash, job->hash, sizeof hash);
    password_done done = job->done;
    void* owner = job->owner;
    lib_globals* ctx = job->ctx;
    release(job);
    done(ctx, owner, good ? hash : nullptr);
}

// The end of the pipe is the end of the child, so waiting for it does not block.
int on_hash(thread* event) {
    auto* job = static_cast<password_job*>(event->arg);
    job->event = nullptr;
    std::size_t room = sizeof job->hash - 1 - job->length;
    ssize_t count = room ? read(job->fd, job->hash + job->length, room) : 0;
    if (count > 0) job->length += static_cast<std::size_t>(count);
    if (count > 0 || (count < 0 && (errno == EAGAIN || errno == EINTR)))
        job->event = thread_add_read(job->ctx, on_hash, job, job->fd);
    if (!job->event) finish(job);
    return 0;
}

}  // namespace

password_job* password_start(lib_globals* ctx, std::string_view clear, const char* setting,
                             password_done done, void* owner) {
    char text[PASSWORD_MAX + 1] = {};
    if (clear.size() > PASSWORD_MAX || !password_supported()) return nullptr;
    std::memcpy(text, clear.data(), clear.size());
    auto* job = static_cast<password_job*>(memmgr_calloc(sizeof(password_job), MTYPE_HOST));
    int ends[2];
    if (!job || pipe2(ends, O_CLOEXEC) != 0) {
        memmgr_free(job, MTYPE_HOST);
        return nullptr;
    }
    job->child = fork();
    if (job->child == 0) run_child(ends[1], text, setting);
    explicit_bzero(text, sizeof text);
    close(ends[1]);
    (void)fcntl(ends[0], F_SETFL, O_NONBLOCK);
    job->ctx = ctx;
    job->fd = ends[0];
    job->done = done;
    job->owner = owner;
    job->next = jobs;
    jobs = job;
    if (job->child > 0) job->event = thread_add_read(ctx, on_hash, job, job->fd);
    if (job->event) return job;
    if (job->child > 0) {
        kill(job->child, SIGKILL);
        (void)waitpid(job->child, nullptr, 0);  // killed: comes at once
    }
    release(job);
    return nullptr;
}

void password_disown(lib_globals*, const void* owner) {
    for (password_job* job = jobs; job; job = job->next)
        if (job->owner == owner) job->owner = nullptr;
}

void password_stop(lib_globals* ctx) {
    for (password_job* job = jobs; job;) {
        password_job* next = job->next;
        if (job->ctx == ctx) {
            kill(job->child, SIGKILL);
            (void)waitpid(job->child, nullptr, 0);  // killed: comes at once
            release(job);
        }
        job = next;
    }
}

bool password_hash_now(std::string_view clear, char (&hash)[PASSWORD_HASH_SIZE]) {
    char text[PASSWORD_MAX + 1] = {};
    if (clear.size() > PASSWORD_MAX) return false;
    std::memcpy(text, clear.data(), clear.size());
    bool good = compute(text, nullptr, hash);
    explicit_bzero(text, sizeof text);
    return good;
}

bool password_is_hash(std::string_view text) {
    if (text.size() < 13 || text.size() >= PASSWORD_HASH_SIZE || text[0] != '$') return false;
    return text.find_first_not_of("./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz$,=+-_") ==
           std::string_view::npos;
}

bool password_supported() {
#ifdef ESMC_HAVE_CRYPT
    return true;
#else
    return false;
#endif
}
