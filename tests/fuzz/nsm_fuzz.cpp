// What NSM can say, in any order and of any octets, with a running daemon behind it: once over a socket pair,
// in the states of a session, with ends of the link between, and once handed to the client directly. An input
// is a first octet for the way, then records: an octet for the kind of record, an octet for its length, and
// so many octets. A message gets a fitting header unless its kind says otherwise.
#include "operations.h"

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

// What makes requests, and needs ports: SyncE, SSM, SyncE of a port, force and its end, external inputs.
constexpr std::uint8_t REQUESTING[] = {0, 1, 6, 12, 13, 15};

bool direct;

void say(virtual_daemon* d, const message& m) {
    if (direct) return d->deliver(m);
    d->nsm_says(m);
    d->settle();
}

void take_record(virtual_daemon* d, input* in) {
    const std::uint8_t head = in->octet(), kind = head % KINDS_ALL;
    const const_octets whole = in->take(in->octet());
    input body = {whole.data(), whole.size()};
    if (kind < KINDS) return say(d, virtual_daemon::with_header(TYPES[kind], whole));
    switch (kind) {
        case RAW:
            return say(d, {whole.begin(), whole.end()});
        case LINK_ENDS:
            d->end_link();
            return d->settle();
        case PASS:
            return d->pass(1 + body.octet() * 10U);
        case WRONG_LENGTH:
            return say(d,
                       virtual_daemon::with_header(TYPES[head / KINDS_ALL % KINDS], whole, 1 + body.octet()));
        case OPERATE: {
            const std::uint8_t what = body.octet(), index = body.octet(), value = body.octet();
            return d->in_event(
                [&] { operate(OPERATIONS[REQUESTING[what % std::size(REQUESTING)]], index, value); });
        }
        default: {
            const std::uint8_t index = body.octet(), flags = body.octet();
            const std::uint16_t type = flags & 2 ? 1 : IF_TYPE_SYNCE;
            return say(d,
                       virtual_daemon::with_header(NSM_MSG_LINK_ADD, link_body(index, flags & 1, {}, type)));
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
