// Registration of SNMP modules, start and end of the sub-agent, and the two checks that handlers share.
// Registrations are made at start-up and kept until the context ends.
//
// What can go wrong: a table of another shape than this library's (refused: handlers would be called with
// garbage), one that is not in order (refused: GetNext would skip objects), exhausted memory. Each is
// negative and leaves nothing behind.
#include <algorithm>
#include <cstring>

#include "suite/agentx/record.h"
#include "suite/base/memory.h"

namespace {

constexpr snmp_oid ENTERPRISES[SNMP_ROOT_SIZE] = {1, 3, 6, 1, 4, 1};

bool take_agent(lib_globals* ctx) {
    if (ctx->snmp) return true;
    ctx->snmp = static_cast<snmp_agent*>(memmgr_calloc(sizeof(snmp_agent), MTYPE_AGENTX));
    if (!ctx->snmp) return false;
    ctx->snmp->ctx = ctx;
    ctx->snmp->fd = -1;
    return agentx_set_unix(&ctx->snmp->target, AGENTX_DEFAULT_PATH);
}

bool variable_fits(const snmp_variable* v, std::size_t root_length) {
    // One more sub-identifier for an instance, at least.
    return (v->read || v->access == SNMP_NOT_ACCESSIBLE) && v->suffix_length > 0 &&
           root_length + v->suffix_length < AGENTX_OID_MAX;
}

bool in_order(const snmp_variable* one, const snmp_variable* next) {
    return agentx_compare(agentx_suffix(one), agentx_suffix(next)) < 0 &&
           !agentx_begins_with(agentx_suffix(next), agentx_suffix(one));
}

}  // namespace

int agentx_register_mib(lib_globals* ctx, const char* name, const snmp_variable* variables,
                        std::size_t entry_size, std::size_t entry_count, const snmp_oid* base,
                        std::size_t base_length, int, int, int, int, int) {
    if (!ctx || !variables || !base || entry_size != sizeof(snmp_variable)) return -1;
    if (base_length == 0 || base_length > SNMP_BASE_MAX) return -1;
    for (std::size_t i = 0; i < entry_count; ++i) {
        if (!variable_fits(variables + i, SNMP_ROOT_SIZE + base_length)) return -1;
        if (i > 0 && !in_order(variables + i - 1, variables + i)) return -1;
    }
    if (!take_agent(ctx)) return -1;
    auto* module = static_cast<snmp_module*>(memmgr_calloc(sizeof(snmp_module), MTYPE_AGENTX));
    if (!module) return -1;
    module->name = name;
    module->variables = variables;
    module->entry_count = entry_count;
    std::copy_n(ENTERPRISES, SNMP_ROOT_SIZE, module->root_id);
    std::copy_n(base, base_length, module->root_id + SNMP_ROOT_SIZE);
    module->root_length = SNMP_ROOT_SIZE + base_length;
    snmp_module** end = &ctx->snmp->modules;
    while (*end) end = &(*end)->next;
    *end = module;
    return 0;
}

int snmp_set_notifier(lib_globals* ctx, const snmp_notifier* notifier) {
    if (!ctx || !take_agent(ctx)) return -1;
    ctx->snmp->notifier = *notifier;
    return 0;
}

int snmp_start(lib_globals* ctx) {
    if (!ctx || !take_agent(ctx)) return -1;
    if (ctx->master && ctx->snmp->modules) agentx_connect_soon(ctx->snmp);
    return 0;
}

void snmp_stop(lib_globals* ctx) {
    if (!ctx || !ctx->snmp) return;
    snmp_agent* agent = ctx->snmp;
    agentx_notify_end(agent);
    agentx_close(agent, AGENTX_CLOSE_SHUTDOWN);
    while (snmp_module* module = agent->modules) {
        agent->modules = module->next;
        memmgr_free(module, MTYPE_AGENTX);
    }
    memmgr_free(agent, MTYPE_AGENTX);
    ctx->snmp = nullptr;
}

std::uint32_t snmp_time_stamp(const lib_globals* ctx, nanoseconds moment) {
    if (!moment || !ctx->snmp) return 0;
    const std::int64_t up_time = static_cast<std::int64_t>(moment) + ctx->snmp->up_time_ahead;
    constexpr auto TICK = static_cast<std::int64_t>(10 * NS_PER_MS);
    return up_time > 0 ? static_cast<std::uint32_t>(up_time / TICK) : 0;
}

int snmp_header_generic(const snmp_variable* variable, snmp_oid* name, std::size_t* name_length, int exact,
                        std::size_t* value_length, snmp_write_handler* write) {
    const snmp_oid* object = variable->suffix;
    const std::size_t length = variable->suffix_length;
    std::size_t common = 0;
    while (common < length && common < *name_length && name[common] == object[common]) ++common;
    // The only instance is object.0, which follows the object itself and everything before it.
    const bool equal = common == length && *name_length == length + 1 && name[length] == 0;
    const bool before = common == *name_length || (common < length && name[common] < object[common]);
    if (exact ? !equal : !before) return -1;
    std::copy_n(object, length, name);
    name[length] = 0;
    *name_length = length + 1;
    *write = nullptr;
    *value_length = 4;
    return 0;
}

int snmp_api_ifindex_check(std::int32_t value, std::uint16_t) {
    return value > 0 ? 1 : 0;
}
