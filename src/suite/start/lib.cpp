// Makes and ends the library context. The order of lib_stop matters: who holds events or descriptors goes
// before the event master, and the log stays usable to the end of the process, because the caller reports the
// reason of a failed start after it.
#include "suite/start/lib.h"

#include <cstdio>
#include <cstring>

#include "suite/agentx/snmp.h"
#include "suite/base/memory.h"
#include "suite/command/cli.h"
#include "suite/host/host.h"
#include "suite/log/log.h"
#include "suite/loop/thread.h"
#include "suite/ports/interface.h"
#include "suite/process/job.h"
#include "suite/process/log_writer.h"

namespace {

char program_name[64] = "esmcd";

}  // namespace

lib_globals* lib_create(const char* name) {
    lib_globals* ctx = static_cast<lib_globals*>(memmgr_calloc(sizeof(lib_globals), MTYPE_LIB));
    if (ctx == nullptr) return nullptr;
    ctx->ifm = static_cast<if_master*>(memmgr_calloc(sizeof(if_master), MTYPE_IF));
    if (ctx->ifm == nullptr) {
        memmgr_free(ctx, MTYPE_LIB);
        return nullptr;
    }
    ctx->ifm->ctx = ctx;
    if (name != nullptr) std::snprintf(program_name, sizeof program_name, "%s", name);
    return ctx;
}

int lib_start(lib_globals* ctx) {
    log_open(program_name);
    ctx->ctree = cli_tree_create();
    return ctx->ctree != nullptr ? 0 : -1;
}

void lib_stop(lib_globals* ctx) {
    if (ctx == nullptr) return;
    ctx->flags |= LIB_SHUTTING_DOWN;
    host_stop(ctx);
    snmp_stop(ctx);
    if (ctx->ctree != nullptr) cli_tree_free(ctx->ctree);
    ctx->ctree = nullptr;
    log_writers_stop(ctx);
    jobs_stop(ctx);
    thread_master_finish(ctx->master);
    ctx->master = nullptr;
    if_finish(ctx->ifm);
    memmgr_free(ctx->ifm, MTYPE_IF);
    memmgr_free(ctx, MTYPE_LIB);
}

void print_version(const char* progname) {
    std::printf("%s version %s\n", progname, lib_version());
    std::fflush(stdout);
}
