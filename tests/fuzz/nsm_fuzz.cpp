// What NSM can say, in any order and of any octets, with a running daemon behind it: once over a socket pair,
// in the states of a session, with ends of the link between, and once handed to the client directly. An input
// is a first octet for the way, then records: an octet for the kind of record, an octet for its length, and
// so many octets. A message gets a fitting header unless its kind says otherwise.
#include "operations.h"

namespace {

constexpr std::uint16_t TYPES[] = {
    NSM_MSG_HELLO_ACK, NSM_MSG_SYNC_DONE, NSM_MSG_LINK_ADD,   NSM_MSG_LINK_DELETE,
    NSM_MSG_LINK_UP,   NSM_MSG_LINK_DOWN, NSM_MSG_BRIDGE_ADD, NSM_MSG_SSM_SEND_BACK_CLOCK_STATE};
// What makes requests, and needs ports: SyncE, SSM, SyncE of a port, force and its end, external inputs.
constexpr std::uint8_t REQUESTING[] = {0, 1, 6, 12, 13, 15};

bool direct;

void say(virtual_daemon* d, const message& m) {
    if (direct) return d->deliver(m);
    d->nsm_says(m);
    d->settle();
}

void say_typed(virtual_daemon* d, std::size_t kind, const_octets body, std::size_t too_much = 0) {
    say(d, virtual_daemon::with_header(TYPES[kind % std::size(TYPES)], body, too_much));
}

// The kinds of record behind those that are a message of TYPES each. Inputs name them by their place.
using record = void (*)(virtual_daemon*, const_octets whole, input body, std::size_t kind);
constexpr record RECORDS[] = {
    [](virtual_daemon* d, const_octets whole, input, std::size_t) {
        say(d, {whole.begin(), whole.end()});
    },
    [](virtual_daemon* d, const_octets, input, std::size_t) {
        d->end_link();
        d->settle();
    },
    [](virtual_daemon* d, const_octets, input body, std::size_t) { d->pass(1 + body.octet() * 10U); },
    [](virtual_daemon* d, const_octets whole, input body, std::size_t kind) {
        say_typed(d, kind, whole, 1U + body.octet());
    },
    [](virtual_daemon* d, const_octets, input body, std::size_t) {
        const std::uint8_t what = body.octet(), index = body.octet(), value = body.octet();
        d->in_event([&] { operate(OPERATIONS[REQUESTING[what % std::size(REQUESTING)]], index, value); });
    },
    [](virtual_daemon* d, const_octets, input body, std::size_t) {  // a link that can be
        const std::uint8_t index = body.octet(), flags = body.octet();
        say_typed(d, 2, link_body(index, flags & 1, {}, flags & 2 ? 1 : IF_TYPE_SYNCE));
    }};
constexpr std::size_t KINDS = std::size(TYPES) + std::size(RECORDS);

void take_record(virtual_daemon* d, input* in) {
    const std::size_t head = in->octet(), kind = head % KINDS;
    const const_octets whole = in->take(in->octet());
    if (kind < std::size(TYPES)) return say_typed(d, kind, whole);
    RECORDS[kind - std::size(TYPES)](d, whole, {whole.data(), whole.size()}, head / KINDS);
}

void check_list() {
    const auto list = if_list(g_p_esmcd->ifm);
    for (const interface* intf : list) {
        must(intf->ifindex != 0 && intf->ifindex != SSM_IFINDEX_E1, "indexes are usable");
        must(intf->name[0] && intf->name[IF_NAME_SIZE - 1] == 0, "names are usable");
        must(if_lookup_by_index(g_p_esmcd->ifm, intf->ifindex) == intf, "an index is one interface's");
        must(if_lookup_by_name(g_p_esmcd->ifm, intf->name) == intf, "a name is one interface's");
        must(!intf->port || intf->bound, "a port record belongs to a bound interface");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2 || size > 4096) return 0;
    input in = {data, size};
    virtual_daemon d;
    direct = in.octet() & 1;
    d.start(!direct);
    while (in.left) {
        take_record(&d, &in);
        d.check_records();
        check_list();
    }
    d.stop();
    return 0;
}
