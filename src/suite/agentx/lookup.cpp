// Which object a name means, and which instance comes next. Read handlers say what exists; this file knows
// the order of the objects and keeps a handler's answer only when it lies where it must, so that a walk
// always moves forward and ends.
#include <algorithm>

#include "suite/agentx/record.h"

namespace {

bool begins_with(const snmp_oid* name, std::size_t length, const snmp_oid* head, std::size_t head_length) {
    return length >= head_length && std::equal(head, head + head_length, name);
}

bool belongs_to(const snmp_variable* v, const snmp_oid* name, std::size_t length) {
    return begins_with(name, length, v->suffix, v->suffix_length);
}

// Calls the read handler with the name in `found`.
void read(agentx_found* found, int exact) {
    found->write = nullptr;
    found->value_length = 0;
    found->value = found->variable->read(found->variable, found->name, &found->name_length, exact,
                                         &found->value_length, &found->write);
}

// The first instance of found->variable behind the name in `found`.
bool next_of_variable(agentx_found* found) {
    const snmp_variable* v = found->variable;
    while (true) {
        snmp_oid asked[AGENTX_OID_MAX];
        const std::size_t asked_length = found->name_length;
        std::copy_n(found->name, asked_length, asked);
        read(found, 0);
        if (!belongs_to(v, found->name, found->name_length) ||
            agentx_compare(found->name, found->name_length, asked, asked_length) <= 0)
            return false;
        if (found->value) return found->module->root_length + found->name_length <= AGENTX_OID_MAX;
    }
}

// `name` is below the module's root; empty: from its beginning.
bool next_in_module(const snmp_module* module, const snmp_oid* name, std::size_t length,
                    agentx_found* found) {
    found->module = module;
    for (std::size_t i = 0; i < module->entry_count; ++i) {
        const snmp_variable* v = module->variables + i;
        const bool inside = belongs_to(v, name, length);
        const bool ahead = agentx_compare(name, length, v->suffix, v->suffix_length) < 0;
        if (v->access == SNMP_NOT_ACCESSIBLE || (!inside && !ahead)) continue;
        found->variable = v;
        found->name_length = inside ? length : v->suffix_length;
        std::copy_n(inside ? name : v->suffix, found->name_length, found->name);
        if (next_of_variable(found)) return true;
    }
    return false;
}

bool next_after(const snmp_module* module, const agentx_oid* start, agentx_found* found) {
    if (begins_with(start->id, start->length, module->root, module->root_length))
        return next_in_module(module, start->id + module->root_length, start->length - module->root_length,
                              found);
    if (agentx_compare(start->id, start->length, module->root, module->root_length) > 0) return false;
    return next_in_module(module, nullptr, 0, found);
}

// The first in the order of names, whatever the order of registration.
bool next_of_all(const snmp_agent* agent, const agentx_oid* start, agentx_found* found) {
    const snmp_module* best = nullptr;
    for (const snmp_module* m = agent->modules; m; m = m->next) {
        if (best && agentx_compare(m->root, m->root_length, best->root, best->root_length) > 0) continue;
        if (next_after(m, start, found)) best = m;
    }
    return best && (found->module == best || next_after(best, start, found));
}

}  // namespace

std::uint16_t agentx_find(const snmp_agent* agent, const agentx_oid* name, agentx_found* found) {
    for (const snmp_module* m = agent->modules; m; m = m->next) {
        if (!begins_with(name->id, name->length, m->root, m->root_length)) continue;
        found->module = m;
        found->name_length = name->length - m->root_length;
        std::copy_n(name->id + m->root_length, found->name_length, found->name);
        for (std::size_t i = 0; i < m->entry_count; ++i) {
            const snmp_variable* v = m->variables + i;
            if (v->access == SNMP_NOT_ACCESSIBLE || !belongs_to(v, found->name, found->name_length)) continue;
            found->variable = v;
            read(found, 1);
            return found->value ? std::uint16_t{0} : std::uint16_t{AGENTX_NO_SUCH_INSTANCE};
        }
    }
    return AGENTX_NO_SUCH_OBJECT;
}

bool agentx_find_next(const snmp_agent* agent, const agentx_oid* start, const agentx_oid* end,
                      agentx_found* found) {
    const bool at_start = start->include && agentx_find(agent, start, found) == 0;
    if (!at_start && !next_of_all(agent, start, found)) return false;
    if (end->length == 0) return true;
    agentx_oid name;
    agentx_full_name(found, &name);
    return agentx_compare(name.id, name.length, end->id, end->length) < 0;
}

void agentx_full_name(const agentx_found* found, agentx_oid* name) {
    name->include = false;
    name->length = found->module->root_length + found->name_length;
    std::copy_n(found->module->root, found->module->root_length, name->id);
    std::copy_n(found->name, found->name_length, name->id + found->module->root_length);
}
