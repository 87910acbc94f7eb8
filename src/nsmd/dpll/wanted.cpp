// What follows from what is wanted of the clock and what is known of it: which device, which pins are ours,
// which of them is to be followed, what the daemon is told. Called by the kernel backend; changes nothing in
// the hardware. What can't be had is said once for each wish.
#include <cinttypes>
#include <cstdio>

#include "nsmd/dpll/record.h"
#include "suite/log/log.h"

namespace {

std::size_t managed_pins(const dpll_kernel* k, std::uint32_t (&out)[DPLL_MANAGED_MAX]) {
    std::size_t count = 0;
    for (const nsmd_port* p = port_table_first(k->table); p; p = p->next)
        if (p->ifindex && p->has_dpll_pin && count < PORT_INDEX_MAX) out[count++] = p->dpll_pin;
    for (const char* name : k->options.bits)
        if (const dpll_pin* pin = name ? dpll_view_named_pin(&k->view, name) : nullptr)
            out[count++] = pin->id;
    return count;
}

std::uint32_t source_of(const dpll_kernel* k, const dpll_pin& pin) {
    for (const nsmd_port* p = port_table_first(k->table); p; p = p->next)
        if (p->ifindex && p->has_dpll_pin && p->dpll_pin == pin.id) return p->ifindex;
    for (const char* name : k->options.bits)
        if (name && dpll_view_named_pin(&k->view, name) == &pin) return DPLL_SOURCE_BITS;
    return 0;
}

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

// Seen so, or nothing else is seen.
bool may_follow_a_bad_pin(const dpll_kernel* k, const dpll_pin* input, const dpll_pin* child) {
    if (!input || (input->type == DPLL_PIN_MUX && !child)) return k->singly_tries > 0;
    return dpll_is_bad(k->singly.bad, input->id) || (child && dpll_is_bad(k->singly.bad, child->id));
}

bool has_no_pin(dpll_kernel* k, const char* what) {
    std::snprintf(k->trouble, sizeof k->trouble, "%s, nothing to follow", what);
    if (!k->no_pin_said) log_suite(LOG_LEVEL_WARNING, "clock: %s", k->trouble);
    k->no_pin_said = true;
    return false;
}

bool find_input(dpll_kernel* k, std::uint32_t* pin) {
    const char* name = k->options.bits[k->wanted.recovery_select - 1];
    if (const dpll_pin* input = name ? dpll_view_named_pin(&k->view, name) : nullptr) {
        *pin = input->id;
        return true;
    }
    char what[64];
    std::snprintf(what, sizeof what, "no pin for external input %u", k->wanted.recovery_select);
    return has_no_pin(k, what);
}

bool find_port_pin(dpll_kernel* k, std::uint32_t* pin) {
    const nsmd_port* port = port_table_find(k->table, k->wanted.selected);
    if (port && port->has_dpll_pin) {
        *pin = port->dpll_pin;
        return true;
    }
    char what[64];
    std::snprintf(what, sizeof what, "port %u (%s) has no clock pin", k->wanted.selected,
                  port ? port->name : "unknown");
    return has_no_pin(k, what);
}

// The pin to follow. False: none, with the reason said where that is not what was asked for.
bool find_target(dpll_kernel* k, std::uint32_t* pin) {
    const dpll_wanted& w = k->wanted;
    if (!w.enable || w.holdover) return false;
    const bool found = w.recovery_select ? find_input(k, pin) : find_port_pin(k, pin);
    if (found) k->no_pin_said = false;
    return found;
}

bool asks_for_something(const dpll_wanted& w) {
    return !w.enable || w.holdover || w.recovery_select || w.selected;
}

}  // namespace

const dpll_device* dpll_kernel_device(const dpll_kernel* k) {
    return k->has_device ? dpll_view_device(&k->view, k->device) : nullptr;
}

bool dpll_kernel_is_lost(const dpll_kernel* k) {
    return k->unread >= DPLL_UNREAD_LOST || k->held >= DPLL_HELD_LOST;
}

const char* dpll_kernel_subject(const dpll_kernel* k, char (&out)[80]) {
    if (const dpll_device* d = dpll_kernel_device(k))
        std::snprintf(out, sizeof out, "the driver of clock device %u (%s)", d->id, d->module);
    else
        std::snprintf(out, sizeof out, "the driver of the clock");
    return out;
}

bool dpll_kernel_choose(dpll_kernel* k) {
    std::uint32_t pins[DPLL_MANAGED_MAX];
    const std::size_t count = managed_pins(k, pins);
    const dpll_device* d = dpll_view_choose(&k->view, k->options.device, pins, count);
    const bool had = k->has_device;
    const std::uint32_t before = k->device;
    k->has_device = d != nullptr;
    if (!d && had) log_suite(LOG_LEVEL_WARNING, "clock: kernel device %u is gone", before);
    if (!d) return false;
    k->device = d->id;
    if (had && before == d->id) return false;
    k->unread = 0;
    log_suite(LOG_LEVEL_INFO, "clock: kernel device %u of %s, clock %016" PRIx64 ", %s", d->id, d->module,
              d->clock_id, d->mode == DPLL_MODE_AUTOMATIC ? "automatic" : "manual");
    return true;
}

bool dpll_kernel_goal(dpll_kernel* k, dpll_goal* goal, std::uint32_t (&pins)[DPLL_MANAGED_MAX]) {
    if (!k->was_asked || !dpll_kernel_device(k) || !asks_for_something(k->wanted)) return false;
    *goal = {};
    goal->device = k->device;
    goal->has_target = find_target(k, &goal->target);
    goal->managed = pins;
    goal->managed_count = managed_pins(k, pins);
    goal->prio_best = k->options.prio_best;
    goal->prio_other = k->options.prio_other;
    return true;
}

dpll_report dpll_kernel_observe(const dpll_kernel* k, bool* is_clear) {
    *is_clear = true;
    const dpll_device* d = dpll_kernel_device(k);
    if (!d || dpll_kernel_is_lost(k)) return {DPLL_FREERUN, 0};
    if (k->unread >= DPLL_UNREAD_DOUBTED) return {DPLL_TRANSIENT, 0};
    const std::uint32_t state = state_of(*d);
    if (state != DPLL_LOCKED) return {state, 0};
    const dpll_pin* child = nullptr;
    const dpll_pin* input = dpll_view_active_input(&k->view, d->id, &child);
    *is_clear = input != nullptr;
    if (may_follow_a_bad_pin(k, input, child)) return {DPLL_TRANSIENT, 0};
    return {state, child ? source_of(k, *child) : input ? source_of(k, *input) : 0};
}
