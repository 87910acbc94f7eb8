// The host services around the command line: configuration file, terminals, hostname, and the platform's own
// commands (show running-config, show version, show memory, log ..., configure terminal, ...).
#pragma once

#include <cstdint>

#include "suite/base/context.h"
#include "suite/base/text.h"

struct host_state;

constexpr const char* HOST_DEFAULT_CONFIG = "/etc/esmcd.conf";

// Makes the context's command tree's platform side: modes, everyday commands, writers. 0 or negative.
int host_vty_init(lib_globals* ctx);
// `show memory`. 0, or negative when memory is exhausted.
int memmgr_cli_init(lib_globals* ctx);
// Remembers the configuration file (null: /etc/esmcd.conf), reads it through the installed commands, and
// serves the TCP terminal on `vty_port` of the loopback addresses. A file that is missing is said at info
// level, one that can't be read at error level; both start with an empty configuration. 0 always.
int host_config_start(lib_globals* ctx, const char* config_file, std::uint16_t vty_port);
// The running configuration as text. False when memory is exhausted.
[[nodiscard]] bool host_running_text(host_state* host, text_buffer* out);
// Opens the local terminal socket; failing is logged and not fatal. -1 then.
int bmcli_start(lib_globals* ctx, const char* progname);
// Closes sessions and sockets, removes the local socket's file. Called by lib_stop.
void host_stop(lib_globals* ctx);
