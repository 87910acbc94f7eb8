// What NSM reports becomes changes of the daemon's records: binds and unbinds make and remove port records,
// ups and downs move a port's link, the bridge's MAC address becomes the clock identity, the DPLL's state
// goes to the feedback unit.
#include "nsm/session.h"

#include <algorithm>
#include <cstring>

#include "core/debug.h"
#include "core/feedback.h"
#include "core/opts.h"
#include "core/ports.h"
#include "core/ql.h"
#include "core/result.h"
#include "core/supervision.h"
#include "suite/manager/client.h"

namespace {

constexpr std::uint16_t NSM_CLIENT_VERSION = 1;
constexpr std::uint32_t NSM_NO_SERVICES = 0;

const char* with_or_without(const interface* intf) {
    return intf->port ? "w" : "w/o";
}

std::int32_t no_port(const interface* intf) {
    SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_ERROR, "%s%sNot exist SSM port (interface %s)", intf->name);
    return SSM_E_NOT_EXIST;
}

}  // namespace

std::int32_t ssm_nsm_client_init() {
    lib_globals* ctx = ssm_instance->lib_ctx;
    nsm_client* client = nsm_client_create(ctx, 0);
    ssm_instance->nsm_client = client;
    if (!client) return -1;
    nsm_client_set_version(client, NSM_CLIENT_VERSION);
    nsm_client_set_protocol(client, SSM_PROTO_ID);
    nsm_client_set_service(client, NSM_NO_SERVICES);
    (void)nsm_client_set_callback(client, NSM_MSG_BRIDGE_ADD, _ssm_nsm_recv_bridge_add);
    (void)nsm_client_set_callback(client, NSM_MSG_SSM_SEND_BACK_CLOCK_STATE, _ssm_nsm_recv_clock_state);
    (void)nsm_client_set_callback(client, NSM_MSG_SSM_CLOCK_DETAIL, _ssm_nsm_recv_clock_detail);
    (void)if_add_hook(ctx->ifm, IF_CALLBACK_VR_BIND, ssm_port_create);
    (void)if_add_hook(ctx->ifm, IF_CALLBACK_VR_UNBIND, ssm_port_delete);
    (void)if_add_hook(ctx->ifm, IF_CALLBACK_UP, _ssm_nsm_recv_interface_up);
    (void)if_add_hook(ctx->ifm, IF_CALLBACK_DOWN, _ssm_nsm_recv_interface_down);
    if (nsm_client_start(client) < 0) {
        SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_ERROR, "%s%sStart NSM client fail");
        return SSM_E_INIT_FAILED;
    }
    return SSM_OK;
}

int ssm_port_create(interface* intf) {
    if (!ssm_if_usable(intf)) {
        SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_ERROR, "%s%sReceive invalid IF_CALLBACK_VR_BIND");
        return SSM_OK;
    }
    SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_INFO, "%s%sReceive IF_CALLBACK_VR_BIND on %s %s SSM", intf->name,
              with_or_without(intf));
    if (intf->port) {
        SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_ERROR, "%s%sDuplicate create SSM port (interface %s)",
                  intf->name);
        return SSM_E_HAVE_EXIST;
    }
    ssm_port* port = ssm_record_take(intf);
    if (!port) {
        SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_ERROR, "%s%sCan't allocate memory of SSM port (interface %s)",
                  intf->name);
        return SSM_E_NO_MEMORY;
    }
    intf->port = port;
    if (ssm_port_init(port) < 0) {
        ssm_record_give_back(port);
        intf->port = nullptr;
        return SSM_E_NSM_PORT_INIT_ERROR;
    }
    return SSM_OK;
}

int ssm_port_delete(interface* intf) {
    if (!ssm_if_usable(intf)) {
        SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_ERROR, "%s%sReceive invalid IF_CALLBACK_VR_UNBIND");
        return SSM_OK;
    }
    SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_INFO, "%s%sReceive IF_CALLBACK_VR_UNBIND on %s %s SSM", intf->name,
              with_or_without(intf));
    ssm_port* port = ssm_if_port(intf);
    if (!port) return no_port(intf);
    ssm_opts_release_port(port);
    ssm_record_give_back(port);
    intf->port = nullptr;
    return SSM_OK;
}

int _ssm_nsm_recv_interface_up(interface* intf) {
    if (!ssm_if_usable(intf)) {
        SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_ERROR, "%s%sReceive invalid IF_CALLBACK_UP");
        return SSM_OK;
    }
    SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_INFO, "%s%sReceive IF_CALLBACK_UP on %s %s SSM", intf->name,
              with_or_without(intf));
    ssm_port* port = ssm_if_port(intf);
    if (!port) return no_port(intf);
    if (ssm_hold_off_recovered(port, SSM_FAILED_LINK)) return SSM_OK;  // too short to have happened
    if (port->link_up) {
        SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_ERROR, "%s%sInterface %s has already up.", intf->name);
        return SSM_OK;
    }
    const std::int32_t rv = ssm_opts_link_up_switch(port);
    return rv < 0 ? ssm_op_failed(rv, "_ssm_nsm_recv_interface_up", 202) : SSM_OK;
}

int _ssm_nsm_recv_interface_down(interface* intf) {
    if (!ssm_if_usable(intf)) {
        SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_ERROR, "%s%sReceive invalid IF_CALLBACK_DOWN");
        return SSM_OK;
    }
    ssm_port* port = ssm_if_port(intf);
    if (port && port->event_skip & SSM_SKIP_NEXT_DOWN) {
        // The down that follows a change of the port's own gephy role: no word, no effect, once.
        port->event_skip &= static_cast<std::uint8_t>(~SSM_SKIP_NEXT_DOWN);
        return SSM_OK;
    }
    SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_INFO, "%s%sReceive IF_CALLBACK_DOWN on %s %s SSM", intf->name,
              with_or_without(intf));
    if (!port) return no_port(intf);
    if (!port->link_up) {
        SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_ERROR, "%s%sInterface %s has already down.", intf->name);
        return SSM_OK;
    }
    if (ssm_hold_off(port, SSM_FAILED_LINK)) return SSM_OK;
    const std::int32_t rv = ssm_opts_link_down_switch(port);
    return rv < 0 ? ssm_op_failed(rv, "_ssm_nsm_recv_interface_down", 267) : SSM_OK;
}

int _ssm_nsm_recv_bridge_add(void* /*header*/, void* /*client*/, void* message) {
    const std::uint8_t* mac = static_cast<const nsm_bridge_message*>(message)->mac;
    // EUI-48 to EUI-64: FF-FE goes into the middle.
    const std::uint8_t id[SSM_CLOCK_ID_SIZE] = {mac[0], mac[1], mac[2], 0xFF, 0xFE, mac[3], mac[4], mac[5]};
    SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_INFO, "%s%sReceive NSM_MSG_BRIDGE_ADD w %s", ssm_clock_id_str(id));
    std::ranges::copy(id, g_s_master->clock_id);
    return 0;
}

int _ssm_nsm_recv_clock_state(void* /*header*/, void* /*client*/, void* message) {
    const auto* report = static_cast<const nsm_clock_state_message*>(message);
    SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_INFO, "%s%sReceive NSM_MSG_SSM_SEND_BACK_CLOCK_STATE  %d",
              static_cast<int>(report->state));
    ssm_clock_state_recv(report);
    return 0;
}

int _ssm_nsm_recv_clock_detail(void* /*header*/, void* /*client*/, void* message) {
    ssm_hardware_recv(static_cast<const nsm_clock_detail*>(message));
    return 0;
}
