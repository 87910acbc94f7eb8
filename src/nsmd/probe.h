// `nsmd --probe`: what this host's clock hardware can do, in words.
#pragma once

#include "nsmd/nsmd.h"
#include "suite/base/text.h"

// Lists devices, pins and which port leads to which, and ends with a line that begins with "yes: " or "no: ":
// whether Synchronous Ethernet can be done here, or what is missing. True for yes. Asks the kernel and waits
// for it; sets nothing. `table` has the ports.
bool nsmd_probe(const port_table* table, const netlink_edge& edge, const dpll_kernel_options& options,
                text_buffer* out);
// The same with the host's own ports, on standard output. The exit status: 0 for yes; 1 for no, or with a
// line in the log.
int nsmd_probe_print(lib_globals* ctx, const nsmd_options& options, const nsmd_edges& edges);
