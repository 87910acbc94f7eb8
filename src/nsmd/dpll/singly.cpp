// Pins one by one, for the time that the kernel's list of them ends at one that can't be read. Called by the
// kernel backend, between the list of devices and the view that is made of all, and by the probe.
//
// Asked for are the ports' pins, the named inputs, what was known before, and the MUX pins that they lead to;
// what the list told before it ended is there already. Of a pin that can't be read the last record is kept as
// long as the device may be following it, so that it can be released.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "nsmd/dpll/steer.h"
#include "suite/log/log.h"

namespace {

constexpr std::size_t SAID_MAX = 8;

dpll_bad_pin* find(dpll_singly* s, std::uint32_t id) {
    for (std::size_t i = 0; i < s->bad.count; ++i)
        if (s->bad.pins[i].id == id) return &s->bad.pins[i];
    return nullptr;
}

bool is_to_be_asked(dpll_singly* s, std::uint32_t id) {
    const dpll_bad_pin* bad = find(s, id);
    return !(bad && bad->was_asked) && !dpll_view_pin(s->fresh, id);
}

bool next_named(dpll_singly* s, std::uint32_t* id) {
    for (std::size_t i = 0; i < 2; ++i) {
        const char* name = s->names[i];
        char* end = nullptr;
        *id = name ? static_cast<std::uint32_t>(std::strtoul(name, &end, 10)) : 0;
        if (name && end != name && !*end && is_to_be_asked(s, *id)) return true;
    }
    return false;
}

bool next_mux(dpll_singly* s, std::uint32_t* id) {
    for (const dpll_pin_node* n = s->fresh->pins; n; n = n->next)
        for (std::size_t i = 0; i < n->pin.parent_count; ++i) {
            *id = n->pin.parents[i].id;
            if (n->pin.parents[i].is_pin && is_to_be_asked(s, *id)) return true;
        }
    return false;
}

bool next(dpll_singly* s, std::uint32_t* id) {
    for (const nsmd_port* p = port_table_first(s->table); p; p = p->next)
        if (*id = p->dpll_pin; p->has_dpll_pin && is_to_be_asked(s, *id)) return true;
    for (const dpll_pin_node* n = s->known->pins; n; n = n->next)
        if (*id = n->pin.id; is_to_be_asked(s, *id)) return true;
    return next_named(s, id) || next_mux(s, id);
}

bool is_bad(const dpll_bad_pin& pin) {
    return pin.error < 0 && pin.error != -ENODEV;
}

bool may_be_followed(const dpll_pin& pin) {
    for (std::size_t i = 0; i < pin.parent_count; ++i)
        if (pin.parents[i].state != PIN_DISCONNECTED) return true;
    return false;
}

void keep_record(dpll_singly* s, std::uint32_t id) {
    const dpll_pin* before = dpll_view_pin(s->known, id);
    if (!before || !may_be_followed(*before)) return;
    if (!dpll_view_take_pin(s->fresh, *before)) log_suite(LOG_LEVEL_ERROR, "clock: no memory for a pin");
}

// Of many that are bad together a line each would bury the log.
void say(dpll_singly* s, dpll_bad_pin* bad) {
    char words[80];
    if (bad->was_said || s->said > SAID_MAX) return;
    bad->was_said = s->said < SAID_MAX;
    if (bad->was_said)
        log_suite(LOG_LEVEL_WARNING, "clock: %s can't be read: %s; going on without it",
                  dpll_pin_words(s->known, s->table, bad->id, words), std::strerror(-bad->error));
    else
        log_suite(LOG_LEVEL_WARNING, "clock: more pins can't be read; the status report lists them");
    ++s->said;
}

void say_good(dpll_singly* s, const dpll_bad_pin& bad) {
    char words[80];
    if (bad.was_said && dpll_view_pin(s->fresh, bad.id))
        log_suite(LOG_LEVEL_INFO, "clock: %s can be read again",
                  dpll_pin_words(s->fresh, s->table, bad.id, words));
}

}  // namespace

void dpll_singly_begin(dpll_singly* s) {
    for (std::size_t i = 0; i < s->bad.count; ++i) s->bad.pins[i].was_asked = false;
}

bool dpll_singly_ask(dpll_singly* s) {
    std::uint32_t id = 0;
    if (s->bad.count == dpll_bad_pins::MAX || !next(s, &id)) return false;
    s->asked = id;
    dpll_read_pin(s->link, id);
    return true;
}

void dpll_singly_answered(dpll_singly* s) {
    if (s->link->result == 0 && dpll_view_pin(s->fresh, s->asked)) return;
    dpll_bad_pin* bad = find(s, s->asked);
    const bool was_said = bad && bad->was_said;
    if (!bad) bad = &s->bad.pins[s->bad.count++];
    *bad = {s->asked, s->link->result, true, was_said};
}

void dpll_singly_end(dpll_singly* s) {
    std::size_t left = 0;
    for (std::size_t i = 0; i < s->bad.count; ++i) {
        dpll_bad_pin bad = s->bad.pins[i];
        if (!bad.was_asked || !is_bad(bad)) {
            say_good(s, bad);
            continue;
        }
        say(s, &bad);
        keep_record(s, bad.id);
        s->bad.pins[left++] = bad;
    }
    s->bad.count = left;
    if (left == 0) s->said = 0;
}

bool dpll_is_bad(const dpll_bad_pins& bad, std::uint32_t id) {
    return std::any_of(bad.pins, bad.pins + bad.count,
                       [=](const dpll_bad_pin& b) { return b.id == id && is_bad(b); });
}

bool dpll_put_bad_pins(const dpll_singly& s, text_buffer* out) {
    bool ok = true;
    char words[80];
    for (const dpll_bad_pin* b = s.bad.pins; ok && b < s.bad.pins + s.bad.count; ++b)
        if (is_bad(*b))
            ok = text_printf(out, "%s: can't be read: %s\n", dpll_pin_words(s.known, s.table, b->id, words),
                             std::strerror(-b->error));
    return ok;
}
