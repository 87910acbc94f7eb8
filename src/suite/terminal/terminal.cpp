// The life of the record that all terminals share.
#include "suite/terminal/terminal.h"

#include <unistd.h>
#include <cstring>

#include "suite/base/memory.h"
#include "suite/terminal/session.h"

int terminals_create(lib_globals* ctx) {
    if (ctx->terminals) return 0;
    auto* terminals = static_cast<terminal_state*>(memmgr_calloc(sizeof(terminal_state), MTYPE_HOST));
    if (!terminals) return -1;
    terminals->ctx = ctx;
    terminals->exec_timeout_s = DEFAULT_EXEC_TIMEOUT_S;
    ctx->terminals = terminals;
    return 0;
}

void terminals_stop(lib_globals* ctx) {
    terminal_state* terminals = ctx->terminals;
    if (!terminals) return;
    tcp_terminal_stop(terminals);
    local_terminal_stop(terminals);
    while (terminals->sessions) session_close(terminals->sessions);
    password_stop();
    memmgr_free(terminals, MTYPE_HOST);
    ctx->terminals = nullptr;
}

const char* host_name(const lib_globals* ctx) {
    if (ctx->terminals && ctx->terminals->host_name[0]) return ctx->terminals->host_name;
    static char system_name[HOST_NAME_SIZE];
    if (gethostname(system_name, sizeof system_name - 1) != 0 || !system_name[0]) return "esmcd";
    system_name[std::strcspn(system_name, ".")] = 0;
    return system_name;
}
