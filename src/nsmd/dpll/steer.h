// Carries out what the plan for the kernel's clock says, one setting after the other.
#pragma once

#include "nsmd/dpll/plan.h"
#include "nsmd/dpll/singly.h"

constexpr std::size_t DPLL_MANAGED_MAX = PORT_INDEX_MAX + 2;

enum class dpll_steer_end {
    reached,
    busy,       // the driver wants to be asked again later
    failed,     // the target can't be had
    abandoned,  // there is another goal, or no device
};

enum class dpll_steer_phase { over, plan, looks, sets, checks, looks_at_target };

// What a driver refused, and was said in the log: of tries without end only the first is.
struct dpll_refusal {
    std::uint32_t pin;
    const char* what;
    int error;
};

struct dpll_steering {
    genl* link;  // its sink keeps `view` true
    dpll_view* view;
    const dpll_bad_pins* bad;
    const port_table* table;
    std::uint64_t settings, refusals;
    dpll_goal goal;
    std::uint32_t managed[DPLL_MANAGED_MAX];
    // What is under way: a request of the link, but in `over` and `plan`.
    dpll_steer_phase phase;
    dpll_setting setting;
    int set_result;
    bool is_second_round;
    bool is_abandoned;
    dpll_steer_end end;  // how it went, once it is over
    dpll_tried tried;
    char why[128];  // what was not done in the last steering, empty: nothing
    dpll_refusal said[16];
    bool no_guard_said;
    std::size_t said_count;  // whoever has a new wish, or sees an old one fulfilled, clears it
};

// Begins to bring the clock to the goal, whose list of pins is copied: settings until the plan has none left.
void dpll_steer_begin(dpll_steering* s, const dpll_goal& goal);
// Goes on as far as the answers that are there allow. True when it is over.
bool dpll_steer_run(dpll_steering* s);
// Ends it after the setting under way: what it was for is not wanted any more.
void dpll_steer_abandon(dpll_steering* s);
bool dpll_steer_is_over(const dpll_steering* s);

// Asks for one device or pin; the link's sink gets the answer.
void dpll_read_device(genl* link, std::uint32_t id);
void dpll_read_pin(genl* link, std::uint32_t id);

// "pin 5 (sw3)": the port's name, else the pin's label. Returns `out`.
const char* dpll_pin_words(const dpll_view* view, const port_table* table, std::uint32_t id, char (&out)[80]);
