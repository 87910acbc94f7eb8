// Answers to the master's requests. Each request becomes one response with the same session, transaction and
// packet number, in the byte order of the request; only CleanupSet has none. An answer that can't be built
// (too long, no memory) becomes genErr.
//
// What can go wrong: a payload that can't be read. That is said to the caller, who drops the session: what
// comes behind it can't be trusted either.
#include <algorithm>
#include <cstring>

#include "suite/agentx/record.h"

namespace {

constexpr std::size_t ERROR_AT = AGENTX_HEADER_SIZE + 4;  // behind the up-time
constexpr std::size_t INDEX_AT = ERROR_AT + 2;
constexpr std::size_t BULK_MAX = 1000;  // variables in one answer, so that a turn of the loop stays short
constexpr std::size_t ANSWER_MAX = 256 * 1024;

agentx_writer begin_response(const agentx_header& request, text_buffer* out) {
    agentx_header header = request;
    header.type = AGENTX_RESPONSE;
    header.flags = request.flags & AGENTX_FLAG_BIG_ENDIAN;
    agentx_writer w = agentx_begin(out, header);
    agentx_put_u32(&w, 0);  // the master's up-time is asked of nobody but the master
    agentx_put_u16(&w, 0);
    agentx_put_u16(&w, 0);
    return w;
}

bool too_long(const agentx_writer* w) {
    return w->out->length - w->start > ANSWER_MAX;
}

void put_found(agentx_writer* w, const agentx_found* found) {
    agentx_oid name;
    agentx_full_name(found, &name);
    if (found->variable->type == SNMP_TYPE_OCTET_STRING)
        return agentx_put_text(w, name.name(), found->value, found->value_length);
    if (found->variable->type == SNMP_TYPE_COUNTER64) {
        std::uint64_t count = 0;
        std::memcpy(&count, found->value, sizeof count);
        return agentx_put_counter64(w, name.name(), count);
    }
    std::uint32_t number = 0;
    std::memcpy(&number, found->value, sizeof number);
    agentx_put_number(w, found->variable->type, name.name(), number);
}

void put_get(const snmp_agent* agent, const agentx_oid* start, const agentx_oid*, agentx_writer* w) {
    agentx_found found;
    if (const std::uint16_t missing = agentx_find(agent, start, &found))
        agentx_put_empty(w, missing, start->name());
    else
        put_found(w, &found);
}

void put_next(const snmp_agent* agent, const agentx_oid* start, const agentx_oid* end, agentx_writer* w) {
    agentx_found found;
    if (agentx_find_next(agent, start, end, &found))
        put_found(w, &found);
    else
        agentx_put_empty(w, AGENTX_END_OF_MIB_VIEW, start->name());
}

using put_one = void (*)(const snmp_agent*, const agentx_oid* start, const agentx_oid* end, agentx_writer*);

void answer_ranges(const snmp_agent* agent, agentx_reader* payload, put_one put, agentx_writer* w) {
    while (!agentx_at_end(payload) && !too_long(w)) {
        agentx_oid start, end;
        agentx_take_range(payload, &start, &end);
        if (!payload->bad) put(agent, &start, &end, w);
    }
}

// One repetition of a range: answers, and makes the answer the start of the next one. False at the end.
bool repeat(const snmp_agent* agent, agentx_oid* start, const agentx_oid* end, agentx_writer* w) {
    agentx_found found;
    if (!agentx_find_next(agent, start, end, &found)) {
        agentx_put_empty(w, AGENTX_END_OF_MIB_VIEW, start->name());
        return false;
    }
    put_found(w, &found);
    agentx_full_name(&found, start);
    return true;
}

constexpr std::size_t REPEATERS_MAX = 32;

// One row of a GetBulk: an answer for each range. `at` holds where the first ranges are and is moved on.
struct bulk_row {
    std::size_t ranges;  // of the request
    bool more;           // some range is not at its end
};

bulk_row answer_row(const snmp_agent* agent, agentx_reader* payload, agentx_oid* at, bool first,
                    agentx_writer* w) {
    bulk_row row{};
    for (; !agentx_at_end(payload) && !too_long(w); ++row.ranges) {
        agentx_oid start, end;
        agentx_take_range(payload, &start, &end);
        if (payload->bad) break;
        agentx_oid* from = &start;
        if (row.ranges < REPEATERS_MAX) {
            from = at + row.ranges;
            if (first) *from = start;
        }
        row.more |= repeat(agent, from, &end, w);
    }
    return row;
}

// The repeated ranges of a GetBulk: row by row, until all are at their end or the answer is long enough. More
// ranges than places to remember them get one row, which a master takes as a short answer.
void answer_repeaters(const snmp_agent* agent, agentx_reader* payload, std::size_t repetitions,
                      agentx_writer* w) {
    const agentx_reader ranges = *payload;
    agentx_oid at[REPEATERS_MAX];
    std::size_t sent = 0;
    for (std::size_t row = 0; row < repetitions && sent < BULK_MAX; ++row) {
        *payload = ranges;
        const bulk_row done = answer_row(agent, payload, at, row == 0, w);
        sent += done.ranges;
        if (payload->bad || !done.more || done.ranges > REPEATERS_MAX || too_long(w)) break;
    }
    if (!payload->bad) payload->at = payload->data.size();
}

void answer_bulk(const snmp_agent* agent, agentx_reader* payload, agentx_writer* w) {
    std::size_t single = agentx_take_u16(payload);
    const std::size_t repetitions = agentx_take_u16(payload);
    for (; single > 0 && !agentx_at_end(payload) && !too_long(w); --single) {
        agentx_oid start, end;
        agentx_take_range(payload, &start, &end);
        if (!payload->bad) put_next(agent, &start, &end, w);
    }
    if (!payload->bad) answer_repeaters(agent, payload, repetitions, w);
}

void answer_set(snmp_agent* agent, const agentx_header& header, agentx_reader* payload, agentx_writer* w) {
    const agentx_set_result result = agentx_test_set(agent, header, payload);
    if (!result.readable) payload->bad = true;
    agentx_patch_u16(w, ERROR_AT, result.error);
    agentx_patch_u16(w, INDEX_AT, result.index);
}

// The variables of a request into the response that has been begun.
void answer_body(snmp_agent* agent, const agentx_header& header, agentx_reader* payload, agentx_writer* w) {
    switch (header.type) {
        case AGENTX_GET:
            return answer_ranges(agent, payload, put_get, w);
        case AGENTX_GET_NEXT:
            return answer_ranges(agent, payload, put_next, w);
        case AGENTX_GET_BULK:
            return answer_bulk(agent, payload, w);
        case AGENTX_TEST_SET:
            return answer_set(agent, header, payload, w);
        case AGENTX_COMMIT_SET:
            return agentx_patch_u16(w, ERROR_AT, agentx_commit_set(agent, header));
        case AGENTX_UNDO_SET:
            return agentx_patch_u16(w, ERROR_AT, agentx_undo_set(agent, header));
        default:
            return;  // Ping
    }
}

}  // namespace

bool agentx_answer_status(const agentx_header& header, std::uint16_t error, std::uint16_t index,
                          text_buffer* out) {
    agentx_writer w = begin_response(header, out);
    agentx_patch_u16(&w, ERROR_AT, error);
    agentx_patch_u16(&w, INDEX_AT, index);
    return agentx_end(&w);
}

bool agentx_answer(snmp_agent* agent, const agentx_header& header, const_octets payload, text_buffer* out) {
    if (header.type == AGENTX_CLEANUP_SET) {
        agentx_cleanup_set(agent, header);
        return true;
    }
    if (header.flags & AGENTX_FLAG_CONTEXT)
        return agentx_answer_status(header, AGENTX_UNSUPPORTED_CONTEXT, 0, out);
    agentx_reader r{payload, 0, agentx_is_big_endian(header), false};
    agentx_writer w = begin_response(header, out);
    answer_body(agent, header, &r, &w);
    if (too_long(&w)) w.full = true;
    const bool whole = agentx_end(&w);
    if (r.bad) {
        // What was answered so far is of no use to anybody.
        if (whole) out->length = w.start;
        return false;
    }
    return whole || agentx_answer_status(header, SNMP_GEN_ERR, 0, out);
}
