// The NSM link on the wire, shared by the client and by nsmd: message types, layouts, sizes. Big-endian. One
// packet of the SOCK_SEQPACKET socket is one message: an 8-octet header (u16 type, u16 length of the whole
// message, u32 sequence from 1) and the body. Octets beyond the known body are ignored.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr const char* NSM_SOCKET_PATH = "/run/nsmd.sock";
constexpr std::uint16_t NSM_LINK_VERSION = 1;
constexpr std::size_t NSM_HEADER_SIZE = 8;
constexpr std::size_t NSM_MESSAGE_MAX = 256;  // room for later fields; what is longer is dropped

enum nsm_message : std::uint16_t {
    NSM_MSG_HELLO = 1,      // u16 version, u16 protocol identifier, u32 service mask
    NSM_MSG_HELLO_ACK = 2,  // u32 status: 0 accepted
    NSM_MSG_SYNC_DONE = 3,
    // From the client, before it closes on purpose: nobody watches the quality any more. A server that does
    // not know the type drops it.
    NSM_MSG_BYE = 4,
    NSM_MSG_LINK_ADD = 10,
    NSM_MSG_LINK_DELETE = 11,  // u32 ifindex, u32 flags (may be absent)
    NSM_MSG_LINK_UP = 12,      // u32 ifindex
    NSM_MSG_LINK_DOWN = 13,    // u32 ifindex
    NSM_MSG_BRIDGE_ADD = 115,
    NSM_MSG_SSM_GLOBAL_ENABLE = 206,
    NSM_MSG_SSM_CLOCK_RECOVERY_SELECT = 207,
    NSM_MSG_SSM_HOLDOVER_ENABLE = 208,
    NSM_MSG_SSM_SELECTED_IF_INDEX = 209,      // u32 ifindex, u32 reserved
    NSM_MSG_SSM_SET_GEPHY_ROLE = 210,         // u32 ifindex, u32 role_enable, u32 role
    NSM_MSG_SSM_SEND_BACK_CLOCK_STATE = 211,  // u32 state, u32 source
    NSM_MSG_SSM_CLOCK_DETAIL = 212,           // a client that does not know it drops it
};

constexpr std::uint32_t NSM_LINK_GONE = 1;  // LINK_DELETE: the interface itself is gone

// Body of LINK_ADD, offsets from the body's start.
namespace nsm_link_body {
constexpr std::size_t IFINDEX = 0, KERNEL_IFINDEX = 4, TYPE = 8, FLAGS = 10, MAC = 12, NAME = 20;
constexpr std::size_t NAME_SIZE = 16, SIZE = 36;
constexpr std::uint16_t FLAG_UP = 1;
}  // namespace nsm_link_body

// Body of BRIDGE_ADD.
namespace nsm_bridge_body {
constexpr std::size_t NAME = 0, KIND = 16, ID = 20, MAC = 24, SIZE = 32;
}  // namespace nsm_bridge_body

// Body of CLOCK_DETAIL. What is not told (KNOWN) is zero. Errors, levels and states are numbered as in the
// kernel's clock interface.
namespace nsm_detail_body {
constexpr std::size_t SUBJECT =
    0;  // 0 the clock, else the interface index of a pin's port, 9999 an external input
constexpr std::size_t KNOWN = 4;                // bits below
constexpr std::size_t ERROR = 8, QUALITY = 12;  // of the clock
constexpr std::size_t STATE = 16;               // of a pin, operational
constexpr std::size_t OFFSET = 24;              // of a pin's frequency, signed, 10^-12
constexpr std::size_t FREQUENCY = 32;           // of a pin, measured, mHz
constexpr std::size_t LABEL = 40, LABEL_SIZE = 24, SIZE = 64;
constexpr std::uint32_t HAS_ERROR = 1, HAS_QUALITY = 2, HAS_STATE = 4, HAS_OFFSET = 8, HAS_FREQUENCY = 16;
}  // namespace nsm_detail_body
