// The SSM module's table of objects: place, type and access of each. No object has a read handler yet, so
// every request is answered with "no such object".
#include "snmp/ssm_mib.h"

namespace {

constexpr snmp_variable scalar(snmp_oid number, std::uint8_t type, std::uint8_t access) {
    return {number, type, access, 1, nullptr, {number}};
}

constexpr snmp_oid PORT_TABLE = 13, PORT_ENTRY = 1;
constexpr std::uint32_t COLUMN_MAGIC = 100;  // apart from the scalars' numbers

constexpr snmp_variable column(snmp_oid number, std::uint8_t access) {
    return {COLUMN_MAGIC + number, SNMP_TYPE_INTEGER, access, 3, nullptr, {PORT_TABLE, PORT_ENTRY, number}};
}

}  // namespace

const snmp_oid ssm_oid[SSM_OID_LENGTH] = {ESMC_ENTERPRISE, 81};

const snmp_variable ssm_variables[SSM_VARIABLE_COUNT] = {
    scalar(1, SNMP_TYPE_OCTET_STRING, SNMP_READ_ONLY),  // clock identity
    scalar(2, SNMP_TYPE_INTEGER, SNMP_READ_WRITE),      // SyncE
    scalar(3, SNMP_TYPE_INTEGER, SNMP_READ_WRITE),      // SSM
    scalar(4, SNMP_TYPE_INTEGER, SNMP_READ_WRITE),      // device type
    scalar(5, SNMP_TYPE_INTEGER, SNMP_READ_WRITE),      // local quality
    scalar(6, SNMP_TYPE_INTEGER, SNMP_READ_ONLY),       // current quality
    scalar(7, SNMP_TYPE_INTEGER, SNMP_READ_WRITE),      // local priority
    scalar(8, SNMP_TYPE_INTEGER, SNMP_READ_ONLY),       // selected port
    scalar(9, SNMP_TYPE_INTEGER, SNMP_READ_WRITE),      // extension
    scalar(10, SNMP_TYPE_INTEGER, SNMP_READ_ONLY),      // running state
    scalar(11, SNMP_TYPE_INTEGER, SNMP_READ_ONLY),      // option
    scalar(12, SNMP_TYPE_INTEGER, SNMP_READ_WRITE),     // force switch
    column(1, SNMP_NOT_ACCESSIBLE),                     // interface index
    column(2, SNMP_READ_WRITE),                         // SyncE
    column(3, SNMP_READ_WRITE),                         // ESMC mode
    column(4, SNMP_READ_WRITE),                         // priority
    column(5, SNMP_READ_ONLY),                          // link
    column(6, SNMP_READ_ONLY),                          // received quality
    column(7, SNMP_READ_ONLY),                          // send timer
    column(8, SNMP_READ_ONLY),                          // time-out timer
    column(9, SNMP_READ_ONLY),                          // sent quality
    column(10, SNMP_READ_WRITE),                        // DNU group
    column(11, SNMP_READ_WRITE),                        // replace clock identity
    column(12, SNMP_READ_WRITE),                        // forced receive quality
    column(13, SNMP_READ_WRITE),                        // forced transmit quality
    scalar(15, SNMP_TYPE_INTEGER, SNMP_READ_WRITE),     // recovery select
};
