// What one rtnetlink link message says, and the requests that ask for it.
#pragma once

#include <cstdint>

#include "nsmd/netlink/netlink.h"

constexpr std::size_t LINK_NAME_SIZE = 16;  // the kernel's, zero included

struct link_info {
    std::uint32_t kernel_ifindex;
    std::uint16_t hardware_type;  // ARPHRD_...
    std::uint32_t flags;          // IFF_...
    char name[LINK_NAME_SIZE];
    char kind[LINK_NAME_SIZE];  // empty for hardware
    std::uint8_t mac[6];        // zero when the link has none of six octets
    std::uint32_t master;       // kernel index of the bridge, bond, ...; 0 for none
    std::uint8_t operstate;     // IF_OPER_...
    bool carrier;
    std::uint32_t carrier_changes;
    bool has_carrier_downs;  // kernels from 4.16 on count each direction
    std::uint32_t carrier_downs;
    bool has_dpll_pin;
    std::uint32_t dpll_pin;
    // The message carries all that is needed. Some drivers send messages with a few attributes only: these
    // say that something happened to the link, and the kernel is to be asked what.
    bool complete;
};

// Reads the body of RTM_NEWLINK or RTM_DELLINK. False for messages that are no business of ours (of another
// address family: a bridge speaking about its port) or make no sense.
bool link_message_parse(const nl_message& message, link_info* out);

// Up for our purposes: enabled by the administrator and carrying traffic.
bool link_is_up(const link_info& link);

void link_message_dump(nl_builder* b, std::uint32_t sequence);
void link_message_get(nl_builder* b, std::uint32_t sequence, std::uint32_t kernel_ifindex);
