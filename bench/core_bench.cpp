// The daemon's paths, each beside the bare loop that does only the system calls, measured in turn in the same
// run, so that the ratio holds when the machine's speed does not. `x_...` counters are the daemon's time
// divided by the bare loop's.
#include "bench_daemon.h"

namespace {

constexpr unsigned BATCH = 1000;

// One frame from the wire to the decision: loop, socket, admission, record, timer, selection. `changing`:
// each frame brings another quality than its port's last one, so that none is passed over; the choice stays.
void receive(benchmark::State& state, bool changing) {
    const auto count = static_cast<unsigned>(state.range(0));
    const bool extend = state.range(1) != 0;
    bench_daemon daemon(count, extend);
    bench_neighbours neighbours(count, extend);
    std::vector<double> ours, bare, bare_epoll;
    std::uint64_t taken = 0;
    if (changing) ssm_if_port(daemon.ports[0])->force_rx_quality = QL_PRC;
    const auto send_batch = [&] {
        unsigned round = 0;
        for (unsigned left = BATCH; left > 0; ++round) {
            const unsigned now = std::min(left, count);
            if (changing) neighbours.say(round % 2 ? QL_SSU_A : QL_SSU_B);
            neighbours.send(now);
            left -= now;
        }
    };

    for (auto _ : state) {
        {
            // The bare sockets exist only while they are measured: a frame must not be copied to both.
            bare_socket plain;
            close_ssm();
            send_batch();
            bare.push_back(seconds([&] {
                while (plain.receive()) {
                }
            }));
            send_batch();
            bare_epoll.push_back(seconds([&] {
                epoll_event event;
                for (unsigned i = 0; i < BATCH; ++i) {
                    (void)epoll_wait(plain.epoll, &event, 1, 0);
                    (void)plain.receive();
                }
            }));
        }
        if (open_ssm() < 0) bench_die("packet socket");
        send_batch();
        ssm_socket_arm_read();
        const double spent = seconds([&] {
            // Timers that come due meanwhile run as well, and count: that is what a frame costs in the loop.
            for (unsigned got = 0; got < BATCH;) got += run_event_takes_frame();
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
void receive_to_decision(benchmark::State& state) {
    receive(state, false);
}
void receive_new_quality(benchmark::State& state) {
    receive(state, true);
}
BENCHMARK(receive_to_decision)
    ->ArgNames({"ports", "ext"})
    ->ArgsProduct({{1, 16, 64, 255}, {0, 1}})
    ->UseManualTime()
    ->Iterations(60)
    ->Unit(benchmark::kNanosecond);
BENCHMARK(receive_new_quality)
    ->ArgNames({"ports", "ext"})
    ->ArgsProduct({{16, 64, 255}, {0, 1}})
    ->UseManualTime()
    ->Iterations(60)
    ->Unit(benchmark::kNanosecond);

// An event PDU on every port.
void fan_out(benchmark::State& state) {
    const auto count = static_cast<unsigned>(state.range(0));
    bench_daemon daemon(count);
    bare_sender sender(daemon.ports);
    std::vector<double> ours, bare, bare_many;
    for (auto _ : state) {
        bare.push_back(seconds([&] { sender.send_each(); }));
        bare_many.push_back(seconds([&] { sender.send_at_once(); }));
        daemon.earn_event_pdus();
        ours.push_back(seconds([] { (void)ssm_pdu_tx_all(); }));
        state.SetIterationTime(ours.back());
    }
    state.counters["ns_per_pdu"] = median(ours) / count * 1e9;
    state.counters["sendto_ns"] = median(bare) / count * 1e9;
    state.counters["sendmmsg_ns"] = median(bare_many) / count * 1e9;
    state.counters["x_sendto"] = median(ours) / median(bare);
    state.counters["x_sendmmsg"] = median(ours) / median(bare_many);
}
BENCHMARK(fan_out)
    ->ArgName("ports")
    ->ArgsProduct({{1, 16, 64, 255}})
    ->UseManualTime()
    ->Iterations(2000)
    ->Unit(benchmark::kMicrosecond);

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
        // The best one, the first, is not among them.
        port->replace_clockid = extend && intf->ifindex % 2 == 0;
    }
    log_set_level(LOG_LEVEL_INFO);
    const double spent = seconds([&] {
        for (auto _ : state) ssm_clock_select();
    });
    state.counters["ns_per_port"] = spent * 1e9 / static_cast<double>(state.iterations()) / count;
}
BENCHMARK(selection)->ArgNames({"ports", "ext"})->ArgsProduct({{1, 16, 64, 255}, {0, 1}});

// The same with the loop guard, beside selection without it: a choice that is proved, and one that refuses
// all.
void guarded_selection(benchmark::State& state) {
    const auto count = static_cast<unsigned>(state.range(0));
    const bool refuses = state.range(1) != 0;
    bench_daemon daemon(count, true);
    for (interface* intf : daemon.ports) {
        ssm_port* port = ssm_if_port(intf);
        port->recv_pdu = 1;
        port->recv_quality = QL_PRC;
        port->recv_clockid[0] = 1;
        port->recv_clockid[3] = 0xFF;  // one master
        port->recv_hop_count = refuses ? SSM_HOPS_MAX : 1;
    }
    ssm_distance_tell(&g_s_master->guard.distances, ssm_if_port(daemon.ports[0])->recv_clockid, 2, 1);
    log_set_level(LOG_LEVEL_ERROR);
    constexpr int OFTEN = 1000;
    const auto select_with = [](std::uint32_t guard) {
        g_s_master->guard.enable = guard;
        return seconds([] {
            for (int i = 0; i < OFTEN; ++i) ssm_clock_select();
        });
    };
    std::vector<double> ours, unguarded;
    for (auto _ : state) {
        unguarded.push_back(select_with(0));
        ours.push_back(select_with(1));
        state.SetIterationTime(ours.back());
    }
    state.counters["ns_per_port"] = median(ours) * 1e9 / OFTEN / count;
    state.counters["unguarded_ns"] = median(unguarded) * 1e9 / OFTEN / count;
    state.counters["x_unguarded"] = median(ours) / median(unguarded);
}
BENCHMARK(guarded_selection)
    ->ArgNames({"ports", "refused"})
    ->ArgsProduct({{16, 255}, {0, 1}})
    ->UseManualTime()
    ->Iterations(200);

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
