// The daemon's paths, each beside the bare loop that does only the system calls, measured in turn in the same
// run, so that the ratio holds when the machine's speed does not. `x_...` counters are the daemon's time
// divided by the bare loop's.
#include <algorithm>
#include <chrono>

#include "bench_daemon.h"

namespace {

template <typename Work>
double seconds(Work&& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2),
                     values.end());
    return values[values.size() / 2];
}

constexpr unsigned BATCH = 1000;

// One frame from the wire to the decision: loop, socket, admission, record, timer, selection.
void receive_to_decision(benchmark::State& state) {
    const auto count = static_cast<unsigned>(state.range(0));
    const bool extend = state.range(1) != 0;
    bench_daemon daemon(count, extend);
    bench_neighbours neighbours(count, extend);
    std::vector<double> ours, bare, bare_epoll;
    std::uint64_t taken = 0;

    for (auto _ : state) {
        {
            // The bare sockets exist only while they are measured: a frame must not be copied to both.
            bare_socket plain;
            close_ssm();
            neighbours.send(BATCH);
            bare.push_back(seconds([&] {
                while (plain.receive()) {
                }
            }));
            neighbours.send(BATCH);
            bare_epoll.push_back(seconds([&] {
                epoll_event event;
                for (unsigned i = 0; i < BATCH; ++i) {
                    (void)epoll_wait(plain.epoll, &event, 1, 0);
                    (void)plain.receive();
                }
            }));
        }
        if (open_ssm() < 0) bench_die("packet socket");
        neighbours.send(BATCH);
        ssm_socket_arm_read();
        const double spent = seconds([&] {
            // Timers that come due meanwhile run as well, and count: that is what a frame costs in the loop.
            thread event;
            for (unsigned got = 0; got < BATCH && thread_fetch(g_p_esmcd, &event);) {
                got += event.func == recv_ssm;
                (void)ssm_run_event(&event);
            }
        });
        taken += BATCH;
        ours.push_back(spent);
        state.SetIterationTime(spent / BATCH);
    }
    state.counters["ns_per_frame"] = median(ours) / BATCH * 1e9;
    state.counters["recvfrom_ns"] = median(bare) / BATCH * 1e9;
    state.counters["epoll_recvfrom_ns"] = median(bare_epoll) / BATCH * 1e9;
    state.counters["x_recvfrom"] = median(ours) / median(bare);
    state.counters["x_epoll_recvfrom"] = median(ours) / median(bare_epoll);
    state.counters["frames"] = static_cast<double>(taken);
}
BENCHMARK(receive_to_decision)
    ->ArgNames({"ports", "ext"})
    ->ArgsProduct({{1, 16, 64, 255}, {0, 1}})
    ->UseManualTime()
    ->Iterations(60)
    ->Unit(benchmark::kNanosecond);

// An event PDU on every port.
void fan_out(benchmark::State& state) {
    const auto count = static_cast<unsigned>(state.range(0));
    bench_daemon daemon(count);
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    std::uint8_t frame[60] = {0x01, 0x80, 0xC2, 0, 0, 2, 2, 0, 0, 0, 0, 1, 0x88, 0x09};
    std::vector<double> ours, bare;
    for (auto _ : state) {
        bare.push_back(seconds([&] {
            sockaddr_ll to = {};
            to.sll_family = AF_PACKET;
            to.sll_halen = 6;
            for (const interface* intf : daemon.ports) {
                to.sll_ifindex = static_cast<int>(intf->kernel_ifindex);
                benchmark::DoNotOptimize(sendto(fd, frame, sizeof frame, MSG_DONTWAIT,
                                                reinterpret_cast<sockaddr*>(&to), sizeof to));
            }
        }));
        ours.push_back(seconds([] { (void)ssm_pdu_tx_all(); }));
        state.SetIterationTime(ours.back());
    }
    close(fd);
    state.counters["ns_per_pdu"] = median(ours) / count * 1e9;
    state.counters["sendto_ns"] = median(bare) / count * 1e9;
    state.counters["x_sendto"] = median(ours) / median(bare);
}
BENCHMARK(fan_out)->ArgName("ports")->Arg(16)->Arg(255)->UseManualTime()->Iterations(2000)->Unit(
    benchmark::kMicrosecond);

// Selection alone, over ports that all receive the same quality.
void selection(benchmark::State& state) {
    const auto count = static_cast<unsigned>(state.range(0));
    const bool extend = state.range(1) != 0;
    bench_daemon daemon(count, extend);
    for (interface* intf : daemon.ports) {
        ssm_port* port = ssm_if_port(intf);
        port->recv_pdu = 1;
        port->recv_quality = QL_PRC;
        port->recv_clockid[0] = static_cast<std::uint8_t>(intf->ifindex);
        port->replace_clockid = extend && intf->ifindex % 2;
    }
    const int level = LOG_LEVEL_INFO;
    log_set_level(level);
    for (auto _ : state) ssm_clock_select();
    state.counters["ns_per_port"] =
        benchmark::Counter(static_cast<double>(count),
                           benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(selection)->ArgNames({"ports", "ext"})->ArgsProduct({{1, 16, 64, 255}, {0, 1}});

// A time-out timer restarted, with both timers of every port pending.
void timer_restart(benchmark::State& state) {
    const auto count = static_cast<unsigned>(state.range(0));
    bench_daemon daemon(count);
    for (interface* intf : daemon.ports) ssm_timeout_timer_restart(ssm_if_port(intf));
    std::size_t i = 0;
    for (auto _ : state) {
        ssm_timeout_timer_restart(ssm_if_port(daemon.ports[i]));
        i = i + 1 == count ? 0 : i + 1;
    }
}
BENCHMARK(timer_restart)->ArgName("ports")->Arg(16)->Arg(255);

}  // namespace

BENCHMARK_MAIN();
