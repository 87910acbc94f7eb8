// The table, and how each value is read from the records. A row costs a look at the clock or at each port
// when somebody asks, and nothing else. Texts of labels are words that do not change from one look to the
// next without a reason: a number that counts down in a label would be a new series each second.
#include "cli/metrics/families.h"

#include <cstdint>
#include <cstring>
#include <iterator>

#include "cli/json.h"
#include "core/neighbour.h"
#include "core/ports.h"
#include "core/ql.h"
#include "core/select.h"
#include "core/supervision.h"
#include "suite/ports/slow_socket.h"

namespace {

using port_ref = const ssm_port*;

constexpr const char* RUNNING[] = {"master", "freerun", "holdover", "lock"};
constexpr const char* DPLL[] = {"freerun", "holdover", "lock", "transient"};
constexpr const char* LOCK_ERRORS[] = {"none", "undefined", "media-down", "ffo-too-high"};
constexpr const char* PIN_STATES[] = {"active", "standby", "no-signal", "quality-failed"};

// One scale for both options, so that a rule holds for either; levels of one option keep their order.
constexpr struct {
    char token[6];
    std::uint8_t level;
} LEVELS[] = {
    {"eprtc", 1}, {"prtc", 2},  {"eprc", 3},  {"prc", 4},  {"prs", 4},   {"stu", 5},   {"ssu-a", 6},
    {"st2", 6},   {"tnc", 7},   {"ssu-b", 8}, {"st3e", 8}, {"eeec", 9},  {"eec1", 10}, {"eec2", 10},
    {"smc", 11},  {"prov", 12}, {"dnu", 15},  {"dus", 15}, {"none", 16},
};

std::int64_t level_of(std::uint32_t quality) {
    const char* token = ssm_json_quality(quality);
    for (const auto& known : LEVELS)
        if (std::strcmp(known.token, token) == 0) return known.level;
    return METRIC_NONE;
}

std::int64_t milliseconds(nanoseconds time) {
    return static_cast<std::int64_t>(time / NS_PER_MS);
}

// Since 1970: moments are kept by a clock that does not step, and the wall clock of now says where that is.
std::int64_t time_of(nanoseconds moment) {
    return moment ? milliseconds(wall_now() - (thread_now(g_p_esmcd) - moment)) : METRIC_NONE;
}

// ---- Of the switch ----

const char* version(port_ref) {
    return ESMC_VERSION;
}

const char* own_clock_id(port_ref) {
    return ssm_clock_id_str(g_s_master->clock_id);
}

const char* running(port_ref) {
    return RUNNING[static_cast<std::size_t>(ssm_running_state()) - 1];
}

const char* dpll(port_ref) {
    const std::uint32_t state = g_s_master->dpll_state;
    return DPLL[state >= SSM_DPLL_FREERUN && state <= SSM_DPLL_LOCK ? state - SSM_DPLL_FREERUN : 3];
}

const char* lock_error(port_ref) {
    return ssm_lock_error_word(g_s_master->hardware.error);
}

const char* quality_word(port_ref) {
    return ssm_json_quality(g_s_master->current_quality);
}

std::int64_t hardware_level(port_ref) {
    const std::uint16_t quality = g_s_master->hardware.quality;
    return quality == QL_DNU ? METRIC_NONE : level_of(quality);
}

template <auto Field>
std::int64_t clock_flag(port_ref) {
    return g_s_master->*Field ? 1 : 0;
}

template <auto Field>
std::int64_t clock_level(port_ref) {
    return level_of(g_s_master->*Field);
}

template <ssm_change_kind Kind>
std::int64_t changed(port_ref) {
    return time_of(g_s_master->history.last[static_cast<std::size_t>(Kind)]);
}

std::int64_t changes(port_ref) {
    return static_cast<std::int64_t>(g_s_master->history.count);
}

std::int64_t guard_enabled(port_ref) {
    return g_s_master->guard.enable ? 1 : 0;
}

std::int64_t guard_in_force(port_ref) {
    return ssm_guard_in_force();
}

std::int64_t hold_left(port_ref) {
    return ssm_guard_hold_left_ms();
}

std::int64_t longest_hold(port_ref) {
    return milliseconds(g_s_master->guard.longest_hold);
}

template <auto Count>
std::int64_t guard_count(port_ref) {
    return static_cast<std::int64_t>(g_s_master->guard.*Count);
}

// ---- Of a port ----

template <auto Field>
std::int64_t flag(port_ref port) {
    return port->*Field ? 1 : 0;
}

template <auto Quality>
std::int64_t level(port_ref port) {
    return level_of(port->*Quality);
}

template <auto Quality>
const char* word(port_ref port) {
    return ssm_json_quality(port->*Quality);
}

template <auto Quality>
std::int64_t is_forced(port_ref port) {
    return port->*Quality != QL_NONE;
}

std::int64_t is_source(port_ref port) {
    return port == g_s_master->selected_port;
}

std::int64_t is_usable(port_ref port) {
    return ssm_candidate_check(port) == ssm_refusal::none;
}

const char* refusal(port_ref port) {
    return ssm_refusal_text(ssm_candidate_check(port));
}

std::int64_t hops(port_ref port) {
    return port->recv_hop_count;
}

// Valid until it is called again.
const char* address_text(const std::uint8_t* address) {
    static ssm_address_text said;
    if (!address) return nullptr;
    said = ssm_address_str(address);
    return said.text;
}

const char* own_address(port_ref port) {
    return address_text(ssm_address_named(port->intf->mac) ? port->intf->mac : nullptr);
}

const char* neighbour(port_ref port) {
    return address_text(ssm_neighbour(port));
}

const char* received_clock_id(port_ref port) {
    return port->recv_pdu ? ssm_clock_id_str(port->recv_clockid) : nullptr;
}

std::int64_t is_flapping(port_ref port) {
    return ssm_flapping(port);
}

std::int64_t hold_off_left(port_ref port) {
    return ssm_hold_off_left_ms(port);
}

std::int64_t restore_left(port_ref port) {
    return std::int64_t{ssm_restore_left_s(port)} * 1000;
}

std::int64_t guard_refused(port_ref port) {
    return time_of(port->guard_refused_at);
}

template <auto Count>
std::int64_t counted(port_ref port) {
    return static_cast<std::int64_t>(port->statistics->*Count);
}

template <auto Moment>
std::int64_t happened(port_ref port) {
    return time_of(port->statistics->*Moment);
}

template <auto Count>
std::int64_t frames(port_ref port) {
    slow_port_stats stats = {};
    (void)slow_socket_port_stats(port->ifindex, &stats);  // none yet: 0
    return static_cast<std::int64_t>(stats.*Count);
}

std::int64_t longest_interval(port_ref port) {
    const nanoseconds longest = port->statistics->longest;
    return longest ? milliseconds(longest) : METRIC_NONE;
}

const char* pin_state(port_ref port) {
    return ssm_pin_state_word(port->pin);
}

std::int64_t frequency_offset(port_ref port) {
    return port->pin && port->pin->has_offset ? port->pin->offset_ppt : METRIC_NONE;
}

std::int64_t measured_frequency(port_ref port) {
    if (!port->pin || !port->pin->has_frequency) return METRIC_NONE;
    return static_cast<std::int64_t>(port->pin->frequency_mhz);
}

// ---- The table ----

struct metric_kind {
    metric_type type;
    metric_scale scale;
};
constexpr metric_kind GAUGE = {metric_type::gauge, metric_scale::one};
constexpr metric_kind COUNTER = {metric_type::counter, metric_scale::one};
constexpr metric_kind SECONDS = {metric_type::gauge, metric_scale::seconds};
constexpr metric_kind HERTZ = {metric_type::gauge, metric_scale::hertz};
constexpr metric_kind RATIO = {metric_type::gauge, metric_scale::parts};
constexpr const char* RECEIVED = "direction=\"received\"";
constexpr const char* SENT = "direction=\"sent\"";

using value_of = std::int64_t (*)(port_ref);

constexpr metric_label VERSION = {"version", version, {}};
constexpr metric_label OWN_CLOCK_ID = {"clock_id", own_clock_id, {}};
constexpr metric_label RUNNING_STATE = {"state", running, RUNNING};
constexpr metric_label DPLL_STATE = {"state", dpll, DPLL};
constexpr metric_label QUALITY = {"quality", quality_word, {}};
constexpr metric_label LOCK_ERROR = {"error", lock_error, LOCK_ERRORS};
constexpr metric_label REASON = {"reason", refusal, {}};
constexpr metric_label RECEIVED_QUALITY = {"quality", word<&ssm_port::recv_quality>, {}};
constexpr metric_label SENT_QUALITY = {"quality", word<&ssm_port::send_quality>, {}};
constexpr metric_label ADDRESS = {"address", own_address, {}};
constexpr metric_label NEIGHBOUR = {"neighbour", neighbour, {}};
constexpr metric_label RECEIVED_CLOCK_ID = {"clock_id", received_clock_id, {}};
constexpr metric_label PIN_STATE = {"state", pin_state, PIN_STATES};

constexpr metric_row clock_row(metric_kind kind, const char* family, const char* fixed, value_of value) {
    return {family, false, kind.type, kind.scale, fixed, nullptr, value};
}
constexpr metric_row clock_text(const char* family, const metric_label* label) {
    return {family, false, GAUGE.type, GAUGE.scale, nullptr, label, nullptr};
}
constexpr metric_row port_row(metric_kind kind, const char* family, const char* fixed, value_of value) {
    return {family, true, kind.type, kind.scale, fixed, nullptr, value};
}
constexpr metric_row port_text(const char* family, const char* fixed, const metric_label* label,
                               value_of value = nullptr) {
    return {family, true, GAUGE.type, GAUGE.scale, fixed, label, value};
}

constexpr metric_row ROWS[] = {
    clock_text("esmcd_build_info Version of the daemon.", &VERSION),
    clock_text("esmcd_clock_id_info Identity of the switch's own clock.", &OWN_CLOCK_ID),
    clock_row(GAUGE,
              "esmcd_synce_enabled SyncE is enabled on the switch; else its state and quality mean nothing.",
              nullptr, clock_flag<&ssm_master::global_enable>),
    clock_text("esmcd_clock_state How the switch's clock runs: 1 for the state it is in.", &RUNNING_STATE),
    clock_text("esmcd_dpll_state What the clock hardware reports: 1 for the state it is in.", &DPLL_STATE),
    clock_row(GAUGE,
              "esmcd_quality_level Quality that is advertised, best first: 1 ePRTC, 2 PRTC, 3 ePRC, 4 PRC or "
              "PRS, 5 STU, 6 SSU-A or ST2, 7 TNC, 8 SSU-B or ST3E, 9 eEEC, 10 EEC1 or EEC2, 11 SMC, 12 PROV, "
              "15 DNU or DUS, 16 none.",
              nullptr, clock_level<&ssm_master::current_quality>),
    clock_text("esmcd_quality_info Quality that is advertised, as a word of the commands.", &QUALITY),
    clock_row(
        GAUGE,
        "esmcd_local_quality_level Quality of the switch's own clock, numbers as of esmcd_quality_level.",
        nullptr, clock_level<&ssm_master::local_quality>),
    clock_row(GAUGE, "esmcd_external_command 1: the operator's command chooses the source.",
              "command=\"forced\"", clock_flag<&ssm_master::force_port>),
    clock_row(GAUGE, nullptr, "command=\"forced_e1\"", clock_flag<&ssm_master::force_e1>),
    clock_row(GAUGE, nullptr, "command=\"manual\"", clock_flag<&ssm_master::manual_port>),
    clock_row(COUNTER, "esmcd_changes Entries of the history.", nullptr, changes),
    clock_row(SECONDS, "esmcd_change_timestamp_seconds When the clock changed last, by what changed.",
              "kind=\"source\"", changed<ssm_change_kind::source>),
    clock_row(SECONDS, nullptr, "kind=\"quality\"", changed<ssm_change_kind::quality>),
    clock_row(SECONDS, nullptr, "kind=\"state\"", changed<ssm_change_kind::state>),
    clock_row(SECONDS, nullptr, "kind=\"command\"", changed<ssm_change_kind::command>),
    clock_row(GAUGE, "esmcd_loop_guard_enabled The loop guard is configured.", nullptr, guard_enabled),
    clock_row(GAUGE,
              "esmcd_loop_guard_in_force The loop guard is configured, and the extension that it needs.",
              nullptr, guard_in_force),
    clock_row(SECONDS,
              "esmcd_loop_guard_hold_left_seconds How long the loop guard holds over at most for want of a "
              "proved offer; 0: it does not.",
              nullptr, hold_left),
    clock_row(SECONDS, "esmcd_loop_guard_longest_hold_seconds The longest that the loop guard held over.",
              nullptr, longest_hold),
    clock_row(COUNTER, "esmcd_loop_guard_holds How often the loop guard held over.", nullptr,
              guard_count<&ssm_guard::holds>),
    clock_row(COUNTER,
              "esmcd_loop_guard_refused_offers Offers that the loop guard refused though they would have "
              "been preferred.",
              nullptr, guard_count<&ssm_guard::refused>),
    clock_text("esmcd_lock_error Why the clock hardware's lock failed, if it tells.", &LOCK_ERROR),
    clock_row(GAUGE, "esmcd_hardware_quality_level Quality that the clock hardware claims of itself.",
              nullptr, hardware_level),
    port_row(GAUGE, "esmcd_port_up The link is up.", nullptr, flag<&ssm_port::link_up>),
    port_row(GAUGE, "esmcd_source 1: the clock comes from this port.", nullptr, is_source),
    port_text("esmcd_port_usable 1: the port can be the source; 0: it can not, for this reason.", nullptr,
              &REASON, is_usable),
    port_row(GAUGE, "esmcd_port_receiving A PDU came within the last five seconds.", nullptr,
             flag<&ssm_port::timeout_timer>),
    port_row(GAUGE, "esmcd_port_sending A PDU leaves each second.", nullptr, flag<&ssm_port::send_timer>),
    port_row(GAUGE, "esmcd_port_quality_level Quality received and sent, numbers as of esmcd_quality_level.",
             RECEIVED, level<&ssm_port::recv_quality>),
    port_row(GAUGE, nullptr, SENT, level<&ssm_port::send_quality>),
    port_text("esmcd_port_quality_info Quality received and sent, as a word of the commands.", RECEIVED,
              &RECEIVED_QUALITY),
    port_text(nullptr, SENT, &SENT_QUALITY),
    port_row(GAUGE, "esmcd_port_quality_forced 1: the operator set the quality.", RECEIVED,
             is_forced<&ssm_port::force_rx_quality>),
    port_row(GAUGE, nullptr, SENT, is_forced<&ssm_port::force_tx_quality>),
    port_row(GAUGE, "esmcd_port_hops Received hop count; 0 without the extension.", nullptr, hops),
    port_text("esmcd_port_address_info The port's own MAC address.", nullptr, &ADDRESS),
    port_text("esmcd_port_neighbour_info The address at the other end of the link.", nullptr, &NEIGHBOUR),
    port_text("esmcd_port_clock_id_info Clock identity received.", nullptr, &RECEIVED_CLOCK_ID),
    port_row(GAUGE, "esmcd_port_locked_out The operator took the port out of the selection.", nullptr,
             flag<&ssm_port::lockout>),
    port_row(GAUGE, "esmcd_port_failed The port failed, and has not been free of faults for long enough.",
             nullptr, flag<&ssm_port::failed>),
    port_row(GAUGE, "esmcd_port_flapping The port became the source three times within half an hour.",
             nullptr, is_flapping),
    port_row(SECONDS, "esmcd_port_hold_off_left_seconds How long the port's failure is held off; 0: none is.",
             nullptr, hold_off_left),
    port_row(
        SECONDS,
        "esmcd_port_wait_to_restore_left_seconds How long the port waits to be used again; 0: it does not.",
        nullptr, restore_left),
    port_row(SECONDS,
             "esmcd_port_loop_guard_refused_timestamp_seconds Since when the loop guard has refused the "
             "port's offer, which would be preferred.",
             nullptr, guard_refused),
    port_row(COUNTER, "esmcd_port_pdus PDUs received and sent.",
             "direction=\"received\",kind=\"information\"", counted<&ssm_statistics::information_in>),
    port_row(COUNTER, nullptr, "direction=\"received\",kind=\"event\"", counted<&ssm_statistics::events_in>),
    port_row(COUNTER, nullptr, "direction=\"sent\",kind=\"information\"",
             counted<&ssm_statistics::information_out>),
    port_row(COUNTER, nullptr, "direction=\"sent\",kind=\"event\"", counted<&ssm_statistics::events_out>),
    port_row(COUNTER, "esmcd_port_dnu_pdus PDUs received and sent that said DNU.", RECEIVED,
             counted<&ssm_statistics::dnu_in>),
    port_row(COUNTER, nullptr, SENT, counted<&ssm_statistics::dnu_out>),
    port_row(COUNTER, "esmcd_port_dropped_pdus PDUs received and dropped.", "reason=\"without_quality\"",
             counted<&ssm_statistics::short_frames>),
    port_row(COUNTER, nullptr, "reason=\"unknown_quality\"", counted<&ssm_statistics::bad_qualities>),
    port_row(COUNTER, nullptr, "reason=\"beyond_rate_limit\"", frames<&slow_port_stats::limited>),
    port_row(COUNTER, "esmcd_port_unknown_tlvs Extended TLVs of no known length.", nullptr,
             counted<&ssm_statistics::bad_tlvs>),
    port_row(COUNTER,
             "esmcd_port_held_back_pdus Event PDUs that left later, because the port had sent too many.",
             nullptr, frames<&slow_port_stats::held_back>),
    port_row(COUNTER, "esmcd_port_timeouts How often the port fell silent.", nullptr,
             counted<&ssm_statistics::timeouts>),
    port_row(COUNTER, "esmcd_port_selections How often the port became the source.", nullptr,
             counted<&ssm_statistics::sources>),
    port_row(SECONDS, "esmcd_port_information_timestamp_seconds When the last information PDU came.", nullptr,
             happened<&ssm_statistics::last_information>),
    port_row(SECONDS, "esmcd_port_event_timestamp_seconds When the last event PDU came.", nullptr,
             happened<&ssm_statistics::last_event>),
    port_row(SECONDS, "esmcd_port_sent_timestamp_seconds When the last PDU left.", nullptr,
             happened<&ssm_statistics::last_out>),
    port_row(SECONDS, "esmcd_port_quality_timestamp_seconds When the received quality changed.", nullptr,
             happened<&ssm_statistics::quality_changed>),
    port_row(SECONDS,
             "esmcd_port_longest_interval_seconds The longest between two information PDUs received.",
             nullptr, longest_interval),
    port_text("esmcd_port_pin_state State of the port's pin at the clock hardware, if that tells.", nullptr,
              &PIN_STATE),
    port_row(RATIO,
             "esmcd_port_frequency_offset_ratio Of the received frequency, if the clock hardware tells.",
             nullptr, frequency_offset),
    port_row(HERTZ, "esmcd_port_measured_frequency_hertz Received frequency, if the clock hardware tells.",
             nullptr, measured_frequency),
};
static_assert(std::size(ROWS) < 256, "metrics.cpp counts them in eight bits");

}  // namespace

const std::span<const metric_row> ssm_metric_rows = ROWS;
