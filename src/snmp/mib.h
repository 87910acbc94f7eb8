// The SSM module of the SNMP sub-agent: its table of objects and where it is registered.
#pragma once

#include "suite/agentx/snmp.h"

// 12 scalars, 15 columns of the port table, the recovery select, 7 scalars of the loop guard, 6 groups.
constexpr std::size_t SSM_VARIABLE_COUNT = 41;
constexpr std::size_t SSM_OID_LENGTH = 2;

extern const snmp_variable ssm_variables[SSM_VARIABLE_COUNT];
extern const snmp_oid ssm_oid[SSM_OID_LENGTH];  // below 1.3.6.1.4.1
