// The whole loop against the wire: frames of any octets on ports of any configuration and state, through the
// socket unit's own read handler, with time, link changes and operations between them. The first octets are
// the switch's state, then come steps; what must hold in every state is checked after each of them.
#include "world.h"

namespace {

constexpr std::uint32_t PORTS_MAX = 6;
constexpr std::uint8_t QUALITIES[] = {QL_PRC, QL_SSU_A, QL_SSU_B, QL_EEC1, QL_DNU,  QL_PRS,
                                      QL_STU, QL_ST2,   QL_EEC2,  QL_SMC,  QL_ST3E, QL_PROV};
constexpr const char* TOKENS[] = {"prc", "ssu-a", "ssu-b", "eec1", "dnu", "na",   "prs", "stu",
                                  "st2", "tnc",   "st3e",  "eec2", "smc", "prov", "dus", ""};

interface* port_intf(std::uint32_t index) {
    return if_lookup_by_index(&g_p_esmcd->ifm, index);
}

void set_up_switch(input* in) {
    const std::uint8_t flags = in->octet(), quality = in->octet();
    (void)ssm_opts_set_local_quality(QUALITIES[quality % std::size(QUALITIES)],
                                     flags & 1 ? SSM_OPTION_2 : SSM_OPTION_1);
    (void)ssm_opts_set_device_type(1 + quality / 16 % 3);
    (void)ssm_opts_set_ssm_extend(flags >> 1 & 1);
    (void)ssm_opts_set_global_enable(~flags >> 2 & 1);
    (void)ssm_opts_set_ssm_enable(~flags >> 3 & 1);
    (void)ssm_opts_set_recovery_select(flags >> 4 & 3);
    if (flags >> 6 == 3) ssm_debug = ~decltype(ssm_debug){};
}

void set_up_port(input* in, fuzz_world* w, std::uint32_t index) {
    const std::uint8_t flags = in->octet(), more = in->octet();
    w->deliver(NSM_MSG_LINK_ADD, fuzz_world::link_body(index, ~flags & 1));
    interface* intf = port_intf(index);
    (void)ssm_opts_set_port_synce(intf, ~flags >> 1 & 1);
    if (flags & 4) (void)ssm_opts_unset_port_esmc(intf, 1 + (flags >> 3 & 1));
    (void)ssm_opts_set_port_priority(intf, flags >> 4);
    if (more & 1) (void)ssm_opts_set_port_quality(intf, 1 + (more >> 1 & 1), TOKENS[more >> 4]);
    if (more & 4) (void)ssm_opts_set_port_dnu_group(intf, more >> 4 & 3);
    (void)ssm_opts_set_port_replace_clockid(intf, more >> 3 & 1);
}

// A correct PDU with a few octets changed: past the first checks more often than octets from nowhere.
void hear_pdu(input* in, fuzz_world* w, std::uint32_t index) {
    std::vector<std::uint8_t> f = {0x01, 0x80, 0xC2, 0, 0, 2, 2, 0xEE, 0, 0, 0, 1, 0x88, 0x09};
    f.resize(60);
    const octets p(f.data() + 14, 46);
    const std::uint8_t what = in->octet(), quality = in->octet();
    p[0] = 0x0A;
    p[2] = 0x19;
    p[3] = 0xA7;
    p[5] = 1;
    p[6] = what & 1 ? 0x18 : 0x10;
    p[10] = 1;
    p[12] = 4;
    p[13] = quality & 0x80 ? quality : QUALITIES[quality % std::size(QUALITIES)];
    if (what & 2) {
        p[14] = 2;
        p[16] = 12;
        const const_octets id = in->take(8);
        if (!id.empty()) std::memcpy(&p[17], id.data(), id.size());
        p[25] = in->octet();
    }
    for (int changes = what >> 2 & 3; changes > 0; --changes) {
        const std::uint8_t at = in->octet();
        p[at % p.size()] = in->octet();
    }
    if (what & 0x40) f.resize(14 + in->octet());
    w->hear(index + 1000, std::move(f));
}

void hear_octets(input* in, fuzz_world* w, std::uint32_t index) {
    const const_octets taken = in->take(in->octet());
    w->hear(index + 1000, {taken.begin(), taken.end()});
}

void operate(std::uint8_t what, std::uint8_t value, std::uint32_t index) {
    interface* intf = port_intf(index);
    switch (what % 15) {
        case 0:
            (void)ssm_opts_set_global_enable(value & 1);
            break;
        case 1:
            (void)ssm_opts_set_ssm_enable(value & 1);
            break;
        case 2:
            (void)ssm_opts_set_ssm_extend(value & 1);
            break;
        case 3:
            (void)ssm_opts_set_local_quality(QUALITIES[value % std::size(QUALITIES)],
                                             static_cast<std::uint8_t>(1 + (value >> 7)));
            break;
        case 4:
            (void)ssm_opts_set_device_type(1 + value % 3);
            break;
        case 5:
            (void)ssm_opts_set_local_priority(value);
            break;
        case 6:
            (void)ssm_opts_set_port_synce(intf, value & 1);
            break;
        case 7:
            (void)ssm_opts_set_port_esmc(intf, 1 + value % 4);
            break;
        case 8:
            (void)ssm_opts_unset_port_esmc(intf, 1 + value % 3);
            break;
        case 9:
            (void)ssm_opts_set_port_priority(intf, value);
            break;
        case 10:
            (void)ssm_opts_set_port_dnu_group(intf, value & 3);
            break;
        case 11:
            (void)ssm_opts_set_port_quality(intf, 1 + (value & 1), TOKENS[value >> 4]);
            break;
        case 12:
            if (ssm_if_port(intf)) (void)ssm_opts_set_force_port(ssm_if_port(intf));
            break;
        case 13:
            (void)ssm_opts_clear_force();
            break;
        default:
            (void)ssm_opts_set_port_replace_clockid(intf, value & 1);
            break;
    }
}

void step(input* in, fuzz_world* w) {
    const std::uint8_t what = in->octet();
    const std::uint32_t index = 1 + (what >> 4) % PORTS_MAX;
    switch (what & 15) {
        case 0:
        case 1:
        case 2:
        case 3:
        case 4:
            hear_pdu(in, w, index);
            break;
        case 5:
        case 6:
            hear_octets(in, w, what >> 4);
            break;
        case 7:
        case 8:
            w->pass(1 + in->octet() * 25U);
            break;
        case 9:
            w->deliver(NSM_MSG_LINK_UP, fuzz_world::words({index}));
            break;
        case 10:
            w->deliver(NSM_MSG_LINK_DOWN, fuzz_world::words({index}));
            break;
        case 11:
            w->deliver(NSM_MSG_LINK_ADD, fuzz_world::link_body(index, in->octet() & 1));
            break;
        case 12:
            w->deliver(NSM_MSG_LINK_DELETE, fuzz_world::words({index, in->octet() & 1U}));
            break;
        case 13: {
            const std::uint32_t state = in->octet() % 7;
            w->deliver(NSM_MSG_SSM_SEND_BACK_CLOCK_STATE, fuzz_world::words({state, in->octet()}));
            break;
        }
        default: {
            const std::uint8_t kind = in->octet(), value = in->octet();
            w->in_event([&] { operate(kind, value, index); });
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 4 || size > 2048) return 0;
    input in = {data, size};
    fuzz_world w;
    w.start(false);
    const std::uint32_t ports = 1 + in.octet() % PORTS_MAX;
    w.in_event([&] { set_up_switch(&in); });
    for (std::uint32_t index = 1; index <= ports; ++index) set_up_port(&in, &w, index);
    ssm_choice_is_stale();
    while (in.left) {
        step(&in, &w);
        w.check_records();
    }
    w.stop();
    return 0;
}
