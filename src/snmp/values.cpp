// The enumerations of the SSM module as tables.
#include "snmp/values.h"

#include <array>
#include <cstring>

#include "core/neighbour.h"
#include "core/records.h"

namespace {

// Numbers of the quality enumeration by SSM code, for option 1; what is not named reads as "do not use".
constexpr std::int32_t DNU = 13, DUS = 14, NA = 15, TNC = 5;
constexpr std::int32_t FIRST_ENHANCED = 16;  // in the order of the enhanced codes
constexpr std::array<std::int32_t, 16> QUALITY = {3, 1, 2, NA, 4, DNU, DNU, 6, 7, DNU, 8, 9, 10, 11, 12, DNU};

constexpr std::array<const char*, 16> TOKENS = {nullptr, "prs",   "prc",  "stu",  "ssu-a", "tnc",
                                                "st2",   "ssu-b", "eec2", "eec1", "smc",   "st3e",
                                                "prov",  "dnu",   "dus",  "na"};

constexpr std::array<ssm_mib_local_quality, 6> LOCAL = {{{QL_PRS, SSM_OPTION_2},
                                                         {QL_PRC, SSM_OPTION_1},
                                                         {QL_EEC2, SSM_OPTION_2},
                                                         {QL_EEC1, SSM_OPTION_1},
                                                         {QL_DNU, SSM_OPTION_1},
                                                         {QL_DNU, SSM_OPTION_2}}};
constexpr std::int32_t LOCAL_DNU = 5, LOCAL_DUS = 6;

}  // namespace

const void* ssm_mib_cell(ssm_mib_value value) {
    static std::int32_t cell;
    cell = static_cast<std::int32_t>(value);
    return &cell;
}

const void* ssm_mib_counter_cell(std::uint64_t value) {
    static std::uint64_t cell;
    cell = value;
    return &cell;
}

const void* ssm_mib_address(const std::uint8_t* address, std::size_t* length) {
    static constexpr std::uint8_t NOBODY[SSM_ADDRESS_SIZE] = {};
    *length = SSM_ADDRESS_SIZE;
    return address && ssm_address_named(address) ? address : NOBODY;
}

ssm_mib_value ssm_mib_quality(std::uint32_t quality) {
    const std::uint32_t code = ssm_code_of(quality);
    if (g_s_master->ql_option == SSM_OPTION_2) {
        if (code == QL_TNC) return TNC;
        if (code == QL_DNU) return DUS;
    }
    return code < QUALITY.size() ? QUALITY[code] : DNU;
}

ssm_mib_value ssm_mib_current_quality(std::uint32_t code) {
    return code == QL_NONE ? DNU : ssm_mib_quality(code);
}

ssm_mib_value ssm_mib_whole_quality(std::uint32_t quality) {
    const std::uint8_t enhanced = ssm_enhanced_of(quality);
    return enhanced ? FIRST_ENHANCED + (enhanced - QL_ENHANCED_PRTC) : ssm_mib_quality(quality);
}

const char* ssm_mib_quality_token(std::int32_t value) {
    const std::size_t entry = static_cast<std::uint8_t>(value);
    return entry < TOKENS.size() ? TOKENS[entry] : nullptr;
}

ssm_mib_value ssm_mib_read_local_quality(std::uint32_t quality, std::uint8_t option) {
    const std::uint32_t code = ssm_code_of(quality);
    if (code == QL_DNU) return option == SSM_OPTION_2 ? LOCAL_DUS : LOCAL_DNU;
    for (std::size_t i = 0; i < LOCAL.size(); ++i)
        if (LOCAL[i].code == code) return static_cast<ssm_mib_value>(i) + 1;
    return LOCAL_DNU;
}

const ssm_mib_local_quality* ssm_mib_find_local_quality(std::int32_t value) {
    return value >= 1 && static_cast<std::size_t>(value) <= LOCAL.size()
               ? &LOCAL[static_cast<std::size_t>(value) - 1]
               : nullptr;
}

bool ssm_mib_take_value(const std::uint8_t* value, std::size_t length, std::int32_t* out) {
    if (length != sizeof *out) return false;
    std::memcpy(out, value, sizeof *out);
    return true;
}
