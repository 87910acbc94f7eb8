// Copper timing roles through ethtool's netlink interface. Owns a channel and, per port index, what was asked
// for and what the port had before. Called by nsmd's core for each role request. A port without the setting,
// a driver that refuses, a kernel without the interface: one line, and the rest goes on.
//
// One port is worked on at a time: its setting is read, then perhaps written, and each may take as long as
// its driver does. A port that is asked for meanwhile is due; only its newest role counts.
#include "nsmd/clock/copper.h"

#include <linux/ethtool.h>
#include <linux/ethtool_netlink.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "nsmd/netlink/genl.h"
#include "suite/base/memory.h"
#include "suite/log/log.h"

namespace {

struct role_record {
    bool asked;
    bool due;       // the role waits to be brought about
    bool is_first;  // what the port has now is its own
    copper_role role;
    std::uint8_t before;  // the port's own setting before the first role; 0: not known
    bool failed;
};

// What a port gets back whose own setting is not known any more: what a switch's ports begin with.
constexpr std::uint8_t SETTING_OF_A_SWITCH = MASTER_SLAVE_CFG_MASTER_PREFERRED;

enum class copper_task { none, reads, writes };

}  // namespace

struct copper {
    const port_table* table;
    genl link;
    int open_error;
    copper_task task;
    std::uint32_t ifindex;  // whose task it is; 0: of a port that is gone
    std::uint8_t answer;    // of the question under way: the port's setting, 0 without
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

void read_setting(copper* c, const nsmd_port& port) {
    nl_builder request;
    c->answer = MASTER_SLAVE_CFG_UNSUPPORTED;
    c->task = copper_task::reads;
    begin(c, &request, ETHTOOL_MSG_LINKMODES_GET, port);
    genl_request(&c->link, request);
}

void write_setting(copper* c, const nsmd_port& port, std::uint8_t setting) {
    nl_builder request;
    c->task = copper_task::writes;
    begin(c, &request, ETHTOOL_MSG_LINKMODES_SET, port);
    nl_put(&request, ETHTOOL_A_LINKMODES_MASTER_SLAVE_CFG, &setting, sizeof setting);
    genl_request(&c->link, request);
}

std::uint8_t setting_for(const role_record& record) {
    if (record.role.set)
        return record.role.is_slave ? MASTER_SLAVE_CFG_SLAVE_FORCE : MASTER_SLAVE_CFG_MASTER_FORCE;
    return record.before ? record.before : SETTING_OF_A_SWITCH;
}

bool is_forced(int setting) {
    return setting == MASTER_SLAVE_CFG_SLAVE_FORCE || setting == MASTER_SLAVE_CFG_MASTER_FORCE;
}

void finish(copper* c, const nsmd_port& port, int result) {
    c->task = copper_task::none;
    c->records[port.ifindex].failed = result < 0;
    if (result < 0)
        log_suite(LOG_LEVEL_WARNING, "copper role of %s can't be set: %s", port.name,
                  result == -EOPNOTSUPP ? "its driver does not offer it" : std::strerror(-result));
}

void was_read(copper* c, const nsmd_port& port, role_record* record) {
    if (c->link.result < 0) return finish(c, port, c->link.result);
    // A port without a setting.
    if (c->answer == MASTER_SLAVE_CFG_UNSUPPORTED) return finish(c, port, -EOPNOTSUPP);
    // A port that is forced at its first role got that from a former nsmd, and nobody knows what it had.
    if (record->is_first && record->role.set && !is_forced(c->answer)) record->before = c->answer;
    record->is_first = false;
    // Without a role that we know of, what a port has is its own affair unless it is a role.
    if (!record->role.set && !is_forced(c->answer)) return finish(c, port, 0);
    const std::uint8_t wanted = setting_for(*record);
    if (c->answer == wanted) return finish(c, port, 0);
    write_setting(c, port, wanted);
}

void go_on(copper* c) {
    const nsmd_port* port = port_table_find(c->table, c->ifindex);
    if (!port) {
        c->task = copper_task::none;
        return;
    }
    role_record& record = c->records[c->ifindex];
    if (c->link.result == -EPIPE) record.due = true;  // the helper died: once more
    if (c->task == copper_task::reads && !record.due)
        was_read(c, *port, &record);
    else if (record.due)
        c->task = copper_task::none;  // another role was asked for since
    else
        finish(c, *port, c->link.result);
}

// False: no port is due.
bool begin_next(copper* c) {
    if (netlink_channel_is_broken(&c->link.channel)) return false;
    for (const nsmd_port* p = port_table_first(c->table); p; p = p->next) {
        if (!c->records[p->ifindex].due) continue;
        c->records[p->ifindex].due = false;
        c->ifindex = p->ifindex;
        if (c->open_error)
            finish(c, *p, c->open_error);
        else
            read_setting(c, *p);
        return true;
    }
    return false;
}

void work(copper* c) {
    while (!genl_waits(&c->link)) {
        if (c->task != copper_task::none)
            go_on(c);
        else if (!begin_next(c))
            return;
    }
}

int readable(thread* event) {
    auto* c = static_cast<copper*>(event->arg);
    genl_read(&c->link);
    work(c);
    (void)netlink_channel_listen(&c->link.channel);
    return 0;
}

const char* subject(const copper* c, char (&out)[80]) {
    const nsmd_port* port = genl_waits(&c->link) ? port_table_find(c->table, c->ifindex) : nullptr;
    if (port)
        std::snprintf(out, sizeof out, "the driver of %s (copper role)", port->name);
    else
        std::snprintf(out, sizeof out, "the driver of a copper port");
    return out;
}

}  // namespace

copper* copper_create(const port_table* table, const netlink_edge& edge) {
    auto* c = static_cast<copper*>(memmgr_calloc(sizeof(copper), MTYPE_NSMD));
    if (!c) return nullptr;
    c->table = table;
    c->link.channel.fd = -1;
    c->open_error = genl_open(&c->link, edge, ETHTOOL_GENL_NAME, nullptr, {message_came, [](void*) {}, c});
    return c;
}

void copper_free(copper* c) {
    if (!c) return;
    genl_close(&c->link);
    memmgr_free(c, MTYPE_NSMD);
}

void copper_set(copper* c, const copper_role& role) {
    if (!port_table_find(c->table, role.ifindex)) return;  // the request's own line has said that
    role_record& record = c->records[role.ifindex];
    record.is_first |= !record.asked || !record.role.set;
    record.asked = record.due = true;
    record.role = role;
    work(c);
}

void copper_tend(copper* c, lib_globals* ctx) {
    char words[80];
    netlink_channel* channel = &c->link.channel;
    if (c->open_error) return;
    if (!channel->readable) (void)netlink_channel_attach(channel, ctx, readable, c, false);
    genl_tend(&c->link, subject(c, words));
    work(c);
}

void copper_forget(copper* c, std::uint32_t ifindex) {
    c->records[ifindex] = {};
    if (c->ifindex == ifindex) c->ifindex = 0;
}

bool copper_status(const copper* c, text_buffer* out) {
    char words[80];
    if (!netlink_channel_status(&c->link.channel, subject(c, words), out)) return false;
    for (const nsmd_port* p = port_table_first(c->table); p; p = p->next) {
        const role_record& record = c->records[p->ifindex];
        if (!record.asked || !record.role.set) continue;
        if (!text_printf(out, "copper role of %s: %s%s\n", p->name, record.role.is_slave ? "slave" : "master",
                         record.failed ? ", not set" : ""))
            return false;
    }
    return true;
}
