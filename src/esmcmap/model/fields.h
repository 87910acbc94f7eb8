// The fields of a switch's JSON that are kept for metrics, by number: a large network has millions of values.
// What a switch tells beyond them is passed over. Whoever reads a field names it; one that is not in the list
// does not compile.
#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string_view>

namespace esmcmap {

// Sorted.
inline constexpr std::string_view FIELDS[] = {
    "address",
    "beyond_rate_limit",
    "changed_meanwhile",
    "changes",
    "cleared_age_ms",
    "clock_id",
    "clock_type",
    "current_quality",
    "device_type",
    "dnu_group",
    "dnu_in",
    "dnu_out",
    "dpll_state",
    "e1_forced",
    "esmc",
    "event_age_ms",
    "events_in",
    "events_out",
    "extend_form",
    "failed",
    "flapping",
    "forced_port",
    "forced_received_quality",
    "forced_sent_quality",
    "frequency_offset_ppt",
    "hardware_quality",
    "held_back",
    "hold_off_left_ms",
    "hold_off_ms",
    "hop_count",
    "ifindex",
    "information_age_ms",
    "information_in",
    "information_out",
    "link_up",
    "local_priority",
    "local_quality",
    "lock_error",
    "locked_out",
    "longest_interval_ms",
    "loop_guard_hold_left_ms",
    "loop_guard_hold_ms",
    "loop_guard_holds",
    "loop_guard_hops",
    "loop_guard_in_force",
    "loop_guard_longest_hold_ms",
    "loop_guard_refused",
    "loop_guard_refused_ms",
    "manual_port",
    "maximum_received_quality",
    "maximum_sent_quality",
    "mean_interval_ms",
    "measured_frequency_millihertz",
    "minimum_received_quality",
    "minimum_sent_quality",
    "name",
    "neighbour",
    "non_revertive",
    "option",
    "pin_state",
    "priority",
    "quality_age_ms",
    "received_clock_id",
    "received_form",
    "received_quality",
    "receiving",
    "recovery_input",
    "replace_clock_id",
    "running_state",
    "sending",
    "sent_age_ms",
    "sent_quality",
    "shortest_interval_ms",
    "source",
    "ssm_enabled",
    "ssm_extended",
    "synce_enabled",
    "timeouts",
    "times_source",
    "unknown_quality",
    "unknown_tlv",
    "wait_to_restore_left_s",
    "wait_to_restore_s",
    "without_quality",
};

class field {
  public:
    // "": none.
    consteval field(const char* name) : field(std::string_view(name)) {}

    static constexpr std::optional<field> find(std::string_view name) {
        const auto* found = std::lower_bound(std::begin(FIELDS), std::end(FIELDS), name);
        if (found == std::end(FIELDS) || *found != name) return std::nullopt;
        return field(found - std::begin(FIELDS));
    }
    constexpr explicit operator bool() const { return number != NONE; }
    constexpr std::string_view name() const { return number == NONE ? std::string_view() : FIELDS[number]; }
    constexpr bool operator==(const field&) const = default;

  private:
    static constexpr std::uint8_t NONE = 255;
    static_assert(std::size(FIELDS) < NONE);
    std::uint8_t number = NONE;

    constexpr explicit field(std::ptrdiff_t place) : number(static_cast<std::uint8_t>(place)) {}
    consteval explicit field(std::string_view name) {
        if (!name.empty()) number = find(name).value().number;  // no value: no such field
    }
};

}  // namespace esmcmap
