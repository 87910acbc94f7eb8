// The slow-protocol packet socket: one descriptor for the ESMC frames of all ports. On a switch kernel that
// has address family 59 it is that socket; elsewhere one AF_PACKET socket behind the same contract: a
// datagram is the frame from the Slow Protocols subtype octet on, with a 16-octet address.
#pragma once

#include <sys/types.h>
#include <cstddef>
#include <cstdint>
#include <span>

#include "suite/base/context.h"
#include "suite/base/octets.h"
#include "suite/ports/interface.h"

constexpr std::size_t SLOW_PAYLOAD_MIN =
    46;  // what an Ethernet frame must carry; shorter payloads are padded with zeros

struct slow_address {
    std::uint8_t destination[6];
    std::uint8_t source[6];  // zero on sending: the port's own address is used
    std::uint32_t ifindex;  // the daemon's interface index, host order; on receipt 0 when the port is unknown
};
static_assert(sizeof(slow_address) == 16);

// Returns the descriptor, or a negative errno. One socket a process: opening it again closes the former. Its
// ports are the bound interfaces of type IF_TYPE_SYNCE in the list at that time, and those bound later;
// closing forgets them and their counters.
int slow_socket_open(lib_globals* ctx);
void slow_socket_close(lib_globals* ctx, int fd);

// Both never block. Octets of payload sent, or -1 with errno; each error is counted for its port.
ssize_t slow_sendto(int fd, const_octets payload, const slow_address& to);
// While one of these lives (one at a time), frames are collected, and leave together, in as few system calls
// as can be, at the latest when it goes. slow_sendto then only says that it took a frame; what becomes of it
// is counted.
struct slow_sending_together {
    slow_sending_together();
    ~slow_sending_together();
    slow_sending_together(const slow_sending_together&) = delete;
    slow_sending_together& operator=(const slow_sending_together&) = delete;
};
// Octets received (cut at the buffer's end, and at 146), or -1 with errno. Frames may have been read ahead:
// the event loop is told, a plain poll of the descriptor does not show them.
ssize_t slow_recvfrom(int fd, octets payload, slow_address* from);

// Told by the NSM client when an interface is bound, unbound, or changes its kernel index or address: joins
// or leaves the multicast group and keeps the mapping between the two indexes. Bound is told before the bind
// hook, unbound after the unbind hook. Nothing happens while the socket is closed.
void slow_socket_port_bound(const interface* intf);
void slow_socket_port_unbound(const interface* intf);

enum class slow_kind : std::uint8_t {
    closed,
    native,    // the switch kernel's own family: datagrams and addresses as the daemon wants them
    packet,    // AF_PACKET: whole Ethernet frames, kernel indexes
    replaced,  // a test's edge: whole Ethernet frames, kernel indexes
};

struct slow_opened {
    int fd;  // or a negative errno; while closed -1
    slow_kind kind;
    bool filtered;                    // packet: the kernel hands over nothing but untagged ESMC frames
    int receive_buffer, send_buffer;  // octets, as the kernel counts them
};

slow_opened slow_socket_opened();

struct slow_port_stats {
    std::uint64_t frames_in, frames_out;
    std::uint64_t limited;    // frames dropped because the port brought too many
    std::uint64_t unheard;    // frames dropped because the port's index is too great to be found by a frame
    std::uint64_t held_back;  // frames that the protocol sent later, because the port had sent too many
    std::uint64_t no_buffer, again, link_down, no_device, other_errors;  // sends that failed
};
// False when the port is unknown.
bool slow_socket_port_stats(std::uint32_t ifindex, slow_port_stats* stats);

// How many frames a second a port may bring in for long. A slow protocol sends ten at the most (IEEE 802.3
// annex 57A); what goes beyond a burst of SLOW_BURST frames is counted and dropped before it costs the daemon
// anything. 0: no limit.
constexpr std::uint32_t SLOW_RATE_DEFAULT = 10;
constexpr std::uint32_t SLOW_BURST = 100;
void slow_socket_set_rate_limit(std::uint32_t frames_per_second);
std::uint32_t slow_socket_rate_limit();

struct slow_stats {
    std::uint64_t frames_in, frames_out, unknown_port, short_frames, limited, unheard;
    std::uint64_t kernel_drops;  // frames that the receive buffer had no room for
};
slow_stats slow_socket_stats();
void slow_socket_count_held_back(std::uint32_t ifindex);
void slow_socket_count_short();  // the reader dropped a frame that was too short

// The tiny edge that tests replace. `open` returns a descriptor or a negative errno; with a replaced edge
// whole Ethernet frames go through `send`/`receive` with the kernel index, one frame a call, and no socket
// option is set. The descriptor is closed with close().
struct slow_edge {
    int (*open)(void* arg);
    ssize_t (*send)(void* arg, int fd, const_octets frame, std::uint32_t kernel_ifindex);
    ssize_t (*receive)(void* arg, int fd, octets frame, std::uint32_t* kernel_ifindex);
    void* arg;
};
void slow_socket_set_edge(const slow_edge* edge);  // null restores the real one
