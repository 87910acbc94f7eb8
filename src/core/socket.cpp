// One raw socket serves all ports; which one a frame came from is in its address. One frame a call, and every
// path arms the next read, so that exactly one is pending while the socket is open.
#include "core/socket.h"

#include <cerrno>
#include <cstring>

#include "core/debug.h"
#include "core/neighbour.h"
#include "core/pdu.h"
#include "core/ports.h"
#include "core/ql.h"
#include "core/select.h"
#include "core/supervision.h"

const std::uint8_t ssm_grp_addr[6] = {0x01, 0x80, 0xC2, 0x00, 0x00, 0x02};

std::int32_t open_ssm() {
    close_ssm();
    const int fd = slow_socket_open(ssm_instance->lib_ctx);
    if (fd < 0) {
        SSM_LOG(LOG_LEVEL_ERROR, "%s%sopen_ssm: Error opening socket (%d)", fd);
        return -1;
    }
    ssm_instance->sock = fd;
    return 0;
}

void close_ssm() {
    if (ssm_instance->sock < 0) return;
    thread_cancel(ssm_instance->t_read);
    ssm_instance->t_read = nullptr;
    slow_socket_close(ssm_instance->lib_ctx, ssm_instance->sock);
    ssm_instance->sock = -1;
}

std::int32_t send_ssm(const slow_address& to, const std::uint8_t* data, std::size_t length) {
    if (ssm_instance->send_edge) return ssm_instance->send_edge(to, data, length);
    if (ssm_instance->sock < 0) {
        SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_WARNING, "%s%s%s: ssm socket is not open", "send_ssm");
        return -1;
    }
    return static_cast<std::int32_t>(slow_sendto(ssm_instance->sock, {data, length}, to));
}

void ssm_socket_arm_read() {
    if (!ssm_instance || ssm_instance->t_read || ssm_instance->sock < 0) return;
    if (g_s_master && g_s_master->resuming) return;  // what comes meanwhile waits in the socket
    ssm_instance->t_read = thread_add_read_high(ssm_instance->lib_ctx, recv_ssm, nullptr, ssm_instance->sock);
}

namespace {

// Whether the switch and the port take PDUs at all.
bool admitted(const ssm_port* port) {
    return port && port->synce_enable && port->esmc_mode != SSM_ESMC_TX && port->esmc_mode != SSM_ESMC_NONE &&
           g_s_master->ssm_enable && g_s_master->global_enable && g_s_master->device_type != SSM_MASTER_ONLY;
}

void log_frame(const slow_address& from, std::size_t length) {
    const std::uint8_t* s = from.source;
    const std::uint8_t* d = from.destination;
    SSM_LOG(LOG_LEVEL_DEBUG,
            "%s%s%s: len (%d) port(%d)\n  %s: src addr (%.02x%.02x.%.02x%.02x.%.02x%.02x) \n  %s: dst addr "
            "(%.02x%.02x.%.02x%.02x.%.02x%.02x)",
            "recv_ssm", static_cast<int>(length), static_cast<int>(from.ifindex), "recv_ssm", s[0], s[1],
            s[2], s[3], s[4], s[5], "recv_ssm", d[0], d[1], d[2], d[3], d[4], d[5]);
}

void heard_again(ssm_port* port) {
    (void)ssm_hold_off_recovered(port, SSM_FAILED_SILENCE);  // if that was held off
    ssm_source_recovered(port);
}

// A DNU is refused like any code that is no quality, but it still says that the neighbour is no source any
// more.
void refuse_quality(ssm_port* port, const slow_address& from, std::uint8_t quality) {
    SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_ERROR, "%s%s%s: receiveed pdu but error QL value %d", "recv_ssm",
              quality);
    if (quality != QL_DNU) {
        ++port->statistics->bad_qualities;
        return;
    }
    if (port->recv_quality != QL_DNU) port->statistics->quality_changed = thread_now(g_p_esmcd);
    port->recv_pdu = 1;
    ssm_neighbour_heard(port, from.source);
    port->recv_quality = QL_DNU;
    // Without the guard the next PDU that is accepted does it.
    if (port == g_s_master->selected_port && ssm_guard_in_force()) ssm_clock_select();
}

}  // namespace

int ssm_take_frame(const slow_address& from, const std::uint8_t* pdu, std::size_t length) {
    if (length < SSM_SHORTEST_FRAME) {
        slow_socket_count_short();
        if (ssm_port* sender = ssm_port_lookup_by_ifindex(from.ifindex)) ++sender->statistics->short_frames;
        return -1;
    }
    ssm_port* port = ssm_port_lookup_by_ifindex(from.ifindex);
    if (!admitted(port)) {
        SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_INFO,
                  "%s%s%s: discard pdu for port is NULL or port synce disable or port ESMC RX disabledevice "
                  "ssm disable or "
                  "device synce disable or master-only device",
                  "recv_ssm");
        return -1;
    }
    if (std::memcmp(from.destination, ssm_grp_addr, sizeof ssm_grp_addr) != 0)
        return static_cast<int>(length);
    const std::uint8_t quality = pdu[esmc::QUALITY];
    if (!ssm_ql_receivable(quality)) {
        if (quality == QL_DNU) ssm_statistics_heard(port, pdu);
        refuse_quality(port, from, quality);
        return -1;
    }
    port->recv_pdu = 1;
    ssm_neighbour_heard(port, from.source);
    ssm_statistics_heard(port, pdu);
    if (port->failed || port->held_failures) [[unlikely]]
        heard_again(port);
    if (ssm_debugging(SSM_DEBUG_PACKET)) log_frame(from, length);
    (void)ssm_handle_packet(port, pdu, length);  // always 0
    return static_cast<int>(length);
}

int recv_ssm(thread* /*event*/) {
    ssm_instance->t_read = nullptr;
    if (ssm_instance->sock < 0) {
        SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_ERROR, "%s%s%s: ssm socket is not open", "recv_ssm");
        return -1;  // nothing to wait on; opening the socket arms the read again
    }
    std::uint8_t pdu[SSM_RECEIVE_SIZE] = {};  // octets that a short frame lacks read as zero
    slow_address from;
    const ssize_t received = slow_recvfrom(ssm_instance->sock, pdu, &from);
    int result = -1;
    if (received < 0 && errno == EAGAIN)
        result = -1;  // what was there was dropped at the socket, for its port brings too many
    else if (received < 0)
        SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_WARNING, "%s%s%s: ssm receive failed (%d)", "recv_ssm",
                  static_cast<int>(received));
    else
        result = ssm_take_frame(from, pdu, static_cast<std::size_t>(received));
    ssm_socket_arm_read();
    return result;
}
