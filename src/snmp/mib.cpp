// The SSM module's table of objects: place, type, access and handler of each, in the order of their places.
// The objects below 16 exist only in notifications and have no entry.
#include "snmp/mib.h"

#include "snmp/handlers.h"

namespace {

template <ssm_mib_scalar Place>
constexpr snmp_variable scalar(std::uint8_t type, std::uint8_t access) {
    return {Place, type, access, 1, ssm_mib_read_scalar<Place>, {Place}};
}

constexpr snmp_oid PORT_ENTRY = 1;

template <ssm_mib_scalar Object>
constexpr snmp_variable guard(std::uint8_t type, std::uint8_t access) {
    return {Object,
            type,
            access,
            2,
            ssm_mib_read_scalar<Object>,
            {SSM_MIB_GUARD, 1 + Object - SSM_MIB_GUARD_FIRST}};
}

constexpr snmp_variable column(ssm_mib_column place, std::uint8_t access,
                               std::uint8_t type = SNMP_TYPE_INTEGER) {
    return {
        SSM_MIB_COLUMN + place, type, access, 3, ssm_mib_read_port, {SSM_MIB_PORT_TABLE, PORT_ENTRY, place}};
}

// An entry is so large that the objects of a group, which have one type, share one.
constexpr snmp_variable group(ssm_mib_scalar place, std::uint8_t type) {
    return {place, type, SNMP_READ_ONLY, 1, ssm_mib_read_group, {place}};
}
constexpr snmp_variable port_group(ssm_mib_scalar place, std::uint8_t type) {
    return {place, type, SNMP_READ_ONLY, 2, ssm_mib_read_group, {place, PORT_ENTRY}};
}

}  // namespace

const snmp_oid ssm_oid[SSM_OID_LENGTH] = {ESMC_ENTERPRISE, 81};

const snmp_variable ssm_variables[SSM_VARIABLE_COUNT] = {
    scalar<SSM_MIB_CLOCK_ID>(SNMP_TYPE_OCTET_STRING, SNMP_READ_ONLY),
    scalar<SSM_MIB_GLOBAL_ENABLE>(SNMP_TYPE_INTEGER, SNMP_READ_WRITE),
    scalar<SSM_MIB_SSM_ENABLE>(SNMP_TYPE_INTEGER, SNMP_READ_WRITE),
    scalar<SSM_MIB_DEVICE_TYPE>(SNMP_TYPE_INTEGER, SNMP_READ_WRITE),
    scalar<SSM_MIB_LOCAL_QUALITY>(SNMP_TYPE_INTEGER, SNMP_READ_WRITE),
    scalar<SSM_MIB_CURRENT_QUALITY>(SNMP_TYPE_INTEGER, SNMP_READ_ONLY),
    scalar<SSM_MIB_LOCAL_PRIORITY>(SNMP_TYPE_INTEGER, SNMP_READ_WRITE),
    scalar<SSM_MIB_SELECTED_PORT>(SNMP_TYPE_INTEGER, SNMP_READ_ONLY),
    scalar<SSM_MIB_EXTENSION>(SNMP_TYPE_INTEGER, SNMP_READ_WRITE),
    scalar<SSM_MIB_RUNNING_STATE>(SNMP_TYPE_INTEGER, SNMP_READ_ONLY),
    scalar<SSM_MIB_OPTION>(SNMP_TYPE_INTEGER, SNMP_READ_ONLY),
    scalar<SSM_MIB_FORCE_SWITCH>(SNMP_TYPE_INTEGER, SNMP_READ_WRITE),
    column(SSM_MIB_INDEX, SNMP_NOT_ACCESSIBLE),
    column(SSM_MIB_SYNCE_ENABLE, SNMP_READ_WRITE),
    column(SSM_MIB_ESMC_MODE, SNMP_READ_WRITE),
    column(SSM_MIB_PRIORITY, SNMP_READ_WRITE),
    column(SSM_MIB_LINK, SNMP_READ_ONLY),
    column(SSM_MIB_RECEIVED_QUALITY, SNMP_READ_ONLY),
    column(SSM_MIB_SEND_TIMER, SNMP_READ_ONLY),
    column(SSM_MIB_TIMEOUT_TIMER, SNMP_READ_ONLY),
    column(SSM_MIB_SENT_QUALITY, SNMP_READ_ONLY),
    column(SSM_MIB_DNU_GROUP, SNMP_READ_WRITE),
    column(SSM_MIB_REPLACE_CLOCKID, SNMP_READ_WRITE),
    column(SSM_MIB_FORCED_RX_QUALITY, SNMP_READ_WRITE),
    column(SSM_MIB_FORCED_TX_QUALITY, SNMP_READ_WRITE),
    column(SSM_MIB_NEIGHBOUR, SNMP_READ_ONLY, SNMP_TYPE_OCTET_STRING),
    column(SSM_MIB_HELD_BACK, SNMP_READ_ONLY, SNMP_TYPE_COUNTER32),
    scalar<SSM_MIB_RECOVERY_SELECT>(SNMP_TYPE_INTEGER, SNMP_READ_WRITE),
    guard<SSM_MIB_GUARD_ENABLE>(SNMP_TYPE_INTEGER, SNMP_READ_WRITE),
    guard<SSM_MIB_GUARD_HOLD>(SNMP_TYPE_INTEGER, SNMP_READ_WRITE),
    guard<SSM_MIB_GUARD_HOPS>(SNMP_TYPE_INTEGER, SNMP_READ_WRITE),
    guard<SSM_MIB_GUARD_REFUSED>(SNMP_TYPE_COUNTER32, SNMP_READ_ONLY),
    guard<SSM_MIB_GUARD_HOLDS>(SNMP_TYPE_COUNTER32, SNMP_READ_ONLY),
    guard<SSM_MIB_GUARD_LONGEST_HOLD>(SNMP_TYPE_GAUGE32, SNMP_READ_ONLY),
    guard<SSM_MIB_GUARD_HOLD_LEFT>(SNMP_TYPE_GAUGE32, SNMP_READ_ONLY),
    group(SSM_MIB_SUPERVISION, SNMP_TYPE_INTEGER),
    port_group(SSM_MIB_PORT_COUNTERS, SNMP_TYPE_COUNTER64),
    port_group(SSM_MIB_PORT_TIMES, SNMP_TYPE_TIME_TICKS),
    port_group(SSM_MIB_PORT_STATES, SNMP_TYPE_INTEGER),
    group(SSM_MIB_LAST_CHANGES, SNMP_TYPE_TIME_TICKS),
    port_group(SSM_MIB_PORT_IDENTITIES, SNMP_TYPE_OCTET_STRING),
};
