// Which object a name means, and which instance comes next. Read handlers say what exists; this file knows
// the order of the objects and keeps a handler's answer only when it lies where it must, so that a walk
// always moves forward and ends.
#include "suite/agentx/record.h"

namespace {

bool belongs_to(const snmp_variable* v, agentx_name name) {
    return agentx_begins_with(name, agentx_suffix(v));
}

void set_name(agentx_oid* to, agentx_name name) {
    to->length = 0;
    agentx_append(to, name);
}

// Calls the read handler with the name in `found`.
void read(agentx_found* found, int exact) {
    found->write = nullptr;
    found->value_length = 0;
    found->value = found->variable->read(found->variable, found->name.id, &found->name.length, exact,
                                         &found->value_length, &found->write);
}

// The first instance of found->variable behind the name in `found`.
bool next_of_variable(agentx_found* found) {
    while (true) {
        agentx_oid asked;
        set_name(&asked, found->name.name());
        read(found, 0);
        if (!belongs_to(found->variable, found->name.name()) ||
            agentx_compare(found->name.name(), asked.name()) <= 0)
            return false;
        if (found->value) return found->module->root_length + found->name.length <= AGENTX_OID_MAX;
    }
}

// `name` is below the module's root; empty: from its beginning.
bool next_in_module(const snmp_module* module, agentx_name name, agentx_found* found) {
    found->module = module;
    for (std::size_t i = 0; i < module->entry_count; ++i) {
        const snmp_variable* v = module->variables + i;
        const agentx_name suffix = agentx_suffix(v);
        const bool inside = agentx_begins_with(name, suffix);
        if (v->access == SNMP_NOT_ACCESSIBLE || (!inside && agentx_compare(name, suffix) >= 0)) continue;
        found->variable = v;
        set_name(&found->name, inside ? name : suffix);
        if (next_of_variable(found)) return true;
    }
    return false;
}

bool next_after(const snmp_module* module, agentx_name start, agentx_found* found) {
    if (agentx_begins_with(start, module->root()))
        return next_in_module(module, start.subspan(module->root_length), found);
    return agentx_compare(start, module->root()) < 0 && next_in_module(module, {}, found);
}

// The first in the order of names, whatever the order of registration.
bool next_of_all(const snmp_agent* agent, agentx_name start, agentx_found* found) {
    const snmp_module* best = nullptr;
    for (const snmp_module* m = agent->modules; m; m = m->next) {
        if (best && agentx_compare(m->root(), best->root()) > 0) continue;
        if (next_after(m, start, found)) best = m;
    }
    return best && (found->module == best || next_after(best, start, found));
}

}  // namespace

std::uint16_t agentx_find(const snmp_agent* agent, const agentx_oid* name, agentx_found* found) {
    for (const snmp_module* m = agent->modules; m; m = m->next) {
        if (!agentx_begins_with(name->name(), m->root())) continue;
        found->module = m;
        set_name(&found->name, name->name().subspan(m->root_length));
        for (std::size_t i = 0; i < m->entry_count; ++i) {
            const snmp_variable* v = m->variables + i;
            if (v->access == SNMP_NOT_ACCESSIBLE || !belongs_to(v, found->name.name())) continue;
            found->variable = v;
            read(found, 1);
            if (found->value) return 0;
            return found->name.length ? AGENTX_NO_SUCH_INSTANCE : AGENTX_NO_SUCH_OBJECT;
        }
    }
    return AGENTX_NO_SUCH_OBJECT;
}

bool agentx_find_next(const snmp_agent* agent, const agentx_oid* start, const agentx_oid* end,
                      agentx_found* found) {
    const bool at_start = start->include && agentx_find(agent, start, found) == 0;
    if (!at_start && !next_of_all(agent, start->name(), found)) return false;
    if (end->length == 0) return true;
    agentx_oid name;
    agentx_full_name(found, &name);
    return agentx_compare(name.name(), end->name()) < 0;
}

void agentx_full_name(const agentx_found* found, agentx_oid* name) {
    name->include = false;
    set_name(name, found->module->root());
    agentx_append(name, found->name.name());
}
