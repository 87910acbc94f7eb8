// The ESMC PDU of ITU-T G.8264, from the Slow Protocols subtype octet on: its layout, how it is built and
// dumped, what a port advertises, and what an accepted PDU does to its port.
#pragma once

#include <cstddef>
#include <span>

#include "core/records.h"
#include "suite/base/octets.h"
#include "suite/ports/slow_socket.h"

// Octets from the subtype; multi-octet fields are big-endian.
namespace esmc {
constexpr std::size_t SUBTYPE = 0;      // 0x0A: Organization Specific Slow Protocol (IEEE 802.3 annex 57B)
constexpr std::size_t OUI = 1;          // 00-19-A7: ITU-T
constexpr std::size_t ITU_SUBTYPE = 4;  // 0x0001: ESMC
constexpr std::size_t VERSION = 6;      // version 1 in the upper four bits, event flag in bit 3
constexpr std::size_t RESERVED = 7;
constexpr std::size_t QL_TLV_TYPE = 10;  // 0x01
constexpr std::size_t QL_TLV_LENGTH = 11;
constexpr std::size_t QUALITY = 13;       // SSM code as a whole octet
constexpr std::size_t EXT_TLV_TYPE = 14;  // 0x02 with the extension, else 0
constexpr std::size_t EXT_TLV_LENGTH = 15;
constexpr std::size_t CLOCK_ID = 17;
constexpr std::size_t HOP = 25;
constexpr std::size_t FILL = 26;
constexpr std::size_t SIZE = 46;  // the smallest Ethernet payload

constexpr std::uint8_t SUBTYPE_OSSP = 0x0A;
constexpr std::uint8_t VERSION_1 = 0x10, EVENT_FLAG = 0x08;
constexpr std::uint8_t TYPE_QL = 0x01, TYPE_EXT = 0x02;
constexpr std::uint16_t LENGTH_QL = 4, LENGTH_EXT = 12;

static_assert(EXT_TLV_TYPE == QL_TLV_TYPE + LENGTH_QL && FILL == EXT_TLV_TYPE + LENGTH_EXT);
static_assert(HOP == CLOCK_ID + SSM_CLOCK_ID_SIZE && SIZE == SLOW_PAYLOAD_MIN);
}  // namespace esmc

constexpr std::size_t SSM_RECEIVE_SIZE = 64;  // a longer frame is cut
constexpr std::size_t SSM_SHORTEST_FRAME =
    esmc::QUALITY + 1;  // without a quality octet there is nothing to take

extern std::uint8_t ssm_pdu_buf[esmc::SIZE];  // one buffer for every PDU sent, built anew each time

// Builds a PDU from the clock record; -1 without a buffer. `information` 0: an event PDU.
[[nodiscard]] std::int32_t ssm_pdu_format_ssmdu(std::uint8_t* buffer, std::uint32_t information);
// Nine lines at debug level. `pdu` holds at least esmc::FILL octets.
void ssm_pdu_dump(const std::uint8_t* pdu);

// Builds, decides and sends one PDU. The result of send_ssm; 0 when a force switch leaves nothing to
// advertise; -1 when the PDU could not be built. send_quality is the quality sent, or 3.
std::int32_t ssm_pdu_tx(ssm_port* port, std::uint32_t information);
// An event PDU on every transmitting port; with the loop guard at the end of the event, once for all that
// changes in it. 0.
std::int32_t ssm_pdu_tx_all();
// The same now. What a port has not earned is held back: it leaves as soon as it may, with what is true by
// then. (A slow protocol sends ten PDUs a second; selections that chase each other round a loop would send
// thousands.)
void ssm_pdu_tx_events();
constexpr nanoseconds SSM_EVENT_PERIOD = NS_PER_S / 10;
constexpr std::uint32_t SSM_EVENT_BURST = 500, SSM_EVENT_BURST_GUARDED = 20;

// The identity (8 octets) and the hop count that PDUs carry with the extension.
void ssm_pdu_identity(std::uint8_t* clock_id, std::uint8_t* hops);
// 1 when a port is selected and is in this DNU group.
std::int32_t ssm_dnu_group_has_selected(std::uint8_t group);

// Applies an accepted PDU to its port: `pdu` holds SSM_RECEIVE_SIZE octets, zero behind what was received. 0.
std::int32_t ssm_handle_packet(ssm_port* port, const std::uint8_t* pdu, std::size_t length);
