// Which setting of which pin brings the clock closer to what is wanted of it: a decision without effect.
#pragma once

#include "nsmd/dpll/view.h"

struct dpll_goal {
    std::uint32_t device;
    bool has_target;
    std::uint32_t target;          // the pin to follow; without one, none of ours
    const std::uint32_t* managed;  // the pins that are ours to release, the target among them
    std::size_t managed_count;
    std::uint32_t prio_best, prio_other;
};

struct dpll_setting {
    std::uint32_t pin;
    dpll_parent parent;
    dpll_pin_attr what;  // DPLL_PIN_A_STATE or DPLL_PIN_A_PRIO
    std::uint32_t value;
    bool releases;  // takes a pin away, rather than bringing the target in
};

// Settings that were tried in this round already: a driver that accepts one and shows no effect, or refuses
// it, is not asked again in it.
struct dpll_tried {
    static constexpr std::size_t MAX = 640;  // two settings of each of 255 pins, and some
    dpll_setting settings[MAX];
    std::size_t count = 0;
};
bool dpll_tried_has(const dpll_tried& tried, const dpll_setting& setting);

enum class dpll_step { done, set, unreachable };

// The next setting, of those that were not tried (null: none was): the target comes in before others are
// released, because some drivers fall into holdover when a pin is released. `unreachable`: no way leads from
// the target's pin to the device.
dpll_step dpll_plan_next(const dpll_view* view, const dpll_goal& goal, const dpll_tried* tried,
                         dpll_setting* out);

// The device follows, or may turn to, a pin of ours that is not the target: one that must be released.
bool dpll_plan_is_unsafe(const dpll_view* view, const dpll_goal& goal);
