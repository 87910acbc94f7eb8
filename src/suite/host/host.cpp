// The host record's life: made with the modes and everyday commands before the daemon installs its own, then
// told the configuration file and the ports, ended by lib_stop.
#include "suite/host/host.h"

#include <unistd.h>
#include <cstdio>
#include <cstring>

#include "suite/base/memory.h"
#include "suite/host/debug_commands.h"
#include "suite/host/state.h"
#include "suite/log/log.h"
#include "suite/terminal/session.h"
#include "suite/terminal/terminal.h"

int host_refuse(cli* session, const char* text) {
    session->out_func(session->out_val, "%% %s\n", text);
    return CLI_ERROR;
}

cli host_plain_session(host_state* host, std::int32_t mode, cli_output out, void* out_val) {
    cli session{};
    session.out_func = out;
    session.out_val = out_val;
    session.zg = host->ctx;
    session.ifm = &host->ctx->ifm;
    session.mode = mode;
    session.privilege = PRIVILEGE_MAX;
    return session;
}

namespace {

void run_pending(lib_globals* ctx, interface* intf) {
    if (ctx->host) pending_run(ctx->host, intf);
}

// A command from a terminal takes the place of a line of the same kind that still waits.
void after_run(cli* session, const cli_command* command) {
    if (session->line && session->zg && session->zg->host) pending_replaced(session->zg->host, command);
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
    auto* host = static_cast<host_state*>(memmgr_calloc(sizeof(host_state), MTYPE_HOST));
    if (!host) return -1;
    host->ctx = ctx;
    host->exec_timeout_s = HOST_DEFAULT_EXEC_TIMEOUT_S;
    ctx->host = host;
    ctx->ifm.after_bind = run_pending;
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
    host->vty_port = vty_port;
    if (host->config_file)
        host_config_read(host);
    else
        log_suite(LOG_LEVEL_ERROR, "configuration not read: out of memory");
    tcp_terminal_start(host);
    return 0;
}

int bmcli_start(lib_globals* ctx, const char*) {
    return ctx->host ? local_terminal_start(ctx->host, HOST_LOCAL_SOCKET) : -1;
}

void host_stop(lib_globals* ctx) {
    host_state* host = ctx->host;
    if (!host) return;
    tcp_terminal_stop(host);
    local_terminal_stop(host);
    while (host->sessions) session_close(host->sessions);
    password_stop(ctx);
    pending_free(host);
    memmgr_free(host->config_file, MTYPE_HOST);
    memmgr_free(host, MTYPE_HOST);
    ctx->host = nullptr;
    ctx->ifm.after_bind = nullptr;
}

const char* host_name(const lib_globals* ctx) {
    if (ctx->host && ctx->host->name[0]) return ctx->host->name;
    static char system_name[HOST_NAME_SIZE];
    if (gethostname(system_name, sizeof system_name - 1) != 0 || !system_name[0]) return "esmcd";
    system_name[std::strcspn(system_name, ".")] = 0;
    return system_name;
}
