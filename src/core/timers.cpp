// A timer field holds the handle of an armed timer or null, and null is also what a failed allocation leaves:
// the port then doesn't send, and the next update of its timers tries again.
#include "core/timers.h"

#include "core/debug.h"
#include "core/opts.h"
#include "core/pdu.h"
#include "core/ports.h"
#include "core/result.h"
#include "core/select.h"
#include "core/socket.h"
#include "core/supervision.h"

namespace {

// The clock identity and the hop count stay: they say who was last heard.
void forget_quality(ssm_port* port) {
    port->recv_pdu = 0;
    port->recv_quality = QL_NONE;
}

void stop_sending(ssm_port* port) {
    ssm_timer_cancel(&port->send_timer);
    ssm_timer_cancel(&port->event_timer);
    port->send_quality = QL_NONE;
}

void stop_port(ssm_port* port) {
    ssm_timer_cancel(&port->timeout_timer);
    stop_sending(port);
    forget_quality(port);
}

void start_sending(ssm_port* port) {
    // The first PDU leaves when the timer expires. The time-out starts with the first PDU that comes.
    if (!port->send_timer)
        port->send_timer = ssm_timer_add_msec(ssm_pdu_sync_trigger, port, SSM_SEND_PERIOD_MS);
    if (g_s_master->device_type == SSM_MASTER_ONLY) g_s_master->current_quality = g_s_master->local_quality;
}

}  // namespace

void ssm_timer_cancel(thread** field) {
    thread_cancel(*field);
    *field = nullptr;
}

thread* ssm_timer_add_msec(thread_func handler, ssm_port* port, std::uint32_t milliseconds) {
    return thread_add_timer_msec(g_p_esmcd, handler, port, milliseconds);
}

void ssm_send_timer_restart(ssm_port* port) {
    ssm_timer_cancel(&port->send_timer);
    port->send_timer = ssm_timer_add_msec(ssm_pdu_sync_trigger, port, SSM_SEND_PERIOD_MS);
}

void ssm_timeout_timer_restart(ssm_port* port) {
    ssm_timer_cancel(&port->timeout_timer);
    port->timeout_timer = ssm_timer_add_msec(_ssm_opts_timeout_trigger, port, SSM_TIMEOUT_MS);
}

std::int32_t ssm_port_timers_update(ssm_port* port, std::uint32_t start) {
    if (!start) {
        stop_port(port);
        return SSM_OK;
    }
    if (!port->synce_enable || !port->link_up || !g_s_master->global_enable || !g_s_master->ssm_enable)
        return SSM_OK;
    switch (port->esmc_mode) {
        case SSM_ESMC_RX:
            stop_sending(port);
            break;
        case SSM_ESMC_NONE:
            stop_port(port);
            break;
        case SSM_ESMC_TX:
        case SSM_ESMC_ALL:
            start_sending(port);
            break;
        default:
            break;
    }
    return SSM_OK;
}

void ssm_port_timers_resume(ssm_port* port, std::uint32_t timeout_left_ms, std::uint32_t send_in_ms) {
    ssm_timer_cancel(&port->timeout_timer);
    if (timeout_left_ms)
        port->timeout_timer = ssm_timer_add_msec(_ssm_opts_timeout_trigger, port, timeout_left_ms);
    if (!port->send_timer) return;
    ssm_timer_cancel(&port->send_timer);
    port->send_timer = ssm_timer_add_msec(ssm_pdu_sync_trigger, port, send_in_ms);
}

int ssm_pdu_sync_trigger(thread* event) {
    auto* port = static_cast<ssm_port*>(event->arg);
    port->send_timer = nullptr;
    if (!port->link_up) return SSM_E_GENERAL;
    SSM_TRACE(SSM_DEBUG_TIMER, LOG_LEVEL_DEBUG,
              "%s%sSEND TIMER: port %s send timer expiry: ", port->intf->name);

    port->send_quality = QL_NONE;
    (void)ssm_pdu_tx(port, 1);  // what could not be sent is sent a second later
    port->send_timer = ssm_timer_add_msec(ssm_pdu_sync_trigger, port, SSM_SEND_PERIOD_MS);

    ssm_socket_arm_read();  // a read that could not be queued for want of memory must not stay lost
    return SSM_OK;
}

int _ssm_opts_timeout_trigger(thread* event) {
    auto* port = static_cast<ssm_port*>(event->arg);
    if (port->recv_pdu && port->recv_quality == QL_DNU)
        SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_DEBUG,
                  "%s%s_ssm_opts_timeout_trigger: port %s receive DNU and quit timeout trigger: ",
                  port->intf->name);
    SSM_TRACE(SSM_DEBUG_TIMER, LOG_LEVEL_DEBUG,
              "%s%sTIMEOUT TIMER: port %s timeout timer expiry: ", port->intf->name);

    port->timeout_timer = nullptr;
    if (!ssm_hold_off(port, SSM_FAILED_SILENCE)) ssm_source_silent(port);
    return SSM_OK;
}

void ssm_source_silent(ssm_port* port) {
    ++port->statistics->timeouts;
    if (port->recv_quality != QL_NONE) port->statistics->quality_changed = thread_now(g_p_esmcd);
    // Of a port that takes its quality from the operator nothing was expected.
    if (port->force_rx_quality == QL_NONE) ssm_source_failed(port);
    // The check looks at running time-outs, so the port's must be off before it, and what was received is
    // forgotten after it.
    ssm_opts_check_all_lost();
    forget_quality(port);
    // Without the guard the next PDU that is accepted does it, if one comes: a port that has its quality from
    // the operator brings none.
    if (port == g_s_master->selected_port && ssm_guard_in_force()) ssm_clock_select();
}
