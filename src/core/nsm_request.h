// The five requests with which the daemon programs the clock hardware. NSM decides nothing; it does as told.
#pragma once

#include <cstdint>

std::int32_t ssm_nsm_send_global_enable(std::uint32_t on);        // always 0
std::int32_t ssm_nsm_send_recovery_select(std::uint32_t select);  // always 0
// `on` is the holdover state being entered. Always 0.
std::int32_t ssm_nsm_send_holdover(std::uint32_t on);
// Both: 0, or the client's negative result when the request was not sent.
std::int32_t ssm_nsm_selected_if_index(std::uint32_t ifindex, std::uint32_t reserved);
std::int32_t ssm_nsm_set_gephy_role(std::uint32_t ifindex, std::uint32_t role_enable, std::uint32_t role);
