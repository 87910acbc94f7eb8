// What NSM says about interfaces: keeps the interface list and calls its hooks, and tells the slow-protocol
// socket which ports there are. Called by client.cpp for each message about a link.
//
// During a dump an interface that is known already is compared instead of bound again, and what the dump left
// out goes at its end; so a manager that restarts changes nothing that did not change.
//
// What can go wrong: an index or a name that can't be used (refused, logged), no memory for a record (logged,
// the interface is missing until NSM states it again).
#include <cinttypes>
#include <cstring>

#include "suite/base/memory.h"
#include "suite/log/log.h"
#include "suite/manager/record.h"
#include "suite/ports/interface.h"
#include "suite/ports/slow_socket.h"

namespace {

constexpr std::uint32_t EXTERNAL_INPUT = 9999;  // marker of the external clock input; no interface's index
constexpr std::uint32_t IFINDEX_MAX = 2147483647;
constexpr std::size_t FIRST_ROOM = 64;

struct link_record {
    std::uint32_t ifindex, kernel_ifindex;
    std::uint16_t type;
    bool up;
    std::uint8_t mac[6];
    char name[IF_NAME_SIZE];
};

link_record decode(const_octets body) {
    link_record r{};
    r.ifindex = get_be32(body, nsm_link_body::IFINDEX);
    r.kernel_ifindex = get_be32(body, nsm_link_body::KERNEL_IFINDEX);
    r.type = get_be16(body, nsm_link_body::TYPE);
    r.up = get_be16(body, nsm_link_body::FLAGS) & nsm_link_body::FLAG_UP;
    std::memcpy(r.mac, &body[nsm_link_body::MAC], sizeof r.mac);
    std::memcpy(r.name, &body[nsm_link_body::NAME], nsm_link_body::NAME_SIZE);  // the 17th octet stays zero
    return r;
}

bool usable_index(std::uint32_t ifindex) {
    return ifindex != 0 && ifindex != EXTERNAL_INPUT && ifindex <= IFINDEX_MAX;
}

// A name is a word of the command line and of the configuration file.
bool usable_name(const char* name) {
    if (*name == '\0') return false;
    for (; *name; ++name)
        if (static_cast<unsigned char>(*name) <= ' ' || *name == 0x7F) return false;
    return true;
}

void mention(nsm_client* nc, std::uint32_t ifindex) {
    if (nc->phase != nsm_client_phase::dump || nc->mention_lost) return;
    if (nc->mentioned_count == nc->mentioned_room) {
        const std::size_t room = nc->mentioned_room ? nc->mentioned_room * 2 : FIRST_ROOM;
        void* grown = memmgr_realloc(nc->mentioned, room * sizeof(std::uint32_t), MTYPE_NSM);
        if (!grown) {
            nc->mention_lost = true;
            return;
        }
        nc->mentioned = static_cast<std::uint32_t*>(grown);
        nc->mentioned_room = room;
    }
    nc->mentioned[nc->mentioned_count++] = ifindex;
}

bool was_mentioned(const nsm_client* nc, std::uint32_t ifindex) {
    for (std::size_t i = 0; i < nc->mentioned_count; ++i)
        if (nc->mentioned[i] == ifindex) return true;
    return false;
}

// The socket knows the port from before its bind hook to after its unbind hook, as either may send.
void bind_interface(nsm_client* nc, interface* intf) {
    slow_socket_port_bound(intf);
    if_bind(nc->ctx->ifm, intf);
}

void unbind_interface(nsm_client* nc, interface* intf) {
    if_unbind(nc->ctx->ifm, intf);
    intf->up = false;
    slow_socket_port_unbound(intf);
    nsm_client_requests_port_gone(nc, intf->ifindex);
}

void remove_interface(nsm_client* nc, interface* intf) {
    unbind_interface(nc, intf);
    if_remove(nc->ctx->ifm, intf);
}

void take_over_addresses(interface* intf, const link_record& r) {
    intf->kernel_ifindex = r.kernel_ifindex;
    std::memcpy(intf->mac, r.mac, sizeof intf->mac);
}

// The known interface of that index, if it is still the same one. A record that has another name, or whose
// name now belongs to this index, is an interface that is gone.
interface* known_interface(nsm_client* nc, const link_record& r) {
    if_master* ifm = nc->ctx->ifm;
    interface* namesake = if_lookup_by_name(ifm, r.name);
    if (namesake && namesake->ifindex != r.ifindex) remove_interface(nc, namesake);
    interface* intf = if_lookup_by_index(ifm, r.ifindex);
    if (intf && (std::strcmp(intf->name, r.name) != 0 || intf->type != r.type)) {
        remove_interface(nc, intf);
        return nullptr;
    }
    return intf;
}

// A new one, null without memory.
interface* add_interface(nsm_client* nc, const link_record& r) {
    interface* intf = if_add(nc->ctx->ifm, r.name, r.ifindex, r.type);
    if (!intf) {
        nsm_client_fault_seen(nc, nsm_client_fault::memory, "no memory for interface %s", r.name);
    } else if (r.type == IF_TYPE_SYNCE && r.ifindex > IF_INDEX_HEARD_MAX) {
        log_suite(LOG_LEVEL_WARNING,
                  "NSM: interface %s can't carry SSM: its index %" PRIu32 " is above %" PRIu32
                  ", what it receives is dropped",
                  r.name, r.ifindex, IF_INDEX_HEARD_MAX);
    }
    return intf;
}

void deliver_link_state(nsm_client* nc, interface* intf, bool up) {
    if (up)
        if_up(nc->ctx->ifm, intf);
    else
        if_down(nc->ctx->ifm, intf);
}

}  // namespace

void nsm_client_link_add(nsm_client* nc, const_octets body) {
    const link_record r = decode(body);
    if (!usable_index(r.ifindex)) {
        nsm_client_fault_seen(nc, nsm_client_fault::interface, "interface %s refused: index %" PRIu32, r.name,
                              r.ifindex);
        return;
    }
    if (!usable_name(r.name)) {
        nsm_client_fault_seen(nc, nsm_client_fault::interface,
                              "interface of index %" PRIu32 " refused: name \"%s\"", r.ifindex, r.name);
        return;
    }
    mention(nc, r.ifindex);
    interface* intf = known_interface(nc, r);
    if (!intf) intf = add_interface(nc, r);
    if (!intf) return;
    take_over_addresses(intf, r);
    if (nc->phase == nsm_client_phase::dump && intf->bound) {
        slow_socket_port_bound(intf);
        if (intf->up != r.up) deliver_link_state(nc, intf, r.up);
        return;
    }
    bind_interface(nc, intf);
    if (r.up || intf->up) deliver_link_state(nc, intf, r.up);
}

void nsm_client_link_delete(nsm_client* nc, const_octets body) {
    const std::uint32_t ifindex = get_be32(body, 0);
    const std::uint32_t flags = body.size() >= 8 ? get_be32(body, 4) : 0;
    interface* intf = if_lookup_by_index(nc->ctx->ifm, ifindex);
    if (!intf) {
        log_suite(LOG_LEVEL_DEBUG, "NSM: unknown interface %" PRIu32 " deleted", ifindex);
        return;
    }
    if (flags & NSM_LINK_GONE) return remove_interface(nc, intf);
    mention(nc, ifindex);
    unbind_interface(nc, intf);
}

void nsm_client_link_updown(nsm_client* nc, const_octets body, bool up) {
    const std::uint32_t ifindex = get_be32(body, 0);
    interface* intf = if_lookup_by_index(nc->ctx->ifm, ifindex);
    if (!intf) {
        log_suite(LOG_LEVEL_DEBUG, "NSM: unknown interface %" PRIu32 " went %s", ifindex, up ? "up" : "down");
        return;
    }
    mention(nc, ifindex);
    deliver_link_state(nc, intf, up);
}

void nsm_client_dump_begin(nsm_client* nc) {
    nc->mentioned_count = 0;
    nc->mention_lost = false;
}

void nsm_client_dump_end(nsm_client* nc) {
    if (nc->mention_lost) {
        log_suite(LOG_LEVEL_ERROR, "NSM: no memory to compare the interfaces; those that left are kept");
    } else {
        const if_master* ifm = nc->ctx->ifm;
        for (std::size_t i = 0; i < ifm->count && !nc->stopped;) {
            interface* intf = ifm->items[i];
            if (was_mentioned(nc, intf->ifindex)) {
                ++i;
                continue;
            }
            log_suite(LOG_LEVEL_INFO, "NSM: interface %s is gone", intf->name);
            remove_interface(nc, intf);
        }
    }
    memmgr_free(nc->mentioned, MTYPE_NSM);
    nc->mentioned = nullptr;
    nc->mentioned_count = nc->mentioned_room = 0;
}
