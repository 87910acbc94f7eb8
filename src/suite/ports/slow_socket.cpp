// The slow-protocol socket: turns Ethernet frames of all ports into datagrams with a 16-octet address and
// back, keeps the group memberships, and counts. One descriptor, opened by the daemon at start-up; the NSM
// client tells which ports there are.
//
// What can go wrong: a lost frame shows only in the kernel's drop counter, which is read (and thereby reset)
// now and then. Receiving and sending are in slow_receive.cpp and slow_send.cpp.
#include "suite/ports/slow_socket.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "suite/log/log.h"
#include "suite/loop/retry.h"
#include "suite/ports/slow_state.h"

namespace {

constexpr std::uint32_t DROPS_PERIOD_MS = 10'000;

thread* drops_timer;
retry join_retry;

// Membership -------------------------------------------------------------------------------------------

bool set_membership(int option, std::uint32_t kernel_ifindex) {
    packet_mreq request{};
    request.mr_ifindex = static_cast<int>(kernel_ifindex);
    request.mr_type = PACKET_MR_MULTICAST;
    request.mr_alen = sizeof SLOW_GROUP;
    std::memcpy(request.mr_address, SLOW_GROUP, sizeof SLOW_GROUP);
    return setsockopt(slow.opened.fd, SOL_PACKET, option, &request, sizeof request) == 0;
}

// The kernel counts joins, and forgets them all when the device leaves: dropping too often does no harm.
void leave_group(slow_port* port) {
    for (; port->joins != 0; --port->joins)
        if (slow.opened.kind == slow_kind::packet) (void)set_membership(PACKET_DROP_MEMBERSHIP, port->joined);
}

int join_again(thread* event);

// Joined anew at every bind, without leaving first: a device that was away meanwhile has lost its membership,
// and one that was not must not miss a frame.
void join_group(slow_port* port) {
    if (slow.opened.kind != slow_kind::packet || port->kernel_ifindex == 0) return;
    if (set_membership(PACKET_ADD_MEMBERSHIP, port->kernel_ifindex)) {
        port->joined = port->kernel_ifindex;
        ++port->joins;
        if (std::exchange(port->deaf, false))
            log_suite(LOG_LEVEL_INFO, "slow-protocol socket: interface %u has joined the group now",
                      port->ifindex);
        return;
    }
    if (!std::exchange(port->deaf, true))
        log_suite(LOG_LEVEL_WARNING,
                  "slow-protocol socket: can't join the group on interface %u (kernel %u): %s; trying again",
                  port->ifindex, port->kernel_ifindex, strerror(errno));
    if (slow.ctx && slow.ctx->master) retry_later(&join_retry, slow.ctx, join_again, nullptr);
}

int join_again(thread* event) {
    retry_begin(&join_retry);
    for (const interface* intf : if_list(event->ctx->ifm)) {
        slow_port* port = slow_port_by_ifindex(intf->ifindex);
        if (port && port->deaf) join_group(port);
    }
    if (!join_retry.event) retry_stop(&join_retry);
    return 0;
}

// Kernel drops -----------------------------------------------------------------------------------------

void collect_drops() {
    if (slow.opened.kind != slow_kind::packet) return;
    tpacket_stats fresh{};
    socklen_t length = sizeof fresh;
    if (getsockopt(slow.opened.fd, SOL_PACKET, PACKET_STATISTICS, &fresh, &length) != 0) return;
    slow.totals.kernel_drops += fresh.tp_drops;
    if (fresh.tp_drops != 0)
        log_suite(LOG_LEVEL_WARNING, "slow-protocol socket: %u frames lost for want of buffer",
                  fresh.tp_drops);
}

int on_drops_timer(thread* event) {
    drops_timer = nullptr;
    collect_drops();
    drops_timer = thread_add_timer_msec(event->ctx, on_drops_timer, nullptr, DROPS_PERIOD_MS);
    return 0;
}

}  // namespace

slow_state slow{{-1, slow_kind::closed, false, 0, 0}, nullptr, {}, nullptr};

int slow_socket_open(lib_globals* ctx) {
    if (slow.opened.kind != slow_kind::closed) slow_socket_close(slow.ctx, slow.opened.fd);
    if (slow.edge) {
        const int fd = slow.edge->open(slow.edge->arg);
        slow.opened = {fd, fd < 0 ? slow_kind::closed : slow_kind::replaced, true, 0, 0};
    } else {
        slow.opened = slow_edge_open_real();
    }
    if (slow.opened.fd < 0) {
        const int error = slow.opened.fd;
        slow.opened = {-1, slow_kind::closed, false, 0, 0};
        return error;
    }
    slow.ctx = ctx;
    slow_receive_start();
    for (const interface* intf : if_list(ctx->ifm))
        if (intf->bound) slow_socket_port_bound(intf);
    if (slow.opened.kind == slow_kind::packet && ctx->master)
        drops_timer = thread_add_timer_msec(ctx, on_drops_timer, nullptr, DROPS_PERIOD_MS);
    return slow.opened.fd;
}

void slow_socket_close(lib_globals* ctx, int fd) {
    if (fd < 0 || fd != slow.opened.fd) return;
    collect_drops();
    if (ctx && ctx->master) {
        thread_cancel(drops_timer);
        retry_stop(&join_retry);
        thread_forget_fd(ctx, fd);
    }
    drops_timer = nullptr;
    while (slow_port* port = slow_port_any()) {  // closing leaves all groups
        slow_send_forget(port);
        slow_port_drop(port);
    }
    close(fd);
    slow.opened = {-1, slow_kind::closed, false, 0, 0};
    slow_receive_forget();
    slow.ctx = nullptr;
}

void slow_socket_port_bound(const interface* intf) {
    if (slow.opened.kind == slow_kind::closed) return;
    if (intf->type != IF_TYPE_SYNCE) return;  // its frames are those of an unknown port
    slow_port* port = slow_port_take(intf->ifindex);
    if (!port) {
        log_suite(LOG_LEVEL_ERROR, "slow-protocol socket: no memory for interface %s", intf->name);
        return;
    }
    if (port->joined != intf->kernel_ifindex) leave_group(port);
    slow_port_map_kernel(port, intf->kernel_ifindex);
    std::memcpy(port->mac, intf->mac, sizeof port->mac);
    port->to.sll_family = AF_PACKET;
    port->to.sll_protocol = htons(ETH_P_SLOW);
    port->to.sll_halen = sizeof SLOW_GROUP;
    std::memcpy(port->to.sll_addr, SLOW_GROUP, sizeof SLOW_GROUP);
    join_group(port);
}

void slow_socket_port_unbound(const interface* intf) {
    slow_port* port = slow_port_by_ifindex(intf->ifindex);
    if (!port) return;
    leave_group(port);
    slow_send_forget(port);
    slow_port_drop(port);
}

bool slow_socket_port_stats(std::uint32_t ifindex, slow_port_stats* stats) {
    const slow_port* port = slow_port_by_ifindex(ifindex);
    if (!port) return false;
    *stats = port->stats;
    return true;
}

slow_stats slow_socket_stats() {
    collect_drops();
    return slow.totals;
}

void slow_socket_count_held_back(std::uint32_t ifindex) {
    if (slow_port* port = slow_port_by_ifindex(ifindex)) ++port->stats.held_back;
}

void slow_socket_count_short() {
    ++slow.totals.short_frames;
}

void slow_socket_set_edge(const slow_edge* replacement) {
    slow.edge = replacement;
}

slow_opened slow_socket_opened() {
    return slow.opened;
}
