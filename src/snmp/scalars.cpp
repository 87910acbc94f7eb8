// The scalar objects. Each is read from the clock record at the moment of the request and written through the
// operation that the command line uses; nothing is kept here. A refused write changes nothing and is told to
// the manager alone: it is not logged.
//
// All readers and writers have the same steps; what differs between two objects is an entry of one table.
#include <cstring>
#include <type_traits>

#include "core/opts.h"
#include "core/ports.h"
#include "core/ql.h"
#include "snmp/handlers.h"
#include "snmp/values.h"

namespace {

// Applies a value that has the right type and length. An error status.
using apply_value = int (*)(std::int32_t value, int action);

int status_of(std::int32_t result) {
    return result == 0 ? SNMP_NO_ERROR : SNMP_GEN_ERR;
}

template <apply_value Apply>
int write_scalar(int action, const std::uint8_t* value, std::uint8_t value_type, std::size_t value_length,
                 const std::uint8_t*, const snmp_oid* name, std::size_t, const snmp_variable* variable) {
    if (!value || !name || !variable || !g_s_master) return SNMP_GEN_ERR;
    if (value_type != SNMP_TYPE_INTEGER) return SNMP_WRONG_TYPE;
    std::int32_t number = 0;
    if (!ssm_mib_take_value(value, value_length, &number)) return SNMP_WRONG_VALUE;
    return Apply(number, action);
}

template <std::int32_t (*Operation)(std::uint32_t)>
int apply_flag(std::int32_t value, int) {
    if (value != 1 && value != 2) return SNMP_WRONG_VALUE;
    return status_of(Operation(value == 1 ? 1 : 0));
}

int apply_device_type(std::int32_t value, int) {
    if (value < 1 || value > 3) return SNMP_WRONG_VALUE;
    return status_of(ssm_opts_set_device_type(static_cast<std::uint32_t>(value)));
}

int apply_local_quality(std::int32_t value, int) {
    const ssm_mib_local_quality* quality = ssm_mib_find_local_quality(value);
    if (!quality) return SNMP_WRONG_VALUE;
    return status_of(ssm_opts_set_local_quality(quality->code, quality->option));
}

int apply_local_priority(std::int32_t value, int) {
    if (value < 1 || value > 255) return SNMP_WRONG_VALUE;
    return status_of(ssm_opts_set_local_priority(static_cast<std::uint32_t>(value)));
}

int apply_guard_hold(std::int32_t value, int) {
    if (value < static_cast<std::int32_t>(SSM_GUARD_HOLD_MIN) ||
        value > static_cast<std::int32_t>(SSM_GUARD_HOLD_MAX))
        return SNMP_WRONG_VALUE;
    return status_of(ssm_opts_set_guard_hold(static_cast<std::uint32_t>(value)));
}

int apply_guard_hops(std::int32_t value, int) {
    if (value < static_cast<std::int32_t>(SSM_GUARD_HOPS_MIN) ||
        value > static_cast<std::int32_t>(SSM_GUARD_HOPS_MAX))
        return SNMP_WRONG_VALUE;
    return status_of(ssm_opts_set_guard_hops(static_cast<std::uint32_t>(value)));
}

int apply_recovery_select(std::int32_t value, int) {
    if (value < 1 || value > 3) return SNMP_WRONG_VALUE;
    return status_of(ssm_opts_set_recovery_select(static_cast<std::uint32_t>(value) - 1));
}

int apply_force_switch(std::int32_t value, int action) {
    constexpr auto e1 = static_cast<std::int32_t>(SSM_IFINDEX_E1);
    // The input for external clocks can be read but not chosen here; what was so before a SET must come back.
    if (value == e1 && action == SNMP_ACTION_RESTORE) return status_of(ssm_opts_force_e1(1));
    if (snmp_api_ifindex_check(value, IF_TYPE_SYNCE) != 1 && value != 0 && value != e1)
        return SNMP_WRONG_VALUE;
    if (value == 0) return status_of(ssm_opts_clear_force());
    ssm_port* port = ssm_if_port(ssm_mib_find_interface(static_cast<std::uint32_t>(value), 1));
    if (!port) return SNMP_INCONSISTENT_VALUE;
    return status_of(ssm_opts_set_force_port(port));
}

ssm_mib_value force_switch() {
    if (g_s_master->force_e1) return SSM_IFINDEX_E1;
    return g_s_master->force_port ? g_s_master->force_port->intf->ifindex : 0;
}

// What differs between the objects: the value, and who writes it (null: read-only).
struct scalar_object {
    ssm_mib_scalar magic;
    ssm_mib_value (*number)();
    const char* (*text)();  // where there is no number
    snmp_write_handler write;
};

constexpr scalar_object OBJECTS[] = {
    {SSM_MIB_CLOCK_ID, nullptr, [] { return ssm_clock_id_str(g_s_master->clock_id); }, nullptr},
    {SSM_MIB_GLOBAL_ENABLE, [] { return ssm_mib_flag(g_s_master->global_enable); }, nullptr,
     write_scalar<apply_flag<ssm_opts_set_global_enable>>},
    {SSM_MIB_SSM_ENABLE, [] { return ssm_mib_flag(g_s_master->ssm_enable); }, nullptr,
     write_scalar<apply_flag<ssm_opts_set_ssm_enable>>},
    {SSM_MIB_DEVICE_TYPE, [] { return ssm_mib_value{g_s_master->device_type}; }, nullptr,
     write_scalar<apply_device_type>},
    {SSM_MIB_LOCAL_QUALITY,
     [] { return ssm_mib_read_local_quality(g_s_master->local_quality, g_s_master->ql_option); }, nullptr,
     write_scalar<apply_local_quality>},
    {SSM_MIB_CURRENT_QUALITY, [] { return ssm_mib_current_quality(g_s_master->current_quality); }, nullptr,
     nullptr},
    {SSM_MIB_LOCAL_PRIORITY, [] { return ssm_mib_value{g_s_master->local_priority}; }, nullptr,
     write_scalar<apply_local_priority>},
    {SSM_MIB_SELECTED_PORT, ssm_mib_selected_index, nullptr, nullptr},
    {SSM_MIB_EXTENSION, [] { return ssm_mib_flag(g_s_master->ssm_extend); }, nullptr,
     write_scalar<apply_flag<ssm_opts_set_ssm_extend>>},
    {SSM_MIB_RUNNING_STATE, ssm_mib_running_state, nullptr, nullptr},
    {SSM_MIB_OPTION, [] { return ssm_mib_value{g_s_master->ql_option}; }, nullptr, nullptr},
    {SSM_MIB_FORCE_SWITCH, force_switch, nullptr, write_scalar<apply_force_switch>},
    {SSM_MIB_RECOVERY_SELECT, [] { return ssm_mib_value{g_s_master->recovery_select} + 1; }, nullptr,
     write_scalar<apply_recovery_select>},
    {SSM_MIB_GUARD_ENABLE, [] { return ssm_mib_flag(g_s_master->guard.enable); }, nullptr,
     write_scalar<apply_flag<ssm_opts_set_loop_guard>>},
    {SSM_MIB_GUARD_HOLD, [] { return ssm_mib_value{g_s_master->guard.hold_ms}; }, nullptr,
     write_scalar<apply_guard_hold>},
    {SSM_MIB_GUARD_HOPS, [] { return ssm_mib_value{g_s_master->guard.hops}; }, nullptr,
     write_scalar<apply_guard_hops>},
    {SSM_MIB_GUARD_REFUSED, [] { return static_cast<ssm_mib_value>(g_s_master->guard.refused); }, nullptr,
     nullptr},
    {SSM_MIB_GUARD_HOLDS, [] { return static_cast<ssm_mib_value>(g_s_master->guard.holds); }, nullptr,
     nullptr},
    {SSM_MIB_GUARD_LONGEST_HOLD,
     [] { return static_cast<ssm_mib_value>(g_s_master->guard.longest_hold / NS_PER_MS); }, nullptr, nullptr},
    {SSM_MIB_GUARD_HOLD_LEFT, [] { return ssm_mib_value{ssm_guard_hold_left_ms()}; }, nullptr, nullptr},
};

constexpr std::size_t place_of(std::uint32_t magic) {
    std::size_t i = 0;
    while (OBJECTS[i].magic != magic) ++i;  // an object without an entry does not compile
    return i;
}

// The steps of every read.
const void* read(const scalar_object& object, const snmp_variable* variable, snmp_oid* name,
                 std::size_t* name_length, int exact, std::size_t* value_length, snmp_write_handler* write) {
    if (!variable || !name || !name_length || !value_length || !write || !g_s_master) return nullptr;
    if (snmp_header_generic(variable, name, name_length, exact, value_length, write) != 0) return nullptr;
    if (variable->magic != object.magic) return nullptr;  // the write handler stays withdrawn
    *write = object.write;
    if (object.number) return ssm_mib_cell(object.number());
    const char* text = object.text();
    *value_length = std::strlen(text);
    return text;
}

}  // namespace

ssm_mib_value ssm_mib_selected_index() {
    return g_s_master->selected_port ? g_s_master->selected_port->intf->ifindex : 0;
}

ssm_mib_value ssm_mib_running_state() {
    return static_cast<ssm_mib_value>(ssm_running_state());
}

template <std::uint32_t Object>
const void* ssm_mib_read_scalar(const snmp_variable* variable, snmp_oid* name, std::size_t* name_length,
                                int exact, std::size_t* value_length, snmp_write_handler* write) {
    constexpr std::size_t place = place_of(Object);
    return read(OBJECTS[place], variable, name, name_length, exact, value_length, write);
}

using read_function = std::remove_pointer_t<snmp_read_handler>;
template read_function ssm_mib_read_scalar<SSM_MIB_CLOCK_ID>;
template read_function ssm_mib_read_scalar<SSM_MIB_GLOBAL_ENABLE>;
template read_function ssm_mib_read_scalar<SSM_MIB_SSM_ENABLE>;
template read_function ssm_mib_read_scalar<SSM_MIB_DEVICE_TYPE>;
template read_function ssm_mib_read_scalar<SSM_MIB_LOCAL_QUALITY>;
template read_function ssm_mib_read_scalar<SSM_MIB_CURRENT_QUALITY>;
template read_function ssm_mib_read_scalar<SSM_MIB_LOCAL_PRIORITY>;
template read_function ssm_mib_read_scalar<SSM_MIB_SELECTED_PORT>;
template read_function ssm_mib_read_scalar<SSM_MIB_EXTENSION>;
template read_function ssm_mib_read_scalar<SSM_MIB_RUNNING_STATE>;
template read_function ssm_mib_read_scalar<SSM_MIB_OPTION>;
template read_function ssm_mib_read_scalar<SSM_MIB_FORCE_SWITCH>;
template read_function ssm_mib_read_scalar<SSM_MIB_RECOVERY_SELECT>;
template read_function ssm_mib_read_scalar<SSM_MIB_GUARD_ENABLE>;
template read_function ssm_mib_read_scalar<SSM_MIB_GUARD_HOLD>;
template read_function ssm_mib_read_scalar<SSM_MIB_GUARD_HOPS>;
template read_function ssm_mib_read_scalar<SSM_MIB_GUARD_REFUSED>;
template read_function ssm_mib_read_scalar<SSM_MIB_GUARD_HOLDS>;
template read_function ssm_mib_read_scalar<SSM_MIB_GUARD_LONGEST_HOLD>;
template read_function ssm_mib_read_scalar<SSM_MIB_GUARD_HOLD_LEFT>;
