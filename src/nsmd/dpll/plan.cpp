// The rules for steering the kernel's clock devices. Pure functions; the kernel backend carries the settings
// out one by one and asks again after each, with what the kernel then says.
//
// A pin hangs directly on the device, or on MUX pins which do. A manual device follows the pin that is
// connected; an automatic one chooses among those that are selectable, by priority. A child of a MUX is
// connected to it, and the MUX pin takes the child's place on the device.
//
// Releasing: a manual device's pin is released only while the kernel still shows it as connected. Drivers
// that switch over by themselves have done so by then, and one of them forces holdover whenever any pin is
// disconnected.
#include "nsmd/dpll/plan.h"

namespace {

struct planner {
    const dpll_view* view;
    const dpll_goal& goal;
    const dpll_tried* tried;  // null: none
    const dpll_device* device;
    dpll_setting* out;
};

bool propose(const planner& p, std::uint32_t pin, const dpll_parent& parent, dpll_pin_attr what,
             std::uint32_t value, bool releases) {
    *p.out = {pin, parent, what, value, releases};
    return !p.tried || !dpll_tried_has(*p.tried, *p.out);
}

bool is_automatic(const planner& p) {
    return p.device->mode == DPLL_MODE_AUTOMATIC;
}

// Makes a pin that is directly on the device the one that it follows.
bool bring_in(const planner& p, const dpll_pin& pin, const dpll_parent& place) {
    if (!is_automatic(p)) {
        return place.state != PIN_CONNECTED &&
               propose(p, pin.id, place, DPLL_PIN_A_STATE, PIN_CONNECTED, false);
    }
    const bool can_rank = (pin.capabilities & PIN_CAN_PRIO) && place.has_prio;
    if (can_rank && place.prio != p.goal.prio_best &&
        propose(p, pin.id, place, DPLL_PIN_A_PRIO, p.goal.prio_best, false))
        return true;
    return place.state == PIN_DISCONNECTED &&
           propose(p, pin.id, place, DPLL_PIN_A_STATE, PIN_SELECTABLE, false);
}

bool is_managed(const dpll_goal& goal, std::uint32_t pin) {
    for (std::size_t i = 0; i < goal.managed_count; ++i)
        if (goal.managed[i] == pin) return true;
    return false;
}

// Another pin of ours is connected to the MUX.
bool is_taken(const planner& p, std::uint32_t mux) {
    for (const dpll_pin_node* n = p.view->pins; n; n = n->next) {
        const dpll_parent* place = dpll_pin_on(n->pin, mux, true);
        if (place && n->pin.id != p.goal.target && place->state == PIN_CONNECTED &&
            is_managed(p.goal, n->pin.id))
            return true;
    }
    return false;
}

// The target's way through a MUX: one that it is connected to, else one that nobody of ours uses (the old
// source then stays until the new one is there), else the first.
const dpll_parent* choose_mux(const planner& p, const dpll_pin& target) {
    const dpll_parent *unused = nullptr, *first = nullptr;
    for (std::size_t i = 0; i < target.parent_count; ++i) {
        const dpll_parent& place = target.parents[i];
        const dpll_pin* mux = place.is_pin ? dpll_view_pin(p.view, place.id) : nullptr;
        if (!mux || !dpll_pin_on(*mux, p.goal.device, false)) continue;
        if (place.state == PIN_CONNECTED) return &place;
        if (!unused && !is_taken(p, mux->id)) unused = &place;
        if (!first) first = &place;
    }
    return unused ? unused : first;
}

dpll_step bring_target_in(const planner& p) {
    const dpll_pin* target = dpll_view_pin(p.view, p.goal.target);
    if (!target) return dpll_step::unreachable;
    if (const dpll_parent* place = dpll_pin_on(*target, p.goal.device, false))
        return bring_in(p, *target, *place) ? dpll_step::set : dpll_step::done;
    const dpll_parent* via = choose_mux(p, *target);
    if (!via) return dpll_step::unreachable;
    if (via->state != PIN_CONNECTED && propose(p, target->id, *via, DPLL_PIN_A_STATE, PIN_CONNECTED, false))
        return dpll_step::set;
    const dpll_pin* mux = dpll_view_pin(p.view, via->id);
    return bring_in(p, *mux, *dpll_pin_on(*mux, p.goal.device, false)) ? dpll_step::set : dpll_step::done;
}

bool release_place(const planner& p, const dpll_pin& pin, const dpll_parent& place) {
    if (!place.is_pin && place.id != p.goal.device) return false;
    if (!place.is_pin && place.direction == PIN_OUTPUT) return false;
    const bool may_be_chosen = !place.is_pin && is_automatic(p) && place.state == PIN_SELECTABLE;
    if (place.state != PIN_CONNECTED && !may_be_chosen) return false;
    if ((pin.capabilities & PIN_CAN_STATE) || !place.has_prio)
        return propose(p, pin.id, place, DPLL_PIN_A_STATE, PIN_DISCONNECTED, true);
    return place.prio != p.goal.prio_other &&
           propose(p, pin.id, place, DPLL_PIN_A_PRIO, p.goal.prio_other, true);
}

bool release_others(const planner& p) {
    for (std::size_t i = 0; i < p.goal.managed_count; ++i) {
        const dpll_pin* pin = dpll_view_pin(p.view, p.goal.managed[i]);
        if (!pin || (p.goal.has_target && pin->id == p.goal.target)) continue;
        for (std::size_t k = 0; k < pin->parent_count; ++k)
            if (release_place(p, *pin, pin->parents[k])) return true;
    }
    return false;
}

}  // namespace

bool dpll_tried_has(const dpll_tried& tried, const dpll_setting& s) {
    for (std::size_t i = 0; i < tried.count; ++i) {
        const dpll_setting& t = tried.settings[i];
        if (t.pin == s.pin && t.parent.id == s.parent.id && t.parent.is_pin == s.parent.is_pin &&
            t.what == s.what && t.value == s.value)
            return true;
    }
    // A list that is full ends the round.
    return tried.count == dpll_tried::MAX;
}

dpll_step dpll_plan_next(const dpll_view* view, const dpll_goal& goal, const dpll_tried* tried,
                         dpll_setting* out) {
    const planner p{view, goal, tried, dpll_view_device(view, goal.device), out};
    if (!p.device) return dpll_step::unreachable;
    if (goal.has_target) {
        const dpll_step step = bring_target_in(p);
        if (step != dpll_step::done) return step;
    }
    return release_others(p) ? dpll_step::set : dpll_step::done;
}

bool dpll_plan_is_unsafe(const dpll_view* view, const dpll_goal& goal) {
    dpll_setting release;
    const planner p{view, goal, nullptr, dpll_view_device(view, goal.device), &release};
    return p.device && release_others(p);
}
