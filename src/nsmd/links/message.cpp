// Reads rtnetlink link messages into records and builds the two requests for them. Pure functions, called by
// the link watcher for each message. Whatever a message leaves out stays zero and clears `complete` where a
// decision hangs on it.
#include "nsmd/links/message.h"

#include <linux/if.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstring>

namespace {

// Newer than the oldest headers that we build with.
constexpr std::uint16_t ATTR_CARRIER_DOWN_COUNT = 48, ATTR_DPLL_PIN = 65, DPLL_PIN_ID = 1;
constexpr std::uint32_t FILTER_SKIP_STATS = 1 << 3;  // statistics are two thirds of a message

void parse_link_info(const_octets nest, link_info* out) {
    nl_attr attr;
    while (nl_next_attr(&nest, &attr))
        if (attr.type == IFLA_INFO_KIND) nl_copy_text(out->kind, attr.value);
}

// Kernels without clock hardware send the nest empty.
void parse_dpll_pin(const_octets nest, link_info* out) {
    nl_attr attr;
    while (nl_next_attr(&nest, &attr)) {
        if (attr.type != DPLL_PIN_ID || attr.value.size() < 4) continue;
        out->has_dpll_pin = true;
        out->dpll_pin = nl_u32(attr.value);
    }
}

void parse_attr(const nl_attr& attr, link_info* out) {
    switch (attr.type) {
        case IFLA_IFNAME:
            nl_copy_text(out->name, attr.value);
            break;
        case IFLA_ADDRESS:
            if (attr.value.size() == sizeof out->mac)
                std::memcpy(out->mac, attr.value.data(), sizeof out->mac);
            break;
        case IFLA_MASTER:
            out->master = nl_u32(attr.value);
            break;
        case IFLA_OPERSTATE:
            out->operstate = nl_u8(attr.value);
            break;
        case IFLA_CARRIER:
            out->carrier = nl_u8(attr.value) != 0;
            break;
        case IFLA_CARRIER_CHANGES:
            out->carrier_changes = nl_u32(attr.value);
            break;
        case ATTR_CARRIER_DOWN_COUNT:
            out->has_carrier_downs = attr.value.size() >= 4;
            out->carrier_downs = nl_u32(attr.value);
            break;
        case IFLA_LINKINFO:
            parse_link_info(attr.value, out);
            break;
        case ATTR_DPLL_PIN:
            parse_dpll_pin(attr.value, out);
            break;
        default:
            break;
    }
}

void begin_request(nl_builder* b, std::uint16_t flags, std::uint32_t sequence, std::uint32_t ifindex) {
    nl_begin(b, RTM_GETLINK, static_cast<std::uint16_t>(NLM_F_REQUEST | flags), sequence);
    ifinfomsg header{};
    header.ifi_index = static_cast<int>(ifindex);
    nl_put_raw(b, &header, sizeof header);
    nl_put_u32(b, IFLA_EXT_MASK, FILTER_SKIP_STATS);
}

}  // namespace

bool link_message_parse(const nl_message& message, link_info* out) {
    *out = link_info{};
    ifinfomsg header{};
    if (message.body.size() < sizeof header) return false;
    std::memcpy(&header, message.body.data(), sizeof header);
    if (header.ifi_family != 0 || header.ifi_index <= 0) return false;

    out->kernel_ifindex = static_cast<std::uint32_t>(header.ifi_index);
    out->hardware_type = header.ifi_type;
    out->flags = header.ifi_flags;
    bool has_state = false, has_carrier = false;
    const_octets rest = message.body.subspan(sizeof header);
    nl_attr attr;
    while (nl_next_attr(&rest, &attr)) {
        has_state |= attr.type == IFLA_OPERSTATE && !attr.value.empty();
        has_carrier |= attr.type == IFLA_CARRIER && !attr.value.empty();
        parse_attr(attr, out);
    }
    out->complete = has_state && has_carrier && out->name[0] != 0;
    return true;
}

bool link_is_up(const link_info& link) {
    if (!(link.flags & IFF_UP)) return false;
    // The operational state follows the carrier with a delay of up to a second: without carrier it is stale.
    if (!link.carrier) return false;
    return link.operstate == IF_OPER_UP || link.operstate == IF_OPER_UNKNOWN;
}

void link_message_dump(nl_builder* b, std::uint32_t sequence) {
    begin_request(b, NLM_F_DUMP, sequence, 0);
}

void link_message_get(nl_builder* b, std::uint32_t sequence, std::uint32_t kernel_ifindex) {
    begin_request(b, 0, sequence, kernel_ifindex);
}
