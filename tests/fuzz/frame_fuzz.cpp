// The whole loop against the wire: frames of any octets on ports of any configuration and state, through the
// socket unit's own read handler, with time, link changes and operations between them. The first octets are
// the switch's state, then come steps; what must hold in every state is checked after each of them.
#include "operations.h"

namespace {

constexpr std::uint32_t PORTS_MAX = 6;
constexpr std::uint8_t KINDS = 16;  // of operations: the first

// In every second step the later ones.
std::size_t kind_of(std::uint8_t value, bool later) {
    return later ? KINDS + value % (std::size(OPERATIONS) - KINDS) : value % KINDS;
}

void set_up_switch(input* in) {
    const std::uint8_t flags = in->octet(), quality = in->octet();
    (void)ssm_opts_set_local_quality(QUALITIES[quality % std::size(QUALITIES)],
                                     flags & 1 ? SSM_OPTION_2 : SSM_OPTION_1);
    (void)ssm_opts_set_device_type(1 + quality / 16 % 3);
    (void)ssm_opts_set_ssm_extend(flags >> 1 & 1);
    (void)ssm_opts_set_extend_form(1 + (quality >> 7));
    (void)ssm_opts_set_global_enable(~flags >> 2 & 1);
    (void)ssm_opts_set_ssm_enable(~flags >> 3 & 1);
    (void)ssm_opts_set_recovery_select(flags >> 4 & 3);
    (void)ssm_opts_set_loop_guard(flags >> 6 == 2);
    if (flags >> 6 == 3) ssm_debug = ~decltype(ssm_debug){};
}

void set_up_port(input* in, virtual_daemon* d, std::uint32_t index) {
    const std::uint8_t flags = in->octet(), more = in->octet();
    d->deliver(NSM_MSG_LINK_ADD, link_body(index, ~flags & 1));
    interface* intf = if_lookup_by_index(g_p_esmcd->ifm, index);
    (void)ssm_opts_set_port_synce(intf, ~flags >> 1 & 1);
    if (flags & 4) (void)ssm_opts_unset_port_esmc(intf, 1 + (flags >> 3 & 1));
    (void)ssm_opts_set_port_priority(intf, flags >> 4);
    if (more & 1) (void)ssm_opts_set_port_quality(intf, 1 + (more >> 1 & 1), TOKENS[more >> 4]);
    if (more & 4) (void)ssm_opts_set_port_dnu_group(intf, more >> 4 & 3);
    (void)ssm_opts_set_port_replace_clockid(intf, more >> 3 & 1);
}

// A correct PDU with a few octets changed: past the first checks more often than octets from nowhere.
void hear_pdu(input* in, virtual_daemon* d, std::uint32_t index) {
    const std::uint8_t what = in->octet(), quality = in->octet();
    neighbour_pdu pdu;
    pdu.event = what & 1;
    pdu.quality = quality & 0x80 ? quality : QUALITIES[quality % std::size(QUALITIES)];
    pdu.extended = what & 2;
    if (pdu.extended) {
        const const_octets id = in->take(pdu.clock_id.size());
        std::copy(id.begin(), id.end(), pdu.clock_id.begin());
        pdu.hops = in->octet();
        pdu.standard = what & 0x80;
    }
    if (pdu.standard) {
        pdu.enhanced = what & 0x20 ? QL_ENHANCED_NONE : 0x20 + (pdu.hops >> 6);
        pdu.flags = pdu.hops & 3;
        pdu.eeec = pdu.hops;
        pdu.eec = in->octet();
    }
    message f = esmc_frame(pdu);
    const octets p = octets(f).subspan(PDU_AT);
    for (int changes = what >> 2 & 3; changes > 0; --changes) {
        const std::uint8_t at = in->octet();
        p[at % p.size()] = in->octet();
    }
    if (what & 0x40) f.resize(PDU_AT + in->octet());
    d->hear(index + 1000, std::move(f));
}

void hear_octets(input* in, virtual_daemon* d, std::uint32_t index) {
    const const_octets taken = in->take(in->octet());
    d->hear(index + 1000, {taken.begin(), taken.end()});
}

void step(input* in, virtual_daemon* d) {
    const std::uint8_t what = in->octet(), kind = what & 15;
    const std::uint32_t index = 1 + (what >> 4) % PORTS_MAX;
    if (kind < 5) return hear_pdu(in, d, index);
    if (kind < 7) return hear_octets(in, d, what >> 4);
    if (kind < 9) return d->pass(1 + in->octet() * 25U);
    if (kind == 9) return d->deliver(NSM_MSG_LINK_UP, be_words({index}));
    if (kind == 10) return d->deliver(NSM_MSG_LINK_DOWN, be_words({index}));
    const std::uint8_t value = in->octet();
    if (kind == 11) return d->deliver(NSM_MSG_LINK_ADD, link_body(index, value & 1));
    if (kind == 12) return d->deliver(NSM_MSG_LINK_DELETE, be_words({index, value & 1U}));
    const std::uint8_t other = in->octet();
    if (kind == 13) return d->deliver(NSM_MSG_SSM_SEND_BACK_CLOCK_STATE, be_words({value % 7U, other}));
    d->in_event([&] { operate(OPERATIONS[kind_of(value, kind == 15)], index, other); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 4 || size > 2048) return 0;
    input in = {data, size};
    virtual_daemon d;
    d.start(false);
    const std::uint32_t ports = 1 + in.octet() % PORTS_MAX;
    d.in_event([&] { set_up_switch(&in); });
    for (std::uint32_t index = 1; index <= ports; ++index) set_up_port(&in, &d, index);
    while (in.left) {
        step(&in, &d);
        d.check_records();
    }
    d.stop();
    return 0;
}
