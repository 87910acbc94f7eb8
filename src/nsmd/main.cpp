// The program: command line, start, loop, end. Ends on SIGINT and SIGTERM with its socket removed and the
// clock hardware left as it is, so that another nsmd can take over.
#include <fcntl.h>
#include <linux/capability.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>

#include "nsmd/nsmd.h"
#include "nsmd/options.h"
#include "nsmd/probe.h"
#include "nsmd/server/server.h"
#include "suite/base/memory.h"
#include "suite/log/log.h"
#include "suite/loop/thread.h"
#include "suite/manager/wire.h"
#include "suite/process/service.h"
#include "suite/process/single.h"
#include "suite/rights/rights.h"
#include "suite/rights/user.h"
#include "suite/start/lib.h"

namespace {

constexpr int LINK_WAIT_MS = 5000;
constexpr const char* INDEX_PATH = "/run/nsmd.indexes";
constexpr const char* LOCK_PATH = "/run/nsmd.lock";
// Steering the clock and setting copper roles are a network administrator's requests to the kernel.
constexpr std::uint64_t RIGHTS_KEPT = std::uint64_t{1} << CAP_NET_ADMIN;

volatile std::sig_atomic_t stop_signal = 0;

void on_signal(int number) {
    stop_signal = number;
    thread_interrupt();
}

void stop_asked(lib_globals* ctx) {
    if (!stop_signal) return;
    log_suite(LOG_LEVEL_INFO, "signal %d, ending", static_cast<int>(stop_signal));
    ctx->flags |= LIB_SHUTTING_DOWN;
}

void catch_signals() {
    struct sigaction action {};
    action.sa_handler = on_signal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
}

// Everything is open by now: whoever started us learns from the exit status whether it works.
bool go_to_background() {
    const pid_t child = fork();
    if (child < 0) {
        std::perror("nsmd: fork");
        return false;
    }
    if (child > 0) _exit(0);
    setsid();
    if (chdir("/") < 0) std::perror("nsmd: chdir");
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int fd = 0; null >= 0 && fd < 3; ++fd) dup2(null, fd);
    if (null > 2) close(null);
    log_use_sink(LOG_SINK_SYSLOG, true);
    log_use_sink(LOG_SINK_STDERR, false);
    return true;
}

// The files of which root is the owner by now, and that are opened again later. What can't be given is said
// where writing it fails.
bool become_user(const nsmd_options& options) {
    const rights_user& user = options.user;
    if (!user.name) return true;
    rights_give_socket(NSM_SOCKET_PATH, user);
    (void)rights_give(INDEX_PATH, user, true);
    if (options.sim.state_file) (void)rights_give(options.sim.state_file, user, true);
    return rights_become(user, RIGHTS_KEPT) == 0;
}

int run(lib_globals* ctx, const nsmd_options& options) {
    if (!single_claim(LOCK_PATH)) return 1;
    nsmd* n = nsmd_start(ctx, options, {netlink_system_edge(), NSM_SOCKET_PATH, LINK_WAIT_MS, INDEX_PATH});
    if (!n) return 1;
    int status = 1;
    if (become_user(options) && (!options.daemonize || go_to_background())) {
        single_hold();
        log_suite(LOG_LEVEL_INFO, "nsmd %s serves %s", lib_version(), NSM_SOCKET_PATH);
        rights_reduce(rights_program::nsmd, RIGHTS_KEPT);
        if (!nsmd_detach(n)) log_suite(LOG_LEVEL_WARNING, "no helpers: a slow driver holds everything up");
        service_ready(ctx);
        thread event;
        while (thread_fetch(ctx, &event)) thread_call(&event);
        status = 0;
    }
    service_stopping();
    nsmd_stop(n);
    return status;
}

int probe(lib_globals* ctx, const nsmd_options& options) {
    return nsmd_probe_print(ctx, options, {netlink_system_edge(), nullptr, LINK_WAIT_MS});
}

int main_with_loop(const nsmd_options& options, int (*work)(lib_globals*, const nsmd_options&)) {
    memory_init(0);
    log_open("nsmd");
    log_set_level(options.log_level);
    lib_globals ctx{};
    ctx.master = thread_master_create();
    if (!ctx.master) {
        log_suite(LOG_LEVEL_ERROR, "no memory for the event loop");
        return 1;
    }
    thread_set_interrupt(&ctx, stop_asked);
    catch_signals();
    const int status = work(&ctx, options);
    thread_master_finish(ctx.master);
    log_close();
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    static nsmd_options options;
    switch (nsmd_options_parse(argc, argv, &options)) {
        case options_result::help:
            nsmd_options_usage(argv[0]);
            return 0;
        case options_result::status:
            return nsmd_status_print(NSM_SOCKET_PATH);
        case options_result::version:
            print_version("nsmd");
            return 0;
        case options_result::bad:
            std::fprintf(stderr, "Try '%s --help'.\n", argv[0]);
            return 1;
        case options_result::probe:
            return main_with_loop(options, probe);
        case options_result::run:
            break;
    }
    return main_with_loop(options, run);
}
