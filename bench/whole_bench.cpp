// The daemon as its neighbours feel it, each beside a bare loop with the same system calls: how soon a new
// quality is passed on, and what a port costs that says the same every second.
#include <sys/timerfd.h>
#include <sys/wait.h>

#include <csignal>
#include <ctime>

#include "bench_daemon.h"

namespace {

constexpr unsigned BLOCK = 50;  // reactions in a row of one kind

void run_until_heard() {
    while (!run_event_takes_frame()) {
    }
}

// From a frame that is in the socket to the return of the last send of the event PDUs. The other ports are
// candidates too; port 1, the source, alternates.
void reaction(benchmark::State& state) {
    const auto count = static_cast<unsigned>(state.range(0));
    bench_daemon daemon(count);
    bench_neighbours neighbours(count);
    std::vector<double> ours, bare;
    std::uint8_t quality = QL_SSU_A;
    const auto speak = [&] {
        quality = quality == QL_PRC ? QL_SSU_A : QL_PRC;
        neighbours.say(quality);
        neighbours.send(1);
    };

    for (auto _ : state) {
        {
            bare_socket plain;
            bare_sender sender(daemon.ports);
            close_ssm();
            for (unsigned i = 0; i < BLOCK; ++i) {
                speak();
                bare.push_back(seconds([&] {
                    epoll_event event;
                    (void)epoll_wait(plain.epoll, &event, 1, -1);
                    (void)plain.receive();
                    sender.send_at_once();
                }));
            }
        }
        if (open_ssm() < 0) bench_die("packet socket");
        neighbours.say(QL_SSU_B);
        neighbours.send(count);
        ssm_socket_arm_read();
        for (unsigned i = 0; i < count; ++i) run_until_heard();
        for (unsigned i = 0; i < BLOCK; ++i) {
            daemon.earn_event_pdus();
            speak();
            const std::uint64_t before = slow_socket_stats().frames_out;
            const double spent = seconds(run_until_heard);
            if (slow_socket_stats().frames_out < before + count) {
                state.SkipWithError("a frame with a new quality was not passed on to every port");
                return;
            }
            ours.push_back(spent);
        }
        state.SetIterationTime(median(ours));
    }
    state.counters["ns_per_reaction"] = median(ours) * 1e9;
    state.counters["bare_loop_ns"] = median(bare) * 1e9;
    state.counters["x_bare_loop"] = median(ours) / median(bare);
    state.counters["bare_loop_p99_ns"] = quantile(bare, 0.99) * 1e9;
    state.counters["p99_ns"] = quantile(ours, 0.99) * 1e9;
    state.counters["x_bare_loop_p99"] = quantile(ours, 0.99) / quantile(bare, 0.99);
}
BENCHMARK(reaction)
    ->ArgName("ports")
    ->ArgsProduct({{1, 16, 64, 255}})
    ->UseManualTime()
    ->Iterations(20)
    ->Unit(benchmark::kMicrosecond);

double processor_seconds() {
    timespec t;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// A process that has every neighbour speak once a second, spread evenly; ends with the object.
class speaking_neighbours {
  public:
    explicit speaking_neighbours(unsigned count) : pid_(fork()) {
        if (pid_ < 0) bench_die("fork");
        if (pid_ > 0) return;
        bench_neighbours neighbours(count);
        timespec next;
        clock_gettime(CLOCK_MONOTONIC, &next);
        for (unsigned i = 0;; i = (i + 1) % count) {
            std::swap(neighbours.kernel_ifindex[0], neighbours.kernel_ifindex[i]);
            neighbours.send(1);
            std::swap(neighbours.kernel_ifindex[0], neighbours.kernel_ifindex[i]);
            next.tv_nsec += 1'000'000'000 / count;
            if (next.tv_nsec >= 1'000'000'000) {
                next.tv_nsec -= 1'000'000'000;
                ++next.tv_sec;
            }
            clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
        }
    }
    ~speaking_neighbours() {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    speaking_neighbours(const speaking_neighbours&) = delete;
    speaking_neighbours& operator=(const speaking_neighbours&) = delete;

  private:
    pid_t pid_;
};

constexpr unsigned IDLE_SECONDS = 3;

// A second in which nothing happens: every port sends once and hears once. Processor time, not elapsed time.
void idle_second(benchmark::State& state) {
    const auto count = static_cast<unsigned>(state.range(0));
    bench_daemon daemon(count);
    std::vector<double> ours, bare;
    speaking_neighbours speaking(count);
    for (auto _ : state) {
        close_ssm();
        {
            bare_socket plain;
            bare_sender sender(daemon.ports);
            const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
            const itimerspec each_second = {{1, 0}, {1, 0}};
            timerfd_settime(timer, 0, &each_second, nullptr);
            epoll_event event = {EPOLLIN, {}};
            event.data.fd = timer;
            epoll_ctl(plain.epoll, EPOLL_CTL_ADD, timer, &event);
            unsigned rounds = 0, heard = 0;
            const double before = processor_seconds();
            while (rounds < IDLE_SECONDS && epoll_wait(plain.epoll, &event, 1, -1) == 1) {
                std::uint64_t expired;
                if (event.data.fd != timer) {
                    heard += plain.receive();
                } else if (read(timer, &expired, sizeof expired) == sizeof expired) {
                    sender.send_each();
                    ++rounds;
                }
            }
            bare.push_back((processor_seconds() - before) / IDLE_SECONDS);
            close(timer);
            if (heard < count * (IDLE_SECONDS - 1)) bench_die("the neighbours were not heard");
        }
        if (open_ssm() < 0) bench_die("packet socket");
        ssm_socket_arm_read();
        const std::uint64_t out = slow_socket_stats().frames_out, in = slow_socket_stats().frames_in;
        const nanoseconds end = monotonic_now() + IDLE_SECONDS * NS_PER_S;
        const double before = processor_seconds();
        for (thread event; monotonic_now() < end && thread_fetch(g_p_esmcd, &event);)
            (void)ssm_run_event(&event);
        ours.push_back((processor_seconds() - before) / IDLE_SECONDS);
        if (slow_socket_stats().frames_out - out < count * (IDLE_SECONDS - 1) ||
            slow_socket_stats().frames_in - in < count * (IDLE_SECONDS - 1)) {
            state.SkipWithError("the ports were not all heard and served each second");
            return;
        }
        state.SetIterationTime(ours.back());
    }
    state.counters["ns_per_second"] = median(ours) * 1e9;
    state.counters["bare_loop_ns"] = median(bare) * 1e9;
    state.counters["x_bare_loop"] = median(ours) / median(bare);
}
BENCHMARK(idle_second)
    ->ArgName("ports")
    ->Arg(16)
    ->Arg(255)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
