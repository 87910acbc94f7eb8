// The records' life: where they are, and their defaults. The clock record and the instance record live as
// long as the process; a port record as long as NSM has the interface bound.
#include "core/records.h"

#include <cstring>

#include "core/result.h"

ssm_master* g_s_master = nullptr;
lib_globals* g_p_esmcd = nullptr;
ssm_instance_record* ssm_instance = nullptr;

void* ssm_calloc(std::size_t octets, memory_type type) {
    for (const malloc_size* fit = malloc_sizes; fit->octets != 0; ++fit)
        if (fit->octets >= octets) return _memmgr_calloc(fit, type);
    return nullptr;
}

std::int32_t ssm_master_init() {
    *g_s_master = {};
    g_s_master->local_priority = SSM_PRIORITY_NONE;
    g_s_master->ql_option = SSM_OPTION_1;
    g_s_master->local_quality = g_s_master->hardware.quality = QL_DNU;
    g_s_master->current_quality = QL_DNU;
    g_s_master->device_type = SSM_DEFAULT_ROLE;
    g_s_master->freerun = 1;
    g_s_master->dpll_state = SSM_DPLL_FREERUN;
    g_s_master->e1_quality = QL_NONE;
    ssm_guard_init(&g_s_master->guard);
    return SSM_OK;
}

std::int32_t ssm_port_init(ssm_port* port) {
    interface* intf = port->intf;
    ssm_statistics* statistics = port->statistics;
    *port = {};
    port->intf = intf;
    port->statistics = statistics;
    port->ifindex = intf->ifindex;
    port->esmc_mode = SSM_ESMC_ALL;
    port->priority = SSM_PRIORITY_NONE;
    port->send_quality = QL_NONE;
    port->recv_quality = QL_NONE;
    port->force_tx_quality = QL_NONE;
    port->force_rx_quality = QL_NONE;
    port->min_rx_quality = port->max_rx_quality = port->min_tx_quality = port->max_tx_quality = QL_NONE;
    std::memset(port->logged_clockid, 0xFF, sizeof port->logged_clockid);  // no switch's identity
    return SSM_OK;
}
