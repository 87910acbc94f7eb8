// SETs. The handlers know one call only, which applies a value; a transaction is made of it here. TestSet
// applies the values one after another, having noted of each object what it was; a refusal takes back what
// was applied, the last first, and its status is the answer. CommitSet keeps what TestSet did. UndoSet, and
// CleanupSet without CommitSet, take it back.
//
// A master repeats a PDU that was not answered in time. A transaction is therefore remembered until its place
// is needed: a repeated PDU gets the same answer and acts no more.
#include <algorithm>
#include <cstring>

#include "suite/agentx/record.h"
#include "suite/base/memory.h"
#include "suite/log/log.h"

namespace {

agentx_transaction* find(snmp_agent* agent, std::uint32_t id) {
    for (agentx_transaction& t : agent->transactions)
        if (t.state != agentx_set_state::unused && t.id == id) return &t;
    return nullptr;
}

// What it did may still have to be taken back.
bool is_open(const agentx_transaction& t) {
    return t.state == agentx_set_state::tested || t.state == agentx_set_state::committed;
}

// A place for a new transaction: that of the one that has been over for longest. Null while another is open:
// two that change the same object could not both be taken back.
agentx_transaction* make(snmp_agent* agent, const agentx_header& header) {
    agentx_transaction* oldest = agent->transactions;
    for (agentx_transaction& t : agent->transactions) {
        if (is_open(t)) return nullptr;
        if (t.order < oldest->order) oldest = &t;
    }
    *oldest = {agentx_set_state::tested,
               header.transaction,
               header.packet,
               0,
               0,
               ++agent->transaction_order,
               nullptr};
    return oldest;
}

void forget_changes(agentx_transaction* t) {
    while (agentx_change* change = t->changes) {
        t->changes = change->next;
        memmgr_free(change, MTYPE_AGENTX);
    }
}

// Puts every object back, the last one that was changed first. False when one did not go back.
bool take_back(snmp_agent* agent, agentx_transaction* t) {
    bool whole = true;
    if (t->changes) ++agent->stats.sets_undone;
    for (agentx_change* c = t->changes; c; c = c->next) {
        const int status = c->write(SNMP_ACTION_RESTORE, c->old_value(), c->variable->type, c->old_length,
                                    nullptr, c->name(), c->name_length, c->variable);
        if (status == SNMP_NO_ERROR) continue;
        log_suite(LOG_LEVEL_ERROR, "SNMP: an object could not be set back (status %d)", status);
        whole = false;
    }
    forget_changes(t);
    return whole;
}

// Notes what an object is before it is changed. Null when memory is exhausted.
agentx_change* note(const agentx_found* found) {
    const std::size_t names = found->name.length * sizeof found->name.id[0];
    const std::size_t old_length = found->value ? found->value_length : 0;
    auto* change =
        static_cast<agentx_change*>(memmgr_calloc(sizeof(agentx_change) + names + old_length, MTYPE_AGENTX));
    if (!change) return nullptr;
    change->variable = found->variable;
    change->write = found->write;
    change->name_length = found->name.length;
    change->old_length = old_length;
    std::copy_n(found->name.id, found->name.length, change->name());
    if (old_length) std::memcpy(change->old_value(), found->value, old_length);
    return change;
}

int apply(agentx_transaction* t, const agentx_found* found, const agentx_variable* v) {
    agentx_change* change = note(found);
    if (!change) return SNMP_RESOURCE_UNAVAILABLE;
    const int status = found->write(SNMP_ACTION_SET, v->value, static_cast<std::uint8_t>(v->type),
                                    v->value_length, static_cast<const std::uint8_t*>(found->value),
                                    found->name.id, found->name.length, found->variable);
    if (status == SNMP_NO_ERROR && found->value) {
        change->next = t->changes;
        t->changes = change;
    } else {
        memmgr_free(change, MTYPE_AGENTX);  // unchanged, or something that had no value to go back to
    }
    return status;
}

int set_one(snmp_agent* agent, agentx_transaction* t, const agentx_variable* v) {
    agentx_found found;
    const std::uint16_t missing = agentx_find(agent, &v->name, &found);
    if (missing == AGENTX_NO_SUCH_OBJECT) return SNMP_NOT_WRITABLE;
    if (found.write) return apply(t, &found, v);
    return missing && found.variable->access == SNMP_READ_WRITE ? SNMP_NO_CREATION : SNMP_NOT_WRITABLE;
}

// A refused or unreadable TestSet leaves nothing changed.
void refuse(snmp_agent* agent, agentx_transaction* t, int status, std::size_t index) {
    (void)take_back(agent, t);  // logged there; the answer is the status of what was refused
    t->state = agentx_set_state::over;
    t->error = static_cast<std::uint16_t>(status);
    t->index = static_cast<std::uint16_t>(std::min<std::size_t>(index, UINT16_MAX));
}

}  // namespace

agentx_set_result agentx_test_set(snmp_agent* agent, const agentx_header& header, agentx_reader* payload) {
    agentx_transaction* t = find(agent, header.transaction);
    if (t && t->state == agentx_set_state::over && t->packet != header.packet) {
        t->state = agentx_set_state::unused;  // the number is used again, for another SET
        t = nullptr;
    }
    if (t) return {true, t->error, t->index};
    t = make(agent, header);
    if (!t) return {true, SNMP_RESOURCE_UNAVAILABLE, 1};
    ++agent->stats.sets;
    for (std::size_t index = 1; !agentx_at_end(payload); ++index) {
        agentx_variable v;
        agentx_take_variable(payload, &v);
        if (payload->bad) break;
        if (const int status = set_one(agent, t, &v)) {
            refuse(agent, t, status, index);
            break;
        }
    }
    if (payload->bad) refuse(agent, t, AGENTX_PARSE_ERROR, 0);
    return {!payload->bad, t->error, t->index};
}

std::uint16_t agentx_commit_set(snmp_agent* agent, const agentx_header& header) {
    agentx_transaction* t = find(agent, header.transaction);
    if (!t || t->error) return SNMP_COMMIT_FAILED;
    if (t->state == agentx_set_state::tested) t->state = agentx_set_state::committed;
    return t->state == agentx_set_state::committed ? SNMP_NO_ERROR : SNMP_COMMIT_FAILED;
}

std::uint16_t agentx_undo_set(snmp_agent* agent, const agentx_header& header) {
    agentx_transaction* t = find(agent, header.transaction);
    if (!t) return SNMP_NO_ERROR;  // nothing of it is here to undo
    if (is_open(*t)) {
        if (!take_back(agent, t)) t->error = SNMP_UNDO_FAILED;
        t->state = agentx_set_state::over;
    }
    return t->error == SNMP_UNDO_FAILED ? std::uint16_t{SNMP_UNDO_FAILED} : std::uint16_t{SNMP_NO_ERROR};
}

void agentx_cleanup_set(snmp_agent* agent, const agentx_header& header) {
    agentx_transaction* t = find(agent, header.transaction);
    if (!t || !is_open(*t)) return;
    if (t->state == agentx_set_state::tested)
        (void)take_back(agent, t);  // logged there; nobody is told, as this PDU has no answer
    else
        forget_changes(t);
    t->state = agentx_set_state::over;
}

void agentx_sets_end(snmp_agent* agent) {
    for (agentx_transaction& t : agent->transactions) {
        if (t.state == agentx_set_state::tested) (void)take_back(agent, &t);  // logged there
        forget_changes(&t);
        t = {};
    }
}
