// Tells managers what changed. Nothing in the records says that it changed: each subject (the source, the
// current quality, the running state, the DPLL's state, and each port's reception) is compared with what was
// told of it last. A change that came and went between two looks is not told.
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

struct port_subject {
    subject received;
    subject refused;  // by the loop guard, for long
    std::uint32_t ifindex;
    bool seen;  // in this round
};

constexpr std::size_t CLOCK_SUBJECTS = 4;
subject clock_subjects[CLOCK_SUBJECTS];

struct {
    port_subject* items;
    std::size_t count, room;
} ports;

// Objects that exist in notifications only.
constexpr snmp_oid NOTIFICATION_OBJECTS = 16, PREVIOUS_SOURCE = 1, DPLL_STATE = 2, REFUSED_CLOCK = 3,
                   REFUSED_HOPS = 4;

snmp_notify_object scalar(snmp_oid place, ssm_mib_value value) {
    return {{place, 0}, 2, static_cast<std::int32_t>(value)};
}

snmp_notify_object own_scalar(snmp_oid place, ssm_mib_value value) {
    return {{NOTIFICATION_OBJECTS, place, 0}, 3, static_cast<std::int32_t>(value)};
}

snmp_notify_object cell(ssm_mib_column column, std::uint32_t ifindex, ssm_mib_value value) {
    return {{SSM_MIB_PORT_TABLE, 1, column, ifindex}, 4, static_cast<std::int32_t>(value)};
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

ssm_mib_value dpll_state() {
    constexpr ssm_mib_value UNKNOWN = 1;
    const std::uint32_t state = g_s_master->dpll_state;
    return state >= SSM_DPLL_FREERUN && state <= SSM_DPLL_LOCK ? ssm_mib_value{state} : UNKNOWN;
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
    objects[0] = own_scalar(DPLL_STATE, dpll_state());
    return 1;
}

constexpr struct {
    ssm_notification number;
    ssm_mib_value (*value)();
    fill_objects fill;
} CLOCK[CLOCK_SUBJECTS] = {
    {SSM_NOTIFY_SOURCE, ssm_mib_selected_index, source_objects},
    {SSM_NOTIFY_QUALITY, quality, quality_objects},
    {SSM_NOTIFY_RUNNING_STATE, ssm_mib_running_state, running_state_objects},
    {SSM_NOTIFY_DPLL_STATE, dpll_state, dpll_objects},
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

void port_settled(std::uint32_t tag, bool delivered) {
    port_subject* p = find_port(tag, 0);
    if (p) settled(&p->received, delivered);  // else the port has gone
}

void check_port(const ssm_port* port, port_subject* p) {
    const ssm_mib_value received = port->recv_pdu != 0;
    if (!is_due(p->received, received)) return;
    const snmp_notify_object objects[] = {
        cell(SSM_MIB_RECEIVED_QUALITY, p->ifindex, ssm_mib_quality(port->recv_quality)),
        cell(SSM_MIB_LINK, p->ifindex, ssm_mib_flag(port->link_up)),
    };
    if (send(received ? SSM_NOTIFY_PORT_RECEIVED : SSM_NOTIFY_PORT_LOST, objects, std::size(objects),
             port_settled, p->ifindex))
        sent(&p->received, received);
}

void refusal_settled(std::uint32_t tag, bool delivered) {
    port_subject* p = find_port(tag, 0);
    if (p) settled(&p->refused, delivered);
}

// That it has ended is not told.
void check_refused(const ssm_port* port, port_subject* p) {
    const ssm_mib_value refused = port->guard_alarmed;
    if (!is_due(p->refused, refused)) return;
    if (!refused) {
        p->refused = known(0);
        return;
    }
    snmp_notify_object clock = own_scalar(REFUSED_CLOCK, 0);
    clock.text = ssm_clock_id_str(port->recv_clockid);
    const snmp_notify_object objects[] = {
        cell(SSM_MIB_RECEIVED_QUALITY, p->ifindex, ssm_mib_quality(port->recv_quality)),
        clock,
        own_scalar(REFUSED_HOPS, port->recv_hop_count),
    };
    if (send(SSM_NOTIFY_GUARD_REFUSES, objects, std::size(objects), refusal_settled, p->ifindex))
        sent(&p->refused, refused);
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
    for (std::size_t i = 0; i < CLOCK_SUBJECTS; ++i) clock_subjects[i] = known(CLOCK[i].value());
    ports.count = 0;
    walk_ports([](const ssm_port* port, port_subject* p) {
        p->received = known(port->recv_pdu != 0);
        p->refused = known(port->guard_alarmed);
    });
}

void check() {
    if (!g_s_master) return;
    check_clock();
    walk_ports([](const ssm_port* port, port_subject* p) {
        check_port(port, p);
        check_refused(port, p);
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
