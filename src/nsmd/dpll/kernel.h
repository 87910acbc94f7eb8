// The clock behind the kernel's DPLL interface.
#pragma once

#include "nsmd/clock/dpll.h"
#include "nsmd/netlink/socket.h"

struct dpll_kernel_options {
    const char* device = nullptr;  // names the device; null: found by its type and the ports' pins
    const char* bits[2] = {};      // the pins of the external inputs, by label or identity; null: none
    std::uint32_t prio_best = 0;   // which numbers rank first and last differs between drivers
    std::uint32_t prio_other = 14;
    bool tells_quality = false;  // that the device claims of itself
    std::uint32_t mode = 0;      // that the device is to be in, as DPLL_MODE_...; 0: as it is
};

// A device that is not there yet, or can't be read yet, is waited for. With `self` null: a negative errno in
// *error: -ENOENT, the kernel has no such interface; -EPERM, it may not be read; else what went wrong,
// logged. `table` and the texts of `options` must outlive it.
dpll_backend dpll_kernel_create(lib_globals* ctx, const port_table* table, const netlink_edge& edge,
                                const dpll_kernel_options& options, const dpll_sink& sink, int* error);
