// One table of the sixteen SSM codes, by option, and the small texts.
#include "core/ql.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <span>

#include "core/ports.h"
#include "core/result.h"

namespace {

struct ql_names {
    const char* token;
    const char* display;
    const char* display_long;
};

constexpr ql_names UNNAMED = {"dnu", "DNU", "DNU"};

constexpr std::array<ql_names, 16> QL_NAMES = {{
    {"stu", "STU", "STU"},
    {"prs", "PRS", "PRS"},
    {"prc", "PRC", "PRC"},
    {"dnu", "N/A", "N/A"},
    {"ssu-a", "SSU-A", "SSU-A"},
    UNNAMED,
    UNNAMED,
    {"st2", "ST2", "ST2"},
    {"ssu-b", "SSU-B", "SSU-B"},
    UNNAMED,
    {"eec2", "EEC2", "EEC2/ST3"},
    {"eec1", "EEC1", "EEC1/SEC"},
    {"smc", "SMC", "SMC"},
    {"st3e", "ST3E", "ST3E"},
    {"prov", "PROV", "PROV"},
    {"dnu", "DNU", "DNU"},
}};
constexpr ql_names EPRTC_NAMES = {"eprtc", "ePRTC", "ePRTC"}, PRTC_NAMES = {"prtc", "PRTC", "PRTC"},
                   EPRC_NAMES = {"eprc", "ePRC", "ePRC"}, EEEC_NAMES = {"eeec", "eEEC", "eEEC"};
constexpr ql_names TNC_NAMES = {"tnc", "TNC", "TNC"};
constexpr ql_names DUS_NAMES = {"dus", "DUS", "DUS"};

bool option_1() {
    return g_s_master->ql_option == SSM_OPTION_1;
}

// Of SSM codes, those that read differently under the two options are 4 and 15.
const ql_names& ql_names_of(std::uint32_t code) {
    switch (ssm_enhanced_of(code)) {
        case 0:
            break;
        case QL_ENHANCED_PRTC:
            return PRTC_NAMES;
        case QL_ENHANCED_EPRTC:
            return EPRTC_NAMES;
        case QL_ENHANCED_EEEC:
            return EEEC_NAMES;
        case QL_ENHANCED_EPRC:
            return EPRC_NAMES;
        default:
            return UNNAMED;
    }
    if (code >= QL_NAMES.size()) return UNNAMED;
    if (!option_1() && code == QL_TNC) return TNC_NAMES;
    if (!option_1() && code == QL_DNU) return DUS_NAMES;
    return QL_NAMES[code];
}

struct ql_token {
    const char* token;
    ssm_quality code;
};

// An enhanced code goes with the SSM code that an older neighbour is to see.
constexpr ql_token OPTION_1_TOKENS[] = {{"prc", QL_PRC},
                                        {"ssu-a", QL_SSU_A},
                                        {"ssu-b", QL_SSU_B},
                                        {"eec1", QL_EEC1},
                                        {"dnu", QL_DNU},
                                        {"na", QL_NONE},
                                        {"prtc", ssm_quality_of(QL_PRC, QL_ENHANCED_PRTC)},
                                        {"eprtc", ssm_quality_of(QL_PRC, QL_ENHANCED_EPRTC)},
                                        {"eprc", ssm_quality_of(QL_PRC, QL_ENHANCED_EPRC)},
                                        {"eeec", ssm_quality_of(QL_EEC1, QL_ENHANCED_EEEC)}};
constexpr ql_token OPTION_2_TOKENS[] = {{"stu", QL_STU},
                                        {"prs", QL_PRS},
                                        {"tnc", QL_TNC},
                                        {"st2", QL_ST2},
                                        {"eec2", QL_EEC2},
                                        {"smc", QL_SMC},
                                        {"st3e", QL_ST3E},
                                        {"prov", QL_PROV},
                                        {"dus", QL_DNU},
                                        {"na", QL_NONE},
                                        {"prtc", ssm_quality_of(QL_PRS, QL_ENHANCED_PRTC)},
                                        {"eprtc", ssm_quality_of(QL_PRS, QL_ENHANCED_EPRTC)},
                                        {"eprc", ssm_quality_of(QL_PRS, QL_ENHANCED_EPRC)},
                                        {"eeec", ssm_quality_of(QL_EEC2, QL_ENHANCED_EEEC)}};

std::span<const ql_token> tokens_in_force() {
    return option_1() ? std::span<const ql_token>(OPTION_1_TOKENS)
                      : std::span<const ql_token>(OPTION_2_TOKENS);
}

consteval std::uint16_t code_set(std::initializer_list<ssm_code> codes) {
    unsigned set = 0;
    for (ssm_code code : codes) set |= 1U << code;
    return static_cast<std::uint16_t>(set);
}
constexpr std::uint16_t OPTION_1_RECEIVABLE = code_set({QL_PRC, QL_SSU_A, QL_SSU_B, QL_EEC1});
constexpr std::uint16_t OPTION_2_RECEIVABLE =
    code_set({QL_STU, QL_PRS, QL_TNC, QL_ST2, QL_EEC2, QL_SMC, QL_ST3E, QL_PROV});

char shared_text[64];

}  // namespace

const char* ssm_ql_to_str(std::uint32_t code, std::int32_t style) {
    const ql_names& names = ql_names_of(code);
    return style == SSM_QL_STYLE_SHORT ? names.display : names.display_long;
}

const char* ssm_ql_to_token(std::uint32_t code) {
    return ql_names_of(code).token;
}

std::int32_t ssm_ql_parse(const char* token, std::uint16_t* code) {
    for (const ql_token& known : tokens_in_force()) {
        if (std::strcmp(token, known.token) != 0) continue;
        *code = known.code;
        return SSM_OK;
    }
    return option_1() ? SSM_CLI_E_QL_OPTION1 : SSM_CLI_E_QL_OPTION2;
}

ssm_quality ssm_ql_received(std::uint8_t code, std::uint8_t enhanced) {
    const ssm_quality both = ssm_quality_of(code, enhanced);
    for (const ql_token& known : tokens_in_force())
        if (enhanced && known.code == both) return both;
    return code;
}

std::uint8_t ssm_holdover_quality() {
    return g_s_master->ql_option == SSM_OPTION_1 ? QL_EEC1 : QL_EEC2;
}

bool ssm_clock_id_named(const std::uint8_t* id) {
    return id[3] != 0;
}

bool ssm_ql_receivable(std::uint8_t code) {
    const std::uint16_t receivable = option_1() ? OPTION_1_RECEIVABLE : OPTION_2_RECEIVABLE;
    return code <= QL_DNU && (receivable >> code & 1) != 0;
}

const char* ssm_device_type_str(std::uint32_t type) {
    if (type == SSM_MASTER_ONLY) return "Master-only";
    return type == SSM_SLAVE_ONLY ? "Slave-only" : "Default";
}

const char* ssm_esmc_mode_str(std::uint32_t mode) {
    switch (mode) {
        case SSM_ESMC_RX:
            return "ESMC RX";
        case SSM_ESMC_TX:
            return "ESMC TX";
        case SSM_ESMC_NONE:
            return "disable";
        default:
            return "ESMC TX & RX";
    }
}

const char* ssm_esmc_dir_token(std::uint32_t direction) {
    if (direction == SSM_ESMC_RX) return "rx";
    return direction == SSM_ESMC_TX ? "tx" : "all";
}

const char* ssm_enable_str(std::uint32_t flag) {
    if (!flag) return "disable";
    return g_s_master->gephy_dynamic ? "enable (with gephy)" : "enable";
}

const char* ssm_dpll_state_str(std::uint32_t state) {
    switch (state) {
        case SSM_DPLL_FREERUN:
            return "FreeRun";
        case SSM_DPLL_HOLDOVER:
            return "Holdover";
        case SSM_DPLL_LOCK:
            return "Lock";
        default:
            return "Temporary status";
    }
}

const char* ssm_dpll_valid_str() {
    return g_s_master->dpll_state == SSM_DPLL_LOCK ? "Valid" : "Invalid";
}

ssm_running ssm_running_state() {
    if (g_s_master->device_type == SSM_MASTER_ONLY) return ssm_running::master;
    if (g_s_master->freerun) return ssm_running::freerun;
    return g_s_master->holdover ? ssm_running::holdover : ssm_running::lock;
}

const char* ssm_clock_state_str() {
    static constexpr const char* TEXTS[] = {"", "Mast-Clock", "FreeRun", "Holdover", "Lock"};
    return TEXTS[static_cast<std::size_t>(ssm_running_state())];
}

const char* ssm_selected_source_str() {
    switch (g_s_master->recovery_select) {
        case SSM_RECOVER_SYNCE:
            break;
        case SSM_RECOVER_BITS1:
            return "Bits1";
        case SSM_RECOVER_BITS2:
            return "Bits2";
        default:
            return "N/A";
    }
    const char* name = ssm_port_name(g_s_master->selected_port);
    return name ? name : "N/A";
}

const char* ssm_port_name(const ssm_port* port) {
    return port && port->intf ? port->intf->name : nullptr;
}

const char* ssm_num_or_na_str(std::int32_t number) {
    std::memset(shared_text, 0, sizeof shared_text);
    if (number)
        std::snprintf(shared_text, sizeof shared_text, "%d", number);
    else
        std::strcpy(shared_text, "N/A");
    return shared_text;
}

const char* ssm_clock_id_str(const std::uint8_t* id) {
    std::memset(shared_text, 0, sizeof shared_text);
    std::snprintf(shared_text, sizeof shared_text, "%.2hhX:%.2hhX:%.2hhX:%.2hhX:%.2hhX:%.2hhX:%.2hhX:%.2hhX",
                  id[0], id[1], id[2], id[3], id[4], id[5], id[6], id[7]);
    return shared_text;
}
