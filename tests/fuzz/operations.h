// The operator of the fuzz targets: what an octet of the input can ask of the running daemon.
#pragma once

#include "world.h"

constexpr std::uint8_t QUALITIES[] = {QL_PRC, QL_SSU_A, QL_SSU_B, QL_EEC1, QL_DNU,  QL_PRS,
                                      QL_STU, QL_ST2,   QL_EEC2,  QL_SMC,  QL_ST3E, QL_PROV};
constexpr const char* TOKENS[] = {"prc", "ssu-a", "ssu-b", "eec1", "dnu", "na",   "prs", "stu",
                                  "st2", "tnc",   "st3e",  "eec2", "smc", "prov", "dus", ""};

// Inputs name them by their place: new ones go to the end.
using operation = int (*)(interface* intf, std::uint8_t value);
constexpr operation OPERATIONS[] = {
    [](interface*, std::uint8_t v) { return ssm_opts_set_global_enable(v & 1); },
    [](interface*, std::uint8_t v) { return ssm_opts_set_ssm_enable(v & 1); },
    [](interface*, std::uint8_t v) { return ssm_opts_set_ssm_extend(v & 1); },
    [](interface*, std::uint8_t v) {
        return ssm_opts_set_local_quality(QUALITIES[v % std::size(QUALITIES)],
                                          static_cast<std::uint8_t>(1 + (v >> 7)));
    },
    [](interface*, std::uint8_t v) { return ssm_opts_set_device_type(1 + v % 3); },
    [](interface*, std::uint8_t v) { return ssm_opts_set_local_priority(v); },
    [](interface* i, std::uint8_t v) { return ssm_opts_set_port_synce(i, v & 1); },
    [](interface* i, std::uint8_t v) { return ssm_opts_set_port_esmc(i, 1 + v % 4); },
    [](interface* i, std::uint8_t v) { return ssm_opts_unset_port_esmc(i, 1 + v % 3); },
    [](interface* i, std::uint8_t v) { return ssm_opts_set_port_priority(i, v); },
    [](interface* i, std::uint8_t v) { return ssm_opts_set_port_dnu_group(i, v & 3); },
    [](interface* i, std::uint8_t v) { return ssm_opts_set_port_quality(i, 1 + (v & 1), TOKENS[v >> 4]); },
    [](interface* i, std::uint8_t) { return ssm_if_port(i) ? ssm_opts_set_force_port(ssm_if_port(i)) : 0; },
    [](interface*, std::uint8_t) { return ssm_opts_clear_force(); },
    [](interface* i, std::uint8_t v) { return ssm_opts_set_port_replace_clockid(i, v & 1); },
    [](interface*, std::uint8_t v) { return ssm_opts_set_recovery_select(v % 3); },
    [](interface*, std::uint8_t v) { return ssm_opts_set_loop_guard(v & 1); },
    [](interface*, std::uint8_t v) { return ssm_opts_set_guard_hold(v * 20U); },
    [](interface*, std::uint8_t v) { return ssm_opts_set_guard_hops(v); },
};

inline void operate(operation what, std::uint32_t index, std::uint8_t value) {
    (void)what(if_lookup_by_index(g_p_esmcd->ifm, index), value);
}
