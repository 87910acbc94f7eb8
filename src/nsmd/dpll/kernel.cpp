// The kernel's clock interface as a backend. Owns its channel, what is known of devices and pins, and two
// timers. Called by nsmd's core on the loop.
//
// One task is under way at a time: reading everything, reading the device, or steering. A driver may take its
// time over each request of it; what is wanted meanwhile is kept as a wish, the newest in the place of older
// ones.
//
// What is wanted becomes a goal: follow this pin, or none of ours. Only the pins of the ports served and of
// the named external inputs are ever touched.
//
// Where a driver refuses, that is said in one line and the rest goes on; a driver that is busy is asked again
// for a while. Notifications come in the first network namespace only, so the device's state is also asked
// for once a second.
#include "nsmd/dpll/kernel.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <utility>

#include "nsmd/dpll/steer.h"
#include "suite/base/memory.h"
#include "suite/log/log.h"
#include "suite/loop/thread.h"

namespace {

constexpr std::uint32_t POLL_MS = 1000, AGAIN_MS = 50, BUSY_MS = 1000;
constexpr unsigned BUSY_TRIES = 30;
constexpr unsigned DUMP_TRIES = 3;

enum class clock_task { none, reads_devices, reads_pins, reads_device, steers };

struct dpll_kernel {
    lib_globals* ctx;
    const port_table* table;
    dpll_kernel_options options;
    dpll_sink sink;
    genl link;
    dpll_view view;
    bool has_device;
    std::uint32_t device;
    dpll_wanted wanted;
    bool was_asked;  // `wanted` holds
    dpll_report now;
    clock_task task;
    bool read_wanted, poll_wanted, steer_wanted;  // the tasks to come, in this order
    bool pins_changed;                            // since the links were last asked for theirs
    bool awaits_links;                            // their answers come before the tasks
    dpll_view fresh;  // being read; what was known before serves until it is whole
    unsigned dump_tries;
    int read_result;
    thread* poll_timer;
    thread* again_timer;  // the hardware changed, or was busy: state what is wanted again
    bool stale;           // what is known may be old: read all
    unsigned busy_tries;
    dpll_steering steering;
};

void again_in(dpll_kernel* k, std::uint32_t ms);

// --- reading ---

// False without memory.
bool take_into(dpll_view* view, const genl_message& m) {
    dpll_device device;
    dpll_pin pin;
    switch (m.command) {
        case DPLL_CMD_DEVICE_GET:
        case DPLL_CMD_DEVICE_CREATE_NTF:
        case DPLL_CMD_DEVICE_CHANGE_NTF:
            return !dpll_device_parse(m.attributes, &device) || dpll_view_take_device(view, device);
        case DPLL_CMD_DEVICE_DELETE_NTF:
            if (dpll_device_parse(m.attributes, &device)) dpll_view_drop_device(view, device.id);
            return true;
        case DPLL_CMD_PIN_GET:
        case DPLL_CMD_PIN_CREATE_NTF:
        case DPLL_CMD_PIN_CHANGE_NTF:
            return !dpll_pin_parse(m.attributes, &pin) || dpll_view_take_pin(view, pin);
        case DPLL_CMD_PIN_DELETE_NTF:
            if (dpll_pin_parse(m.attributes, &pin)) dpll_view_drop_pin(view, pin.id);
            return true;
        default:
            return true;
    }
}

bool is_reading_all(const dpll_kernel* k) {
    return k->task == clock_task::reads_devices || k->task == clock_task::reads_pins;
}

void message_came(void* arg, const genl_message& m) {
    auto* k = static_cast<dpll_kernel*>(arg);
    bool stored = true;
    if (is_reading_all(k)) stored = take_into(&k->fresh, m);
    if (m.notification || !is_reading_all(k)) stored &= take_into(&k->view, m);
    if (!stored) log_suite(LOG_LEVEL_ERROR, "clock: no memory for a device or pin");
    const bool comes_or_goes = m.command == DPLL_CMD_DEVICE_CREATE_NTF ||
                               m.command == DPLL_CMD_DEVICE_DELETE_NTF ||
                               m.command == DPLL_CMD_PIN_CREATE_NTF || m.command == DPLL_CMD_PIN_DELETE_NTF;
    if (!m.notification || !comes_or_goes) return;
    k->pins_changed = true;  // the kernel sends no message about the links that they are of
    again_in(k, AGAIN_MS);
}

void messages_lost(void* arg) {
    auto* k = static_cast<dpll_kernel*>(arg);
    k->stale = true;
    again_in(k, 0);
}

void ask_for_all(dpll_kernel* k) {
    nl_builder request;
    const dpll_command command =
        k->task == clock_task::reads_devices ? DPLL_CMD_DEVICE_GET : DPLL_CMD_PIN_GET;
    genl_begin(&k->link, &request, command, DPLL_VERSION, true);
    genl_request(&k->link, request);
}

void begin_reading(dpll_kernel* k) {
    dpll_view_clear(&k->fresh);
    k->task = clock_task::reads_devices;
    k->dump_tries = 1;
    k->stale = false;  // what is lost from here on counts again
    ask_for_all(k);
}

void end_reading(dpll_kernel* k, int result) {
    k->task = clock_task::none;
    k->read_result = result;
    if (result == 0) std::swap(k->view, k->fresh);
    dpll_view_clear(&k->fresh);
    if (result < 0) k->stale = true;  // the next poll tries again
}

void was_listed(dpll_kernel* k) {
    const int result = k->link.result;
    if (result == -EAGAIN && k->dump_tries++ < DUMP_TRIES) return ask_for_all(k);
    if (result < 0 || k->task == clock_task::reads_pins) return end_reading(k, result);
    k->task = clock_task::reads_pins;
    k->dump_tries = 1;
    ask_for_all(k);
}

// --- which pins ---

std::size_t managed_pins(const dpll_kernel* k, std::uint32_t (&out)[DPLL_MANAGED_MAX]) {
    std::size_t count = 0;
    for (const nsmd_port* p = port_table_first(k->table); p; p = p->next)
        if (p->ifindex && p->has_dpll_pin && count < PORT_INDEX_MAX) out[count++] = p->dpll_pin;
    for (const char* name : k->options.bits)
        if (const dpll_pin* pin = name ? dpll_view_named_pin(&k->view, name) : nullptr)
            out[count++] = pin->id;
    return count;
}

std::uint32_t source_of(const dpll_kernel* k, const dpll_pin* pin) {
    if (!pin) return 0;
    for (const nsmd_port* p = port_table_first(k->table); p; p = p->next)
        if (p->ifindex && p->has_dpll_pin && p->dpll_pin == pin->id) return p->ifindex;
    for (const char* name : k->options.bits)
        if (name && dpll_view_named_pin(&k->view, name) == pin) return DPLL_SOURCE_BITS;
    return 0;
}

void choose_device(dpll_kernel* k) {
    std::uint32_t pins[DPLL_MANAGED_MAX];
    const std::size_t count = managed_pins(k, pins);
    const dpll_device* d = dpll_view_choose(&k->view, k->options.device, pins, count);
    const bool had = k->has_device;
    const std::uint32_t before = k->device;
    k->has_device = d != nullptr;
    if (d) k->device = d->id;
    if (d && (!had || before != d->id))
        log_suite(LOG_LEVEL_INFO, "clock: kernel device %u of %s, clock %016" PRIx64 ", %s", d->id, d->module,
                  d->clock_id, d->mode == DPLL_MODE_AUTOMATIC ? "automatic" : "manual");
    if (!d && had) log_suite(LOG_LEVEL_WARNING, "clock: kernel device %u is gone", before);
}

// --- reporting ---

std::uint32_t state_of(const dpll_device& d) {
    switch (d.status) {
        case DPLL_STATUS_UNLOCKED:
            return DPLL_FREERUN;
        case DPLL_STATUS_LOCKED:
        case DPLL_STATUS_LOCKED_HO_ACQ:
            return DPLL_LOCKED;
        case DPLL_STATUS_HOLDOVER:
            return DPLL_HOLDOVER;
        default:
            return DPLL_TRANSIENT;
    }
}

dpll_report observe(const dpll_kernel* k) {
    const dpll_device* d = k->has_device ? dpll_view_device(&k->view, k->device) : nullptr;
    if (!d) return {DPLL_FREERUN, 0};
    const std::uint32_t state = state_of(*d);
    if (state != DPLL_LOCKED) return {state, 0};
    const dpll_pin* child = nullptr;
    const dpll_pin* input = dpll_view_active_input(&k->view, d->id, &child);
    return {state, source_of(k, child ? child : input)};
}

void report(dpll_kernel* k) {
    const dpll_report seen = observe(k);
    if (seen.state == k->now.state && seen.source == k->now.source) return;
    k->now = seen;
    k->sink.report(k->sink.arg, seen);
}

// --- steering ---

// The pin to follow. False: none, with the reason said where that is not what was asked for.
bool find_target(const dpll_kernel* k, std::uint32_t* pin) {
    const dpll_wanted& w = k->wanted;
    if (!w.enable || w.holdover) return false;
    if (w.recovery_select) {
        const char* name = k->options.bits[w.recovery_select - 1];
        const dpll_pin* input = name ? dpll_view_named_pin(&k->view, name) : nullptr;
        if (input)
            *pin = input->id;
        else
            log_suite(LOG_LEVEL_WARNING, "clock: no pin for external input %u, nothing to follow",
                      w.recovery_select);
        return input != nullptr;
    }
    const nsmd_port* port = port_table_find(k->table, w.selected);
    if (port && port->has_dpll_pin) {
        *pin = port->dpll_pin;
        return true;
    }
    log_suite(LOG_LEVEL_WARNING, "clock: port %u (%s) has no clock pin, nothing to follow", w.selected,
              port ? port->name : "unknown");
    return false;
}

bool asks_for_something(const dpll_wanted& w) {
    return !w.enable || w.holdover || w.recovery_select || w.selected;
}

void begin_steering(dpll_kernel* k) {
    if (!k->was_asked || !k->has_device || !asks_for_something(k->wanted)) return;
    std::uint32_t pins[DPLL_MANAGED_MAX];
    dpll_goal goal{};
    goal.device = k->device;
    goal.has_target = find_target(k, &goal.target);
    goal.managed = pins;
    goal.managed_count = managed_pins(k, pins);
    goal.prio_best = k->options.prio_best;
    goal.prio_other = k->options.prio_other;
    k->task = clock_task::steers;
    dpll_steer_begin(&k->steering, goal);
}

void was_steered(dpll_kernel* k) {
    k->task = clock_task::none;
    if (k->steering.is_abandoned) return;
    const dpll_steer_end end = k->steering.end;
    if (end == dpll_steer_end::busy && k->busy_tries++ < BUSY_TRIES) return again_in(k, BUSY_MS);
    if (end == dpll_steer_end::busy) log_suite(LOG_LEVEL_WARNING, "clock: the driver stays busy, given up");
    if (end == dpll_steer_end::reached || !k->steering.goal.has_target) return;
    // What is followed now is not what the daemon believes and tells its neighbours. Holdover is.
    log_suite(LOG_LEVEL_WARNING, "clock: the source can't be followed, holdover instead");
    dpll_goal goal = k->steering.goal;
    goal.has_target = false;
    k->task = clock_task::steers;
    dpll_steer_begin(&k->steering, goal);
}

// --- tasks ---

void was_polled(dpll_kernel* k) {
    k->task = clock_task::none;
    if (k->link.result == -ENODEV) dpll_view_drop_device(&k->view, k->device);
    // Nothing told us, so nothing told us of the pins either.
    if (observe(k).state != k->now.state) k->stale = true;
    if (k->stale) again_in(k, 0);
}

// False: there is none.
bool begin_next(dpll_kernel* k) {
    if (std::exchange(k->read_wanted, false)) {
        begin_reading(k);
    } else if (std::exchange(k->poll_wanted, false)) {
        k->task = clock_task::reads_device;
        dpll_read_device(&k->link, k->device);
    } else if (std::exchange(k->steer_wanted, false)) {
        choose_device(k);
        begin_steering(k);
    } else {
        return false;
    }
    return true;
}

void go_on(dpll_kernel* k) {
    switch (k->task) {
        case clock_task::reads_devices:
        case clock_task::reads_pins:
            return was_listed(k);
        case clock_task::reads_device:
            return was_polled(k);
        case clock_task::steers:
            if (dpll_steer_run(&k->steering)) was_steered(k);
            return;
        case clock_task::none:
            return;
    }
}

// Does what is wanted, as far as the driver has answered.
void work(dpll_kernel* k) {
    while (!genl_waits(&k->link)) {
        if (k->task != clock_task::none)
            go_on(k);
        else if (!begin_next(k))
            break;
    }
    // On the way the clock may be between two sources.
    if (k->task != clock_task::steers && !k->steer_wanted) report(k);
}

// --- events ---

int again_due(thread* event) {
    auto* k = static_cast<dpll_kernel*>(event->arg);
    k->again_timer = nullptr;
    const bool ask_links = std::exchange(k->pins_changed, false);
    if (ask_links) k->sink.pins(k->sink.arg);
    k->awaits_links = ask_links && !k->awaits_links;  // once: changes without end hold up nothing
    if (k->awaits_links) {
        again_in(k, AGAIN_MS);
        return 0;
    }
    k->read_wanted |= k->stale;
    k->steer_wanted = true;
    work(k);
    return 0;
}

void again_in(dpll_kernel* k, std::uint32_t ms) {
    if (k->again_timer && ms) return;
    thread_cancel(k->again_timer);
    k->again_timer = thread_add_timer_msec(k->ctx, again_due, k, ms);
}

int readable(thread* event) {
    auto* k = static_cast<dpll_kernel*>(event->arg);
    genl_read(&k->link);
    work(k);
    (void)netlink_channel_listen(&k->link.channel);  // logged; the poll reads too
    return 0;
}

int poll_due(thread* event) {
    auto* k = static_cast<dpll_kernel*>(event->arg);
    k->poll_timer = nullptr;
    k->poll_wanted = k->has_device;
    work(k);
    if (k->stale) again_in(k, 0);
    k->poll_timer = thread_add_timer_msec(k->ctx, poll_due, k, POLL_MS);
    return 0;
}

void apply(void* self, const dpll_wanted& wanted) {
    auto* k = static_cast<dpll_kernel*>(self);
    k->wanted = wanted;
    k->was_asked = true;
    k->busy_tries = 0;
    k->steer_wanted = true;
    if (k->task == clock_task::steers) dpll_steer_abandon(&k->steering);
    work(k);
}

const char* subject(const dpll_kernel* k, char (&out)[80]) {
    const dpll_device* d = k->has_device ? dpll_view_device(&k->view, k->device) : nullptr;
    if (d)
        std::snprintf(out, sizeof out, "the driver of clock device %u (%s)", d->id, d->module);
    else
        std::snprintf(out, sizeof out, "the driver of the clock");
    return out;
}

void tend(void* self) {
    auto* k = static_cast<dpll_kernel*>(self);
    char words[80];
    genl_tend(&k->link, subject(k, words));
}

void port(void* self, const nsmd_port&, port_event event) {
    auto* k = static_cast<dpll_kernel*>(self);
    // The hardware sees its links itself; what matters here is which pin stands for which port.
    if (event == port_event::up || event == port_event::down) return;
    k->stale = true;
    again_in(k, AGAIN_MS);
}

dpll_report current(const void* self) {
    return static_cast<const dpll_kernel*>(self)->now;
}

bool status(const void* self, text_buffer* out) {
    const auto* k = static_cast<const dpll_kernel*>(self);
    const dpll_device* d = k->has_device ? dpll_view_device(&k->view, k->device) : nullptr;
    char words[80];
    if (!netlink_channel_status(&k->link.channel, subject(k, words), out)) return false;
    if (!d) return text_printf(out, "clock: kernel interface, no device\n");
    bool ok =
        text_printf(out,
                    "clock: kernel device %u (%s %016" PRIx64 "), %s, status %u, error %u; %" PRIu64
                    " settings, %" PRIu64 " refused\n",
                    d->id, d->module, d->clock_id, d->mode == DPLL_MODE_AUTOMATIC ? "automatic" : "manual",
                    d->status, d->error, k->steering.settings, k->steering.refusals);
    static const char* const states[] = {"", ", connected", ", disconnected", ", selectable"};
    for (const dpll_pin_node* n = k->view.pins; ok && n; n = n->next) {
        if (!dpll_view_leads_to(&k->view, n->pin, k->device)) continue;
        ok = text_printf(out, "%s:", dpll_pin_words(&k->view, k->table, n->pin.id, words));
        for (std::size_t i = 0; ok && i < n->pin.parent_count; ++i) {
            const dpll_parent& p = n->pin.parents[i];
            ok = text_printf(out, " on %s %u%s%s", p.is_pin ? "pin" : "device", p.id,
                             p.state < std::size(states) ? states[p.state] : "",
                             p.operstate == PIN_OPER_ACTIVE ? ", active" : "");
            if (ok && p.has_prio) ok = text_printf(out, ", priority %u", p.prio);
        }
        ok = ok && text_printf(out, "\n");
    }
    return ok;
}

void finish(void* self) {
    auto* k = static_cast<dpll_kernel*>(self);
    thread_cancel(k->poll_timer);
    thread_cancel(k->again_timer);
    genl_close(&k->link);
    dpll_view_clear(&k->view);
    dpll_view_clear(&k->fresh);
    memmgr_free(k, MTYPE_NSMD);
}

int start(dpll_kernel* k, const netlink_edge& edge, bool need_device) {
    int result = genl_open(&k->link, edge, DPLL_FAMILY, DPLL_GROUP, {message_came, messages_lost, k});
    if (result < 0) return result;
    k->read_wanted = true;
    work(k);
    if (k->read_result < 0) return k->read_result;
    choose_device(k);
    if (!k->has_device && need_device) return -ENODEV;
    if (!k->has_device) log_suite(LOG_LEVEL_WARNING, "clock: no kernel device yet, waiting for one");
    k->now = observe(k);
    k->poll_timer = thread_add_timer_msec(k->ctx, poll_due, k, POLL_MS);
    return k->poll_timer && netlink_channel_attach(&k->link.channel, k->ctx, readable, k, false) ? 0
                                                                                                 : -ENOMEM;
}

}  // namespace

dpll_backend dpll_kernel_create(lib_globals* ctx, const port_table* table, const netlink_edge& edge,
                                const dpll_kernel_options& options, bool need_device, const dpll_sink& sink,
                                int* error) {
    dpll_backend backend = {apply, port, current, status, finish, nullptr, tend};
    auto* k = static_cast<dpll_kernel*>(memmgr_calloc(sizeof(dpll_kernel), MTYPE_NSMD));
    *error = -ENOMEM;
    if (!k) return backend;
    k->ctx = ctx;
    k->table = table;
    k->options = options;
    k->sink = sink;
    k->link.channel.fd = -1;
    k->now = {DPLL_FREERUN, 0};
    k->steering.link = &k->link;
    k->steering.view = &k->view;
    k->steering.table = table;
    *error = start(k, edge, need_device);
    if (*error < 0)
        finish(k);
    else
        backend.self = k;
    return backend;
}
