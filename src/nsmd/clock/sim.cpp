// The simulated clock. Owns its two timers and, when asked to, a small file with its registers. Called by
// nsmd's core on the loop. A state file that can't be read is the same as none (the clock starts
// free-running); one that can't be written is logged once.
#include "nsmd/clock/sim.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "suite/base/memory.h"
#include "suite/log/log.h"
#include "suite/loop/thread.h"

namespace {

struct dpll_sim {
    lib_globals* ctx;
    const port_table* table;
    dpll_sim_options options;
    dpll_sink sink;
    dpll_wanted wanted;
    dpll_report now;
    std::uint32_t acquiring;  // the reference being locked to; 0: none
    thread* lock_timer;
    thread* holdover_timer;
    bool write_failed;
    std::uint64_t locks, holdovers;
};

void save(dpll_sim* s) {
    if (!s->options.state_file) return;
    char line[96];
    const int length =
        std::snprintf(line, sizeof line, "%u %u %u %u %u %u\n", s->now.state, s->now.source, s->wanted.enable,
                      s->wanted.recovery_select, s->wanted.holdover, s->wanted.selected);
    // One short write over the old contents: a kill leaves the old or the new registers.
    const int fd = open(s->options.state_file, O_WRONLY | O_CREAT | O_CLOEXEC, 0640);
    const ssize_t done = fd < 0 ? -1 : pwrite(fd, line, static_cast<std::size_t>(length), 0);
    // Registers that are half old are none.
    const bool written = done >= 0 && ftruncate(fd, done == length ? length : 0) == 0 && done == length;
    if (!written && !s->write_failed)
        log_suite(LOG_LEVEL_WARNING, "simulated clock: can't write %s: %s", s->options.state_file,
                  std::strerror(errno));
    s->write_failed = !written;
    if (fd >= 0) close(fd);
}

void restore(dpll_sim* s) {
    if (!s->options.state_file) return;
    const int fd = open(s->options.state_file, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    char line[96];
    const ssize_t got = read(fd, line, sizeof line - 1);
    close(fd);
    if (got <= 0) return;
    line[got] = 0;
    unsigned state, source, enable, select, holdover, selected;
    if (std::sscanf(line, "%u %u %u %u %u %u", &state, &source, &enable, &select, &holdover, &selected) != 6)
        return;
    if (state < DPLL_FREERUN || state > DPLL_LOCKED) return;
    s->now = {state, source};
    s->wanted = {enable != 0, select, holdover != 0, selected};
}

void enter(dpll_sim* s, std::uint32_t state, std::uint32_t source) {
    if (s->now.state == state && s->now.source == source) return;
    s->locks += state == DPLL_LOCKED;
    s->holdovers += state == DPLL_HOLDOVER;
    s->now = {state, source};
    save(s);
    s->sink.report(s->sink.arg, s->now);
}

bool is_live(const dpll_sim* s, std::uint32_t ifindex) {
    const nsmd_port* port = port_table_find(s->table, ifindex);
    return port && port->up;
}

// What the clock could follow now; 0 for nothing. Nothing is connected to the external inputs.
std::uint32_t reference(const dpll_sim* s) {
    if (s->wanted.holdover || s->wanted.recovery_select != 0) return 0;
    const std::uint32_t port = s->wanted.selected ? s->wanted.selected : s->now.source;
    return is_live(s, port) ? port : 0;
}

int holdover_decayed(thread* event) {
    auto* s = static_cast<dpll_sim*>(event->arg);
    s->holdover_timer = nullptr;
    enter(s, DPLL_FREERUN, 0);
    return 0;
}

int locked(thread* event) {
    auto* s = static_cast<dpll_sim*>(event->arg);
    s->lock_timer = nullptr;
    thread_cancel(s->holdover_timer);
    s->holdover_timer = nullptr;
    const std::uint32_t source = s->acquiring;
    s->acquiring = 0;
    enter(s, DPLL_LOCKED, source);
    return 0;
}

void acquire(dpll_sim* s, std::uint32_t source) {
    if (s->acquiring == source) return;
    thread_cancel(s->lock_timer);
    s->lock_timer = nullptr;
    s->acquiring = source;
    if (!source) return;
    s->lock_timer = thread_add_timer_msec(s->ctx, locked, s, s->options.lock_ms);
    if (!s->lock_timer) s->acquiring = 0;  // the next change tries again
}

void hold(dpll_sim* s) {
    enter(s, DPLL_HOLDOVER, 0);
    if (s->options.holdover_s && !s->holdover_timer)
        s->holdover_timer = thread_add_timer_msec(s->ctx, holdover_decayed, s, s->options.holdover_s * 1000);
}

void run_free(dpll_sim* s) {
    acquire(s, 0);
    thread_cancel(s->holdover_timer);
    s->holdover_timer = nullptr;
    enter(s, DPLL_FREERUN, 0);
}

void evaluate(dpll_sim* s) {
    if (!s->wanted.enable) return run_free(s);
    const std::uint32_t wanted = reference(s);
    const bool is_locked = s->now.state == DPLL_LOCKED;
    // The reference that is followed counts until the next one is locked to, but only as long as it lives.
    if (is_locked && (wanted == 0 || !is_live(s, s->now.source))) hold(s);
    const bool there = s->now.state == DPLL_LOCKED && s->now.source == wanted;
    acquire(s, there ? 0 : wanted);
}

void apply(void* self, const dpll_wanted& wanted) {
    auto* s = static_cast<dpll_sim*>(self);
    s->wanted = wanted;
    save(s);
    evaluate(s);
}

void port(void* self, const nsmd_port& changed, port_event event) {
    auto* s = static_cast<dpll_sim*>(self);
    // The signal of a reference that was cut is gone even when the cable is back by now.
    const bool lost = event == port_event::down || event == port_event::removed;
    if (lost && changed.ifindex == s->acquiring) acquire(s, 0);
    evaluate(s);
}

dpll_report current(const void* self) {
    return static_cast<const dpll_sim*>(self)->now;
}

bool status(const void* self, text_buffer* out) {
    const auto* s = static_cast<const dpll_sim*>(self);
    return text_printf(out,
                       "clock: simulated, lock time %u ms, acquiring %u, locked %" PRIu64
                       " times, in holdover %" PRIu64 " times\n",
                       s->options.lock_ms, s->acquiring, s->locks, s->holdovers);
}

void finish(void* self) {
    auto* s = static_cast<dpll_sim*>(self);
    thread_cancel(s->lock_timer);
    thread_cancel(s->holdover_timer);
    memmgr_free(s, MTYPE_NSMD);
}

}  // namespace

dpll_backend dpll_sim_create(lib_globals* ctx, const port_table* table, const dpll_sim_options& options,
                             const dpll_sink& sink) {
    auto* s = static_cast<dpll_sim*>(memmgr_calloc(sizeof(dpll_sim), MTYPE_NSMD));
    if (s) {
        s->ctx = ctx;
        s->table = table;
        s->options = options;
        s->sink = sink;
        s->now = {DPLL_FREERUN, 0};
        restore(s);
        evaluate(s);
        if (s->now.state == DPLL_HOLDOVER) hold(s);  // its decay begins anew
    }
    return {apply, port, current, status, finish, s};
}
