// Port records come from blocks of the memory manager, so that those of all ports lie side by side: selection
// walks them after every PDU. A place in a block is free while its record names no interface. A block goes
// back when its last record does.
#include "core/ports.h"

#include "core/result.h"

namespace {

ssm_record_block* new_block() {
    auto* block = static_cast<ssm_record_block*>(ssm_calloc(sizeof(ssm_record_block), MTYPE_SSM_PORT));
    if (!block) return nullptr;
    block->end = block->records;
    // At the end: the records are walked in the order in which they were made.
    ssm_record_block** last = &g_s_master->record_blocks;
    while (*last) last = &(*last)->next;
    return *last = block;
}

// The first place of the block that no interface has, or null.
ssm_port* free_place(ssm_record_block* block) {
    for (ssm_port& port : block->records)
        if (!port.intf) return &port;
    return nullptr;
}

}  // namespace

ssm_port* ssm_record_take(interface* intf) {
    ssm_record_block* block = g_s_master->record_blocks;
    ssm_port* port = nullptr;
    for (; block; block = block->next)
        if ((port = free_place(block))) break;
    if (!port) {
        block = new_block();
        if (!block) return nullptr;
        port = block->records;
    }
    if (port == block->end) ++block->end;
    port->intf = intf;
    port->statistics = &block->statistics[port - block->records];
    *port->statistics = {};
    port->statistics->began = thread_now(g_p_esmcd);
    return port;
}

void ssm_pin_forget(ssm_port* port) {
    if (port->pin) memmgr_free(port->pin, MTYPE_SSM_PORT);
    port->pin = nullptr;
}

void ssm_record_give_back(ssm_port* port) {
    ssm_pin_forget(port);
    *port = {};
    for (ssm_record_block** at = &g_s_master->record_blocks; *at;) {
        ssm_record_block* block = *at;
        while (block->end != block->records && !block->end[-1].intf) --block->end;
        if (block->end != block->records) {
            at = &block->next;
        } else {
            *at = block->next;
            memmgr_free(block, MTYPE_SSM_PORT);
        }
    }
}

void ssm_opts_port_list_loop(std::int32_t (*fn)(ssm_port*)) {
    ssm_port_walk([fn](ssm_port* port) {
        std::int32_t rv = fn(port);
        if (rv < 0)
            (void)ssm_op_failed(rv, "ssm_opts_port_list_loop", 107);  // one port's failure stops no other
    });
}

ssm_port* ssm_port_lookup_by_ifindex(std::uint32_t key) {
    return g_p_esmcd ? ssm_if_port(if_lookup_by_index(g_p_esmcd->ifm, key & 0xFF)) : nullptr;
}
