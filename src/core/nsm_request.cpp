// Each sender fills the request's record and hands it to the NSM client of the instance. A request that can't
// be sent is kept and stated again by the client; the daemon's records hold the decision either way.
#include "core/nsm_request.h"

#include "core/debug.h"
#include "core/records.h"
#include "suite/manager/client.h"

std::int32_t ssm_nsm_send_global_enable(std::uint32_t on) {
    // Kept and restated by the client when it could not be sent: nothing for the caller to do.
    (void)nsm_client_send_ssm_global_enable(ssm_instance->nsm_client, {.enable = on});
    return 0;
}

std::int32_t ssm_nsm_send_recovery_select(std::uint32_t select) {
    (void)nsm_client_send_ssm_clock_recovery_select(ssm_instance->nsm_client, {.select = select});
    return 0;
}

std::int32_t ssm_nsm_send_holdover(std::uint32_t on) {
    // Inverted on purpose: the hardware side reads 0 as "enter holdover" and 1 as "leave it".
    (void)nsm_client_send_ssm_holdover_enable(ssm_instance->nsm_client, {.value = on ? 0U : 1U});
    return 0;
}

std::int32_t ssm_nsm_selected_if_index(std::uint32_t ifindex, std::uint32_t reserved) {
    std::int32_t rv = nsm_client_send_ssm_selected_if_index(ssm_instance->nsm_client,
                                                            {.ifindex = ifindex, .reserved = reserved});
    if (rv < 0)
        SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_DEBUG, "%s%sssm_nsm_selected_if_index: select port %d error",
                  static_cast<int>(ifindex));
    return rv;
}

std::int32_t ssm_nsm_set_gephy_role(std::uint32_t ifindex, std::uint32_t role_enable, std::uint32_t role) {
    SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_DEBUG,
              "%s%s Set port gephy: ifindex = %d, gephy_role_enable = %d, gephy_role = %d",
              static_cast<int>(ifindex), static_cast<int>(role_enable), static_cast<int>(role));
    return nsm_client_send_ssm_set_gephy_role(ssm_instance->nsm_client,
                                              {.ifindex = ifindex, .role_enable = role_enable, .role = role});
}
