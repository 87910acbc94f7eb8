// The groups of read-only objects: what supervises the sources, and of each port its counters, its times and
// its states. All objects of a group have one type and one entry of the module's table; which object is
// meant, and which comes next, is found here. Behind a group's name stand the number of the object and its
// instance: a port's index, or 0 for an object of the switch.
//
// What can go wrong: an interface without a port record, as in the port table.
#include <algorithm>
#include <cstring>
#include <iterator>
#include <span>

#include "core/extension.h"
#include "core/ports.h"
#include "core/ql.h"
#include "core/supervision.h"
#include "snmp/handlers.h"
#include "snmp/values.h"
#include "suite/ports/slow_socket.h"

namespace {

constexpr nanoseconds TICK = 10 * NS_PER_MS;

// ---- Counters ----

using statistic = std::uint64_t ssm_statistics::*;

constexpr statistic BEYOND_RATE_LIMIT = nullptr;  // the socket counts them
constexpr statistic COUNTERS[] = {
    &ssm_statistics::information_in, &ssm_statistics::events_in,
    &ssm_statistics::dnu_in,         &ssm_statistics::information_out,
    &ssm_statistics::events_out,     &ssm_statistics::dnu_out,
    &ssm_statistics::short_frames,   &ssm_statistics::bad_qualities,
    &ssm_statistics::bad_tlvs,       BEYOND_RATE_LIMIT,
    &ssm_statistics::timeouts,       &ssm_statistics::sources,
};

std::uint64_t counter(const ssm_port* port, snmp_oid object) {
    const statistic counted = COUNTERS[object - 1];
    if (counted) return port->statistics->*counted;
    slow_port_stats frames = {};
    (void)slow_socket_port_stats(port->ifindex, &frames);  // none yet: 0
    return frames.limited;
}

// ---- Times, in hundredths of a second ----

// Begun ones, so that only what never was reads 0. It stops at the greatest number.
std::uint64_t age(nanoseconds moment) {
    if (!moment) return 0;
    const std::uint64_t ticks = (thread_now(g_p_esmcd) - moment) / TICK;
    return std::min<std::uint64_t>(ticks + 1, UINT32_MAX);
}

std::uint64_t length(nanoseconds interval) {
    return (interval + TICK / 2) / TICK;
}

std::uint64_t stamp(nanoseconds moment) {
    return snmp_time_stamp(g_p_esmcd, moment);
}

constexpr statistic MEAN_INTERVAL = nullptr;
constexpr struct {
    statistic time;
    std::uint64_t (*ticks)(nanoseconds);
} TIMES[] = {
    {&ssm_statistics::last_information, age},
    {&ssm_statistics::last_event, age},
    {&ssm_statistics::last_out, age},
    {&ssm_statistics::shortest, length},
    {MEAN_INTERVAL, length},
    {&ssm_statistics::longest, length},
    {&ssm_statistics::quality_changed, stamp},
    {&ssm_statistics::began, stamp},
};

std::uint64_t time_of(const ssm_port* port, snmp_oid object) {
    const auto& row = TIMES[object - 1];
    const ssm_statistics& s = *port->statistics;
    return row.ticks(row.time ? s.*row.time : ssm_mean_interval(s));
}

// In the order of ssm_change_kind.
std::uint64_t last_change(const ssm_port*, snmp_oid object) {
    return stamp(g_s_master->history.last[object - 1]);
}

// ---- States ----

constexpr snmp_oid STATES = 15;

std::uint64_t state(const ssm_port* port, snmp_oid object) {
    const auto flag = [](bool set) { return static_cast<std::uint64_t>(ssm_mib_flag(set)); };
    const auto quality = [](ssm_quality q) { return static_cast<std::uint64_t>(ssm_mib_whole_quality(q)); };
    switch (object) {
        case 1:
            return quality(port->recv_quality);
        case 2:
            return quality(port->send_quality);
        case SSM_MIB_LOCKED_OUT:
            return flag(port->lockout);
        case 4:
            return flag(port->failed);
        case 5:
            return ssm_restore_left_s(port);
        case 6:
            return ssm_hold_off_left_ms(port);
        case SSM_MIB_FLAPPING:
            return flag(ssm_flapping(port));
        case 8:
            return ssm_hold_off_ms(port);
        case 9:
            return ssm_restore_s(port);
        case 10:
            return quality(port->min_rx_quality);
        case 11:
            return quality(port->max_rx_quality);
        case 12:
            return quality(port->min_tx_quality);
        case 13:
            return quality(port->max_tx_quality);
        case 14:
            return port->recv_form + 1U;
        default:
            return ssm_extend_form_of(port) + 1U;
    }
}

// ---- The switch ----

constexpr snmp_oid SWITCH_OBJECTS = 10;

std::uint64_t of_switch(const ssm_port*, snmp_oid object) {
    const ssm_master* clock = g_s_master;
    const auto number = [](ssm_mib_value value) { return static_cast<std::uint64_t>(value); };
    switch (object) {
        case SSM_MIB_COMMAND:
            return number(ssm_mib_active_command().kind);
        case SSM_MIB_COMMAND_PORT:
            return number(ssm_mib_active_command().port);
        case 3:
            return number(clock->current_quality == QL_NONE ? ssm_mib_current_quality(QL_NONE)
                                                            : ssm_mib_whole_quality(clock->current_quality));
        case 4:
            return number(ssm_mib_whole_quality(clock->local_quality));
        case 5:
            return clock->extend_form == SSM_FORM_STANDARD ? 3 : 2;
        case 6:
            return clock->clock_type + 1U;
        case 7:
            return clock->hold_off_ms;
        case 8:
            return clock->restore_s;
        case 9:
            return number(ssm_mib_flag(clock->non_revertive));
        default:
            return number(ssm_mib_dpll_state());
    }
}

// ---- Names and addresses ----

constexpr snmp_oid NAME = 1, IDENTITY_OBJECTS = 2;

const void* identity(const ssm_port* port, snmp_oid object, std::size_t* length) {
    if (object != NAME) return ssm_mib_address(port->intf->mac, length);
    const char* name = ssm_port_name(port);
    *length = std::strlen(name);
    return name;
}

// ---- Which object ----

struct group {
    snmp_oid objects;
    bool of_ports;
    // port: null for those of the switch. Null: the group has texts
    std::uint64_t (*read)(const ssm_port* port, snmp_oid object);
};
// From SSM_MIB_SUPERVISION on.
constexpr group GROUPS[] = {
    {SWITCH_OBJECTS, false, of_switch},     {std::size(COUNTERS), true, counter},
    {std::size(TIMES), true, time_of},      {STATES, true, state},
    {SSM_CHANGE_KINDS, false, last_change}, {IDENTITY_OBJECTS, true, nullptr},
};

// An object and its instance: what stands in a name behind the group's.
struct place {
    snmp_oid object, instance;
};

bool has_instance(const group& g, const place& at) {
    return g.of_ports ? ssm_mib_find_interface(at.instance, 1) != nullptr : at.instance == 0;
}

// The first instance of an object, or (of a port) the first behind `at`. False: there is none.
bool next_instance(const group& g, bool first, place* at) {
    if (!g.of_ports) {
        at->instance = 0;
        return first;
    }
    const interface* intf = ssm_mib_find_interface(first ? 0 : at->instance, 0);
    if (intf) at->instance = intf->ifindex;
    return intf != nullptr;
}

// The first behind what stands in `asked`, which may be cut or too long.
bool next_place(const group& g, std::span<const snmp_oid> asked, place* at) {
    bool first = asked.size() < 2 || asked[0] == 0;
    *at = {asked.empty() ? 1 : std::max<snmp_oid>(asked[0], 1), first ? 0 : asked[1]};
    for (; at->object <= g.objects; ++at->object, first = true) {
        if (next_instance(g, first, at)) return true;
        if (first) return false;  // no object has any
    }
    return false;
}

const void* cell(std::uint64_t value, std::uint8_t type, std::size_t* length) {
    *length = type == SNMP_TYPE_COUNTER64 ? sizeof value : sizeof(std::uint32_t);
    return type == SNMP_TYPE_COUNTER64 ? ssm_mib_counter_cell(value)
                                       : ssm_mib_cell(static_cast<ssm_mib_value>(value));
}

}  // namespace

ssm_mib_command ssm_mib_active_command() {
    constexpr ssm_mib_value NONE = 1, FORCED = 2, MANUAL = 3;
    if (g_s_master->force_e1) return {FORCED, SSM_IFINDEX_E1};
    if (g_s_master->force_port) return {FORCED, g_s_master->force_port->ifindex};
    if (g_s_master->manual_port) return {MANUAL, g_s_master->manual_port->ifindex};
    return {NONE, 0};
}

ssm_mib_value ssm_mib_dpll_state() {
    constexpr ssm_mib_value UNKNOWN = 1;
    const std::uint32_t state = g_s_master->dpll_state;
    return state >= SSM_DPLL_FREERUN && state <= SSM_DPLL_LOCK ? ssm_mib_value{state} : UNKNOWN;
}

const void* ssm_mib_read_group(const snmp_variable* variable, snmp_oid* name, std::size_t* name_length,
                               int exact, std::size_t* value_length, snmp_write_handler* write) {
    if (!variable || !name || !name_length || !value_length || !write || !g_s_master) return nullptr;
    const group& g = GROUPS[variable->magic - SSM_MIB_SUPERVISION];
    const std::size_t head = variable->suffix_length;
    const std::span<const snmp_oid> asked{name + head, *name_length > head ? *name_length - head : 0};
    place at;
    *write = nullptr;
    if (exact) {
        const bool known = !asked.empty() && asked[0] >= 1 && asked[0] <= g.objects;
        if (!known) *name_length = 0;
        if (!known || asked.size() != 2) return nullptr;
        at = {asked[0], asked[1]};
        if (!has_instance(g, at)) return nullptr;
    } else {
        if (!next_place(g, asked, &at)) return nullptr;
        std::copy_n(variable->suffix, head, name);
        name[head] = at.object;
        name[head + 1] = at.instance;
        *name_length = head + 2;
    }
    const ssm_port* port = g.of_ports ? ssm_if_port(ssm_mib_find_interface(at.instance, 1)) : nullptr;
    if (g.of_ports && !port) return nullptr;
    if (!g.read) return port ? identity(port, at.object, value_length) : nullptr;
    return cell(g.read(port, at.object), variable->type, value_length);
}
