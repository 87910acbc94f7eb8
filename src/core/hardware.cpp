// Stores what is told, and takes the two steps that follow from it: a line in the history when the lock's
// error begins or ends, and a new own quality. A pin's record is made when something is told of it, and goes
// with its port.
#include "core/hardware.h"

#include <cstring>
#include <iterator>
#include <utility>

#include "core/opts.h"
#include "core/ports.h"
#include "suite/base/memory.h"
#include "suite/manager/client.h"

namespace {

constexpr const char* ERRORS[] = {"none", "none", "undefined", "media-down", "ffo-too-high"};
constexpr const char* STATES[] = {"none", "active", "standby", "no-signal", "quality-failed"};

// The kernel's levels of a clock, as qualities of option 1.
constexpr std::uint16_t LEVELS[] = {QL_DNU,
                                    QL_PRC,
                                    QL_SSU_A,
                                    QL_SSU_B,
                                    QL_EEC1,
                                    ssm_quality_of(QL_PRC, QL_ENHANCED_PRTC),
                                    ssm_quality_of(QL_PRC, QL_ENHANCED_EPRTC),
                                    ssm_quality_of(QL_EEC1, QL_ENHANCED_EEEC),
                                    ssm_quality_of(QL_PRC, QL_ENHANCED_EPRC)};

std::uint8_t known_word(std::size_t words, std::uint32_t number) {
    return static_cast<std::uint8_t>(number < words ? number : 0);
}

void take_clock(const nsm_clock_detail& d) {
    ssm_hardware& hardware = g_s_master->hardware;
    const bool has_error = d.known & nsm_detail_body::HAS_ERROR;
    const std::uint8_t error = known_word(std::size(ERRORS), has_error ? d.error : 0);
    const char* before = ssm_lock_error_word(std::exchange(hardware.error, error));
    const char* now = ssm_lock_error_word(error);
    if (std::strcmp(before ? before : ERRORS[0], now ? now : ERRORS[0]) != 0)
        ssm_history_hardware(before ? before : ERRORS[0], now ? now : ERRORS[0]);
    const bool has_level = d.known & nsm_detail_body::HAS_QUALITY;
    ssm_opts_hardware_quality(LEVELS[known_word(std::size(LEVELS), has_level ? d.quality : 0)]);
}

void take_pin(ssm_port* port, const nsm_clock_detail& d) {
    if (!port->pin) port->pin = static_cast<ssm_pin*>(ssm_calloc(sizeof(ssm_pin), MTYPE_SSM_PORT));
    if (!port->pin) return;
    ssm_pin& pin = *port->pin;
    pin.has_offset = d.known & nsm_detail_body::HAS_OFFSET;
    pin.has_frequency = d.known & nsm_detail_body::HAS_FREQUENCY;
    pin.state = known_word(std::size(STATES), d.known & nsm_detail_body::HAS_STATE ? d.state : 0);
    pin.offset_ppt = d.offset_ppt;
    pin.frequency_mhz = d.frequency_mhz;
    static_assert(sizeof pin.label <= sizeof d.label);
    std::memcpy(pin.label, d.label, sizeof pin.label - 1);
}

}  // namespace

void ssm_hardware_recv(const nsm_clock_detail* detail) {
    constexpr nsm_clock_detail nothing{};
    if (!detail) ssm_port_walk([](ssm_port* port) { ssm_pin_forget(port); });
    if (!detail || detail->subject == 0) return take_clock(detail ? *detail : nothing);
    if (ssm_port* port = ssm_port_lookup_by_ifindex(detail->subject)) take_pin(port, *detail);
}

const char* ssm_lock_error_word(std::uint8_t error) {
    return error ? ERRORS[error] : nullptr;
}

const char* ssm_pin_state_word(const ssm_pin* pin) {
    return pin && pin->state ? STATES[pin->state] : nullptr;
}
