// The port table: one row an interface that can carry SyncE, indexed by interface index. Rows come from the
// interface list at the moment of the request and are visited in the order of their indexes, whatever the
// order of the list.
//
// What can go wrong: an interface without a port record (not bound yet, or no memory for one). Its row
// exists, none of its cells has a value, and the operations refuse it.
#include <cstring>

#include "core/neighbour.h"
#include "core/opts.h"
#include "core/ports.h"
#include "snmp/handlers.h"
#include "snmp/values.h"
#include "suite/ports/slow_socket.h"

namespace {

constexpr std::uint32_t NEAR = 8;

// The column of a table's entry, 0 when it is none of this table.
std::uint32_t column_of(const snmp_variable* variable) {
    const std::uint32_t column = variable->magic - SSM_MIB_COLUMN;
    return column >= SSM_MIB_INDEX && column <= SSM_MIB_HELD_BACK ? column : 0;
}

ssm_mib_value held_back(const ssm_port* port) {
    slow_port_stats stats = {};
    (void)slow_socket_port_stats(port->ifindex, &stats);  // none yet: 0
    return static_cast<ssm_mib_value>(stats.held_back);
}

ssm_mib_value cell_of(const ssm_port* port, std::uint32_t column) {
    switch (column) {
        case SSM_MIB_SYNCE_ENABLE:
            return ssm_mib_flag(port->synce_enable);
        case SSM_MIB_ESMC_MODE:
            return port->esmc_mode;
        case SSM_MIB_PRIORITY:
            return port->priority;
        case SSM_MIB_LINK:
            return ssm_mib_flag(port->link_up);
        case SSM_MIB_RECEIVED_QUALITY:
            return ssm_mib_quality(port->recv_quality);
        case SSM_MIB_SEND_TIMER:
            return ssm_mib_flag(port->send_timer);
        case SSM_MIB_TIMEOUT_TIMER:
            return ssm_mib_flag(port->timeout_timer);
        case SSM_MIB_SENT_QUALITY:
            return ssm_mib_quality(port->send_quality);
        case SSM_MIB_DNU_GROUP:
            return port->dnu_group;
        case SSM_MIB_REPLACE_CLOCKID:
            return ssm_mib_flag(port->replace_clockid);
        case SSM_MIB_FORCED_RX_QUALITY:
            return ssm_mib_quality(port->force_rx_quality);
        case SSM_MIB_HELD_BACK:
            return held_back(port);
        default:
            return ssm_mib_quality(port->force_tx_quality);
    }
}

int status_of(std::int32_t result) {
    return result == 0 ? SNMP_NO_ERROR : SNMP_GEN_ERR;
}

// The mode that was read before a SET. A written direction is added to what the port does already, so that
// writing it is not enough.
std::int32_t restore_mode(interface* intf, std::uint32_t mode) {
    const std::int32_t result = mode == SSM_ESMC_NONE ? ssm_opts_unset_port_esmc(intf, SSM_ESMC_ALL)
                                                      : ssm_opts_set_port_esmc(intf, mode);
    const ssm_port* port = ssm_if_port(intf);
    if (result != 0 || !port || port->esmc_mode == mode) return result;
    return ssm_opts_unset_port_esmc(intf, mode == SSM_ESMC_RX ? SSM_ESMC_TX : SSM_ESMC_RX);
}

int write_mode(interface* intf, std::int32_t value, int action) {
    constexpr std::int32_t NO_DIRECTION = 4, NOT_RECEIVE = 5, NOT_TRANSMIT = 6;
    if (value < 1 || value > NOT_TRANSMIT) return SNMP_WRONG_VALUE;
    const auto mode = static_cast<std::uint32_t>(value);
    if (action == SNMP_ACTION_RESTORE && mode <= SSM_ESMC_NONE) return status_of(restore_mode(intf, mode));
    switch (value) {
        case NO_DIRECTION:
            return status_of(ssm_opts_unset_port_esmc(intf, SSM_ESMC_ALL));
        case NOT_RECEIVE:
            return status_of(ssm_opts_unset_port_esmc(intf, SSM_ESMC_RX));
        case NOT_TRANSMIT:
            return status_of(ssm_opts_unset_port_esmc(intf, SSM_ESMC_TX));
        default:
            return status_of(ssm_opts_set_port_esmc(intf, mode));
    }
}

int write_forced_quality(interface* intf, std::int32_t value, ssm_esmc_mode direction) {
    const char* token = ssm_mib_quality_token(value);
    if (!token) return SNMP_WRONG_VALUE;
    return ssm_opts_set_port_quality(intf, direction, token) < 0 ? SNMP_INCONSISTENT_VALUE : SNMP_NO_ERROR;
}

int write_number(interface* intf, std::int32_t value, std::int32_t low, std::int32_t high,
                 std::int32_t (*operation)(interface*, std::uint32_t)) {
    if (value < low || value > high) return SNMP_WRONG_VALUE;
    return status_of(operation(intf, static_cast<std::uint32_t>(value)));
}

int write_flag(interface* intf, std::int32_t value, std::int32_t (*operation)(interface*, std::uint32_t)) {
    if (value != 1 && value != 2) return SNMP_WRONG_VALUE;
    return status_of(operation(intf, value == 1 ? 1 : 0));
}

int write_cell(interface* intf, std::uint32_t column, std::int32_t value, int action) {
    switch (column) {
        case SSM_MIB_SYNCE_ENABLE:
            return write_flag(intf, value, ssm_opts_set_port_synce);
        case SSM_MIB_ESMC_MODE:
            return write_mode(intf, value, action);
        case SSM_MIB_PRIORITY:
            return write_number(intf, value, 1, 255, ssm_opts_set_port_priority);
        case SSM_MIB_DNU_GROUP:
            return write_number(intf, value, 0, 255, ssm_opts_set_port_dnu_group);
        case SSM_MIB_REPLACE_CLOCKID:
            return write_flag(intf, value, ssm_opts_set_port_replace_clockid);
        case SSM_MIB_FORCED_RX_QUALITY:
            return write_forced_quality(intf, value, SSM_ESMC_RX);
        default:
            return write_forced_quality(intf, value, SSM_ESMC_TX);
    }
}

bool is_read_only(std::uint32_t column) {
    return column == SSM_MIB_INDEX || column == SSM_MIB_NEIGHBOUR || column == SSM_MIB_HELD_BACK ||
           (column >= SSM_MIB_LINK && column <= SSM_MIB_SENT_QUALITY);
}

int write_port(int action, const std::uint8_t* value, std::uint8_t, std::size_t value_length,
               const std::uint8_t*, const snmp_oid* name, std::size_t name_length,
               const snmp_variable* variable) {
    if (!value || !name || !variable || !g_s_master) return SNMP_GEN_ERR;
    if (name_length != variable->suffix_length + std::size_t{1}) return SNMP_GEN_ERR;
    interface* intf = ssm_mib_find_interface(name[variable->suffix_length], 1);
    if (!intf) return SNMP_NO_SUCH_NAME;
    const std::uint32_t column = column_of(variable);
    if (column == 0) return SNMP_GEN_ERR;
    if (is_read_only(column)) return SNMP_READ_ONLY_ERROR;
    std::int32_t number = 0;
    if (!ssm_mib_take_value(value, value_length, &number)) return SNMP_WRONG_VALUE;
    return write_cell(intf, column, number, action);
}

// The index that a request asks for or behind. False: an exact request without one, or with more.
bool index_of(const snmp_variable* variable, const snmp_oid* name, std::size_t name_length, int exact,
              std::uint32_t* index) {
    const std::size_t column_length = variable->suffix_length;
    if (exact && name_length != column_length + 1) return false;
    const bool inside =
        name_length > column_length && std::memcmp(name, variable->suffix, column_length * sizeof *name) == 0;
    *index = inside ? name[column_length] : 0;
    return true;
}

}  // namespace

interface* ssm_mib_find_interface(std::uint32_t index, int exact) {
    if (!g_p_esmcd) return nullptr;
    if (exact) {
        interface* found = if_lookup_by_index(g_p_esmcd->ifm, index);
        return ssm_if_usable(found) ? found : nullptr;
    }
    // Indexes mostly follow each other: a walk of many ports need not look at all of them for each one.
    for (std::uint32_t step = 1; step <= NEAR && index + step > index; ++step) {
        interface* found = if_lookup_by_index(g_p_esmcd->ifm, index + step);
        if (ssm_if_usable(found)) return found;
    }
    interface* best = nullptr;
    for (interface* intf : if_list(g_p_esmcd->ifm))
        if (ssm_if_usable(intf) && intf->ifindex > index && (!best || intf->ifindex < best->ifindex))
            best = intf;
    return best;
}

const void* ssm_mib_read_port(const snmp_variable* variable, snmp_oid* name, std::size_t* name_length,
                              int exact, std::size_t* value_length, snmp_write_handler* write) {
    if (!variable || !name || !name_length || !value_length || !write || !g_s_master) return nullptr;
    const std::uint32_t column = column_of(variable);
    *write = column ? write_port : nullptr;
    *value_length = 4;
    std::uint32_t index = 0;
    if (!column || !index_of(variable, name, *name_length, exact, &index)) return nullptr;
    const interface* intf = ssm_mib_find_interface(index, exact);
    if (!intf) return nullptr;
    if (!exact) {
        std::memcpy(name, variable->suffix, variable->suffix_length * sizeof *name);
        name[variable->suffix_length] = intf->ifindex;
        *name_length = variable->suffix_length + std::size_t{1};
    }
    const ssm_port* port = ssm_if_port(intf);
    if (!port || column == SSM_MIB_INDEX) return nullptr;
    if (column == SSM_MIB_NEIGHBOUR) return ssm_mib_address(ssm_neighbour(port), value_length);
    return ssm_mib_cell(cell_of(port, column));
}
