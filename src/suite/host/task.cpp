// Commands that wait for a disk. Their work is done by a child, and their session is busy until it has come
// to its end or too long a time has passed; the work goes on then, without anybody who waits for it. There
// are only so many at a time: a child that hangs in the system can't be ended.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "suite/base/memory.h"
#include "suite/base/overwrite.h"
#include "suite/host/state.h"
#include "suite/log/log.h"
#include "suite/loop/thread.h"
#include "suite/process/log_writer.h"
#include "suite/terminal/session.h"

struct host_task {
    host_task* next;
    host_state* host;
    session* waits;  // null: gone, or told already
    thread* timer;
    job* child;  // null: a log file's, which is looked after by its writer
    bool saves;
    // What can't be done when the disk does not answer.
    const char* what() const { return reinterpret_cast<const char*>(this + 1); }
};

namespace {

constexpr std::size_t TASKS_MAX = 16;
constexpr std::uint32_t PATIENCE_MS = 30000;
constexpr std::uint32_t LAST_SAVE_MS = 3000;
constexpr std::size_t SHOWN_MAX = SESSION_OUTPUT_MAX;

void forget(session* s) {
    for (host_task* t = s->ctx->host->tasks; t; t = t->next)
        if (t->waits == s) t->waits = nullptr;
}

void free_task(host_task* t) {
    host_task** at = &t->host->tasks;
    while (*at != t) at = &(*at)->next;
    *at = t->next;
    thread_cancel(t->timer);
    memmgr_free(t, MTYPE_HOST);
}

int on_patience_lost(thread* event) {
    auto* t = static_cast<host_task*>(event->arg);
    t->timer = nullptr;
    session* s = t->waits;
    t->waits = nullptr;
    if (s) session_print(s, "%% %s: the disk does not answer\n", t->what());
    if (!t->child) {
        log_writer_forget(t);
        free_task(t);
    }
    if (s) session_finish(s, false);
    return 0;
}

std::size_t count_tasks(const host_state* host) {
    std::size_t count = 0;
    for (const host_task* t = host->tasks; t; t = t->next) count++;
    return count;
}

// The line again, in the child, where it does its work itself.
int run_shown_line(const void* arg, int out) {
    const auto* s = static_cast<const session*>(arg);
    log_silence();
    text_output output{};
    cli terminal = s->c;
    terminal.mode = s->line_mode;
    terminal.out_func = text_output_print;
    terminal.out_val = terminal.line = &output;
    terminal.full = nullptr;
    const cli_result result = cli_run_line(s->ctx->ctree, &terminal, s->line);
    const bool told = !output.cut && write_all(out, output.text.view()) == 0;
    return told ? result != cli_result::ok : 2;
}

void on_shown(lib_globals*, void* owner, int status, std::string_view output) {
    const bool whole = status == 0 || status == 1;
    host_task_end(static_cast<host_task*>(owner), status == 0,
                  whole ? output : "% Too long to be shown, or no memory for it\n");
}

int refuse_to_start(cli* terminal, host_task* t) {
    terminal->out_func(terminal->out_val, "%% %s: %s\n", t->what(), std::strerror(errno));
    t->waits = nullptr;
    free_task(t);
    return CLI_ERROR;
}

}  // namespace

host_task* host_task_create(cli* terminal, const char* verb, const char* path) {
    host_state* host = host_of(terminal);
    const std::size_t size = std::strlen(verb) + std::strlen(path) + 8;
    host_task* t = nullptr;
    if (count_tasks(host) < TASKS_MAX)
        t = static_cast<host_task*>(memmgr_calloc(sizeof(host_task) + size, MTYPE_HOST));
    if (!t) {
        terminal->out_func(terminal->out_val, "%% %s %s: too many commands wait for a disk\n", verb, path);
        return nullptr;
    }
    std::snprintf(reinterpret_cast<char*>(t + 1), size, "%s %s", verb, path);
    t->host = host;
    t->next = host->tasks;
    host->tasks = t;
    return t;
}

const char* host_task_what(const host_task* t) {
    return t->what();
}

int host_task_wait(host_task* t, cli* terminal) {
    session* s = session_running(terminal);
    t->timer = thread_add_timer_msec(terminal->zg, on_patience_lost, t, PATIENCE_MS);
    t->waits = s;
    s->busy = true;
    s->left = forget;
    return CLI_DEFERRED;
}

int host_task_start(host_task* t, cli* terminal, const job_order& order, bool saves) {
    t->child = job_start(terminal->zg, order);
    t->saves = saves;
    return t->child ? host_task_wait(t, terminal) : refuse_to_start(terminal, t);
}

bool host_task_end(host_task* t, bool good, std::string_view output) {
    session* s = t->waits;
    free_task(t);
    if (s) session_finish(s, good, output);
    return s != nullptr;
}

bool host_task_saves(const host_state* host) {
    const host_task* t = host->tasks;
    while (t && !t->saves) t = t->next;
    return t != nullptr;
}

bool host_task_awaited(const host_task* t) {
    return t->waits != nullptr;
}

int host_task_show(cli* terminal, const char* path) {
    host_task* t = host_task_create(terminal, "Can't read", path);
    if (!t) return CLI_ERROR;
    const session* s = session_running(terminal);
    return host_task_start(t, terminal, {run_shown_line, s, nullptr, 0, SHOWN_MAX, 0, on_shown, t}, false);
}

void host_tasks_stop(host_state* host) {
    for (host_task *t = host->tasks, *next; t; t = next) {
        next = t->next;
        if (t->saves && job_wait(t->child, LAST_SAVE_MS)) continue;
        if (!t->child) log_writer_forget(t);
        job_cancel(t->child);
        free_task(t);
    }
}
