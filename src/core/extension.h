// The extended TLV behind the QL TLV of an ESMC PDU, in two forms that are told apart by their length alone:
// the daemon's own (identity and hop count) and that of ITU-T G.8264 (enhanced code, identity, flags, and how
// many clocks of either type the chain has). Which form is sent is a setting of the switch and of each port;
// both are understood while the extension is on.
#pragma once

#include <cstddef>
#include <span>

#include "core/records.h"

namespace esmc {
// The standard's form, in octets from the Slow Protocols subtype. Its type and length lie where the own form
// has them.
constexpr std::uint16_t LENGTH_STANDARD = 20;
constexpr std::size_t ENHANCED = 17;
constexpr std::size_t STANDARD_CLOCK_ID = 18;
constexpr std::size_t CHAIN_FLAGS = 26;
constexpr std::size_t EEEC_COUNT = 27;
constexpr std::size_t EEC_COUNT = 28;
constexpr std::size_t STANDARD_END = 34;
constexpr std::uint8_t FLAG_MIXED = 0x01;    // some clock of the chain is no eEEC
constexpr std::uint8_t FLAG_PARTIAL = 0x02;  // the TLV was made in the middle of the chain
}  // namespace esmc

// What the TLV of a received PDU says; all zero when there is none that is understood.
struct ssm_extension {
    std::uint8_t form = SSM_FORM_DEFAULT;
    std::uint8_t enhanced = 0;
    std::uint8_t flags = 0, eeec = 0, eec = 0;
    std::uint8_t hops = 0;  // of the own form; the sum of the standard's counts, 255 at the most
    std::uint8_t clock_id[SSM_CLOCK_ID_SIZE] = {};
};
// `pdu` holds SSM_RECEIVE_SIZE octets. *malformed: there is one, of another length.
ssm_extension ssm_extension_read(const std::uint8_t* pdu, bool* malformed);

std::uint8_t ssm_extend_form_of(const ssm_port* port);  // what the port sends; never SSM_FORM_DEFAULT
// Puts the standard's form in the own one's place: what the source said and this switch's own place behind
// it.
void ssm_extension_write_standard(std::span<std::uint8_t> pdu, ssm_quality quality);
