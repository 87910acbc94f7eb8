// The operator of the fuzz targets: what an octet of the input can ask of the running daemon.
#pragma once

#include "core/result.h"
#include "world.h"

constexpr std::uint8_t QUALITIES[] = {QL_PRC, QL_SSU_A, QL_SSU_B, QL_EEC1, QL_DNU,  QL_PRS,
                                      QL_STU, QL_ST2,   QL_EEC2,  QL_SMC,  QL_ST3E, QL_PROV};
constexpr const char* TOKENS[] = {"prc", "ssu-a", "ssu-b", "eec1",  "dnu",  "na",  "prs",
                                  "stu", "st2",   "tnc",   "st3e",  "eec2", "smc", "prov",
                                  "dus", "",      "prtc",  "eprtc", "eprc", "eeec"};

constexpr const char* token_of(std::uint8_t value) {
    return TOKENS[value % std::size(TOKENS)];
}

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
    [](interface* i, std::uint8_t v) { return ssm_opts_set_port_quality(i, 1 + (v & 1), token_of(v >> 1)); },
    [](interface* i, std::uint8_t) { return ssm_if_port(i) ? ssm_opts_set_force_port(ssm_if_port(i)) : 0; },
    [](interface*, std::uint8_t) { return ssm_opts_clear_force(); },
    [](interface* i, std::uint8_t v) { return ssm_opts_set_port_replace_clockid(i, v & 1); },
    [](interface*, std::uint8_t v) { return ssm_opts_set_recovery_select(v % 3); },
    [](interface*, std::uint8_t v) { return ssm_opts_set_loop_guard(v & 1); },
    [](interface*, std::uint8_t v) { return ssm_opts_set_guard_hold(v * 20U); },
    [](interface*, std::uint8_t v) { return ssm_opts_set_guard_hops(v); },
    [](interface* i, std::uint8_t v) {
        const std::uint32_t milliseconds = v % 24 * 100U;
        return v & 0x80 ? ssm_opts_set_hold_off(milliseconds) : ssm_opts_set_port_hold_off(i, milliseconds);
    },
    [](interface* i, std::uint8_t v) {
        if (v == 0) return ssm_opts_unset_port_restore(i);
        return v & 0x80 ? ssm_opts_set_restore(v & 15) : ssm_opts_set_port_restore(i, v & 15);
    },
    [](interface* i, std::uint8_t v) { return ssm_opts_end_restore(v & 1 ? ssm_if_port(i) : nullptr); },
    [](interface* i, std::uint8_t v) { return ssm_opts_set_port_lockout(i, v & 1); },
    [](interface* i, std::uint8_t) {
        const char* why = nullptr;
        const std::int32_t rv = ssm_opts_manual_switch(i, &why);
        must((rv == SSM_CLI_E_INVALID_INPUT) == (why != nullptr), "a refused manual switch says why");
        return rv;
    },
    [](interface*, std::uint8_t) {
        const std::int32_t rv = ssm_opts_clear_switch();
        must(rv == 0 && !g_s_master->manual_port && !g_s_master->force_port, "nothing is switched any more");
        return rv;
    },
    [](interface*, std::uint8_t v) { return ssm_opts_set_non_revertive(v & 1); },
    [](interface* i, std::uint8_t v) {
        const ssm_limit limit = v & 2 ? ssm_limit::maximum : ssm_limit::minimum;
        return ssm_opts_set_port_limit(i, 1 + (v & 1), limit, token_of(v >> 2));
    },
    [](interface* i, std::uint8_t v) {
        return v & 0x80 ? ssm_opts_set_extend_form(v % 3) : ssm_opts_set_port_extend_form(i, v % 3);
    },
    [](interface*, std::uint8_t v) { return ssm_opts_set_clock_type(v & 1); },
    [](interface* i, std::uint8_t v) {
        ssm_statistics_clear(v & 1 ? ssm_if_port(i) : nullptr);
        return 0;
    },
    [](interface*, std::uint8_t v) {  // of the own clock, an enhanced quality
        ssm_quality quality = QL_NONE;
        (void)ssm_ql_parse(TOKENS[16 + v % 4], &quality);  // all options know it
        return ssm_opts_set_local_quality(quality, g_s_master->ql_option);
    },
};

inline void operate(operation what, std::uint32_t index, std::uint8_t value) {
    (void)what(if_lookup_by_index(g_p_esmcd->ifm, index), value);
}
