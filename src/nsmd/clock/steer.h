// Carries out what the plan for the kernel's clock says, one setting after the other.
#pragma once

#include "nsmd/clock/plan.h"
#include "nsmd/links/port_table.h"
#include "nsmd/netlink/genl.h"

struct dpll_steering {
    genl* link;  // its sink keeps `view` true
    dpll_view* view;
    const port_table* table;
    std::uint64_t settings, refusals;
    dpll_tried tried;
};

enum class dpll_steer_end {
    reached,
    busy,    // the driver wants to be asked again later
    failed,  // the target can't be had; logged
};

// Brings the clock to the goal: settings until the plan has none left.
dpll_steer_end dpll_steer_to(dpll_steering* s, const dpll_goal& goal);

// Asks for one device or pin; the link's sink gets the answer. 0 or a negative errno.
int dpll_read_device(genl* link, std::uint32_t id);
int dpll_read_pin(genl* link, std::uint32_t id);

// "pin 5 (sw3)": the port's name, else the pin's label. Returns `out`.
const char* dpll_pin_words(const dpll_view* view, const port_table* table, std::uint32_t id, char (&out)[80]);
