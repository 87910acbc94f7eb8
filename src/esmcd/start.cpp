// Start-up, in an order that matters: each step uses what the ones before it made. Between two steps the
// signals that came meanwhile are answered, so that a daemon that is told to stop while it starts, stops.
// A step that fails ends start-up with its code; main turns it into the exit status.
#include "esmcd/start.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "core/debug.h"
#include "core/loop.h"
#include "core/ports.h"
#include "core/result.h"
#include "core/socket.h"
#include "core/supervision.h"
#include "esmcd/install.h"
#include "esmcd/rights.h"
#include "esmcd/signal.h"
#include "nsm/session.h"
#include "restart/restart.h"
#include "snmp/mib.h"
#include "snmp/notify.h"
#include "suite/host/file.h"
#include "suite/host/host.h"
#include "suite/manager/client.h"
#include "suite/manager/wire.h"
#include "suite/parts/parts.h"
#include "suite/ports/slow_socket.h"
#include "suite/process/log_writer.h"
#include "suite/process/pal.h"
#include "suite/process/service.h"
#include "suite/process/single.h"
#include "suite/rights/user.h"
#include "suite/start/lib.h"
#include "suite/terminal/wire.h"

namespace {

std::int32_t stop_with(std::int32_t code) {
    lib_stop(g_p_esmcd);
    g_p_esmcd = nullptr;
    return code;
}

void name_memory_types() {
    memmgr_name_type(MTYPE_SSM_INSTANCE, "SSM instance");
    memmgr_name_type(MTYPE_SSM_MASTER, "SSM clock");
    memmgr_name_type(MTYPE_SSM_PORT, "SSM port");
}

// Library context with its event master, ready for everything that follows.
std::int32_t start_library(const char* progname) {
    memory_init(SSM_PROTO_ID);
    name_memory_types();
    g_p_esmcd = lib_create(progname);
    if (!g_p_esmcd) return SSM_E_NO_MEMORY;
    const int rv = lib_start(g_p_esmcd);
    if (rv < 0) return stop_with(rv);
    g_p_esmcd->protocol_id = SSM_PROTO_ID;
    g_p_esmcd->master = thread_master_create();
    if (!g_p_esmcd->master) return stop_with(SSM_E_NO_MEMORY);
    thread_set_interrupt(g_p_esmcd, ssm_signal_deliver);
    return SSM_OK;
}

void enter_daemon_mode() {
    // Whatever process is left goes on; the reason of a failure was printed where it happened.
    (void)pal_daemonize(0, 0);
    log_set_default_sinks(LOG_SINK_SYSLOG);
}

// A command that could not be installed was logged by the tree; the daemon runs without it.
void install_commands() {
    (void)ssm_install_commands(g_p_esmcd->ctree);
    (void)memmgr_cli_init(g_p_esmcd);
    (void)slow_socket_cli_init(g_p_esmcd);
    (void)nsm_client_cli_init(g_p_esmcd);
}

std::int32_t create_clock_record() {
    g_s_master = static_cast<ssm_master*>(ssm_calloc(sizeof(ssm_master), MTYPE_SSM_MASTER));
    if (!g_s_master) return stop_with(SSM_E_NO_MEMORY);
    g_p_esmcd->proto_data = g_s_master;
    return ssm_master_init();
}

// Without SNMP the daemon does its work all the same.
void start_snmp() {
    (void)agentx_register_mib(g_p_esmcd, "mibII/ssm", ssm_variables, sizeof ssm_variables[0],
                              SSM_VARIABLE_COUNT, ssm_oid, SSM_OID_LENGTH, 0, 0, 0, 0, 0);
    (void)ssm_notify_init(g_p_esmcd);  // without it there are no notifications, logged there
    if (snmp_start(g_p_esmcd) == 0) (void)agentx_cli_init(g_p_esmcd);
}

// Stays open while the daemon runs: one that has become another user can't remove the file at its end, but
// can still empty it.
int pid_file = -1;

// The daemon runs without a pid file as well, and says nothing about it. A number that was written in part is
// taken back, because it would be another process's.
void write_pid_file() {
    pid_file = open(SSM_PID_FILE, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK, 0666);
    if (pid_file < 0) return;
    (void)fchmod(pid_file, 0644);
    char text[16];
    const int length = std::snprintf(text, sizeof text, "%d\n", static_cast<int>(getpid()));
    if (write(pid_file, text, static_cast<std::size_t>(length)) != length) (void)!ftruncate(pid_file, 0);
}

// A file that can't be removed is emptied, so that it names no process.
void remove_pid_file() {
    if (remove(SSM_PID_FILE) != 0 && pid_file >= 0) (void)!ftruncate(pid_file, 0);
    if (pid_file >= 0) close(pid_file);
    pid_file = -1;
}

// From root to `user`. What is open already stays open. The files that the daemon opens by name later are
// given to the user first; those that he can't open all the same are named in warnings.
std::int32_t become_user(const rights_user& user, const char* config_file) {
    if (!config_file) config_file = HOST_DEFAULT_CONFIG;
    host_file_give(config_file, user);
    rights_give_socket(TERMINAL_LOCAL_SOCKET, user);
    restart_give(user);
    if (pal_rights_become(user) < 0) return -1;
    host_file_check(config_file, user);
    if (access(NSM_SOCKET_PATH, W_OK) != 0 && errno == EACCES)
        SSM_LOG(LOG_LEVEL_WARNING, "%s%sUser %s may not connect to %s: start NSM with a group of his",
                user.name, NSM_SOCKET_PATH);
    return SSM_OK;
}

// The interface list goes without calling the unbind hooks, which would still advertise and send requests:
// the records are given back as they are. Their timers end with the event master.
void free_port_records() {
    for (interface* intf : if_list(g_p_esmcd->ifm)) {
        if (ssm_port* port = ssm_if_port(intf)) ssm_record_give_back(port);
        intf->port = nullptr;
    }
    if (g_s_master) g_s_master->selected_port = g_s_master->force_port = nullptr;
}

// The first time it is what the configuration made of the switch.
void nsm_synchronised() {
    static bool said;
    restart_synchronised();
    if (!std::exchange(said, true)) ssm_supervision_say_active();
}

std::int32_t run_loop() {
    thread event;
    while (thread_fetch(g_p_esmcd, &event)) {
        (void)ssm_run_event(&event);
        restart_after_event();
    }
    return SSM_OK;
}

}  // namespace

std::int32_t ssm_start(bool daemon_mode, const char* config_file, std::int32_t vty_port, const char* progname,
                       const rights_user* user) {
    log_open(progname);
    ssm_signal_deliver(nullptr);

    std::int32_t rv = start_library(progname);
    if (rv < 0) return rv;
    ssm_signal_deliver(g_p_esmcd);
    (void)host_vty_init(g_p_esmcd);  // logged there; the protocol runs without a terminal
    if (daemon_mode) enter_daemon_mode();
    single_hold();
    ssm_signal_deliver(g_p_esmcd);
    install_commands();
    ssm_signal_deliver(g_p_esmcd);
    rv = create_clock_record();
    if (rv < 0) return rv;
    start_snmp();
    ssm_signal_deliver(g_p_esmcd);
    rv = ssm_instance_create(g_p_esmcd);
    if (rv < 0) return stop_with(rv);
    ssm_signal_deliver(g_p_esmcd);
    write_pid_file();
    ssm_signal_deliver(g_p_esmcd);
    // With another user to become, the terminal's socket is made while the daemon is root, because only root
    // may make files in that folder. The configuration is read afterwards, with the user's rights: he may
    // write it, and it names files to open.
    if (user) (void)bmcli_start(g_p_esmcd, progname);
    if (user && become_user(*user, config_file) < 0) {
        (void)ssm_terminate();
        return -1;
    }
    restart_read();
    (void)host_config_start(g_p_esmcd, config_file, static_cast<std::uint16_t>(vty_port));
    restart_begin();
    nsm_client_set_synchronised(ssm_instance->nsm_client, nsm_synchronised);
    ssm_signal_deliver(g_p_esmcd);
    ssm_socket_arm_read();
    if (!user) (void)bmcli_start(g_p_esmcd, progname);  // logged there
    pal_rights_drop();
    log_writers_start(g_p_esmcd);
    service_ready(g_p_esmcd);
    return run_loop();
}

std::int32_t ssm_instance_create(lib_globals* ctx) {
    ssm_instance =
        static_cast<ssm_instance_record*>(ssm_calloc(sizeof(ssm_instance_record), MTYPE_SSM_INSTANCE));
    if (!ssm_instance) {
        pal_system_err("Out of memory");
        return -100;
    }
    ssm_instance->lib_ctx = ctx;
    ssm_debug_init();
    ssm_instance->sock = -1;
    if (open_ssm() < 0) {
        pal_system_err("Open ssm error");
        return -1;
    }
    if (ssm_nsm_client_init() < 0) {
        pal_system_err("NSM init failure");
        return -1;
    }
    return SSM_OK;
}

std::int32_t ssm_terminate() {
    service_stopping();
    const bool back_soon = restart_leave();
    if (g_p_esmcd) g_p_esmcd->flags |= LIB_SHUTTING_DOWN;
    remove_pid_file();
    if (ssm_instance) {
        if (back_soon)
            nsm_client_leave(ssm_instance->nsm_client);
        else
            nsm_client_stop(ssm_instance->nsm_client);  // says goodbye: the hardware goes to holdover
        ssm_instance->nsm_client = nullptr;
    }
    if (g_p_esmcd) free_port_records();
    lib_stop(g_p_esmcd);
    g_p_esmcd = nullptr;
    return SSM_OK;
}
