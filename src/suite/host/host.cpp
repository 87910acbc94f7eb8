// The host record's life: made with the modes and everyday commands before the daemon installs its own, then
// told the configuration file and the ports, ended by lib_stop.
#include "suite/host/host.h"

#include <cstring>

#include "suite/base/memory.h"
#include "suite/host/state.h"
#include "suite/log/log.h"
#include "suite/ports/interface.h"
#include "suite/terminal/terminal.h"
#include "suite/terminal/wire.h"

cli host_plain_session(host_state* host, std::int32_t mode, cli_output out, void* out_val) {
    cli terminal{};
    terminal.out_func = out;
    terminal.out_val = out_val;
    terminal.zg = host->ctx;
    terminal.ifm = host->ctx->ifm;
    terminal.mode = mode;
    terminal.privilege = PRIVILEGE_MAX;
    return terminal;
}

int host_discard(void*, const char*, ...) {
    return 0;
}

namespace {

void run_pending(lib_globals* ctx, interface* intf) {
    if (ctx->host) pending_run(ctx->host, intf);
}

// A command from a terminal takes the place of a line of the same kind that still waits.
void after_run(cli* terminal, const cli_command* command) {
    if (terminal->line && terminal->zg && terminal->zg->host) pending_replaced(terminal->zg->host, command);
}

char* copy_text(const char* text) {
    std::size_t size = std::strlen(text) + 1;
    auto* copy = static_cast<char*>(memmgr_calloc(size, MTYPE_HOST));
    if (copy) std::memcpy(copy, text, size);
    return copy;
}

}  // namespace

int host_vty_init(lib_globals* ctx) {
    if (ctx->host) return 0;
    if (terminals_create(ctx) < 0) return -1;
    auto* host = static_cast<host_state*>(memmgr_calloc(sizeof(host_state), MTYPE_HOST));
    if (!host) return -1;
    host->ctx = ctx;
    ctx->host = host;
    ctx->ifm->after_bind = run_pending;
    ctx->ctree->after_run = after_run;
    int result = host_commands_install(host);
    result |= cli_debug_install(ctx->ctree);
    for (std::int32_t mode : {EXEC_MODE, CONFIG_MODE, INTERFACE_MODE})
        result |= cli_install_default(ctx->ctree, mode);
    return result;
}

int host_config_start(lib_globals* ctx, const char* config_file, std::uint16_t vty_port) {
    host_state* host = ctx->host;
    if (!host) return 0;
    memmgr_free(host->config_file, MTYPE_HOST);
    host->config_file = copy_text(config_file ? config_file : HOST_DEFAULT_CONFIG);
    ctx->terminals->vty_port = vty_port;
    if (host->config_file)
        host_config_read(host);
    else
        log_suite(LOG_LEVEL_ERROR, "configuration not read: out of memory");
    tcp_terminal_start(ctx->terminals);
    return 0;
}

int bmcli_start(lib_globals* ctx, const char*) {
    return ctx->terminals ? local_terminal_start(ctx->terminals, TERMINAL_LOCAL_SOCKET) : -1;
}

void host_stop(lib_globals* ctx) {
    terminals_stop(ctx);
    host_state* host = ctx->host;
    if (!host) return;
    host_tasks_stop(host);
    pending_free(host);
    memmgr_free(host->config_file, MTYPE_HOST);
    memmgr_free(host, MTYPE_HOST);
    ctx->host = nullptr;
    ctx->ifm->after_bind = nullptr;
}
