// Operations on one port, and its link state. Those that are given an interface refuse one that can't carry
// SSM or has no port record.
#include "core/debug.h"
#include "core/nsm_request.h"
#include "core/opts.h"
#include "core/ports.h"
#include "core/ql.h"
#include "core/result.h"
#include "core/supervision.h"
#include "core/timers.h"

namespace {

std::uint32_t& forced_count() {
    return g_s_master->ql_option == SSM_OPTION_1 ? g_s_master->forced_ql_count_op1
                                                 : g_s_master->forced_ql_count_op2;
}

void drop_forced_count(std::uint16_t forced) {
    if (forced != QL_NONE && forced_count() > 0) --forced_count();
}

void drop_manual_gephy(ssm_port* port) {
    if (!port->gephy_by_command) return;
    port->gephy_by_command = 0;
    --g_s_master->gephy_manual_count;
}

}  // namespace

std::int32_t ssm_opts_set_port_synce(interface* intf, std::uint32_t on) {
    ssm_port* port = ssm_if_port(intf);
    if (!port) return SSM_CLI_E_INVALID_IF;
    if (port->synce_enable == on) return SSM_OK;
    if (!on) ssm_supervision_forget(port);
    port->synce_enable = on;
    (void)ssm_port_timers_update(port, on != 0);
    ssm_opts_reselect();
    ssm_opts_after_change();
    return SSM_OK;
}

std::int32_t ssm_opts_set_port_esmc(interface* intf, std::uint32_t mode) {
    ssm_port* port = ssm_if_port(intf);
    if (!port) return SSM_CLI_E_INVALID_IF;
    if (port->esmc_mode == mode) return SSM_OK;
    if (mode < SSM_ESMC_RX || mode > SSM_ESMC_NONE) return SSM_CLI_E_INVALID_INPUT;
    const bool replaces = mode == SSM_ESMC_ALL || mode == SSM_ESMC_NONE || port->esmc_mode == SSM_ESMC_NONE;
    port->esmc_mode = replaces ? mode : std::uint32_t{SSM_ESMC_ALL};
    (void)ssm_port_timers_update(port, 1);
    ssm_opts_reselect();
    return SSM_OK;
}

std::int32_t ssm_opts_unset_port_esmc(interface* intf, std::uint32_t mode) {
    ssm_port* port = ssm_if_port(intf);
    if (!port) return SSM_CLI_E_INVALID_IF;
    if (port->esmc_mode == mode || mode == SSM_ESMC_ALL || port->esmc_mode == SSM_ESMC_NONE)
        port->esmc_mode = SSM_ESMC_NONE;
    else
        port->esmc_mode = mode == SSM_ESMC_RX ? SSM_ESMC_TX : SSM_ESMC_RX;
    (void)ssm_port_timers_update(port, 1);
    ssm_opts_reselect();
    return SSM_OK;
}

std::int32_t ssm_opts_set_port_priority(interface* intf, std::uint32_t priority) {
    ssm_port* port = ssm_if_port(intf);
    if (!port) return SSM_CLI_E_INVALID_IF;
    const auto value = static_cast<std::uint8_t>(priority);
    if (port->priority == value) return SSM_OK;
    port->priority = value;
    ssm_opts_without_ssm_step();
    return SSM_OK;
}

std::int32_t ssm_opts_set_port_dnu_group(interface* intf, std::uint32_t group) {
    ssm_port* port = ssm_if_port(intf);
    if (!port) return SSM_CLI_E_INVALID_IF;
    port->dnu_group = static_cast<std::uint8_t>(group);
    return SSM_OK;
}

std::int32_t ssm_opts_set_port_replace_clockid(interface* intf, std::uint32_t on) {
    ssm_port* port = ssm_if_port(intf);
    if (!port) return SSM_CLI_E_INVALID_IF;
    port->replace_clockid = on;
    return SSM_OK;
}

std::int32_t ssm_opts_set_port_quality(interface* intf, std::uint32_t direction, const char* token) {
    ssm_port* port = ssm_if_port(intf);
    if (!port) return SSM_CLI_E_INVALID_IF;
    std::uint16_t code = QL_NONE;
    const std::int32_t rv = ssm_ql_parse(token, &code);
    if (rv < 0) return rv;

    std::uint16_t& forced = direction == SSM_ESMC_RX ? port->force_rx_quality : port->force_tx_quality;
    if (forced == code) return SSM_OK;
    if (forced == QL_NONE)
        ++forced_count();
    else if (code == QL_NONE)
        drop_forced_count(forced);
    forced = code;
    if (port->force_rx_quality != QL_NONE) ssm_source_recovered(port);
    (void)ssm_port_timers_update(port, 1);
    ssm_opts_reselect();
    return SSM_OK;
}

std::int32_t ssm_opts_set_gephy_role(interface* intf, std::uint32_t enable, std::uint32_t role) {
    ssm_port* port = ssm_if_port(intf);
    if (!port) return SSM_CLI_E_INVALID_IF;
    const bool unchanged =
        enable ? port->gephy_role_enable && port->gephy_role == role : !port->gephy_role_enable;
    if (unchanged) return SSM_OK;

    if (!enable) {
        port->event_skip &= static_cast<std::uint8_t>(~SSM_SKIP_NEXT_DOWN);
        drop_manual_gephy(port);
    } else if (port->link_up && g_s_master->ssm_enable) {
        port->event_skip |= SSM_SKIP_NEXT_DOWN;  // a change of role takes the copper link down once
    }
    port->gephy_role = role;
    port->gephy_role_enable = enable;
    SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_DEBUG,
              "%s%s Set port gephy: ifindex = %d, gephy_role_enable = %d, gephy_role = %d",
              static_cast<int>(intf->ifindex), static_cast<int>(enable), static_cast<int>(role));
    (void)ssm_nsm_set_gephy_role(intf->ifindex, enable,
                                 role);  // kept and restated by the client when it was not sent
    return SSM_OK;
}

std::int32_t ssm_opts_link_up_switch(ssm_port* port) {
    port->link_up = 1;
    if (port->force_rx_quality != QL_NONE) ssm_source_recovered(port);
    const std::int32_t rv = ssm_port_timers_update(port, 1);
    if (rv < 0) return ssm_op_failed(rv, "ssm_opts_link_up_switch", 283);
    ssm_opts_reselect();
    ssm_opts_after_change();
    return SSM_OK;
}

std::int32_t ssm_opts_link_down_switch(ssm_port* port) {
    ssm_source_failed(port);
    (void)ssm_opts_intf_fini_port(port);  // the rules below hold whatever became of the timers
    ssm_opts_after_change();
    return SSM_OK;
}

std::int32_t ssm_opts_intf_fini_port(ssm_port* port) {
    port->link_up = 0;
    const std::int32_t rv = ssm_port_timers_update(port, 0);
    if (rv < 0) return ssm_op_failed(rv, "ssm_opts_intf_fini_port", 153);
    ssm_opts_reselect();
    return SSM_OK;
}

void ssm_opts_release_port(ssm_port* port) {
    if (g_s_master->force_port == port) g_s_master->force_port = nullptr;
    if (g_s_master->gephy_dynamic_intf == port->intf) g_s_master->gephy_dynamic_intf = nullptr;
    drop_forced_count(port->force_rx_quality);
    drop_forced_count(port->force_tx_quality);
    drop_manual_gephy(port);
    ssm_supervision_forget(port);
    if (g_s_master->manual_port == port) ssm_manual_drop("the port is gone");
    (void)ssm_opts_intf_fini_port(port);  // must not stop the removal
    if (g_s_master->selected_port == port) g_s_master->selected_port = nullptr;
}
