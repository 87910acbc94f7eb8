// The slow-protocol socket: framing and counting run against a replaced edge, and everything about the kernel
// over veth links in a namespace of the test's own.
#include "suite/parts/parts.h"
#include "suite/ports/slow_socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sched.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>

#include "unit/suite_support.h"

namespace {

using octet_string = std::vector<std::uint8_t>;

constexpr std::uint8_t GROUP[6] = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x02};
const octet_string PDU(46, 0x0A);

interface port(std::uint32_t ifindex, std::uint32_t kernel_ifindex, std::uint8_t mac_end = 0) {
    interface intf {};
    std::snprintf(intf.name, sizeof intf.name, "port%u", ifindex);
    intf.type = IF_TYPE_SYNCE;
    intf.ifindex = ifindex;
    intf.kernel_ifindex = kernel_ifindex;
    intf.mac[0] = 2;
    intf.mac[5] = mac_end;
    return intf;
}
void bind_port(const interface& port) {
    slow_socket_port_bound(&port);
}
octet_string frame(const octet_string& payload, std::uint16_t type = 0x8809,
                   const octet_string& to = {GROUP, GROUP + 6}) {
    octet_string f = to;
    f.insert(f.end(),
             {0x02, 0, 0, 0, 0, 0x99, static_cast<std::uint8_t>(type >> 8), static_cast<std::uint8_t>(type)});
    f.insert(f.end(), payload.begin(), payload.end());
    return f;
}
bool is_known(std::uint32_t ifindex) {
    slow_port_stats s;
    return slow_socket_port_stats(ifindex, &s);
}
slow_port_stats stats_of(std::uint32_t ifindex) {
    slow_port_stats s{};
    EXPECT_TRUE(slow_socket_port_stats(ifindex, &s));
    return s;
}

struct Socket : Suite {
    lib_globals* ctx = lib_create("test");
    int fd = -1;

    Socket() { ctx->master = thread_master_create(); }
    ~Socket() override {
        memmgr_fail_at(0);
        if (fd >= 0) slow_socket_close(ctx, fd);
        slow_socket_set_edge(nullptr);
        lib_stop(ctx);
    }
    // What was sent, or the negative errno.
    ssize_t send_to_group(std::uint32_t ifindex, const octet_string& payload = PDU, int other_fd = 0) const {
        slow_address a{};
        std::copy(GROUP, GROUP + 6, a.destination);
        a.ifindex = ifindex;
        const ssize_t sent = slow_sendto(other_fd ? other_fd : fd, payload, a);
        return sent == -1 ? -errno : sent;
    }
};

struct Edge : Socket {
    octet_string sent, waiting;
    std::uint32_t sent_on = 0, waiting_from = 0;
    int fails_with = 0;
    slow_edge edge{[](void*) { return ::open("/dev/null", O_RDWR | O_CLOEXEC); }, send, receive, this};

    Edge() {
        slow_socket_set_edge(&edge);
        fd = slow_socket_open(ctx);
    }
    static ssize_t send(void* arg, int, const_octets f, std::uint32_t kernel_ifindex) {
        auto* self = static_cast<Edge*>(arg);
        errno = self->fails_with;
        if (self->fails_with) return -1;
        self->sent.assign(f.begin(), f.end());
        self->sent_on = kernel_ifindex;
        return static_cast<ssize_t>(f.size());
    }
    static ssize_t receive(void* arg, int, octets f, std::uint32_t* kernel_ifindex) {
        auto* self = static_cast<Edge*>(arg);
        std::copy(self->waiting.begin(), self->waiting.end(), f.begin());
        *kernel_ifindex = self->waiting_from;
        return static_cast<ssize_t>(self->waiting.size());
    }
};

TEST_F(Edge, SendsAPaddedFrameFromThePortsOwnAddress) {
    bind_port(port(7, 42, 0x55));
    EXPECT_EQ(send_to_group(7, octet_string(50, 0xEE)), 50);
    EXPECT_EQ(sent.size(), 64u) << "nothing is cut, nothing padded beyond the least";
    EXPECT_EQ(send_to_group(7, {0x0A, 1, 2, 3}), 4);
    octet_string expected(GROUP, GROUP + 6);
    expected.insert(expected.end(), {2, 0, 0, 0, 0, 0x55, 0x88, 0x09, 0x0A, 1, 2, 3});
    expected.resize(60);
    EXPECT_EQ(sent, expected) << "padding holds nothing of the frame before";
    EXPECT_EQ(sent_on, 42u);
    EXPECT_EQ(stats_of(7).frames_out, 2u);
}

TEST_F(Edge, CountsEachErrorForItsPortAndShowsALineAPort) {
    ASSERT_EQ(lib_start(ctx), 0);
    log_use_sink(LOG_SINK_STDERR, false);
    ASSERT_EQ(slow_socket_cli_init(ctx), 0);
    slow_socket_port_bound(if_add(ctx->ifm, "eth7", 7, IF_TYPE_SYNCE));
    interface* high = if_add(ctx->ifm, "eth263", 263, IF_TYPE_SYNCE);  // 7 in eight bits
    high->kernel_ifindex = waiting_from = 43;
    slow_socket_port_bound(high);
    waiting = frame(PDU);
    std::uint8_t buffer[64];
    slow_address from{};
    EXPECT_EQ(slow_recvfrom(fd, buffer, &from), -1);
    if_add(ctx->ifm, "eth8", 8, IF_TYPE_SYNCE);  // not bound
    for (const auto& [error, times] :
         {std::pair{0, 2}, {ENOBUFS, 3}, {EAGAIN, 4}, {ENETDOWN, 5}, {ENXIO, 1}, {ENODEV, 5}, {EIO, 7}}) {
        fails_with = error;
        for (int i = 0; i < times; ++i) EXPECT_EQ(send_to_group(7), error ? -error : 46);
    }
    const std::string shown = line_runner(ctx).run("show slow-protocols");
    EXPECT_EQ(shown.substr(shown.find("\neth7") + 1),
              "eth7                 7          0          2         0         3         4         5         6"
              "         7\n"
              "eth263             263          0          0         0         0         0         0         0"
              "         0\n"
              "                 index above 255: 1 frames received and dropped\n");
    EXPECT_NE(shown.find(", of indexes above 255 1\n"), std::string::npos);
    fails_with = 0;
    EXPECT_EQ(send_to_group(8), -ENODEV);
    EXPECT_EQ(send_to_group(7, octet_string(2000)), -EMSGSIZE);
    EXPECT_EQ(send_to_group(7, PDU, -1), -EBADF);
}

TEST_F(Edge, ReceivesPayloadAndAddress) {
    bind_port(port(7, 42));
    waiting = frame({0x0A, 9, 8, 7});
    waiting_from = 42;
    std::uint8_t buffer[64];
    slow_address from{};
    ASSERT_EQ(slow_recvfrom(fd, buffer, &from), 4);
    EXPECT_EQ(octet_string(buffer, buffer + 4), (octet_string{0x0A, 9, 8, 7}));
    EXPECT_TRUE(std::equal(GROUP, GROUP + 6, from.destination));
    EXPECT_EQ(from.source[5], 0x99);
    EXPECT_EQ(from.ifindex, 7u);
    EXPECT_EQ(slow_recvfrom(fd, octets(buffer, 2), &from), 2) << "cut";

    const slow_stats before = slow_socket_stats();
    waiting_from = 43;
    EXPECT_EQ(slow_recvfrom(fd, buffer, &from), 4);
    waiting.resize(13);
    EXPECT_EQ(slow_recvfrom(fd, buffer, &from), -1);
    EXPECT_EQ(slow_socket_stats().unknown_port, before.unknown_port + 1);
    EXPECT_EQ(slow_socket_stats().short_frames, before.short_frames + 1);
    EXPECT_EQ(stats_of(7).frames_in, 2u);
}

// Ports come, go, and exchange their kernel indexes; every lookup must find what a plain map would.
TEST_F(Edge, LookupsAgreeWithAModelThroughAllChanges) {
    std::map<std::uint32_t, std::uint32_t> kernel_of, port_of;
    std::uint8_t buffer[64];
    std::mt19937 random(1);
    waiting = frame({0x0A});
    for (int step = 0; step < 6000; ++step) {
        const auto ifindex = static_cast<std::uint32_t>(1 + random() % 510);
        waiting_from = static_cast<std::uint32_t>(1 + random() % 2000);
        const interface changed = port(ifindex, waiting_from);
        if (kernel_of.contains(ifindex) && port_of[kernel_of[ifindex]] == ifindex)
            port_of[kernel_of[ifindex]] = 0;
        if (random() % 3 == 0) {
            slow_socket_port_unbound(&changed);
            kernel_of.erase(ifindex);
        } else {
            slow_socket_port_bound(&changed);
            kernel_of[ifindex] = waiting_from;
            port_of[waiting_from] = ifindex;  // whoever had it is bound, but nowhere
        }
        slow_address from{};
        // Beyond eight bits of index a frame would be taken for another port's.
        const bool is_heard = port_of[waiting_from] <= 255;
        const std::uint64_t unheard = slow_socket_stats().unheard;
        ASSERT_EQ(slow_recvfrom(fd, buffer, &from), is_heard ? 1 : -1);
        ASSERT_EQ(from.ifindex, is_heard ? port_of[waiting_from] : 0) << step;
        ASSERT_EQ(slow_socket_stats().unheard, unheard + !is_heard);
        ASSERT_EQ(is_known(ifindex), kernel_of.contains(ifindex)) << step;
    }
}

struct Kernel : Socket {
    int neighbour = -1;  // sends whole frames on any far end
    std::vector<std::pair<slow_address, octet_string>> frames;
    bool reading = false;

    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root for a network namespace and raw sockets";
        ASSERT_EQ(unshare(CLONE_NEWNET), 0);  // the next test's takes its place
        neighbour = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    }
    // Ports 1 and on are near0 and on, whose other ends are far0 and on.
    void make_ports(unsigned count) {
        // The kernel shows a link as running a moment before frames pass; a change waits for that.
        const std::string n = std::to_string(count), ends = std::to_string(2 * count);
        ASSERT_TRUE(run("for n in $(seq " + n +
                        "); do echo link add near$((n-1)) up type veth peer far$((n-1));"
                        "echo link set far$((n-1)) up; done | ip -batch -;"
                        "until [ $(ip -br link | grep -c ' UP ') = " +
                        ends +
                        " ]; do sleep 0.01; done;"
                        "ip link set near0 up"));
        fd = slow_socket_open(ctx);
        ASSERT_GE(fd, 0);
        for (unsigned i = 0; i < count; ++i) bind_port(port(i + 1, index_of("near", i)));
    }
    ~Kernel() override { close(neighbour); }

    static bool run(const std::string& command) { return std::system(command.c_str()) == 0; }
    static unsigned index_of(const char* what, unsigned n) {
        return if_nametoindex((what + std::to_string(n)).c_str());
    }
    void inject(unsigned n, const octet_string& f) const {
        sockaddr_ll to{};
        to.sll_family = AF_PACKET;
        to.sll_ifindex = static_cast<int>(index_of("far", n));
        ASSERT_EQ(sendto(neighbour, f.data(), f.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to),
                  static_cast<ssize_t>(f.size()));
    }
    static int on_frame(thread* event) {
        auto* self = static_cast<Kernel*>(event->arg);
        std::uint8_t buffer[64];
        slow_address from{};
        const ssize_t n = slow_recvfrom(event->fd, buffer, &from);
        EXPECT_GE(n, 0) << "the loop said that there is a frame: " << strerror(errno);
        self->frames.emplace_back(from, octet_string(buffer, buffer + std::max<ssize_t>(n, 0)));
        thread_add_read_high(event->ctx, on_frame, self, event->fd);
        return 0;
    }
    // Reads through the loop until there are `count` frames in all; false after `ms`.
    bool read_until(std::size_t count, std::uint32_t ms = 20000) {
        if (!std::exchange(reading, true)) thread_add_read_high(ctx, on_frame, this, fd);
        return run_loop(ctx, ms, [&] { return frames.size() >= count; });
    }
};

// Sooner or later each frame has either been read or been counted.
// The kernel knows the device a moment later than we were told of it.
TEST_F(Kernel, AGroupThatCanNotBeJoinedIsJoinedLater) {
    make_ports(1);
    interface* late = if_add(ctx->ifm, "late", 2, IF_TYPE_SYNCE);
    late->kernel_ifindex = 777;
    bind_port(*late);
    ASSERT_TRUE(run("ip link add late index 777 type veth peer name there"));
    EXPECT_TRUE(run_loop(ctx, 20'000, [&] { return run("ip maddr show late | grep -q 01:80:c2:00:00:02"); }));
}

TEST_F(Kernel, CountsWhatTheReceiveBufferHadNoRoomFor) {
    make_ports(1);
    const std::uint64_t drops_before = slow_socket_stats().kernel_drops;
    int small = 2048;
    ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small), 0);
    for (int i = 0; i < 100; ++i) inject(0, frame(PDU));
    std::uint64_t lost = 0;
    for (int tries = 0; tries < 200 && frames.size() + lost < 100; ++tries) {
        (void)read_until(frames.size() + 1, 20);
        lost = slow_socket_stats().kernel_drops - drops_before;
    }
    EXPECT_EQ(frames.size() + lost, 100u);
    EXPECT_GT(lost, 50u);
}

TEST_F(Kernel, OfFramesThatLeaveTogetherOnlyThoseThatCanNotLeaveAreMissing) {
    constexpr unsigned PORTS = 70;  // more than one batch
    make_ports(PORTS);
    ASSERT_TRUE(run("ip link set near2 down; ip link del near3"));
    const int ear = socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK, htons(0x8809));
    {
        const slow_sending_together together;
        octet_string own = PDU;
        for (unsigned i = 1; i <= PORTS; ++i) {
            own[20] = static_cast<std::uint8_t>(i);
            EXPECT_EQ(send_to_group(i, own), 46) << "taken, whatever comes of it";
        }
    }
    std::uint8_t heard[64];
    sockaddr_ll from{};
    socklen_t length = sizeof from;
    std::set<unsigned> ports;
    // What is on its way may take the kernel a moment.
    for (const nanoseconds end = monotonic_now() + 20 * NS_PER_S;
         ports.size() < PORTS - 2 && monotonic_now() < end;)
        if (recvfrom(ear, heard, sizeof heard, 0, reinterpret_cast<sockaddr*>(&from), &length) == 60 &&
            from.sll_ifindex == static_cast<int>(index_of("far", heard[14 + 20] - 1U)))
            ports.insert(heard[14 + 20]);
    close(ear);
    EXPECT_EQ(ports.size(), PORTS - 2) << "each port's own frame on its own link";
    EXPECT_EQ(stats_of(3).link_down, 1u);
    EXPECT_EQ(stats_of(4).no_device, 1u);
    EXPECT_EQ(stats_of(PORTS).frames_out, 1u);
}

TEST_F(Kernel, AStuckPortFailsAlone) {
    make_ports(2);
    // 1 kbit/s behind a queue that takes everything: frames stay and keep their share of the send buffer.
    if (!run("tc qdisc add dev near0 root tbf rate 1kbit burst 1600 limit 100000000"))
        GTEST_SKIP() << "this kernel has no token bucket queue";
    int small = 16384;
    ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    ssize_t result = 46;
    for (int sent = 0; sent < 5000 && result == 46; ++sent) result = send_to_group(1);
    EXPECT_EQ(result, -EAGAIN);
    EXPECT_EQ(stats_of(1).again, 1u);
    for (int i = 0; i < 100; ++i) ASSERT_EQ(send_to_group(2), 46) << i;
    EXPECT_EQ(stats_of(2).frames_out, 100u);
}

}  // namespace
