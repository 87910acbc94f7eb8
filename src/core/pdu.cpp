// Every PDU that leaves the daemon goes through ssm_pdu_tx, every one that is accepted through
// ssm_handle_packet. Nothing else keeps PDU contents: the transmit buffer is built from scratch for each PDU
// on each port.
#include "core/pdu.h"

#include <algorithm>
#include <cstring>

#include "core/debug.h"
#include "core/extension.h"
#include "core/loop.h"
#include "core/opts.h"
#include "core/ports.h"
#include "core/ql.h"
#include "core/select.h"
#include "core/socket.h"
#include "core/supervision.h"
#include "core/timers.h"

std::uint8_t ssm_pdu_buf[esmc::SIZE];

// ---- Format -------------------------------------------------------------------------------------------

namespace {

constexpr std::uint8_t ITU_OUI[3] = {0x00, 0x19, 0xA7};
constexpr std::uint16_t ITU_SUBTYPE_ESMC = 1;

// Whose identity goes out: the source's own, or ours where there is none to pass on or we are to replace it.
const std::uint8_t* clock_id_to_send(const ssm_port* source) {
    const bool passed_on = source && !source->replace_clockid && ssm_clock_id_named(source->recv_clockid);
    return passed_on ? source->recv_clockid : g_s_master->clock_id;
}

void trace_clock_id(const ssm_port* source) {
    if (!source)
        SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_DEBUG, "%s%snot select any port, send device's clockid");
    else if (source->replace_clockid)
        SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_DEBUG,
                  "%s%sssm_pdu_format_ssmdu: Sending replaced clockid on port %s", source->intf->name);
    else
        SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_DEBUG,
                  "%s%sssm_pdu_format_ssmdu: send selected received clockid of port %s", source->intf->name);
}

// A count that began again at 0 would be the nearest of all: with the guard it stays at its end.
std::uint8_t hops_to_send(const ssm_port* source) {
    if (!source) return 0;
    if (source->recv_hop_count == SSM_HOPS_MAX && ssm_guard_in_force()) return SSM_HOPS_MAX;
    return static_cast<std::uint8_t>(source->recv_hop_count + 1);
}

}  // namespace

void ssm_pdu_identity(std::uint8_t* clock_id, std::uint8_t* hops) {
    const ssm_port* source = g_s_master->selected_port;
    std::memcpy(clock_id, clock_id_to_send(source), SSM_CLOCK_ID_SIZE);
    *hops = hops_to_send(source);
}

std::int32_t ssm_pdu_format_ssmdu(std::uint8_t* buffer, std::uint32_t information) {
    if (!buffer) return -1;
    const std::span<std::uint8_t, esmc::SIZE> pdu(buffer, esmc::SIZE);
    std::ranges::fill(pdu, std::uint8_t{0});

    pdu[esmc::SUBTYPE] = esmc::SUBTYPE_OSSP;
    std::ranges::copy(ITU_OUI, pdu.begin() + esmc::OUI);
    put_be16(pdu, esmc::ITU_SUBTYPE, ITU_SUBTYPE_ESMC);
    pdu[esmc::VERSION] = information ? esmc::VERSION_1 : esmc::VERSION_1 | esmc::EVENT_FLAG;
    pdu[esmc::QL_TLV_TYPE] = esmc::TYPE_QL;
    put_be16(pdu, esmc::QL_TLV_LENGTH, esmc::LENGTH_QL);
    pdu[esmc::QUALITY] = static_cast<std::uint8_t>(g_s_master->current_quality);
    if (!g_s_master->ssm_extend) return 0;

    pdu[esmc::EXT_TLV_TYPE] = esmc::TYPE_EXT;
    put_be16(pdu, esmc::EXT_TLV_LENGTH, esmc::LENGTH_EXT);
    trace_clock_id(g_s_master->selected_port);
    ssm_pdu_identity(&pdu[esmc::CLOCK_ID], &pdu[esmc::HOP]);
    return 0;
}

void ssm_pdu_dump(const std::uint8_t* p) {
    const std::uint8_t* id = p + esmc::CLOCK_ID;
    // The labels count octets from 1.
    SSM_LOG(LOG_LEVEL_DEBUG, "%s%sPDU-01: %.02x                  - SSM_OSSP_SUBTYPE", p[esmc::SUBTYPE]);
    SSM_LOG(LOG_LEVEL_DEBUG, "%s%sPDU-02: %.02x-%.02x-%.02x           - SSM_OUI_VALUE", p[esmc::OUI],
            p[esmc::OUI + 1], p[esmc::OUI + 2]);
    SSM_LOG(LOG_LEVEL_DEBUG, "%s%sPDU-06: %.02x                  - SSM_ITU_SUBTYPE",
            p[esmc::ITU_SUBTYPE + 1]);
    SSM_LOG(LOG_LEVEL_DEBUG, "%s%sPDU-07: %.02x                  - SSM_OSSP_VERTION", p[esmc::VERSION]);
    SSM_LOG(LOG_LEVEL_DEBUG, "%s%sPDU-11: %.02x                  - SSM_TLV_TYPE", p[esmc::QL_TLV_TYPE]);
    SSM_LOG(LOG_LEVEL_DEBUG, "%s%sPDU-13: %.02x                  - SSM_TLV_LEN", p[esmc::QL_TLV_LENGTH + 1]);
    SSM_LOG(LOG_LEVEL_DEBUG, "%s%sPDU-14: %.02x                  - Quality", p[esmc::QUALITY]);
    SSM_LOG(LOG_LEVEL_DEBUG, "%s%sPDU-18: %.02x-%.02x-%.02x-%.02x-%.02x-%.02x-%.02x-%.02x - Clock ID", id[0],
            id[1], id[2], id[3], id[4], id[5], id[6], id[7]);
    SSM_LOG(LOG_LEVEL_DEBUG, "%s%sPDU-26: %.02x                  - Hop", p[esmc::HOP]);
}

// ---- What a port advertises ---------------------------------------------------------------------------

namespace {

// The quality of the source that the operator forced, if any. False: a source is forced that has no quality,
// so that there is nothing true to advertise.
bool apply_force_switch(const ssm_port* port, ssm_quality* quality) {
    const ssm_port* forced = g_s_master->force_port;
    // Whether SyncE is on as well makes no difference here: without it no port sends.
    if (ssm_force_port_in_effect()) {
        if (forced->force_rx_quality != QL_NONE) {
            *quality = forced->force_rx_quality;
            SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_DEBUG,
                      "%s%sssm_pdu_tx: Sending forcible rx QL %d on port %s under force-switch mode",
                      *quality, port->intf->name);
        } else if (forced->recv_quality != QL_NONE) {
            *quality = ssm_quality_followed(forced);
            SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_DEBUG,
                      "%s%sssm_pdu_tx: Sending recved QL %d on port %s under force-switch mode", *quality,
                      port->intf->name);
        } else {
            SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_DEBUG, "%s%sssm_pdu_tx: force-switch port has no QL value");
            return false;
        }
    }
    if (g_s_master->force_e1) {
        if (g_s_master->e1_quality == QL_NONE) {
            SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_DEBUG,
                      "%s%sssm_pdu_tx: force-switch e1 port has no QL value");
            return false;
        }
        *quality = static_cast<ssm_quality>(g_s_master->e1_quality);
        SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_DEBUG,
                  "%s%sssm_pdu_tx: Sending forcible e1 rx QL %d under force-switch e1 mode", *quality);
    }
    return true;
}

// The port's own overrides, weakest first: a forced quality never holds where a timing loop would close.
void apply_port_overrides(const ssm_port* port, ssm_quality* quality) {
    if (port->force_tx_quality != QL_NONE) {
        *quality = port->force_tx_quality;
        SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_DEBUG, "%s%sssm_pdu_tx: Sending forcible tx QL %d to on port %s",
                  *quality, port->intf->name);
    }
    *quality = ssm_limited_for_sending(port, *quality);
    if (port == g_s_master->selected_port) {
        *quality = QL_DNU;
        SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_DEBUG, "%s%sssm_pdu_tx: Sending dnu to selected port %s",
                  port->intf->name);
    }
    if (port->dnu_group && ssm_dnu_group_has_selected(port->dnu_group)) {
        *quality = QL_DNU;
        SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_DEBUG,
                  "%s%sssm_pdu_tx: Sending dnu to port  %s because of dnu group", port->intf->name);
    }
}

}  // namespace

std::int32_t ssm_dnu_group_has_selected(std::uint8_t group) {
    const ssm_port* selected = g_s_master->selected_port;
    return selected && selected->dnu_group == group ? 1 : 0;
}

std::int32_t ssm_pdu_tx(ssm_port* port, std::uint32_t information) {
    if (g_s_master->resuming) return 0;
    if (ssm_pdu_format_ssmdu(ssm_pdu_buf, information) < 0) return -1;
    auto quality = static_cast<ssm_quality>(g_s_master->current_quality);
    if (!apply_force_switch(port, &quality)) {
        port->send_quality = QL_NONE;
        return 0;
    }
    apply_port_overrides(port, &quality);

    port->send_quality = quality;
    ssm_pdu_buf[esmc::QUALITY] = ssm_code_of(quality);
    if (ssm_guard_in_force())
        ssm_guard_sending(&ssm_pdu_buf[esmc::CLOCK_ID], ssm_pdu_buf[esmc::HOP], quality);
    if (g_s_master->ssm_extend && ssm_extend_form_of(port) == SSM_FORM_STANDARD)
        ssm_extension_write_standard(ssm_pdu_buf, quality);
    SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_DEBUG, "%s%sssm_pdu_tx: Sending ssm pdu on port %s",
              port->intf->name);
    if (ssm_debugging(SSM_DEBUG_PACKET)) ssm_pdu_dump(ssm_pdu_buf);

    slow_address to = {};
    std::memcpy(to.destination, ssm_grp_addr, sizeof to.destination);
    to.ifindex = port->intf->ifindex;
    const std::int32_t sent = send_ssm(to, ssm_pdu_buf, sizeof ssm_pdu_buf);
    if (sent >= 0) ssm_statistics_said(port, ssm_pdu_buf);
    return sent;
}

namespace {

int send_held_back(thread* event) {
    auto* port = static_cast<ssm_port*>(event->arg);
    port->event_timer = nullptr;
    port->event_credit += SSM_EVENT_PERIOD;
    (void)ssm_pdu_tx(port, 0);
    if (ssm_guard_in_force()) ssm_guard_sent_late();
    return 0;
}

// Takes one event PDU from what the port has earned, or sees to it that one leaves when it has earned it.
bool may_send_event(ssm_port* port) {
    const std::uint32_t burst = ssm_guard_in_force() ? SSM_EVENT_BURST_GUARDED : SSM_EVENT_BURST;
    const nanoseconds now = thread_now(g_p_esmcd);
    // A burst that was sent under the larger bound is not owed when the guard is switched on.
    const nanoseconds credit = std::clamp(port->event_credit, now, now + burst * SSM_EVENT_PERIOD);
    const nanoseconds allowed = now + (burst - 1) * SSM_EVENT_PERIOD;
    if (credit <= allowed && !port->event_timer) {
        port->event_credit = credit + SSM_EVENT_PERIOD;
        return true;
    }
    slow_socket_count_held_back(port->ifindex);
    if (port->event_timer) return false;
    const auto wait = static_cast<std::uint32_t>((credit - allowed + NS_PER_MS - 1) / NS_PER_MS);
    port->event_timer = ssm_timer_add_msec(send_held_back, port, wait);
    return port->event_timer == nullptr;  // without memory for a timer it had better leave now
}

}  // namespace

void ssm_pdu_tx_events() {
    const slow_sending_together together;
    ssm_port_walk([](ssm_port* port) {
        if (port->send_timer && may_send_event(port))
            (void)ssm_pdu_tx(port, 0);  // one port's error is counted at the socket and stops no other
    });
}

std::int32_t ssm_pdu_tx_all() {
    if (ssm_guard_in_force())
        g_s_master->guard.tell = true;
    else
        ssm_pdu_tx_events();
    return 0;
}

// ---- Reception ----------------------------------------------------------------------------------------

namespace {

// Says whether the PDU repeats what the port received before. Every field that is stored here and that a
// selection key or a refusal reads takes part in the comparison.
bool store_received(ssm_port* port, const std::uint8_t* pdu) {
    bool malformed = false;
    const ssm_extension said = ssm_extension_read(pdu, &malformed);
    if (malformed) ++port->statistics->bad_tlvs;
    const ssm_quality quality = ssm_ql_received(pdu[esmc::QUALITY], said.enhanced);
    if (port->recv_quality == quality && port->recv_hop_count == said.hops && port->recv_form == said.form &&
        port->recv_flags == said.flags && port->recv_eeec == said.eeec && port->recv_eec == said.eec &&
        std::memcmp(port->recv_clockid, said.clock_id, SSM_CLOCK_ID_SIZE) == 0)
        return true;
    if (port->recv_quality != quality) port->statistics->quality_changed = thread_now(g_p_esmcd);
    port->recv_quality = quality;
    port->recv_hop_count = said.hops;
    port->recv_form = said.form;
    port->recv_flags = said.flags;
    port->recv_eeec = said.eeec;
    port->recv_eec = said.eec;
    std::memcpy(port->recv_clockid, said.clock_id, SSM_CLOCK_ID_SIZE);
    return false;
}

}  // namespace

std::int32_t ssm_handle_packet(ssm_port* port, const std::uint8_t* pdu, std::size_t /*length*/) {
    const int ifindex = static_cast<int>(port->intf->ifindex);
    SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_DEBUG, "%s%sssm_handle_packet: received ssm pdu on port %d\n",
              ifindex);
    if (ssm_debugging(SSM_DEBUG_PACKET)) ssm_pdu_dump(pdu);

    const bool repeated = store_received(port, pdu);

    if (pdu[esmc::VERSION] & esmc::EVENT_FLAG) {
        // Only information PDUs keep a source alive. A proof has an end even if none of them ever follows.
        if (!port->timeout_timer && ssm_guard_in_force()) ssm_timeout_timer_restart(port);
        ssm_select_after_pdu(repeated);
        const bool transmits = port->esmc_mode == SSM_ESMC_TX || port->esmc_mode == SSM_ESMC_ALL;
        if (transmits) ssm_send_timer_restart(port);
        return 0;
    }
    SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_DEBUG, "%s%sssm_handle_packet: port %d run state machine", ifindex);
    ssm_timeout_timer_restart(port);
    ssm_select_after_pdu(repeated);
    return 0;
}
