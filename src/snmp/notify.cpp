// Tells managers what changed. Nothing in the records says that it changed: each subject (the source, the
// current quality, the running state, the DPLL's state, the operator's external command, and of each port its
// reception, a refusal, flapping and a lockout) is compared with what was told of it last. A change that came
// and went between two looks is not told. What is when notifications are switched on is known already, but
// not external commands and lockouts: those that are active are told then.
//
// At most one notification a second and subject, and the last state always arrives: a subject that changes
// faster is told again when its second is over, and one whose notification may have been lost with the link
// to the master is told again on the next.
//
// What can go wrong: no memory to remember a port by. Nothing is told of that port until there is.
#include "snmp/notify.h"

#include "core/ports.h"
#include "core/ql.h"
#include "snmp/handlers.h"
#include "snmp/mib.h"
#include "snmp/values.h"
#include "suite/agentx/snmp.h"

namespace {

constexpr nanoseconds REST = NS_PER_S;  // between two of a subject

struct subject {
    ssm_mib_value told, sending;
    bool in_flight;
    bool unsure;  // whether `told` is what the manager knows
    bool rests;   // one has been sent, at `sent`
    nanoseconds sent;
};

enum port_kind : std::uint8_t { RECEPTION, REFUSAL, FLAPPING, LOCKOUT, PORT_KINDS };

struct port_subject {
    subject of[PORT_KINDS];
    std::uint32_t ifindex;
    bool seen;  // in this round
};

constexpr std::size_t CLOCK_SUBJECTS = 6;
subject clock_subjects[CLOCK_SUBJECTS];

struct {
    port_subject* items;
    std::size_t count, room;
} ports;

// Objects that exist in notifications only.
constexpr snmp_oid NOTIFICATION_OBJECTS = 16, PREVIOUS_SOURCE = 1, DPLL_STATE = 2, REFUSED_CLOCK = 3,
                   REFUSED_HOPS = 4, ENDED_PORT = 5, ENDED_REASON = 6;

snmp_notify_object scalar(snmp_oid place, ssm_mib_value value) {
    return {{place, 0}, 2, static_cast<std::int32_t>(value)};
}

snmp_notify_object own_scalar(snmp_oid place, ssm_mib_value value) {
    return {{NOTIFICATION_OBJECTS, place, 0}, 3, static_cast<std::int32_t>(value)};
}

snmp_notify_object cell(ssm_mib_column column, std::uint32_t ifindex, ssm_mib_value value) {
    return {{SSM_MIB_PORT_TABLE, 1, column, ifindex}, 4, static_cast<std::int32_t>(value)};
}

// An object of a group: a port's, or (instance 0) the switch's.
snmp_notify_object port_state(snmp_oid object, std::uint32_t ifindex, ssm_mib_value value) {
    return {{SSM_MIB_PORT_STATES, 1, object, ifindex}, 4, static_cast<std::int32_t>(value)};
}

snmp_notify_object supervision(snmp_oid object, ssm_mib_value value) {
    return {{SSM_MIB_SUPERVISION, object, 0}, 3, static_cast<std::int32_t>(value)};
}

// Subjects ------------------------------------------------------------------------------------------------

subject known(ssm_mib_value value) {
    subject s{};
    s.told = value;
    return s;
}

bool is_due(const subject& s, ssm_mib_value value) {
    if (s.in_flight || (value == s.told && !s.unsure)) return false;
    return !s.rests || thread_now(g_p_esmcd) - s.sent >= REST;
}

void sent(subject* s, ssm_mib_value value) {
    s->sending = value;
    s->in_flight = s->rests = true;
    s->sent = thread_now(g_p_esmcd);
}

void settled(subject* s, bool delivered) {
    if (!s->in_flight) return;  // of a time before notifications were switched off and on
    s->in_flight = false;
    s->unsure = !delivered;
    if (delivered) s->told = s->sending;
}

bool send(ssm_notification number, const snmp_notify_object* objects, std::size_t count,
          snmp_notify_done done, std::uint32_t tag) {
    return snmp_notify(g_p_esmcd, ssm_oid, SSM_OID_LENGTH, number, objects, count, done, tag) == 0;
}

// The clock -----------------------------------------------------------------------------------------------

ssm_mib_value quality() {
    return ssm_mib_current_quality(g_s_master->current_quality);
}

// The objects of a notification of the clock; returns how many.
using fill_objects = std::size_t (*)(const subject&, snmp_notify_object* objects);

std::size_t source_objects(const subject& s, snmp_notify_object* objects) {
    objects[0] = own_scalar(PREVIOUS_SOURCE, s.told);
    objects[1] = scalar(SSM_MIB_SELECTED_PORT, ssm_mib_selected_index());
    objects[2] = scalar(SSM_MIB_CURRENT_QUALITY, quality());
    return 3;
}

std::size_t quality_objects(const subject&, snmp_notify_object* objects) {
    objects[0] = scalar(SSM_MIB_CURRENT_QUALITY, quality());
    objects[1] = scalar(SSM_MIB_SELECTED_PORT, ssm_mib_selected_index());
    return 2;
}

std::size_t running_state_objects(const subject&, snmp_notify_object* objects) {
    objects[0] = scalar(SSM_MIB_RUNNING_STATE, ssm_mib_running_state());
    objects[1] = scalar(SSM_MIB_SELECTED_PORT, ssm_mib_selected_index());
    return 2;
}

std::size_t dpll_objects(const subject&, snmp_notify_object* objects) {
    objects[0] = own_scalar(DPLL_STATE, ssm_mib_dpll_state());
    return 1;
}

// The command and its port in one number; 0: none.
ssm_mib_value external_command() {
    const ssm_mib_command active = ssm_mib_active_command();
    return active.port ? active.kind << 32 | active.port : 0;
}

std::size_t command_objects(const subject&, snmp_notify_object* objects) {
    const ssm_mib_command active = ssm_mib_active_command();
    objects[0] = supervision(SSM_MIB_COMMAND, active.kind);
    objects[1] = supervision(SSM_MIB_COMMAND_PORT, active.port);
    return 2;
}

ssm_mib_value manual_ends() {
    return g_s_master->manual_end.count;
}

std::size_t manual_end_objects(const subject&, snmp_notify_object* objects) {
    const ssm_manual_end& end = g_s_master->manual_end;
    objects[0] = own_scalar(ENDED_PORT, end.ifindex);
    objects[1] = own_scalar(ENDED_REASON, 0);
    objects[1].text = end.why;
    return 2;
}

constexpr struct {
    ssm_notification number;
    ssm_mib_value (*value)();
    fill_objects fill;
    bool told_at_start;  // unless 0
} CLOCK[CLOCK_SUBJECTS] = {
    {SSM_NOTIFY_SOURCE, ssm_mib_selected_index, source_objects, false},
    {SSM_NOTIFY_QUALITY, quality, quality_objects, false},
    {SSM_NOTIFY_RUNNING_STATE, ssm_mib_running_state, running_state_objects, false},
    {SSM_NOTIFY_DPLL_STATE, ssm_mib_dpll_state, dpll_objects, false},
    {SSM_NOTIFY_COMMAND, external_command, command_objects, true},
    {SSM_NOTIFY_MANUAL_END, manual_ends, manual_end_objects, false},
};

void clock_settled(std::uint32_t tag, bool delivered) {
    settled(clock_subjects + tag, delivered);
}

void check_clock() {
    for (std::uint32_t i = 0; i < CLOCK_SUBJECTS; ++i) {
        subject* s = clock_subjects + i;
        const ssm_mib_value value = CLOCK[i].value();
        if (!is_due(*s, value)) continue;
        snmp_notify_object objects[3];
        const std::size_t count = CLOCK[i].fill(*s, objects);
        if (send(CLOCK[i].number, objects, count, clock_settled, i)) sent(s, value);
    }
}

// Ports ---------------------------------------------------------------------------------------------------

// The subject of a port. It is looked for from `place` on, where it is unless ports came or went.
port_subject* find_port(std::uint32_t ifindex, std::size_t place) {
    for (std::size_t i = 0; i < ports.count; ++i) {
        port_subject* p = ports.items + (place + i) % ports.count;
        if (p->ifindex == ifindex) return p;
    }
    return nullptr;
}

port_subject* add_port(std::uint32_t ifindex) {
    if (ports.count == ports.room) {
        const std::size_t room = ports.room ? ports.room * 2 : 16;
        void* items = memmgr_realloc(ports.items, room * sizeof *ports.items, MTYPE_AGENTX);
        if (!items) return nullptr;
        ports.items = static_cast<port_subject*>(items);
        ports.room = room;
    }
    port_subject* p = ports.items + ports.count++;
    *p = {};
    p->ifindex = ifindex;
    return p;
}

template <port_kind Kind>
void port_settled(std::uint32_t tag, bool delivered) {
    port_subject* p = find_port(tag, 0);
    if (p) settled(&p->of[Kind], delivered);  // else the port has gone
}

std::size_t reception_objects(const ssm_port* port, snmp_notify_object* objects) {
    objects[0] = cell(SSM_MIB_RECEIVED_QUALITY, port->ifindex, ssm_mib_quality(port->recv_quality));
    objects[1] = cell(SSM_MIB_LINK, port->ifindex, ssm_mib_flag(port->link_up));
    return 2;
}

std::size_t refusal_objects(const ssm_port* port, snmp_notify_object* objects) {
    objects[0] = cell(SSM_MIB_RECEIVED_QUALITY, port->ifindex, ssm_mib_quality(port->recv_quality));
    objects[1] = own_scalar(REFUSED_CLOCK, 0);
    objects[1].text = ssm_clock_id_str(port->recv_clockid);
    objects[2] = own_scalar(REFUSED_HOPS, port->recv_hop_count);
    return 3;
}

std::size_t flapping_objects(const ssm_port* port, snmp_notify_object* objects) {
    objects[0] = port_state(SSM_MIB_FLAPPING, port->ifindex, ssm_mib_flag(ssm_flapping(port)));
    objects[1] = scalar(SSM_MIB_SELECTED_PORT, ssm_mib_selected_index());
    return 2;
}

std::size_t lockout_objects(const ssm_port* port, snmp_notify_object* objects) {
    objects[0] = port_state(SSM_MIB_LOCKED_OUT, port->ifindex, ssm_mib_flag(port->lockout));
    return 1;
}

struct port_row {
    ssm_notification begins, ends;  // SSM_NOTIFY_NONE: that it ends is not told
    bool (*value)(const ssm_port*);
    std::size_t (*fill)(const ssm_port*, snmp_notify_object* objects);
    snmp_notify_done done;
    bool told_at_start;  // where it holds
};
constexpr port_row PORT[PORT_KINDS] = {
    {SSM_NOTIFY_PORT_RECEIVED, SSM_NOTIFY_PORT_LOST, [](const ssm_port* port) { return port->recv_pdu != 0; },
     reception_objects, port_settled<RECEPTION>, false},
    {SSM_NOTIFY_GUARD_REFUSES, SSM_NOTIFY_NONE, [](const ssm_port* port) { return port->guard_alarmed; },
     refusal_objects, port_settled<REFUSAL>, false},
    {SSM_NOTIFY_FLAPPING, SSM_NOTIFY_NONE, ssm_flapping, flapping_objects, port_settled<FLAPPING>, false},
    {SSM_NOTIFY_LOCKOUT, SSM_NOTIFY_LOCKOUT, [](const ssm_port* port) { return port->lockout != 0; },
     lockout_objects, port_settled<LOCKOUT>, true},
};

void check_port(const port_row& row, const ssm_port* port, subject* s) {
    const bool value = row.value(port);
    if (!is_due(*s, value)) return;
    const ssm_notification number = value ? row.begins : row.ends;
    if (number == SSM_NOTIFY_NONE) {
        *s = known(0);
        return;
    }
    snmp_notify_object objects[3];
    const std::size_t count = row.fill(port, objects);
    if (send(number, objects, count, row.done, port->ifindex)) sent(s, value);
}

void forget_unseen_ports() {
    std::size_t kept = 0;
    for (std::size_t i = 0; i < ports.count; ++i) {
        if (!ports.items[i].seen) continue;
        ports.items[kept] = ports.items[i];
        ports.items[kept++].seen = false;
    }
    ports.count = kept;
}

// Visits every port with its subject, which is made where there is none.
template <typename Visit>
void walk_ports(Visit&& visit) {
    std::size_t place = 0;
    ssm_port_walk([&](const ssm_port* port) {
        port_subject* p = find_port(port->intf->ifindex, place++);
        if (!p) p = add_port(port->intf->ifindex);
        if (!p) return;
        p->seen = true;
        visit(port, p);
    });
    forget_unseen_ports();
}

// What is now, is known.
void start() {
    for (std::size_t i = 0; i < CLOCK_SUBJECTS; ++i)
        clock_subjects[i] = known(CLOCK[i].told_at_start ? 0 : CLOCK[i].value());
    ports.count = 0;
    walk_ports([](const ssm_port* port, port_subject* p) {
        for (std::size_t kind = 0; kind < PORT_KINDS; ++kind)
            p->of[kind] = known(PORT[kind].told_at_start ? 0 : PORT[kind].value(port));
    });
}

void check() {
    if (!g_s_master) return;
    check_clock();
    walk_ports([](const ssm_port* port, port_subject* p) {
        for (std::size_t kind = 0; kind < PORT_KINDS; ++kind) check_port(PORT[kind], port, &p->of[kind]);
    });
}

void stop() {
    memmgr_free(ports.items, MTYPE_AGENTX);
    ports = {};
}

}  // namespace

int ssm_notify_init(lib_globals* ctx) {
    constexpr snmp_notifier notifier = {start, check, stop};
    return snmp_set_notifier(ctx, &notifier);
}
