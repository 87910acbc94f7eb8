// The core of nsmd: hands what one part says to those that need it. Owns all parts. Everything runs on the
// event loop.
//
// Requests take effect a few milliseconds after the last of them, so that a daemon that states all it wants
// after a reconnection moves the hardware once, to where it ends, and not through every step on the way.
//
// Nobody may follow a source whose quality is not watched. When the last client's link breaks, the hardware
// is left alone for the grace time, in which a restarting daemon comes back; then it goes to holdover. A
// client that said goodbye is not waited for. The same clock runs from nsmd's own start. It stops when a
// client says where the clock is to come from: being connected alone is not enough.
#include "nsmd/nsmd.h"

#include <cerrno>
#include <cinttypes>
#include <cstring>

#include "nsmd/clock/copper.h"
#include "nsmd/clock/kernel.h"
#include "nsmd/links/watch.h"
#include "nsmd/module.h"
#include "nsmd/server/requests.h"
#include "nsmd/server/server.h"
#include "suite/base/memory.h"
#include "suite/log/log.h"
#include "suite/loop/thread.h"

struct nsmd {
    lib_globals* ctx;
    const nsmd_options* options;
    port_table* table;
    link_watch* watch;
    nsmd_server* server;
    copper* roles;
    dpll_backend dpll;
    bool has_dpll;
    dpll_wanted wanted;
    bool unwatched;        // overrides what is wanted: holdover
    std::uint32_t stated;  // request kinds of this session
    std::uint32_t clients;
    std::uint64_t requests;
    thread* settle_timer;
    thread* grace_timer;
};

namespace {

constexpr std::uint32_t SETTLE_MS = 10;

dpll_wanted effective(const nsmd* n) {
    dpll_wanted wanted = n->wanted;
    wanted.holdover |= n->unwatched;
    return wanted;
}

void apply_now(nsmd* n) {
    thread_cancel(n->settle_timer);
    n->settle_timer = nullptr;
    n->dpll.apply(n->dpll.self, effective(n));
}

int settled(thread* event) {
    auto* n = static_cast<nsmd*>(event->arg);
    n->settle_timer = nullptr;
    apply_now(n);
    return 0;
}

void apply_soon(nsmd* n) {
    thread_cancel(n->settle_timer);
    n->settle_timer = thread_add_timer_msec(n->ctx, settled, n, SETTLE_MS);
    if (!n->settle_timer) apply_now(n);
}

void stop_grace(nsmd* n) {
    thread_cancel(n->grace_timer);
    n->grace_timer = nullptr;
}

void abandon(nsmd* n, const char* why) {
    stop_grace(n);
    if (n->unwatched) return;
    n->unwatched = true;
    if (n->dpll.current(n->dpll.self).state == DPLL_LOCKED)
        log_sys(NSMD_MODULE, LOG_LEVEL_WARNING, "%s: the clock goes to holdover", why);
    apply_now(n);
}

int grace_over(thread* event) {
    auto* n = static_cast<nsmd*>(event->arg);
    n->grace_timer = nullptr;
    abandon(n, n->clients ? "the daemon has not chosen a source" : "no daemon watches the quality");
    return 0;
}

void start_grace(nsmd* n) {
    stop_grace(n);
    n->grace_timer = thread_add_timer_msec(n->ctx, grace_over, n, n->options->grace_s * 1000);
}

void took_request(void* arg, std::uint16_t type, const std::uint32_t (&words)[NSM_REQUEST_WORDS]) {
    auto* n = static_cast<nsmd*>(arg);
    copper_role role;
    ++n->requests;
    switch (request_take(type, words, n->table, &n->stated, &n->wanted, &role)) {
        case request_effect::source:
            n->unwatched = false;
            stop_grace(n);
            [[fallthrough]];
        case request_effect::clock:
            apply_soon(n);
            break;
        case request_effect::role:
            copper_set(n->roles, role);
            break;
        case request_effect::ignored:
            break;
    }
}

void clients_changed(void* arg, std::uint32_t count, bool clean) {
    auto* n = static_cast<nsmd*>(arg);
    if (count > n->clients && n->clients == 0) n->stated = 0;
    n->clients = count;
    if (count) return;
    if (n->settle_timer) apply_now(n);
    if (clean)
        abandon(n, "the daemon was stopped");
    else if (!n->unwatched)
        start_grace(n);
}

void dump(void* arg, nsmd_peer* peer) {
    auto* n = static_cast<nsmd*>(arg);
    const bridge_identity& identity = port_table_bridge(n->table);
    if (identity.known) nsmd_server_send_bridge(n->server, peer, identity);
    for (const nsmd_port* p = port_table_first(n->table); p; p = p->next)
        if (p->ifindex) nsmd_server_send_port(n->server, peer, *p);
    const dpll_report now = n->dpll.current(n->dpll.self);
    nsmd_server_send_clock(n->server, peer, now.state, nsmd_source_code(*n->options, now.source));
}

bool status(void* arg, text_buffer* out) {
    return nsmd_status(static_cast<const nsmd*>(arg), out);
}

const char* event_word(port_event event) {
    switch (event) {
        case port_event::added:
            return "added";
        case port_event::removed:
            return "removed";
        case port_event::up:
            return "up";
        case port_event::down:
            return "down";
        case port_event::pin_changed:
            return "clock pin changed";
    }
    return "?";
}

void port_changed(void* arg, const nsmd_port& port, port_event event) {
    auto* n = static_cast<nsmd*>(arg);
    log_sys(NSMD_MODULE, LOG_LEVEL_INFO, "port %u (%s, kernel index %u): %s%s", port.ifindex, port.name,
            port.kernel_ifindex, event_word(event),
            event == port_event::added ? (port.up ? ", up" : ", down") : "");
    switch (event) {
        case port_event::added:
            nsmd_server_send_port(n->server, nullptr, port);
            break;
        case port_event::removed:
            nsmd_server_send_port_gone(n->server, port);
            break;
        case port_event::up:
        case port_event::down:
            nsmd_server_send_link(n->server, port);
            break;
        case port_event::pin_changed:
            break;
    }
    if (event == port_event::removed && n->roles) copper_forget(n->roles, port.ifindex);
    if (n->has_dpll) n->dpll.port(n->dpll.self, port, event);
}

void bridge_changed(void* arg, const bridge_identity& identity) {
    auto* n = static_cast<nsmd*>(arg);
    log_sys(NSMD_MODULE, LOG_LEVEL_INFO, "clock identity from %s: %02x:%02x:%02x:%02x:%02x:%02x",
            identity.name, identity.mac[0], identity.mac[1], identity.mac[2], identity.mac[3],
            identity.mac[4], identity.mac[5]);
    nsmd_server_send_bridge(n->server, nullptr, identity);
}

const char* state_word(std::uint32_t state) {
    switch (state) {
        case DPLL_FREERUN:
            return "free-running";
        case DPLL_HOLDOVER:
            return "holdover";
        case DPLL_LOCKED:
            return "locked";
        default:
            return "in transition";
    }
}

void clock_changed(void* arg, const dpll_report& report) {
    auto* n = static_cast<nsmd*>(arg);
    const std::uint32_t code = nsmd_source_code(*n->options, report.source);
    const nsmd_port* port = port_table_find(n->table, report.source);
    log_sys(NSMD_MODULE, LOG_LEVEL_INFO, "clock: %s, source %u (%s), code %u", state_word(report.state),
            report.source,
            port                                ? port->name
            : report.source == DPLL_SOURCE_BITS ? "external input"
                                                : "none",
            code);
    nsmd_server_send_clock(n->server, nullptr, report.state, code);
}

// False with a log line when the clock that was asked for can't be had.
bool start_kernel_dpll(nsmd* n, const nsmd_edges& edges, bool is_optional) {
    int error = 0;
    n->dpll = dpll_kernel_create(n->ctx, n->table, edges.netlink, n->options->kernel, is_optional,
                                 {clock_changed, n}, &error);
    if (n->dpll.self) return true;
    const char* why = error == -ENOENT   ? "this kernel has no clock interface"
                      : error == -ENODEV ? "the kernel has no clock device for Ethernet"
                                         : std::strerror(-error);
    if (is_optional) {
        log_sys(NSMD_MODULE, LOG_LEVEL_INFO, "clock: %s, going on without", why);
        n->dpll = dpll_none();
    } else {
        log_sys(NSMD_MODULE, LOG_LEVEL_ERROR, "clock: %s", why);
    }
    return is_optional;
}

bool start_dpll(nsmd* n, const nsmd_edges& edges) {
    switch (n->options->dpll) {
        case dpll_kind::automatic:
            n->has_dpll = start_kernel_dpll(n, edges, true);
            break;
        case dpll_kind::kernel:
            n->has_dpll = start_kernel_dpll(n, edges, false);
            break;
        case dpll_kind::simulated:
            n->dpll = dpll_sim_create(n->ctx, n->table, n->options->sim, {clock_changed, n});
            n->has_dpll = n->dpll.self != nullptr;
            if (!n->has_dpll) log_sys(NSMD_MODULE, LOG_LEVEL_ERROR, "no memory for the clock");
            break;
        case dpll_kind::none:
            n->dpll = dpll_none();
            n->has_dpll = true;
            break;
    }
    return n->has_dpll;
}

bool start_links(nsmd* n, const nsmd_edges& edges) {
    n->watch = link_watch_start(n->ctx, n->table, edges.netlink, n->options->poll);
    if (!n->watch) return false;
    // Clients are served only once the ports are known: a dump that left some out would say that they are
    // gone.
    if (edges.link_wait_ms == 0 || link_watch_wait_ready(n->watch, edges.link_wait_ms)) return true;
    log_sys(NSMD_MODULE, LOG_LEVEL_ERROR, "the kernel does not list its links");
    return false;
}

bool start_parts(nsmd* n, const nsmd_edges& edges) {
    n->server = nsmd_server_create(n->ctx, {dump, took_request, clients_changed, status, n});
    n->table =
        port_table_create(n->options->patterns, n->options->pattern_count, {port_changed, bridge_changed, n});
    n->roles = n->table ? copper_create(n->table, edges.netlink) : nullptr;
    if (!n->server || !n->table || !n->roles) {
        log_sys(NSMD_MODULE, LOG_LEVEL_ERROR, "no memory to start with");
        return false;
    }
    if (edges.index_path) port_table_keep_indexes(n->table, edges.index_path);
    if (!start_links(n, edges) || !start_dpll(n, edges)) return false;
    if (edges.socket_path && nsmd_server_listen(n->server, edges.socket_path) < 0) return false;
    start_grace(n);
    return true;
}

}  // namespace

nsmd* nsmd_start(lib_globals* ctx, const nsmd_options& options, const nsmd_edges& edges) {
    auto* n = static_cast<nsmd*>(memmgr_calloc(sizeof(nsmd), MTYPE_NSMD));
    if (!n) return nullptr;
    n->ctx = ctx;
    n->options = &options;
    n->wanted.enable = true;  // until the daemon says otherwise; with no source named, nothing is touched
    if (start_parts(n, edges)) return n;
    nsmd_stop(n);
    return nullptr;
}

void nsmd_stop(nsmd* n) {
    if (!n) return;
    thread_cancel(n->settle_timer);
    thread_cancel(n->grace_timer);
    nsmd_server_free(n->server);
    link_watch_stop(n->watch);
    if (n->has_dpll) n->dpll.finish(n->dpll.self);
    copper_free(n->roles);
    port_table_free(n->table);
    memmgr_free(n, MTYPE_NSMD);
}

nsmd_server* nsmd_server_of(nsmd* n) {
    return n->server;
}

bool nsmd_status(const nsmd* n, text_buffer* out) {
    const dpll_report now = n->dpll.current(n->dpll.self);
    const dpll_wanted& w = n->wanted;
    bool ok =
        text_printf(out, "clock state: %s, source %u, code %u\n", state_word(now.state), now.source,
                    nsmd_source_code(*n->options, now.source)) &&
        n->dpll.status(n->dpll.self, out) &&
        text_printf(out, "requests: %" PRIu64 "; enable %u, recovery select %u, holdover %u, source %u%s\n",
                    n->requests, w.enable, w.recovery_select, w.holdover, w.selected,
                    n->unwatched ? "; unwatched" : "") &&
        nsmd_server_status(n->server, out) && link_watch_status(n->watch, out);
    for (const nsmd_port* p = port_table_first(n->table); ok && p; p = p->next) {
        ok = text_printf(out, "port %u %s: kernel index %u, %s, flaps %" PRIu64, p->ifindex, p->name,
                         p->kernel_ifindex, p->up ? "up" : "down", p->flaps);
        if (ok && p->has_dpll_pin) ok = text_printf(out, ", clock pin %u", p->dpll_pin);
        ok = ok && text_printf(out, "\n");
    }
    return ok && copper_status(n->roles, out);
}

std::uint32_t nsmd_source_code(const nsmd_options& options, std::uint32_t ifindex) {
    static constexpr source_code defaults[] = {{26, 1}, {25, 2}, {24, 3}, {20, 4}, {DPLL_SOURCE_BITS, 8}};
    for (std::size_t i = options.source_code_count; i > 0; --i)  // the last one given counts
        if (options.source_codes[i - 1].ifindex == ifindex) return options.source_codes[i - 1].code;
    for (const auto& entry : defaults)
        if (entry.ifindex == ifindex) return entry.code;
    return 0;
}
