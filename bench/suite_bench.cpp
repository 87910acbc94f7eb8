// The event loop beside what it is held against: a bare epoll_wait loop over the same descriptor, and the
// bare read. The descriptor is an eventfd that counts down from a large number, so that it is always readable
// and no writer disturbs the measurement.
#include <benchmark/benchmark.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <random>

#include "suite/base/memory.h"
#include "suite/log/log.h"
#include "suite/loop/thread.h"
#include "suite/ports/interface.h"
#include "suite/start/lib.h"

namespace {

int never(thread*) {
    std::abort();
}

struct loop {
    lib_globals ctx{};
    loop() {
        ctx.master = thread_master_create();
        if (ctx.master == nullptr) std::abort();
    }
    ~loop() { thread_master_finish(ctx.master); }
};

int endless_reader() {
    const int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC | EFD_SEMAPHORE);
    const std::uint64_t many = UINT64_C(1) << 60;
    if (fd < 0 || write(fd, &many, sizeof many) != sizeof many) std::abort();
    return fd;
}

void consume(int fd) {
    std::uint64_t one;
    if (read(fd, &one, sizeof one) != sizeof one) std::abort();
}

// Two timers a port on 255 ports; one of them is restarted.
void timer_restart(benchmark::State& state) {
    loop l;
    constexpr std::size_t count = 510;
    thread* timers[count];
    std::mt19937 random(1);
    for (std::size_t i = 0; i < count; i++) {
        timers[i] = thread_add_timer_msec(&l.ctx, never, nullptr, i % 2 ? 1000 : 5000);
    }
    thread event;
    thread_add_timer_msec(
        &l.ctx, [](thread*) { return 0; }, nullptr, 0);
    if (thread_fetch(&l.ctx, &event) == nullptr) std::abort();  // from here on inside a turn, as handlers are
    std::size_t order[1024];
    for (auto& o : order) o = random() % count;
    std::size_t i = 0;
    for (auto _ : state) {
        thread*& t = timers[order[i++ % 1024]];
        thread_cancel(t);
        t = thread_add_timer_msec(&l.ctx, never, nullptr, 5000);
    }
}
BENCHMARK(timer_restart);

// A descriptor in an epoll set, as the loop has it: the kernel's part of a read is dearer then.
int watch(int fd) {
    const int set = epoll_create1(EPOLL_CLOEXEC);
    epoll_event e{};
    e.events = EPOLLIN;
    e.data.fd = fd;
    if (set < 0 || epoll_ctl(set, EPOLL_CTL_ADD, fd, &e) != 0) std::abort();
    return set;
}

void bare_read(benchmark::State& state) {
    const int fd = endless_reader(), set = watch(fd);
    for (auto _ : state) consume(fd);
    close(set);
    close(fd);
}
BENCHMARK(bare_read);

// The argument is the time-out: -1 none, otherwise far away as with timers pending.
void bare_epoll_wait_and_read(benchmark::State& state) {
    const int fd = endless_reader(), set = watch(fd);
    epoll_event out[64];
    for (auto _ : state) {
        if (epoll_wait(set, out, 64, static_cast<int>(state.range(0))) != 1) std::abort();
        consume(out[0].data.fd);
    }
    close(set);
    close(fd);
}
BENCHMARK(bare_epoll_wait_and_read)->Arg(-1)->Arg(0)->Arg(3'600'000);

// add, fetch and call of a read event; `Marked`: the reader knows that it has more.
template <bool Marked>
int read_one(thread* t) {
    consume(t->fd);
    thread_add_read_high(t->ctx, read_one<Marked>, nullptr, t->fd);
    if (Marked) thread_mark_ready(t->ctx, t->fd);
    return 0;
}

template <bool Marked>
void loop_read(benchmark::State& state) {
    loop l;
    const int fd = endless_reader();
    for (int i = 0; i < 510; i++) thread_add_timer_msec(&l.ctx, never, nullptr, 3'600'000);
    thread_add_read_high(&l.ctx, read_one<Marked>, nullptr, fd);
    thread event;
    for (auto _ : state) {
        if (thread_fetch(&l.ctx, &event) == nullptr) std::abort();
        thread_call(&event);
    }
    thread_forget_fd(&l.ctx, fd);
    close(fd);
}
BENCHMARK_TEMPLATE(loop_read, false);
BENCHMARK_TEMPLATE(loop_read, true);

// The loop's own part of a frame: an event that is always marked ready and reads nothing.
int do_nothing(thread* t) {
    thread_add_read_high(t->ctx, do_nothing, nullptr, t->fd);
    thread_mark_ready(t->ctx, t->fd);
    return 0;
}

void loop_alone(benchmark::State& state) {
    loop l;
    const int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    for (int i = 0; i < 510; i++) thread_add_timer_msec(&l.ctx, never, nullptr, 3'600'000);
    thread_add_read_high(&l.ctx, do_nothing, nullptr, fd);
    thread_mark_ready(&l.ctx, fd);
    thread event;
    for (auto _ : state) {
        if (thread_fetch(&l.ctx, &event) == nullptr) std::abort();
        thread_call(&event);
    }
    thread_forget_fd(&l.ctx, fd);
    close(fd);
}
BENCHMARK(loop_alone);

void clock_sample(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(monotonic_now());
}
BENCHMARK(clock_sample);

void lookup_by_index(benchmark::State& state) {
    if_master ifm{};
    for (std::uint32_t i = 1; i <= 255; i++) (void)if_add(&ifm, "port", 5000 + i, IF_TYPE_SYNCE);
    std::uint32_t i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(if_lookup_by_index(&ifm, 5001 + i++ % 255));
    if_finish(&ifm);
}
BENCHMARK(lookup_by_index);

void allocate_and_free(benchmark::State& state) {
    for (auto _ : state) {
        void* p = memmgr_calloc(200, MTYPE_NONE);
        benchmark::DoNotOptimize(p);
        memmgr_free(p, MTYPE_NONE);
    }
}
BENCHMARK(allocate_and_free);

void log_line_that_nobody_wants(benchmark::State& state) {
    log_set_level(LOG_LEVEL_INFO);
    for (auto _ : state) log_suite(LOG_LEVEL_DEBUG, "port %d", 5);
    log_set_level(LOG_LEVEL_DEBUG);
}
BENCHMARK(log_line_that_nobody_wants);

void log_line_to_the_ring(benchmark::State& state) {
    log_open("bench");
    log_use_sink(LOG_SINK_STDERR, false);
    for (auto _ : state) log_suite(LOG_LEVEL_DEBUG, "port %d: quality level %s", 5, "PRC");
    log_close();
}
BENCHMARK(log_line_to_the_ring);

}  // namespace

BENCHMARK_MAIN();
