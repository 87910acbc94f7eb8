// What a source that speaks the other form, or none, told us is passed on as far as the form can carry it. A
// sum of counts that is passed on is the hop count of the own form, so that chains of both have one measure.
#include "core/extension.h"

#include <algorithm>
#include <cstring>

#include "core/pdu.h"
#include "core/ql.h"
#include "suite/base/octets.h"

namespace {

constexpr unsigned COUNT_MAX = 255;

std::uint8_t count(unsigned value) {
    return static_cast<std::uint8_t>(std::min(value, COUNT_MAX));
}

ssm_extension read_own(const std::uint8_t* pdu) {
    ssm_extension own;
    own.form = SSM_FORM_OWN;
    own.hops = pdu[esmc::HOP];
    std::memcpy(own.clock_id, pdu + esmc::CLOCK_ID, SSM_CLOCK_ID_SIZE);
    return own;
}

ssm_extension read_standard(const std::uint8_t* pdu) {
    ssm_extension standard;
    standard.form = SSM_FORM_STANDARD;
    if (pdu[esmc::ENHANCED] != QL_ENHANCED_NONE) standard.enhanced = pdu[esmc::ENHANCED];
    standard.flags = pdu[esmc::CHAIN_FLAGS] & (esmc::FLAG_MIXED | esmc::FLAG_PARTIAL);
    standard.eeec = pdu[esmc::EEEC_COUNT];
    standard.eec = pdu[esmc::EEC_COUNT];
    standard.hops = count(standard.eeec + standard.eec);
    std::memcpy(standard.clock_id, pdu + esmc::STANDARD_CLOCK_ID, SSM_CLOCK_ID_SIZE);
    return standard;
}

struct chain {
    std::uint8_t flags, eeec, eec;
};

// The chain as the source tells of it, without this switch.
chain chain_behind() {
    const ssm_port* source = g_s_master->selected_port;
    if (!source) return {};
    const bool begins_here = source->replace_clockid || !ssm_clock_id_named(source->recv_clockid);
    if (begins_here) return {esmc::FLAG_MIXED | esmc::FLAG_PARTIAL, 0, 0};
    if (source->recv_form == SSM_FORM_STANDARD)
        return {source->recv_flags, source->recv_eeec, source->recv_eec};
    return {esmc::FLAG_MIXED | esmc::FLAG_PARTIAL, 0, source->recv_hop_count};
}

chain with_this_switch(chain behind) {
    if (g_s_master->clock_type == SSM_CLOCK_EEEC) {
        behind.eeec = count(behind.eeec + 1U);
    } else {
        behind.eec = count(behind.eec + 1U);
        behind.flags |= esmc::FLAG_MIXED;
    }
    return behind;
}

}  // namespace

ssm_extension ssm_extension_read(const std::uint8_t* pdu, bool* malformed) {
    *malformed = false;
    if (pdu[esmc::EXT_TLV_TYPE] != esmc::TYPE_EXT) return {};
    // Nothing of it counts while the extension is off.
    if (!g_s_master->ssm_extend) return read_own(pdu);
    switch (get_be16({pdu, SSM_RECEIVE_SIZE}, esmc::EXT_TLV_LENGTH)) {
        case esmc::LENGTH_EXT:
            return read_own(pdu);
        case esmc::LENGTH_STANDARD:
            return read_standard(pdu);
        default:
            *malformed = true;
            return {};
    }
}

std::uint8_t ssm_extend_form_of(const ssm_port* port) {
    const std::uint8_t form = port->extend_form ? port->extend_form : g_s_master->extend_form;
    return form == SSM_FORM_STANDARD ? SSM_FORM_STANDARD : SSM_FORM_OWN;
}

void ssm_extension_write_standard(std::span<std::uint8_t> pdu, ssm_quality quality) {
    std::uint8_t clock_id[SSM_CLOCK_ID_SIZE], hops = 0;
    ssm_pdu_identity(clock_id, &hops);
    const chain told = with_this_switch(chain_behind());
    const std::uint8_t enhanced = ssm_enhanced_of(quality);
    std::ranges::fill(pdu.subspan(esmc::EXT_TLV_TYPE), std::uint8_t{0});
    pdu[esmc::EXT_TLV_TYPE] = esmc::TYPE_EXT;
    put_be16(pdu, esmc::EXT_TLV_LENGTH, esmc::LENGTH_STANDARD);
    pdu[esmc::ENHANCED] = enhanced ? enhanced : std::uint8_t{QL_ENHANCED_NONE};
    std::memcpy(&pdu[esmc::STANDARD_CLOCK_ID], clock_id, SSM_CLOCK_ID_SIZE);
    pdu[esmc::CHAIN_FLAGS] = told.flags;
    pdu[esmc::EEEC_COUNT] = told.eeec;
    pdu[esmc::EEC_COUNT] = told.eec;
}
