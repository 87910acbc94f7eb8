// The slow-protocol socket. Framing and counting run against a replaced edge; everything about the kernel
// runs over veth links in a network namespace that the test makes for itself.
#include "suite/slow_socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "suite/cli.h"
#include "suite/log.h"
#include "suite/memory.h"
#include "suite/thread.h"

namespace {

using octet_string = std::vector<std::uint8_t>;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::uint8_t GROUP[6] = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x02};

interface make_port(std::uint32_t ifindex, std::uint32_t kernel_ifindex, std::uint8_t mac_end = 0) {
    interface intf {};
    std::snprintf(intf.name, sizeof intf.name, "port%u", ifindex);
    intf.type = IF_TYPE_SYNCE;
    intf.ifindex = ifindex;
    intf.kernel_ifindex = kernel_ifindex;
    intf.mac[0] = 2;
    intf.mac[5] = mac_end;
    return intf;
}

slow_address to_group(std::uint32_t ifindex) {
    slow_address a{};
    std::copy(GROUP, GROUP + 6, a.destination);
    a.ifindex = ifindex;
    return a;
}

// Header of 14 octets and the payload; `type` big-endian as on the wire.
octet_string frame(const octet_string& payload, std::uint16_t type = 0x8809, const std::uint8_t* to = GROUP) {
    octet_string f(to, to + 6);
    f.insert(f.end(), {0x02, 0, 0, 0, 0, 0x99});
    f.push_back(static_cast<std::uint8_t>(type >> 8));
    f.push_back(static_cast<std::uint8_t>(type));
    f.insert(f.end(), payload.begin(), payload.end());
    return f;
}

std::string shown;  // by a command

int keep_output(void*, const char* format, ...) {
    char line[256];
    va_list args;
    va_start(args, format);
    const int n = vsnprintf(line, sizeof line, format, args);
    va_end(args);
    shown += line;
    return n;
}

// Runs a line in the exec mode; what it printed is in `shown`.
cli_result run_line(lib_globals* ctx, const char* text) {
    shown.clear();
    cli session{};
    session.out_func = keep_output;
    session.zg = ctx;
    session.ifm = &ctx->ifm;
    session.mode = EXEC_MODE;
    session.privilege = PRIVILEGE_MAX;
    return cli_run_line(ctx->ctree, &session, text);
}

slow_port_stats stats_of(std::uint32_t ifindex) {
    slow_port_stats s{};
    EXPECT_TRUE(slow_socket_port_stats(ifindex, &s));
    return s;
}

struct Socket : testing::Test {
    lib_globals* ctx = nullptr;
    int fd = -1;
    void SetUp() override {
        memory_init(36);
        log_use_sink(LOG_SINK_STDERR, false);
        ctx = lib_create("test");
        ctx->master = thread_master_create();
    }
    void TearDown() override {
        memmgr_fail_at(0);
        if (fd >= 0) slow_socket_close(ctx, fd);
        slow_socket_set_edge(nullptr);
        lib_stop(ctx);
        EXPECT_EQ(memmgr_type_stats(MTYPE_SLOW).blocks, 0u);
    }
};

// Framing -----------------------------------------------------------------------------------------------

struct Edge : Socket {
    octet_string sent;
    std::uint32_t sent_on = 0;
    int fails_with = 0;
    octet_string waiting;
    std::uint32_t waiting_from = 0;

    static int open(void*) { return ::open("/dev/null", O_RDWR | O_CLOEXEC); }
    static ssize_t send(void* arg, int, const_octets f, std::uint32_t kernel_ifindex) {
        auto* self = static_cast<Edge*>(arg);
        if (self->fails_with) {
            errno = self->fails_with;
            return -1;
        }
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
    slow_edge edge{open, send, receive, this};

    void SetUp() override {
        Socket::SetUp();
        slow_socket_set_edge(&edge);
        fd = slow_socket_open(ctx);
        ASSERT_GE(fd, 0);
    }
};

TEST_F(Edge, SendsAPaddedFrameFromThePortsOwnAddress) {
    const interface port = make_port(7, 42, 0x55);
    slow_socket_port_bound(&port);
    const octet_string payload(50, 0xEE);
    EXPECT_EQ(slow_sendto(fd, payload, to_group(7)), 50);
    EXPECT_EQ(sent.size(), 64u) << "nothing is cut, nothing padded beyond the least";
    const octet_string pdu{0x0A, 1, 2, 3};
    EXPECT_EQ(slow_sendto(fd, pdu, to_group(7)), 4);
    octet_string expected(GROUP, GROUP + 6);
    expected.insert(expected.end(), {2, 0, 0, 0, 0, 0x55, 0x88, 0x09, 0x0A, 1, 2, 3});
    expected.resize(60);
    EXPECT_EQ(sent, expected) << "padding holds nothing of the frame before";
    EXPECT_EQ(sent_on, 42u);
    EXPECT_EQ(stats_of(7).frames_out, 2u);
}

TEST_F(Edge, CountsEachSendErrorForItsPort) {
    const interface port = make_port(7, 42);
    slow_socket_port_bound(&port);
    const octet_string pdu(46);
    for (const int error : {ENOBUFS, EAGAIN, ENETDOWN, ENXIO, ENODEV, EIO}) {
        fails_with = error;
        EXPECT_EQ(slow_sendto(fd, pdu, to_group(7)), -1);
        EXPECT_EQ(errno, error);
    }
    const slow_port_stats s = stats_of(7);
    EXPECT_EQ(s.no_buffer, 1u);
    EXPECT_EQ(s.again, 1u);
    EXPECT_EQ(s.link_down, 1u);
    EXPECT_EQ(s.no_device, 2u);
    EXPECT_EQ(s.other_errors, 1u);
    EXPECT_EQ(s.frames_out, 0u);
    fails_with = 0;
    EXPECT_EQ(slow_sendto(fd, pdu, to_group(8)), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(slow_sendto(fd, octet_string(2000), to_group(7)), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_EQ(slow_sendto(-1, pdu, to_group(7)), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(Edge, ReceivesPayloadAndAddress) {
    const interface port = make_port(7, 42);
    slow_socket_port_bound(&port);
    waiting = frame({0x0A, 9, 8, 7});
    waiting_from = 42;
    std::uint8_t buffer[64];
    slow_address from{};
    ASSERT_EQ(slow_recvfrom(fd, buffer, &from), 4);
    EXPECT_EQ(octet_string(buffer, buffer + 4), (octet_string{0x0A, 9, 8, 7}));
    EXPECT_TRUE(std::equal(GROUP, GROUP + 6, from.destination));
    EXPECT_EQ(from.source[5], 0x99);
    EXPECT_EQ(from.ifindex, 7u);
    EXPECT_EQ(slow_recvfrom(fd, octets(buffer, 2), &from), 2);  // cut

    const std::uint64_t unknown = slow_socket_stats().unknown_port, shorts = slow_socket_stats().short_frames;
    waiting_from = 43;
    EXPECT_EQ(slow_recvfrom(fd, buffer, &from), 4);
    EXPECT_EQ(from.ifindex, 0u);
    waiting.resize(13);
    EXPECT_EQ(slow_recvfrom(fd, buffer, &from), -1);
    EXPECT_EQ(slow_socket_stats().unknown_port, unknown + 1);
    EXPECT_EQ(slow_socket_stats().short_frames, shorts + 1);
    EXPECT_EQ(stats_of(7).frames_in, 2u);
}

// Ports come, go, and exchange their kernel indexes; every lookup must find what a plain map would.
TEST_F(Edge, FindsEveryPortThroughAllChanges) {
    std::vector<std::uint32_t> kernel(1200, 0);  // by port, 0: unbound
    std::uint8_t buffer[64];
    slow_address from{};
    std::uint32_t random = 1;
    for (int step = 0; step < 6000; ++step) {
        random = random * 1664525 + 1013904223;
        const std::uint32_t ifindex = 1 + (random >> 8) % 300 + ((random >> 20) % 3) * 256;
        interface port = make_port(ifindex, 1 + (random >> 16) % 2000);
        if ((random >> 5) % 3 == 0) {
            slow_socket_port_unbound(&port);
            kernel[ifindex] = 0;
        } else {
            slow_socket_port_bound(&port);
            for (std::uint32_t& k : kernel)
                if (k == port.kernel_ifindex) k = UINT32_MAX;  // taken over: bound, but nowhere
            kernel[ifindex] = port.kernel_ifindex;
        }
        waiting = frame({0x0A});
        waiting_from = 1 + (random >> 16) % 2000;
        std::uint32_t expected = 0;
        for (std::uint32_t i = 1; i < kernel.size(); ++i)
            if (kernel[i] == waiting_from) expected = i;
        ASSERT_EQ(slow_recvfrom(fd, buffer, &from), 1);
        ASSERT_EQ(from.ifindex, expected) << "step " << step;
        slow_port_stats s;
        ASSERT_EQ(slow_socket_port_stats(ifindex, &s), kernel[ifindex] != 0) << "step " << step;
    }
}

TEST_F(Edge, OpeningTakesTheBoundInterfacesAndFailuresLeaveNoPort) {
    interface* bound = if_add(&ctx->ifm, "eth1", 1, IF_TYPE_SYNCE);
    bound->kernel_ifindex = 11;
    if_bind(&ctx->ifm, bound);
    if_add(&ctx->ifm, "eth2", 2, IF_TYPE_SYNCE);
    interface* other_type = if_add(&ctx->ifm, "vlan3", 3, 1);
    if_bind(&ctx->ifm, other_type);
    fd = slow_socket_open(ctx);
    ASSERT_GE(fd, 0);
    slow_port_stats s;
    EXPECT_TRUE(slow_socket_port_stats(1, &s));
    EXPECT_FALSE(slow_socket_port_stats(2, &s));
    EXPECT_FALSE(slow_socket_port_stats(3, &s));
    slow_socket_port_unbound(bound);
    for (std::uint64_t nth = 1; nth <= 3; ++nth) {
        memmgr_fail_at(nth);
        slow_socket_port_bound(bound);
        EXPECT_FALSE(slow_socket_port_stats(1, &s)) << "allocation " << nth;
        memmgr_fail_at(0);
    }
    slow_socket_port_bound(bound);
    EXPECT_TRUE(slow_socket_port_stats(1, &s));
}

TEST_F(Edge, ShowsALineAPort) {
    ASSERT_EQ(lib_start(ctx), 0);
    log_use_sink(LOG_SINK_STDERR, false);
    ASSERT_EQ(slow_socket_cli_init(ctx), 0);
    interface* port = if_add(&ctx->ifm, "eth7", 7, IF_TYPE_SYNCE);
    slow_socket_port_bound(port);
    if_add(&ctx->ifm, "eth8", 8, IF_TYPE_SYNCE);  // not bound: no line
    fails_with = ENETDOWN;
    for (int i = 0; i < 3; ++i) (void)slow_sendto(fd, octet_string(46), to_group(7));
    ASSERT_EQ(run_line(ctx, "show slow-protocols"), cli_result::ok);
    const std::size_t line = shown.find("\neth7 ");
    ASSERT_NE(line, std::string::npos) << shown;
    EXPECT_EQ(shown.substr(line + 1),
              "eth7                 7          0          0         0         0         0         3         "
              "0         "
              "0\n");
}

// The kernel -----------------------------------------------------------------------------------------------

struct Kernel : Socket {
    int home = -1;
    struct received {
        octet_string payload;
        slow_address from;
    };
    std::vector<received> frames;
    bool reading = false;

    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root for a network namespace and raw sockets";
        Socket::SetUp();
        home = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
        ASSERT_EQ(unshare(CLONE_NEWNET), 0);
    }
    void TearDown() override {
        if (home < 0) return;
        Socket::TearDown();
        ASSERT_EQ(setns(home, CLONE_NEWNET), 0);  // the test's namespace goes with its last user
        close(home);
    }

    static bool run(const std::string& command) { return std::system(command.c_str()) == 0; }

    // near0..n-1 with their other ends far0..n-1, all up; ports 1..n on the near ends.
    static void make_links(unsigned count) {
        std::string commands;
        for (unsigned i = 0; i < count; ++i) {
            const std::string n = std::to_string(i);
            commands += "link add name near" + n + " type veth peer name far" + n + "\nlink set near" + n +
                        " up\nlink set far" + n + " up\n";
        }
        ASSERT_TRUE(run("ip -batch - <<'END'\n" + commands + "END\n"));
        for (unsigned i = 0; i < count; ++i) {
            ASSERT_TRUE(running("near" + std::to_string(i)));
            ASSERT_TRUE(running("far" + std::to_string(i)));
        }
        // The kernel shows a link as running a moment before frames pass; a change waits for that.
        ASSERT_TRUE(run("ip link set near0 up"));
    }
    static bool running(const std::string& name) {
        const int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        const auto deadline = steady_clock::now() + milliseconds(5000);
        ifreq request{};
        name.copy(request.ifr_name, IFNAMSIZ - 1);
        while (ioctl(s, SIOCGIFFLAGS, &request) == 0 && !(request.ifr_flags & IFF_RUNNING) &&
               steady_clock::now() < deadline)
            usleep(1000);
        close(s);
        return request.ifr_flags & IFF_RUNNING;
    }
    void open_with_ports(unsigned count) {
        fd = slow_socket_open(ctx);
        ASSERT_GE(fd, 0);
        for (unsigned i = 0; i < count; ++i) {
            const interface port = make_port(i + 1, index_of("near", i), static_cast<std::uint8_t>(i));
            slow_socket_port_bound(&port);
        }
    }
    static unsigned index_of(const char* what, unsigned n) {
        return if_nametoindex((what + std::to_string(n)).c_str());
    }

    // The neighbour: one socket that sends whole frames on any far end.
    int far_socket(int protocol = 0) {
        const int s = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK,
                             htons(static_cast<std::uint16_t>(protocol)));
        EXPECT_GE(s, 0);
        return s;
    }
    static void inject(int s, unsigned n, const octet_string& f) {
        sockaddr_ll to{};
        to.sll_family = AF_PACKET;
        to.sll_ifindex = static_cast<int>(index_of("far", n));
        to.sll_halen = 6;
        ASSERT_EQ(sendto(s, f.data(), f.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to),
                  static_cast<ssize_t>(f.size()));
    }

    static int on_frame(thread* event) {
        auto* self = static_cast<Kernel*>(event->arg);
        std::uint8_t buffer[64];
        received r{};
        const ssize_t n = slow_recvfrom(event->fd, buffer, &r.from);
        EXPECT_GE(n, 0) << "the loop said that there is a frame: " << strerror(errno);
        if (n >= 0) {
            r.payload.assign(buffer, buffer + n);
            self->frames.push_back(r);
        }
        thread_add_read_high(event->ctx, on_frame, self, event->fd);
        return 0;
    }
    static int on_tick(thread* event) {
        *static_cast<thread**>(event->arg) = nullptr;
        return 0;
    }
    // Reads through the loop until there are `count` frames in all; false after the deadline.
    bool read_until(std::size_t count, milliseconds limit = milliseconds(5000)) {
        if (!reading) thread_add_read_high(ctx, on_frame, this, fd);
        reading = true;
        const auto deadline = steady_clock::now() + limit;
        thread* tick = nullptr;
        while (frames.size() < count && steady_clock::now() < deadline) {
            if (!tick) tick = thread_add_timer_msec(ctx, on_tick, &tick, 5);
            thread event;
            if (thread_fetch(ctx, &event)) thread_call(&event);
        }
        thread_cancel(tick);
        return frames.size() >= count;
    }
};

// Frames of one port arrive in their order, so a last good frame shows what was let through before it.
TEST_F(Kernel, LetsThroughUntaggedEsmcFramesOfTheGroupOnly) {
    make_links(1);
    open_with_ports(1);
    const int s = far_socket();
    const std::uint8_t lldp_group[6] = {0x01, 0x80, 0xC2, 0, 0, 0x0E},
                       all[6] = {255, 255, 255, 255, 255, 255};
    const octet_string esmc(46, 0x0A);
    octet_string lacp(46, 1);
    inject(s, 0, frame(lacp));                 // LACP
    inject(s, 0, frame(octet_string(46, 3)));  // OAM
    inject(s, 0, frame(esmc, 0x88CC));         // LLDP's type
    inject(s, 0, frame(esmc, 0x8809, lldp_group));
    inject(s, 0, frame(esmc, 0x8809, all));
    octet_string tagged = frame({0x00, 0x05, 0x88, 0x09}, 0x8100);  // VLAN 5
    tagged.insert(tagged.end(), esmc.begin(), esmc.end());
    inject(s, 0, tagged);
    inject(s, 0, frame({0x0A, 0xAB, 0xCD}));  // shorter than Ethernet's least: accepted
    ASSERT_TRUE(read_until(1));
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].payload, (octet_string{0x0A, 0xAB, 0xCD}));
    EXPECT_EQ(frames[0].from.ifindex, 1u);
    EXPECT_EQ(frames[0].from.source[5], 0x99);
    EXPECT_TRUE(std::equal(GROUP, GROUP + 6, frames[0].from.destination));
    close(s);
}

TEST_F(Kernel, ABurstOfAllPortsLosesNothingAndKeepsItsOrder) {
    constexpr unsigned PORTS = 64, EACH = 8;  // twice what a socket's ordinary buffer holds
    make_links(PORTS);
    open_with_ports(PORTS);
    const int s = far_socket();
    std::vector<octet_string> payloads;
    for (unsigned round = 0; round < EACH; ++round)
        for (unsigned i = 0; i < PORTS; ++i) {
            octet_string p(46, 0x0A);
            p[1] = static_cast<std::uint8_t>(round);
            inject(s, i, frame(p));
        }
    ASSERT_TRUE(read_until(PORTS * EACH)) << frames.size();
    for (unsigned n = 0; n < PORTS * EACH; ++n) {
        ASSERT_EQ(frames[n].from.ifindex, n % PORTS + 1) << n;
        ASSERT_EQ(frames[n].payload[1], n / PORTS) << n;
    }
    EXPECT_EQ(slow_socket_stats().kernel_drops, 0u);
    EXPECT_EQ(stats_of(PORTS).frames_in, EACH);

    // One at a time from here on: what is read ahead must never hold a frame back.
    for (unsigned n = 1; n <= 50; ++n) {
        inject(s, n % PORTS, frame(octet_string(46, 0x0A)));
        ASSERT_TRUE(read_until(PORTS * EACH + n));
    }
    close(s);
}

TEST_F(Kernel, CountsWhatTheReceiveBufferHadNoRoomFor) {
    make_links(1);
    open_with_ports(1);
    int small = 2048;
    ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small), 0);
    const int s = far_socket();
    const std::uint64_t before = slow_socket_stats().kernel_drops;
    for (int i = 0; i < 100; ++i) inject(s, 0, frame(octet_string(46, 0x0A)));
    // Sooner or later each of them has either been read or been counted.
    std::uint64_t lost = 0;
    for (int tries = 0; tries < 200 && frames.size() + lost < 100; ++tries) {
        (void)read_until(frames.size() + 1, milliseconds(20));
        lost = slow_socket_stats().kernel_drops - before;
    }
    EXPECT_EQ(frames.size() + lost, 100u);
    EXPECT_GT(lost, 50u);
    EXPECT_EQ(slow_socket_stats().kernel_drops - before, lost) << "reading resets the kernel's counter";
    close(s);
}

TEST_F(Kernel, SendsOnThePortNamedAndDoesNotHearItself) {
    make_links(2);
    open_with_ports(2);
    const int s = far_socket(0x8809);
    ASSERT_EQ(slow_sendto(fd, octet_string{0x0A, 0x11}, to_group(2)), 2);
    octet_string heard(200);
    sockaddr_ll from{};
    socklen_t length = sizeof from;
    pollfd ready{s, POLLIN, 0};
    ASSERT_EQ(poll(&ready, 1, 5000), 1);
    const ssize_t n = recvfrom(s, heard.data(), heard.size(), 0, reinterpret_cast<sockaddr*>(&from), &length);
    ASSERT_EQ(n, 60);
    EXPECT_EQ(static_cast<unsigned>(from.sll_ifindex), index_of("far", 1));
    EXPECT_EQ(heard[11], 1) << "the port's own source address";
    EXPECT_EQ(heard[12] << 8 | heard[13], 0x8809);
    EXPECT_EQ(heard[15], 0x11);
    EXPECT_EQ(heard[16], 0);
    close(s);
    std::uint8_t buffer[64];
    slow_address a{};
    // The far ends are in this namespace too, so the socket hears them, as ports that nobody bound.
    while (slow_recvfrom(fd, buffer, &a) >= 0) EXPECT_EQ(a.ifindex, 0u);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(Kernel, PortsThatAreDownOrGoneFailAlone) {
    make_links(2);
    open_with_ports(2);
    const octet_string pdu(46, 0x0A);
    ASSERT_TRUE(run("ip link set near0 down"));
    EXPECT_EQ(slow_sendto(fd, pdu, to_group(1)), -1);
    EXPECT_EQ(stats_of(1).link_down, 1u);
    EXPECT_EQ(slow_sendto(fd, pdu, to_group(2)), 46);
    ASSERT_TRUE(run("ip link del near0"));
    EXPECT_EQ(slow_sendto(fd, pdu, to_group(1)), -1);
    EXPECT_EQ(stats_of(1).no_device, 1u);
    // The port comes back as another device.
    make_links(1);
    const interface again = make_port(1, index_of("near", 0));
    slow_socket_port_bound(&again);
    EXPECT_EQ(slow_sendto(fd, pdu, to_group(1)), 46);
    const int s = far_socket();
    inject(s, 0, frame({0x0A, 0x77}));
    // What near1 was sent above arrived at far1, which is here as well; only port 1 is of interest.
    ASSERT_TRUE(read_until(3));
    EXPECT_EQ(frames.back().from.ifindex, 1u);
    close(s);
}

TEST_F(Kernel, JoinsTheGroupPerBoundPortAndLeavesIt) {
    make_links(2);
    open_with_ports(2);
    const auto member = [](const char* name) {
        return run(std::string("ip maddr show dev ") + name + " | grep -q 01:80:c2:00:00:02");
    };
    EXPECT_TRUE(member("near0"));
    EXPECT_TRUE(member("near1"));
    EXPECT_FALSE(member("far0"));
    interface port = make_port(1, index_of("near", 0));
    slow_socket_port_bound(&port);  // a second bind
    slow_socket_port_unbound(&port);
    EXPECT_FALSE(member("near0"));
    port = make_port(2, index_of("far", 0));  // changed kernel index
    slow_socket_port_bound(&port);
    EXPECT_FALSE(member("near1"));
    EXPECT_TRUE(member("far0"));
    slow_socket_close(ctx, fd);
    EXPECT_FALSE(member("far0"));
    fd = -1;
}

TEST_F(Kernel, AStuckPortStarvesNoOther) {
    make_links(3);
    open_with_ports(3);
    // 1 kbit/s behind a queue that takes everything: frames stay and keep their share of the send buffer.
    if (!run("tc qdisc add dev near0 root tbf rate 1kbit burst 1600 limit 100000000"))
        GTEST_SKIP() << "this kernel has no token bucket queue";
    int small = 16384;
    ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    const octet_string pdu(46, 0x0A);
    int sent = 0;
    while (sent < 5000 && slow_sendto(fd, pdu, to_group(1)) == 46) ++sent;
    ASSERT_LT(sent, 5000);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(stats_of(1).again, 1u);
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(slow_sendto(fd, pdu, to_group(2)), 46) << i;
        ASSERT_EQ(slow_sendto(fd, pdu, to_group(3)), 46) << i;
    }
    EXPECT_EQ(stats_of(2).frames_out, 100u);
}

}  // namespace
