// nsmd put together: hands what one part says to those that need it. Owns all parts. Everything runs on the
// event loop.
#include "nsmd/nsmd.h"

#include <cerrno>
#include <cinttypes>
#include <cstring>

#include "nsmd/clock/copper.h"
#include "nsmd/control.h"
#include "nsmd/details.h"
#include "nsmd/server/requests.h"
#include "nsmd/server/server.h"
#include "suite/base/memory.h"
#include "suite/log/log.h"
#include "suite/loop/thread.h"
#include "suite/process/job.h"

namespace {
constexpr std::uint32_t TEND_MS = 1000;
}

struct nsmd {
    lib_globals* ctx;
    const nsmd_options* options;
    port_table* table;
    link_watch* watch;
    nsmd_server* server;
    copper* roles;
    clock_control clock;
    detail_teller details;
    std::uint32_t stated;  // request kinds of this session
    std::uint64_t requests;
    thread* tend_timer;
};

namespace {

// What the server says.

void took_request(void* arg, std::uint16_t type, const std::uint32_t (&words)[NSM_REQUEST_WORDS]) {
    auto* n = static_cast<nsmd*>(arg);
    copper_role role;
    ++n->requests;
    const request_effect effect = request_take(type, words, n->table, &n->stated, &n->clock.wanted, &role);
    link_watch_prefer(n->watch, n->clock.wanted.selected);
    if (effect == request_effect::role)
        copper_set(n->roles, role);
    else if (effect != request_effect::ignored)
        clock_control_wanted(&n->clock, effect == request_effect::source);
}

void clients_changed(void* arg, std::uint32_t count, bool clean) {
    auto* n = static_cast<nsmd*>(arg);
    if (n->clock.clients == 0) n->stated = 0;
    clock_control_clients(&n->clock, count, clean);
}

void send_clock(nsmd* n, nsmd_peer* peer, const dpll_report& report) {
    nsmd_server_send_clock(n->server, peer, report.state, nsmd_source_code(*n->options, report.source));
}

void dump(void* arg, nsmd_peer* peer) {
    auto* n = static_cast<nsmd*>(arg);
    const bridge_identity& identity = port_table_bridge(n->table);
    if (identity.known) nsmd_server_send_bridge(n->server, peer, identity);
    for (const nsmd_port* p = port_table_first(n->table); p; p = p->next)
        if (p->ifindex) nsmd_server_send_port(n->server, peer, *p);
    send_clock(n, peer, clock_control_report(&n->clock));
    details_tell_all(&n->details, peer, n->clock.dpll);
}

bool status(void* arg, text_buffer* out) {
    const auto* n = static_cast<const nsmd*>(arg);
    const dpll_report now = clock_control_report(&n->clock);
    const dpll_wanted& w = n->clock.wanted;
    return text_printf(out, "clock state: %s, source %u, code %u\n", dpll_state_word(now.state), now.source,
                       nsmd_source_code(*n->options, now.source)) &&
           n->clock.dpll.status(n->clock.dpll.self, out) &&
           text_printf(out,
                       "requests: %" PRIu64 "; enable %u, recovery select %u, holdover %u, source %u%s\n",
                       n->requests, w.enable, w.recovery_select, w.holdover, w.selected,
                       n->clock.unwatched ? "; unwatched" : "") &&
           nsmd_server_status(n->server, out) && link_watch_status(n->watch, out) &&
           port_table_status(n->table, out) && copper_status(n->roles, out);
}

// What the kernel says.

void port_changed(void* arg, const nsmd_port& port, port_event event) {
    auto* n = static_cast<nsmd*>(arg);
    static constexpr const char* words[] = {"added", "removed", "up", "down", "clock pin changed"};
    log_suite(LOG_LEVEL_INFO, "port %u (%s, kernel index %u): %s%s", port.ifindex, port.name,
              port.kernel_ifindex, words[static_cast<std::size_t>(event)],
              event == port_event::added ? (port.up ? ", up" : ", down") : "");
    switch (event) {
        case port_event::added:
            nsmd_server_send_port(n->server, nullptr, port);
            break;
        case port_event::removed:
            nsmd_server_send_port_gone(n->server, port);
            copper_forget(n->roles, port.ifindex);
            break;
        case port_event::up:
        case port_event::down:
            nsmd_server_send_link(n->server, port);
            break;
        case port_event::pin_changed:
            break;
    }
    if (n->clock.dpll.port) n->clock.dpll.port(n->clock.dpll.self, port, event);
}

void bridge_changed(void* arg, const bridge_identity& identity) {
    auto* n = static_cast<nsmd*>(arg);
    log_suite(LOG_LEVEL_INFO, "clock identity from %s: %02x:%02x:%02x:%02x:%02x:%02x", identity.name,
              identity.mac[0], identity.mac[1], identity.mac[2], identity.mac[3], identity.mac[4],
              identity.mac[5]);
    nsmd_server_send_bridge(n->server, nullptr, identity);
}

void clock_changed(void* arg, const dpll_report& report) {
    auto* n = static_cast<nsmd*>(arg);
    const nsmd_port* port = port_table_find(n->table, report.source);
    log_suite(LOG_LEVEL_INFO, "clock: %s, source %u (%s), code %u", dpll_state_word(report.state),
              report.source,
              port                                ? port->name
              : report.source == DPLL_SOURCE_BITS ? "external input"
                                                  : "none",
              nsmd_source_code(*n->options, report.source));
    send_clock(n, nullptr, report);
}

// Once a second: who looks after a helper does so.
int tend_due(thread* event) {
    auto* n = static_cast<nsmd*>(event->arg);
    n->tend_timer = thread_add_timer_msec(n->ctx, tend_due, n, TEND_MS);
    link_watch_tend(n->watch);
    if (n->clock.dpll.tend) n->clock.dpll.tend(n->clock.dpll.self);
    copper_tend(n->roles, n->ctx);
    details_tell_changes(&n->details, n->clock.dpll);
    return 0;
}

void pins_changed(void* arg) {
    link_watch_refresh(static_cast<nsmd*>(arg)->watch);
}

// Start.

// A backend without `self` where the clock that was asked for can't be had, with a log line.
dpll_backend open_kernel_dpll(nsmd* n, const nsmd_edges& edges, bool is_optional) {
    int error = 0;
    const dpll_backend dpll = dpll_kernel_create(n->ctx, n->table, edges.netlink, n->options->kernel,
                                                 {clock_changed, pins_changed, n}, &error);
    if (dpll.self) return dpll;
    const char* why = error == -ENOENT ? "this kernel has no clock interface" : std::strerror(-error);
    if (is_optional)
        log_suite(LOG_LEVEL_INFO, "clock: %s, going on without", why);
    else
        log_suite(LOG_LEVEL_ERROR, "clock: %s", why);
    return dpll;
}

bool start_clock(nsmd* n, const nsmd_edges& edges) {
    const dpll_kind kind = n->options->dpll;
    dpll_backend dpll = dpll_none();
    if (kind == dpll_kind::automatic || kind == dpll_kind::kernel) {
        const dpll_backend kernel = open_kernel_dpll(n, edges, kind == dpll_kind::automatic);
        if (!kernel.self && kind == dpll_kind::kernel) return false;
        if (kernel.self) dpll = kernel;
    } else if (kind == dpll_kind::simulated) {
        dpll = dpll_sim_create(n->ctx, n->table, n->options->sim, {clock_changed, pins_changed, n});
        if (!dpll.self) {
            log_suite(LOG_LEVEL_ERROR, "no memory for the clock");
            return false;
        }
    }
    clock_control_start(&n->clock, n->ctx, dpll, n->options->grace_s);
    return true;
}

bool start_links(nsmd* n, const nsmd_edges& edges) {
    n->watch = link_watch_start(n->ctx, n->table, edges.netlink, n->options->poll);
    if (!n->watch) return false;
    // Clients are served only once the ports are known: a dump that left some out would say that they are
    // gone.
    if (edges.link_wait_ms == 0 || link_watch_wait_ready(n->watch, edges.link_wait_ms)) return true;
    log_suite(LOG_LEVEL_ERROR, "the kernel does not list its links");
    return false;
}

bool start_parts(nsmd* n, const nsmd_edges& edges) {
    n->server = nsmd_server_create(n->ctx, {dump, took_request, clients_changed, status, n});
    n->details.server = n->server;
    n->table =
        port_table_create(n->options->patterns, n->options->pattern_count, {port_changed, bridge_changed, n});
    n->roles = n->table ? copper_create(n->table, edges.netlink) : nullptr;
    if (!n->server || !n->table || !n->roles) {
        log_suite(LOG_LEVEL_ERROR, "no memory to start with");
        return false;
    }
    if (edges.index_path) port_table_keep_indexes(n->table, edges.index_path);
    if (!start_links(n, edges) || !start_clock(n, edges)) return false;
    return !edges.socket_path || nsmd_server_listen(n->server, edges.socket_path) == 0;
}

}  // namespace

nsmd* nsmd_start(lib_globals* ctx, const nsmd_options& options, const nsmd_edges& edges) {
    auto* n = static_cast<nsmd*>(memmgr_calloc(sizeof(nsmd), MTYPE_NSMD));
    if (!n) return nullptr;
    n->ctx = ctx;
    n->options = &options;
    if (start_parts(n, edges)) return n;
    nsmd_stop(n);
    return nullptr;
}

bool nsmd_detach(nsmd* n) {
    n->tend_timer = thread_add_timer_msec(n->ctx, tend_due, n, 0);
    return n->tend_timer != nullptr;
}

void nsmd_stop(nsmd* n) {
    if (!n) return;
    thread_cancel(n->tend_timer);
    nsmd_server_free(n->server);
    link_watch_stop(n->watch);
    clock_control_stop(&n->clock);
    copper_free(n->roles);
    port_table_free(n->table);
    jobs_stop(n->ctx);
    memmgr_free(n, MTYPE_NSMD);
}

nsmd_server* nsmd_server_of(nsmd* n) {
    return n->server;
}

const port_table* nsmd_table_of(const nsmd* n) {
    return n->table;
}
