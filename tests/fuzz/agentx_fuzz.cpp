// The sub-agent against any stream of a master: headers, payloads, lookups and transactions. An input is what
// comes over the link, one PDU after another; a PDU that is cut short is given as far as it goes. What the
// sub-agent answers must be a whole PDU that can be read again, and without CommitSet every object is as
// before.
#include <cstring>

#include "fuzz/fuzz.h"
#include "suite/agentx/record.h"
#include "suite/base/memory.h"
#include "suite/log/log.h"

namespace {

std::int32_t numbers[2];

int write_number(int, const std::uint8_t* value, std::uint8_t type, std::size_t length, const std::uint8_t*,
                 const snmp_oid*, std::size_t, const snmp_variable* variable) {
    std::int32_t number = 0;
    if (type != SNMP_TYPE_INTEGER || length != sizeof number) return SNMP_WRONG_TYPE;
    std::memcpy(&number, value, sizeof number);
    if (number < 0) return SNMP_WRONG_VALUE;
    numbers[variable->magic] = number;
    return SNMP_NO_ERROR;
}

// Two numbers that can be written, and a text.
const void* read_scalar(const snmp_variable* variable, snmp_oid* name, std::size_t* length, int exact,
                        std::size_t* value_length, snmp_write_handler* write) {
    if (snmp_header_generic(variable, name, length, exact, value_length, write) != 0) return nullptr;
    if (variable->magic < 2) *write = write_number;
    if (variable->magic < 2) return &numbers[variable->magic];
    *value_length = 3;
    return "abc";
}

// Three rows, of which the second has no value.
const void* read_cell(const snmp_variable* variable, snmp_oid* name, std::size_t* length, int exact,
                      std::size_t* value_length, snmp_write_handler*) {
    static const std::int32_t value = 7;
    const snmp_oid index = *length > variable->suffix_length ? name[variable->suffix_length] : 0;
    if (exact)
        return *length == variable->suffix_length + std::size_t{1} && (index == 1 || index == 3) ? &value
                                                                                                 : nullptr;
    if (index >= 3) return nullptr;
    name[variable->suffix_length] = index + 1;
    *length = variable->suffix_length + std::size_t{1};
    *value_length = sizeof value;
    return index + 1 == 2 ? nullptr : &value;
}

const snmp_variable TABLE[] = {
    {0, SNMP_TYPE_INTEGER, SNMP_READ_WRITE, 1, read_scalar, {1}},
    {1, SNMP_TYPE_INTEGER, SNMP_READ_WRITE, 1, read_scalar, {2}},
    {2, SNMP_TYPE_OCTET_STRING, SNMP_READ_ONLY, 1, read_scalar, {3}},
    {3, SNMP_TYPE_INTEGER, SNMP_NOT_ACCESSIBLE, 3, read_cell, {4, 1, 1}},
    {4, SNMP_TYPE_INTEGER, SNMP_READ_ONLY, 3, read_cell, {4, 1, 2}},
};

void check_answer(const text_buffer& out) {
    if (out.length == 0) return;
    const const_octets whole{reinterpret_cast<const std::uint8_t*>(out.data), out.length};
    agentx_header header{};
    must(whole.size() >= AGENTX_HEADER_SIZE && agentx_read_header(whole, &header), "answers have a header");
    must(header.type == AGENTX_RESPONSE, "answers are responses");
    must(header.length == whole.size() - AGENTX_HEADER_SIZE && header.length >= 8, "answers are whole");
    agentx_reader r{whole.subspan(AGENTX_HEADER_SIZE), 8, agentx_is_big_endian(header), false};
    while (!agentx_at_end(&r)) {
        agentx_variable v;
        agentx_take_variable(&r, &v);
    }
    must(!r.bad, "answers can be read again");
}

snmp_agent* make_agent() {
    static lib_globals ctx{};
    const snmp_oid base[] = {32473, 99};
    log_use_sink(LOG_SINK_STDERR, false);
    must(agentx_register_mib(&ctx, "fuzz", TABLE, sizeof TABLE[0], std::size(TABLE), base, 2, 0, 0, 0, 0,
                             0) == 0,
         "the MIB is registered");
    return ctx.snmp;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static snmp_agent* const agent = make_agent();
    const_octets rest{data, size};
    bool committed = false;
    numbers[0] = numbers[1] = 5;
    while (rest.size() >= AGENTX_HEADER_SIZE) {
        agentx_header header{};
        if (!agentx_read_header(rest, &header)) break;
        rest = rest.subspan(AGENTX_HEADER_SIZE);
        const const_octets payload = rest.first(std::min<std::size_t>(header.length, rest.size()));
        committed |= header.type == AGENTX_COMMIT_SET;
        text_buffer out{};
        const bool readable = agentx_answer(agent, header, payload, &out);
        check_answer(out);
        text_free(&out);
        if (!readable) break;
        rest = rest.subspan(payload.size());
    }
    agentx_sets_end(agent);
    must(committed || (numbers[0] == 5 && numbers[1] == 5), "without CommitSet all is as before");
    must(memmgr_type_stats(MTYPE_AGENTX).blocks == 2, "agent and module: no transaction is left");
    return 0;
}
