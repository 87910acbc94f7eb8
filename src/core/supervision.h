// How failures of sources are taken, and which sources the operator lets take part (ITU-T G.781): hold-off
// before a failure counts, wait-to-restore after it, lockout, limits of quality, manual switch, non-revertive
// operation. All of it is off unless configured. The selection asks the pure functions here; the timers
// belong to the port record.
#pragma once

#include "core/records.h"

constexpr std::uint32_t SSM_HOLD_OFF_MIN_MS = 300, SSM_HOLD_OFF_MAX_MS = 1800, SSM_HOLD_OFF_STEP_MS = 100;
constexpr std::uint32_t SSM_RESTORE_MAX_S = 720;

// How a source fails, as bits.
enum ssm_failure : std::uint8_t { SSM_FAILED_LINK = 1, SSM_FAILED_SILENCE = 2 };

// ---- What the core tells of failures ----

// A failure that is to be looked at now. True: it is held off; the port stays as it is, and what the failure
// means is done when the time is over, unless the port recovers before.
bool ssm_hold_off(ssm_port* port, ssm_failure failure);
// This failure is over. True: it had been held off, and nothing has happened.
bool ssm_hold_off_recovered(ssm_port* port, ssm_failure failure);
// The port that was a source has failed: it counts again only when it was free of faults for the time to
// restore.
void ssm_source_failed(ssm_port* port);
// The port hears, or takes its quality from the operator: without a fault from now on, if it had failed.
void ssm_source_recovered(ssm_port* port);
// The port takes no part any more (disabled, unbound): forgets all of it.
void ssm_supervision_forget(ssm_port* port);

// A restart goes on with what was left of the port's times; 0: it was not running.
void ssm_supervision_resume(ssm_port* port, std::uint32_t hold_off_left_ms, std::uint32_t restore_left_ms);

// ---- What selection asks ----

std::uint32_t ssm_hold_off_ms(const ssm_port* port);       // in force; 0: none
std::uint32_t ssm_restore_s(const ssm_port* port);         // in force; 0: none
std::uint32_t ssm_hold_off_left_ms(const ssm_port* port);  // 0: none runs
std::uint32_t ssm_restore_left_s(const ssm_port* port);    // begun seconds; 0: it does not wait
// Whether non-revertive operation keeps the source although this port ranks before it.
bool ssm_source_stays(const ssm_port* best);
// Whether a quality of the port is limited: limits are stored as codes, which the other option reads
// otherwise.
bool ssm_has_limits(const ssm_port* port);
// Whether the port offers a quality, as far as it is its own matter.
bool ssm_offers_quality(const ssm_port* port);
bool ssm_below_minimum(const ssm_port* port);
// What is sent in place of this quality: within the port's limits, or QL_DNU.
ssm_quality ssm_limited_for_sending(const ssm_port* port, ssm_quality quality);
// Of these two, the automatic choice and what the operator's manual switch and non-revertive operation make
// of it. Both yield to quality and to whatever makes a port no candidate; a manual switch that had to is gone
// afterwards.
ssm_port* ssm_choice_of_operator(ssm_port* best);
// A forced or manual switch and ports that are locked out are easily forgotten: the log names them, a line
// each.
void ssm_supervision_say_active();
// Why the port can't be the target of a manual switch; null: it can.
const char* ssm_manual_refusal(const ssm_port* port);
// The manual switch is over, for this reason (logged, and kept: the text is a constant). Nothing happens
// without one.
void ssm_manual_drop(const char* why);
