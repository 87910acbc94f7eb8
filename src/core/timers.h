// The two one-shot timers of a port: the send timer, which emits an information PDU a second, and the
// time-out timer, which declares the received quality lost after five seconds without one.
#pragma once

#include "core/records.h"

constexpr std::uint32_t SSM_SEND_PERIOD_MS = 1000;  // ITU-T G.8264: one information PDU a second
constexpr std::uint32_t SSM_TIMEOUT_MS = 5000;      // ITU-T G.8264: lost after five seconds

void ssm_timer_cancel(thread** field);
[[nodiscard]] thread* ssm_timer_add_msec(thread_func handler, ssm_port* port, std::uint32_t milliseconds);
void ssm_send_timer_restart(ssm_port* port);
void ssm_timeout_timer_restart(ssm_port* port);

// Starts or stops the port's protocol activity, as its configuration and the switch's allow. Returns 0.
std::int32_t ssm_port_timers_update(ssm_port* port, std::uint32_t start);

// What a restart goes on with: 0: there is no time-out. A port that does not send is left alone.
void ssm_port_timers_resume(ssm_port* port, std::uint32_t timeout_left_ms, std::uint32_t send_in_ms);

// What the end of the time-out means for the port, once it is not held off.
void ssm_source_silent(ssm_port* port);

int ssm_pdu_sync_trigger(thread* event);       // send timer
int _ssm_opts_timeout_trigger(thread* event);  // time-out timer
