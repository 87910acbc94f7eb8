// A daemon with real sockets for the benchmarks: the process moves into a network namespace of its own, where
// each port is one end of a veth pair; the other ends, which play the neighbours, are in a second one, so
// that what the daemon sends does not come back to it. Records, timers, loop and packet socket are the
// daemon's.
#pragma once

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/debug.h"
#include "core/loop.h"
#include "core/opts.h"
#include "core/pdu.h"
#include "core/ports.h"
#include "core/select.h"
#include "core/socket.h"
#include "core/timers.h"
#include "nsm/session.h"
#include "suite/base/clock.h"
#include "suite/log/log.h"
#include "suite/loop/thread.h"
#include "suite/manager/client.h"
#include "suite/ports/slow_socket.h"
#include "suite/start/lib.h"

template <typename Work>
double seconds(Work&& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The value below which `share` of them lie; 0.5 is the median.
inline double quantile(std::vector<double> values, double share) {
    if (values.empty()) return 0;
    const auto at =
        std::min(values.size() - 1, static_cast<std::size_t>(share * static_cast<double>(values.size())));
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(at), values.end());
    return values[at];
}
inline double median(std::vector<double> values) {
    return quantile(std::move(values), 0.5);
}

constexpr std::uint16_t ETHERTYPE_SLOW = 0x8809;

[[noreturn]] inline void bench_die(const char* what) {
    std::perror(what);
    std::exit(1);
}

// The process's namespace has the ports s1, s2, ...; the neighbours' n1, n2, ...
struct bench_spaces {
    int ports, neighbours;
};

inline const bench_spaces& spaces() {
    static const auto fresh = [] {
        if (unshare(CLONE_NEWNET) != 0) bench_die("unshare (root is needed)");
        return open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    };
    static const bench_spaces made = [] {
        const int neighbours = fresh();
        return bench_spaces{fresh(), neighbours};
    }();
    return made;
}

// Runs `work` in the neighbours' namespace; sockets that it opens stay there.
template <typename Work>
auto among_neighbours(Work&& work) {
    if (setns(spaces().neighbours, CLONE_NEWNET) != 0) bench_die("setns");
    auto result = work();
    if (setns(spaces().ports, CLONE_NEWNET) != 0) bench_die("setns");
    return result;
}

inline int run_ip(const std::string& lines) {
    std::FILE* ip = popen("ip -batch -", "w");
    if (!ip || std::fputs(lines.c_str(), ip) < 0 || pclose(ip) != 0) bench_die("ip -batch");
    return 0;
}

inline void bench_pairs(unsigned count) {
    static unsigned made = 0;
    const std::string far =
        "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(spaces().neighbours);
    std::string near_lines, far_lines;
    for (; made < count; ++made) {
        const std::string n = std::to_string(made + 1);
        near_lines +=
            "link add s" + n + " type veth peer name n" + n + " netns " + far + "\nlink set s" + n + " up\n";
        far_lines += "link set n" + n + " up\n";
    }
    if (near_lines.empty()) return;
    run_ip(near_lines);
    among_neighbours([&] { return run_ip(far_lines); });
}

struct bench_daemon {
    std::vector<interface*> ports;

    explicit bench_daemon(unsigned count, bool extend = false) {
        bench_pairs(count);
        log_use_sink(LOG_SINK_STDERR, false);
        memory_init(SSM_PROTO_ID);
        g_p_esmcd = lib_create("bench");
        if (!g_p_esmcd || lib_start(g_p_esmcd) < 0) bench_die("lib_start");
        g_p_esmcd->master = thread_master_create();
        g_s_master = static_cast<ssm_master*>(ssm_calloc(sizeof(ssm_master), MTYPE_SSM_MASTER));
        ssm_instance =
            static_cast<ssm_instance_record*>(ssm_calloc(sizeof(ssm_instance_record), MTYPE_SSM_INSTANCE));
        if (!g_p_esmcd->master || !g_s_master || !ssm_instance) bench_die("memory");
        (void)ssm_master_init();
        ssm_instance->lib_ctx = g_p_esmcd;
        ssm_instance->sock = -1;
        if (open_ssm() < 0) bench_die("packet socket");
        slow_socket_set_rate_limit(1'000'000'000);  // at work, but never the limit
        // Not started: requests are kept, which costs what sending costs without the kernel's part.
        ssm_instance->nsm_client = nsm_client_create(g_p_esmcd, 0);
        (void)if_add_hook(g_p_esmcd->ifm, IF_CALLBACK_VR_BIND, ssm_port_create);
        (void)if_add_hook(g_p_esmcd->ifm, IF_CALLBACK_VR_UNBIND, ssm_port_delete);
        (void)if_add_hook(g_p_esmcd->ifm, IF_CALLBACK_UP, _ssm_nsm_recv_interface_up);
        g_s_master->global_enable = 1;
        g_s_master->ssm_enable = 1;
        g_s_master->ssm_extend = extend;
        for (unsigned i = 1; i <= count; ++i) add_port(i);
    }

    // What a port sends is bounded; that is not what is measured.
    void earn_event_pdus() const {
        for (interface* intf : ports) ssm_if_port(intf)->event_credit = 0;
    }

    void add_port(unsigned index) {
        const std::string name = "s" + std::to_string(index);
        interface* intf = if_add(g_p_esmcd->ifm, name.c_str(), index, IF_TYPE_SYNCE);
        if (!intf) bench_die("if_add");
        intf->kernel_ifindex = if_nametoindex(name.c_str());
        intf->mac[0] = 2;
        intf->mac[5] = static_cast<std::uint8_t>(index);
        slow_socket_port_bound(intf);
        if_bind(g_p_esmcd->ifm, intf);
        if_up(g_p_esmcd->ifm, intf);
        (void)ssm_opts_set_port_synce(intf, 1);
        ports.push_back(intf);
    }

    ~bench_daemon() {
        while (g_p_esmcd->ifm->count) {
            interface* intf = g_p_esmcd->ifm->items[0];
            if_unbind(g_p_esmcd->ifm, intf);
            slow_socket_port_unbound(intf);
            if_remove(g_p_esmcd->ifm, intf);
        }
        nsm_client_stop(ssm_instance->nsm_client);
        close_ssm();
        lib_stop(g_p_esmcd);
        memmgr_free(ssm_instance, MTYPE_SSM_INSTANCE);
        memmgr_free(g_s_master, MTYPE_SSM_MASTER);
        g_p_esmcd = nullptr;
        ssm_instance = nullptr;
        g_s_master = nullptr;
    }
    bench_daemon(const bench_daemon&) = delete;
    bench_daemon& operator=(const bench_daemon&) = delete;
};

// The neighbours: one send-only socket, a frame through the far end of a pair.
struct bench_neighbours {
    int fd = among_neighbours([] { return socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0); });
    std::vector<int> kernel_ifindex;
    std::vector<std::uint8_t> frame;

    explicit bench_neighbours(unsigned count, bool extend = false) : frame(60) {
        for (unsigned i = 1; i <= count; ++i)
            kernel_ifindex.push_back(among_neighbours(
                [&] { return static_cast<int>(if_nametoindex(("n" + std::to_string(i)).c_str())); }));
        const std::uint8_t head[] = {0x01, 0x80, 0xC2, 0,    0, 2,    2,    0xEE, 0, 0,   0,
                                     1,    0x88, 0x09, 0x0A, 0, 0x19, 0xA7, 0,    1, 0x10};
        std::memcpy(frame.data(), head, sizeof head);
        frame[14 + esmc::QL_TLV_TYPE] = 1;
        frame[14 + esmc::QL_TLV_LENGTH + 1] = 4;
        frame[14 + esmc::QUALITY] = QL_PRC;
        if (!extend) return;
        frame[14 + esmc::EXT_TLV_TYPE] = 2;
        frame[14 + esmc::EXT_TLV_LENGTH + 1] = esmc::LENGTH_EXT;
    }
    ~bench_neighbours() { close(fd); }

    void say(std::uint8_t quality) { frame[14 + esmc::QUALITY] = quality; }

    // `count` frames, one port after the other.
    void send(unsigned count) {
        sockaddr_ll to = {};
        to.sll_family = AF_PACKET;
        to.sll_halen = 6;
        for (unsigned i = 0; i < count; ++i) {
            to.sll_ifindex = kernel_ifindex[i % kernel_ifindex.size()];
            if (frame[14 + esmc::EXT_TLV_TYPE])
                frame[14 + esmc::CLOCK_ID + 3] = static_cast<std::uint8_t>(1 + i % kernel_ifindex.size());
            if (sendto(fd, frame.data(), frame.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to) < 0)
                bench_die("sendto");
        }
    }
};

// Runs the next event of the loop, which must have one coming (a timer at least). Whether it took a frame.
inline bool run_event_takes_frame() {
    thread event;
    if (!thread_fetch(g_p_esmcd, &event)) bench_die("the loop has run dry");
    const bool receives = event.func == recv_ssm;
    return ssm_run_event(&event) >= 0 && receives;
}

// Sends what the daemon sends: one frame of the same length on each port, as fast as bare calls go.
struct bare_sender {
    int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    std::uint8_t frame[60] = {0x01, 0x80, 0xC2, 0, 0, 2, 2, 0, 0, 0, 0, 1, 0x88, 0x09};
    std::vector<sockaddr_ll> to;
    std::vector<iovec> octets;
    std::vector<mmsghdr> messages;

    explicit bare_sender(const std::vector<interface*>& ports)
        : to(ports.size()), octets(ports.size()), messages(ports.size()) {
        for (std::size_t i = 0; i < ports.size(); ++i) {
            to[i].sll_family = AF_PACKET;
            to[i].sll_halen = 6;
            to[i].sll_ifindex = static_cast<int>(ports[i]->kernel_ifindex);
            octets[i] = {frame, sizeof frame};
            msghdr& header = messages[i].msg_hdr;  // whose order of members is the C library's
            header.msg_name = &to[i];
            header.msg_namelen = sizeof to[i];
            header.msg_iov = &octets[i];
            header.msg_iovlen = 1;
        }
    }
    ~bare_sender() { close(fd); }
    bare_sender(const bare_sender&) = delete;
    bare_sender& operator=(const bare_sender&) = delete;

    void send_each() {
        for (const sockaddr_ll& one : to)
            if (sendto(fd, frame, sizeof frame, MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&one),
                       sizeof one) < 0)
                bench_die("sendto");
    }
    void send_at_once() {
        for (std::size_t done = 0; done < messages.size();) {
            const int sent =
                sendmmsg(fd, &messages[done], static_cast<unsigned>(messages.size() - done), MSG_DONTWAIT);
            if (sent < 1) bench_die("sendmmsg");
            done += static_cast<std::size_t>(sent);
        }
    }
};

// What the daemon is held against: a socket with the same filter and nothing behind it.
struct bare_socket {
    int fd = socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int epoll = epoll_create1(EPOLL_CLOEXEC);

    bare_socket() {
        static sock_filter code[] = {{0x20, 0, 0, 0},      {0x15, 0, 9, 0x0180c200}, {0x28, 0, 0, 4},
                                     {0x15, 0, 7, 0x0002}, {0x28, 0, 0, 12},         {0x15, 0, 5, 0x8809},
                                     {0x30, 0, 0, 14},     {0x15, 0, 3, 0x0a},       {0x30, 0, 0, 0xfffff004},
                                     {0x15, 0, 1, 2},      {0x06, 0, 0, 0x40000},    {0x06, 0, 0, 0}};
        const sock_fprog filter = {static_cast<unsigned short>(std::size(code)), code};
        const int size = 8 << 20;
        const int one = 1;
        (void)setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter);
        (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size);
        (void)setsockopt(fd, SOL_PACKET, PACKET_ORIGDEV, &one, sizeof one);
        sockaddr_ll any = {};
        any.sll_family = AF_PACKET;
        any.sll_protocol = htons(ETHERTYPE_SLOW);
        if (bind(fd, reinterpret_cast<sockaddr*>(&any), sizeof any) < 0) bench_die("bind");
        epoll_event event = {EPOLLIN, {}};
        (void)epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event);
    }
    ~bare_socket() {
        close(epoll);
        close(fd);
    }
    bare_socket(const bare_socket&) = delete;
    bare_socket& operator=(const bare_socket&) = delete;

    bool receive() {
        std::uint8_t buffer[128];
        sockaddr_ll from;
        socklen_t length = sizeof from;
        return recvfrom(fd, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &length) > 0;
    }
};
