// Opens the raw sockets behind the slow-protocol socket; nothing else in the daemon asks for the right to do
// so. Called by slow_socket.cpp at start-up, and again when a port needs a sending socket of its own.
//
// What can go wrong: no right to raw sockets (the caller's start-up fails), a kernel or an emulator without
// one of the options (said in the log, and done without).
#include "suite/ports/slow_state.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/pkt_sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "suite/base/address_family.h"
#include "suite/log/log.h"
#include "suite/ports/slow_socket.h"

namespace {

// Half of what the kernel grants. A frame of 60 octets costs 832 of them, so this holds 2500 frames: ten
// from each of 255 ports.
constexpr int RECEIVE_BUFFER = 1 << 20;
// A limit, not a reserve: what sits in the queue of a port that does not move counts against it. Large enough
// for the full queues of dozens of such ports.
constexpr int SEND_BUFFER = 32 << 20;

// Destination, EtherType, subtype, and packet type: a frame with a VLAN tag arrives with its tag removed
// without a trace, but as somebody else's (PACKET_OTHERHOST) when the VLAN is not 0.
constexpr sock_filter ESMC_ONLY[] = {
    {BPF_LD | BPF_W | BPF_ABS, 0, 0, 0},
    {BPF_JMP | BPF_JEQ | BPF_K, 0, 9, 0x0180C200},
    {BPF_LD | BPF_H | BPF_ABS, 0, 0, 4},
    {BPF_JMP | BPF_JEQ | BPF_K, 0, 7, 0x0002},
    {BPF_LD | BPF_H | BPF_ABS, 0, 0, 12},
    {BPF_JMP | BPF_JEQ | BPF_K, 0, 5, ETH_P_SLOW},
    {BPF_LD | BPF_B | BPF_ABS, 0, 0, 14},
    {BPF_JMP | BPF_JEQ | BPF_K, 0, 3, 0x0A},
    {BPF_LD | BPF_B | BPF_ABS, 0, 0, static_cast<std::uint32_t>(SKF_AD_OFF + SKF_AD_PKTTYPE)},
    {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, PACKET_MULTICAST},
    {BPF_RET | BPF_K, 0, 0, 0x40000},
    {BPF_RET | BPF_K, 0, 0, 0},
};

bool kernel_lacks_family(int error) {
    return error == EAFNOSUPPORT || error == EPFNOSUPPORT || error == EPROTONOSUPPORT ||
           error == ESOCKTNOSUPPORT || error == EINVAL;
}

bool set_option(int fd, int level, int option, const void* value, socklen_t length, const char* name) {
    if (setsockopt(fd, level, option, value, length) == 0) return true;
    log_suite(LOG_LEVEL_WARNING, "slow-protocol socket: option %s: %s", name, strerror(errno));
    return false;
}

// A PDU overtakes the traffic that waits in its port's queue, as far as the queue knows classes. A kernel
// that grants the class of network control to administrators only has one below it for everybody.
void set_priority(int fd) {
    int priority = TC_PRIO_CONTROL;
    if (setsockopt(fd, SOL_SOCKET, SO_PRIORITY, &priority, sizeof priority) == 0) return;
    priority = TC_PRIO_INTERACTIVE;
    (void)set_option(fd, SOL_SOCKET, SO_PRIORITY, &priority, sizeof priority, "SO_PRIORITY");
}

// The forced form goes beyond the system's limit and needs a right that the daemon may not have.
int set_buffer(int fd, int forced, int plain, int octets, const char* name) {
    if (setsockopt(fd, SOL_SOCKET, forced, &octets, sizeof octets) != 0)
        (void)set_option(fd, SOL_SOCKET, plain, &octets, sizeof octets, name);
    int granted = 0;
    socklen_t length = sizeof granted;
    if (getsockopt(fd, SOL_SOCKET, plain, &granted, &length) != 0) return 0;
    return granted;
}

bool attach_filter(int fd) {
    sock_fprog program{};
    program.len = sizeof ESMC_ONLY / sizeof ESMC_ONLY[0];
    program.filter = const_cast<sock_filter*>(ESMC_ONLY);  // the kernel reads it only
    return set_option(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program, "SO_ATTACH_FILTER");
}

slow_opened open_packet() {
    slow_opened s{};
    s.kind = slow_kind::packet;
    // Protocol 0 receives nothing: no frame gets in before the filter is attached.
    s.fd = slow_edge_open_sender();
    if (s.fd < 0) return s;
    s.filtered = attach_filter(s.fd);
    // A port that is a member of a bond shows as itself, not as the bond.
    const int on = 1;
    (void)set_option(s.fd, SOL_PACKET, PACKET_ORIGDEV, &on, sizeof on, "PACKET_ORIGDEV");
    s.receive_buffer = set_buffer(s.fd, SO_RCVBUFFORCE, SO_RCVBUF, RECEIVE_BUFFER, "SO_RCVBUF");
    s.send_buffer = set_buffer(s.fd, SO_SNDBUFFORCE, SO_SNDBUF, SEND_BUFFER, "SO_SNDBUF");

    sockaddr_ll all_ports{};
    all_ports.sll_family = AF_PACKET;
    all_ports.sll_protocol = htons(ETH_P_SLOW);
    if (bind(s.fd, reinterpret_cast<const sockaddr*>(&all_ports), sizeof all_ports) != 0) {
        const int error = errno;
        close(s.fd);
        s.fd = -error;
    }
    return s;
}

}  // namespace

int slow_edge_open_sender() {
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return -errno;
    set_priority(fd);
    return fd;
}

slow_opened slow_edge_open_real() {
    const int fd = socket(AF_SLOW_PROTOCOL, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0 && kernel_lacks_family(errno)) return open_packet();
    if (fd < 0) return {-errno, slow_kind::closed, false, 0, 0};
    set_priority(fd);
    return {fd, slow_kind::native, true, 0, 0};
}
