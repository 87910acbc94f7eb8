// Notifications: the timer that lets the module look for what changed, the PDU, and what becomes of it. A
// notification counts as delivered when the master has answered it; the module hears of those that a lost
// link may have taken along, and sends what is true by then.
#include <cstring>

#include "suite/agentx/record.h"
#include "suite/loop/thread.h"

namespace {

constexpr std::uint32_t CHECK_MS = 200;
constexpr snmp_oid SNMP_TRAP_OID[] = {1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};

void arm_check(snmp_agent* agent);

int on_check(thread* event) {
    auto* agent = static_cast<snmp_agent*>(event->arg);
    agent->check = nullptr;
    arm_check(agent);
    agent->notifier.check();
    return 0;
}

void arm_check(snmp_agent* agent) {
    agent->check = thread_add_timer_msec(agent->ctx, on_check, agent, CHECK_MS);
}

void stop_checking(snmp_agent* agent) {
    thread_cancel(agent->check);
    agent->check = nullptr;
    agent->notifier.stop();
}

agentx_sent_notification* free_place(snmp_agent* agent) {
    for (agentx_sent_notification& sent : agent->sent)
        if (!sent.used) return &sent;
    return nullptr;
}

void settle(agentx_sent_notification* sent, bool delivered) {
    sent->used = false;
    sent->done(sent->tag, delivered);
}

// `base` is the whole name of the module's base.
void put_notification(agentx_writer* w, const agentx_oid& base, snmp_oid number,
                      const snmp_notify_object* objects, std::size_t count) {
    agentx_oid name = base;
    const snmp_oid trap[] = {0, number};
    agentx_append(&name, trap);
    agentx_put_oid_value(w, SNMP_TRAP_OID, name.name());
    for (const snmp_notify_object* o = objects; o != objects + count; ++o) {
        name.length = base.length;
        agentx_append(&name, {o->name, o->name_length});
        if (o->text)
            agentx_put_text(w, name.name(), o->text, std::strlen(o->text));
        else
            agentx_put_number(w, AGENTX_INTEGER, name.name(), static_cast<std::uint32_t>(o->value));
    }
}

}  // namespace

int snmp_notify(lib_globals* ctx, const snmp_oid* base, std::size_t base_length, snmp_oid number,
                const snmp_notify_object* objects, std::size_t count, snmp_notify_done done,
                std::uint32_t tag) {
    snmp_agent* agent = ctx ? ctx->snmp : nullptr;
    if (!agent || agent->phase != agentx_phase::serving || agent->out.length > AGENTX_OUTPUT_ENOUGH)
        return -1;
    agentx_sent_notification* sent = free_place(agent);
    if (!sent) return -1;
    agentx_oid root{};
    agentx_append(&root, agent->modules->root().first(SNMP_ROOT_SIZE));
    agentx_append(&root, {base, base_length});
    const agentx_header header = agentx_new_request(agent, AGENTX_NOTIFY);
    agentx_writer w = agentx_begin(&agent->out, header);
    put_notification(&w, root, number, objects, count);
    if (!agentx_end(&w)) return -1;
    *sent = {true, header.packet, tag, done};
    ++agent->stats.notifications;
    agentx_request_sent(agent);
    return 0;
}

void agentx_notify_answered(snmp_agent* agent, std::uint32_t packet, std::uint16_t) {
    // A master that refuses one would refuse it again: it counts as told.
    for (agentx_sent_notification& sent : agent->sent)
        if (sent.used && sent.packet == packet) return settle(&sent, true);
}

void agentx_notify_lost(snmp_agent* agent) {
    for (agentx_sent_notification& sent : agent->sent)
        if (sent.used) settle(&sent, false);
}

void agentx_notify_switch(snmp_agent* agent, bool on) {
    if (agent->notifications_on == on) return;
    agent->notifications_on = on;
    if (!agent->notifier.check || !agent->ctx->master) return;
    if (on) {
        agent->notifier.start();
        arm_check(agent);
    } else {
        stop_checking(agent);
    }
}

void agentx_notify_end(snmp_agent* agent) {
    if (agent->notifications_on && agent->notifier.check) stop_checking(agent);
    agent->notifications_on = false;
}
