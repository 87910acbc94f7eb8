// Pins one by one, for the time that the kernel's list of them ends at one that can't be read. Called by the
// kernel backend, between the list of devices and the view that is made of all.
//
// Asked for are the ports' pins, the named inputs, what was known before, and the MUX pins that they lead to;
// what the list told before it ended is there already. Of a pin that can't be read the last record is kept as
// long as the device may be following it, so that it can be released.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "nsmd/dpll/record.h"
#include "suite/log/log.h"

namespace {

dpll_bad_pin* find(dpll_kernel* k, std::uint32_t id) {
    for (std::size_t i = 0; i < k->bad.count; ++i)
        if (k->bad.pins[i].id == id) return &k->bad.pins[i];
    return nullptr;
}

bool is_to_be_asked(dpll_kernel* k, std::uint32_t id) {
    const dpll_bad_pin* bad = find(k, id);
    return !(bad && bad->was_asked) && !dpll_view_pin(&k->fresh, id);
}

bool next_named(dpll_kernel* k, std::uint32_t* id) {
    for (const char* name : k->options.bits) {
        char* end = nullptr;
        *id = name ? static_cast<std::uint32_t>(std::strtoul(name, &end, 10)) : 0;
        if (name && end != name && !*end && is_to_be_asked(k, *id)) return true;
    }
    return false;
}

bool next_mux(dpll_kernel* k, std::uint32_t* id) {
    for (const dpll_pin_node* n = k->fresh.pins; n; n = n->next)
        for (std::size_t i = 0; i < n->pin.parent_count; ++i) {
            *id = n->pin.parents[i].id;
            if (n->pin.parents[i].is_pin && is_to_be_asked(k, *id)) return true;
        }
    return false;
}

bool next(dpll_kernel* k, std::uint32_t* id) {
    for (const nsmd_port* p = port_table_first(k->table); p; p = p->next)
        if (*id = p->dpll_pin; p->has_dpll_pin && is_to_be_asked(k, *id)) return true;
    for (const dpll_pin_node* n = k->view.pins; n; n = n->next)
        if (*id = n->pin.id; is_to_be_asked(k, *id)) return true;
    return next_named(k, id) || next_mux(k, id);
}

bool may_be_followed(const dpll_pin& pin) {
    for (std::size_t i = 0; i < pin.parent_count; ++i)
        if (pin.parents[i].state != PIN_DISCONNECTED) return true;
    return false;
}

void keep_record(dpll_kernel* k, std::uint32_t id) {
    const dpll_pin* before = dpll_view_pin(&k->view, id);
    if (!before || !may_be_followed(*before)) return;
    if (!dpll_view_take_pin(&k->fresh, *before)) log_suite(LOG_LEVEL_ERROR, "clock: no memory for a pin");
}

void say(dpll_kernel* k, dpll_bad_pin* bad) {
    char words[80];
    if (!bad->was_said)
        log_suite(LOG_LEVEL_WARNING, "clock: %s can't be read: %s; going on without it",
                  dpll_pin_words(&k->view, k->table, bad->id, words), std::strerror(-bad->error));
    bad->was_said = true;
}

void say_good(dpll_kernel* k, const dpll_bad_pin& bad) {
    char words[80];
    if (bad.was_said && dpll_view_pin(&k->fresh, bad.id))
        log_suite(LOG_LEVEL_INFO, "clock: %s can be read again",
                  dpll_pin_words(&k->fresh, k->table, bad.id, words));
}

}  // namespace

void dpll_singly_begin(dpll_kernel* k) {
    for (std::size_t i = 0; i < k->bad.count; ++i) k->bad.pins[i].was_asked = false;
}

bool dpll_singly_ask(dpll_kernel* k) {
    std::uint32_t id = 0;
    if (k->bad.count == dpll_bad_pins::MAX || !next(k, &id)) return false;
    k->asked_pin = id;
    dpll_read_pin(&k->link, id);
    return true;
}

void dpll_singly_answered(dpll_kernel* k, int result) {
    if (result == 0 && dpll_view_pin(&k->fresh, k->asked_pin)) return;
    dpll_bad_pin* bad = find(k, k->asked_pin);
    const bool was_said = bad && bad->was_said;
    if (!bad) bad = &k->bad.pins[k->bad.count++];
    *bad = {k->asked_pin, result, true, was_said};
}

void dpll_singly_end(dpll_kernel* k) {
    std::size_t left = 0;
    for (std::size_t i = 0; i < k->bad.count; ++i) {
        dpll_bad_pin bad = k->bad.pins[i];
        const bool is_bad = bad.was_asked && bad.error < 0 && bad.error != -ENODEV;
        if (!is_bad) {
            say_good(k, bad);
            continue;
        }
        say(k, &bad);
        keep_record(k, bad.id);
        k->bad.pins[left++] = bad;
    }
    k->bad.count = left;
}
