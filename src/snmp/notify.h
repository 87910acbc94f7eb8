// The notifications of the SSM module. While they are configured, the sub-agent calls in here five times a
// second; what differs from what was told last is sent.
#pragma once

#include "suite/base/context.h"

// Numbers below the module's notification node.
enum ssm_notification : unsigned {
    SSM_NOTIFY_NONE = 0,
    SSM_NOTIFY_SOURCE = 1,
    SSM_NOTIFY_QUALITY = 2,
    SSM_NOTIFY_RUNNING_STATE = 3,
    SSM_NOTIFY_DPLL_STATE = 4,
    SSM_NOTIFY_PORT_LOST = 5,
    SSM_NOTIFY_PORT_RECEIVED = 6,
    SSM_NOTIFY_GUARD_REFUSES = 7,
    SSM_NOTIFY_FLAPPING = 8,
    SSM_NOTIFY_COMMAND = 9,
    SSM_NOTIFY_MANUAL_END = 10,
    SSM_NOTIFY_LOCKOUT = 11,
};

// Makes the sub-agent call. 0, or -1 when memory is exhausted: there are no notifications then.
int ssm_notify_init(lib_globals* ctx);
