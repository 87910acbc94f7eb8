// The clock behind the kernel's DPLL interface.
#pragma once

#include "nsmd/clock/dpll.h"
#include "nsmd/netlink/socket.h"

struct dpll_kernel_options {
    const char* device = nullptr;  // names the device; null: found by its type and the ports' pins
    const char* bits[2] = {};      // the pins of the external inputs, by label or identity; null: none
    std::uint32_t prio_best = 0;   // which numbers rank first and last differs between drivers
    std::uint32_t prio_other = 14;
};

// With `self` null: 0 or a negative errno in *error: -ENOENT, the kernel has no such interface; -ENODEV, it
// has no clock device for Ethernet (only where `need_device`); else what went wrong, logged. `table` and the
// texts of `options` must outlive it.
dpll_backend dpll_kernel_create(lib_globals* ctx, const port_table* table, const netlink_edge& edge,
                                const dpll_kernel_options& options, bool need_device, const dpll_sink& sink,
                                int* error);
