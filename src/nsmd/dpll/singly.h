// Reading the pins that the kernel's list leaves out: it ends at the first one that can't be read.
#pragma once

#include "nsmd/dpll/view.h"
#include "nsmd/links/port_table.h"
#include "nsmd/netlink/genl.h"

struct dpll_bad_pin {
    std::uint32_t id;
    int error;       // negative errno; what is not there (-ENODEV) was asked for, but is not bad
    bool was_asked;  // in this reading
    bool was_said;   // in the log
};

// Pins that the driver could not read when all were read last.
struct dpll_bad_pins {
    static constexpr std::size_t MAX = PORT_INDEX_MAX + 65;
    dpll_bad_pin pins[MAX];
    std::size_t count;
};

struct dpll_singly {
    genl* link;        // whose sink puts what is read into `fresh`
    dpll_view* fresh;  // with what the list told before it ended
    const dpll_view* known;
    const port_table* table;
    const char* const* names;  // of the two external inputs, or null
    dpll_bad_pins bad;
    std::uint32_t asked;
    std::size_t said;  // lines of the log about pins of `bad`, since it was empty
};

void dpll_singly_begin(dpll_singly* s);  // before the list is asked for
bool dpll_singly_ask(dpll_singly* s);    // for the next pin; false: there is none
void dpll_singly_answered(dpll_singly* s);
// All is read: `bad` is what could not be, which the log says once, and `fresh` has the last record of each
// that the device may be following.
void dpll_singly_end(dpll_singly* s);

bool dpll_is_bad(const dpll_bad_pins& bad, std::uint32_t id);
// "pin 5 (swp2): can't be read: Input/output error", a line for each.
bool dpll_put_bad_pins(const dpll_singly& s, text_buffer* out);
