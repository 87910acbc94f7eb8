// What NSM can say, in any order and of any octets, with a running daemon behind it: once over a socket pair,
// in the states of a session, with ends of the link between, and once handed to the client directly. An input
// is a first octet for the way, then records: an octet for the kind of record, an octet for its length, and
// so many octets. A message gets a fitting header unless its kind says otherwise.
#include "world.h"

namespace {

constexpr std::uint16_t TYPES[] = {
    NSM_MSG_HELLO_ACK, NSM_MSG_SYNC_DONE, NSM_MSG_LINK_ADD,   NSM_MSG_LINK_DELETE,
    NSM_MSG_LINK_UP,   NSM_MSG_LINK_DOWN, NSM_MSG_BRIDGE_ADD, NSM_MSG_SSM_SEND_BACK_CLOCK_STATE};
constexpr std::uint8_t KINDS = std::size(TYPES);

enum : std::uint8_t {
    RAW = 8,
    LINK_ENDS = 9,
    PASS = 10,
    WRONG_LENGTH = 11,
    OPERATE = 12,
    KNOWN_LINK = 13,
    KINDS_ALL
};

bool direct;

void say(fuzz_world* w, const std::vector<std::uint8_t>& message) {
    if (direct) {
        w->in_event([&] { nsm_client_deliver(ssm_instance->nsm_client, message.data(), message.size()); });
        return;
    }
    // While the link is down, or full, what NSM says is lost.
    if (w->nsm_fd >= 0) (void)send(w->nsm_fd, message.data(), message.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    w->settle();
}

std::vector<std::uint8_t> with_header(std::uint16_t type, const_octets body, std::size_t too_much = 0) {
    std::vector<std::uint8_t> m(NSM_HEADER_SIZE);
    put_be16(m, 0, type);
    put_be16(m, 2, static_cast<std::uint16_t>(m.size() + body.size() + too_much));
    m.insert(m.end(), body.begin(), body.end());
    return m;
}

// What makes requests, and needs ports.
void operate(input* body) {
    const std::uint8_t what = body->octet(), index = body->octet(), value = body->octet();
    interface* intf = if_lookup_by_index(&g_p_esmcd->ifm, index);
    switch (what % 6) {
        case 0:
            (void)ssm_opts_set_global_enable(value & 1);
            break;
        case 1:
            (void)ssm_opts_set_ssm_enable(value & 1);
            break;
        case 2:
            if (ssm_if_port(intf)) (void)ssm_opts_set_port_synce(intf, value & 1);
            break;
        case 3:
            if (ssm_if_port(intf)) (void)ssm_opts_set_force_port(ssm_if_port(intf));
            break;
        case 4:
            (void)ssm_opts_clear_force();
            break;
        default:
            (void)ssm_opts_set_recovery_select(value % 3);
            break;
    }
}

void take_record(fuzz_world* w, input* in) {
    const std::uint8_t head = in->octet(), kind = head % KINDS_ALL;
    input body = {nullptr, 0};
    const const_octets octets_of_body = in->take(in->octet());
    body = {octets_of_body.data(), octets_of_body.size()};
    if (kind < KINDS) return say(w, with_header(TYPES[kind], octets_of_body));
    switch (kind) {
        case RAW:
            return say(w, {octets_of_body.begin(), octets_of_body.end()});
        case LINK_ENDS:
            w->end_link();
            return w->settle();
        case PASS:
            return w->pass(1 + body.octet() * 10U);
        case WRONG_LENGTH:
            return say(w, with_header(TYPES[head / KINDS_ALL % KINDS], octets_of_body, 1 + body.octet()));
        case OPERATE:
            return w->in_event([&] { operate(&body); });
        default: {
            const std::uint8_t index = body.octet(), flags = body.octet();
            return say(w,
                       with_header(NSM_MSG_LINK_ADD,
                                   fuzz_world::link_body(index, flags & 1, flags & 2 ? 1 : IF_TYPE_SYNCE)));
        }
    }
}

void check_list() {
    const auto list = if_list(&g_p_esmcd->ifm);
    for (const interface* intf : list) {
        must(intf->ifindex != 0 && intf->ifindex != SSM_IFINDEX_E1, "indexes are usable");
        must(intf->name[0] && intf->name[IF_NAME_SIZE - 1] == 0, "names are usable");
        must(if_lookup_by_index(&g_p_esmcd->ifm, intf->ifindex) == intf, "an index is one interface's");
        must(if_lookup_by_name(&g_p_esmcd->ifm, intf->name) == intf, "a name is one interface's");
        must(!intf->port || intf->bound, "a port record belongs to a bound interface");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2 || size > 4096) return 0;
    input in = {data, size};
    fuzz_world w;
    const std::uint8_t way = in.octet();
    direct = way & 1;
    w.start(!direct);
    while (in.left) {
        take_record(&w, &in);
        w.check_records();
        check_list();
    }
    w.stop();
    return 0;
}
