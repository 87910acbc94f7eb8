// Copper timing roles through ethtool's netlink interface. Owns a socket and, per port index, what was asked
// for and what the port had before. Called by nsmd's core for each role request. A port without the setting,
// a driver that refuses, a kernel without the interface: one line, and the rest goes on.
#include "nsmd/clock/copper.h"

#include <linux/ethtool.h>
#include <linux/ethtool_netlink.h>

#include <cerrno>
#include <cstring>

#include "nsmd/netlink/genl.h"
#include "suite/base/memory.h"
#include "suite/log/log.h"

namespace {

struct role_record {
    bool asked;
    copper_role role;
    std::uint8_t before;  // the port's own setting before the first role; 0: not known
    bool failed;
};

// What a port gets back whose own setting is not known any more: what a switch's ports begin with.
constexpr std::uint8_t SETTING_OF_A_SWITCH = MASTER_SLAVE_CFG_MASTER_PREFERRED;

}  // namespace

struct copper {
    const port_table* table;
    genl link;
    int open_error;
    std::uint8_t answer;  // of the question under way: the port's setting, 0 without
    role_record records[PORT_INDEX_MAX + 1];
};

namespace {

void message_came(void* arg, const genl_message& m) {
    auto* c = static_cast<copper*>(arg);
    if (m.notification || m.command != ETHTOOL_MSG_LINKMODES_GET_REPLY) return;
    const_octets rest = m.attributes;
    nl_attr attr;
    while (nl_next_attr(&rest, &attr))
        if (attr.type == ETHTOOL_A_LINKMODES_MASTER_SLAVE_CFG) c->answer = nl_u8(attr.value);
}

void begin(copper* c, nl_builder* b, std::uint8_t command, const nsmd_port& port) {
    genl_begin(&c->link, b, command, ETHTOOL_GENL_VERSION, false);
    const std::size_t header = nl_nest_begin(b, ETHTOOL_A_LINKMODES_HEADER);
    nl_put_u32(b, ETHTOOL_A_HEADER_DEV_INDEX, port.kernel_ifindex);
    nl_nest_end(b, header);
}

// The port's setting, or a negative errno; a port without one is -EOPNOTSUPP.
int read_setting(copper* c, const nsmd_port& port) {
    nl_builder request;
    c->answer = MASTER_SLAVE_CFG_UNSUPPORTED;
    begin(c, &request, ETHTOOL_MSG_LINKMODES_GET, port);
    const int result = genl_transact(&c->link, request);
    if (result < 0) return result;
    return c->answer == MASTER_SLAVE_CFG_UNSUPPORTED ? -EOPNOTSUPP : c->answer;
}

int write_setting(copper* c, const nsmd_port& port, std::uint8_t setting) {
    nl_builder request;
    begin(c, &request, ETHTOOL_MSG_LINKMODES_SET, port);
    nl_put(&request, ETHTOOL_A_LINKMODES_MASTER_SLAVE_CFG, &setting, sizeof setting);
    return genl_transact(&c->link, request);
}

std::uint8_t setting_for(const role_record& record) {
    if (record.role.set)
        return record.role.is_slave ? MASTER_SLAVE_CFG_SLAVE_FORCE : MASTER_SLAVE_CFG_MASTER_FORCE;
    return record.before ? record.before : SETTING_OF_A_SWITCH;
}

bool is_forced(int setting) {
    return setting == MASTER_SLAVE_CFG_SLAVE_FORCE || setting == MASTER_SLAVE_CFG_MASTER_FORCE;
}

int bring_about(copper* c, const nsmd_port& port, role_record* record, bool first) {
    if (c->open_error) return c->open_error;
    const int present = read_setting(c, port);
    if (present < 0) return present;
    // A port that is forced at its first role got that from a former nsmd, and nobody knows what it had.
    if (first && record->role.set && !is_forced(present)) record->before = static_cast<std::uint8_t>(present);
    // Without a role that we know of, what a port has is its own affair unless it is a role.
    if (!record->role.set && !is_forced(present)) return 0;
    const std::uint8_t wanted = setting_for(*record);
    return present == wanted ? 0 : write_setting(c, port, wanted);
}

}  // namespace

copper* copper_create(const port_table* table, const netlink_edge& edge) {
    auto* c = static_cast<copper*>(memmgr_calloc(sizeof(copper), MTYPE_NSMD));
    if (!c) return nullptr;
    c->table = table;
    c->link.fd = -1;
    c->open_error = genl_open(&c->link, edge, ETHTOOL_GENL_NAME, nullptr, {message_came, [](void*) {}, c});
    return c;
}

void copper_free(copper* c) {
    if (!c) return;
    genl_close(&c->link);
    memmgr_free(c, MTYPE_NSMD);
}

void copper_set(copper* c, const copper_role& role) {
    const nsmd_port* port = port_table_find(c->table, role.ifindex);
    if (!port) return;  // the request's own line has said that nobody knows it
    role_record& record = c->records[role.ifindex];
    const bool first = !record.asked || !record.role.set;
    record.asked = true;
    record.role = role;
    const int result = bring_about(c, *port, &record, first);
    record.failed = result < 0;
    if (result < 0)
        log_suite(LOG_LEVEL_WARNING, "copper role of %s can't be set: %s", port->name,
                  result == -EOPNOTSUPP ? "its driver does not offer it" : std::strerror(-result));
}

void copper_forget(copper* c, std::uint32_t ifindex) {
    c->records[ifindex] = {};
}

bool copper_status(const copper* c, text_buffer* out) {
    for (const nsmd_port* p = port_table_first(c->table); p; p = p->next) {
        const role_record& record = c->records[p->ifindex];
        if (!record.asked || !record.role.set) continue;
        if (!text_printf(out, "copper role of %s: %s%s\n", p->name, record.role.is_slave ? "slave" : "master",
                         record.failed ? ", not set" : ""))
            return false;
    }
    return true;
}
