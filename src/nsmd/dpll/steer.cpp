// Carries the plan's settings out, a step for each answer. Called by the kernel backend; owns the goal, the
// setting under way and the list of what was tried. After each setting the pin is read again, because drivers
// differ in what else a setting changes; what the kernel then shows counts, not the code that it answered
// with. A refusal is said in one line.
#include "nsmd/dpll/steer.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <utility>

#include "suite/log/log.h"

namespace {

void read_one(genl* link, dpll_command command, std::uint16_t attr, std::uint32_t id) {
    nl_builder request;
    genl_begin(link, &request, command, DPLL_VERSION, false);
    nl_put_u32(&request, attr, id);
    genl_request(link, request);
}

// True: this has been said before, or too much was.
bool is_said(dpll_steering* s, const dpll_refusal& refusal) {
    for (std::size_t i = 0; i < s->said_count; ++i) {
        const dpll_refusal& r = s->said[i];
        if (r.pin == refusal.pin && r.error == refusal.error && std::strcmp(r.what, refusal.what) == 0)
            return true;
    }
    if (s->said_count == std::size(s->said)) return true;
    s->said[s->said_count++] = refusal;
    return false;
}

const char* verb_of(const dpll_setting& setting) {
    return setting.what == DPLL_PIN_A_PRIO ? "rank" : setting.releases ? "release" : "use";
}

void note_refusal(dpll_steering* s, int error) {
    char pin[80];
    std::snprintf(s->why, sizeof s->why, "can't %s %s: %s", verb_of(s->setting),
                  dpll_pin_words(s->view, s->table, s->setting.pin, pin), std::strerror(-error));
}

void say_refusal(dpll_steering* s) {
    ++s->refusals;
    note_refusal(s, s->set_result);
    if (!is_said(s, {s->setting.pin, verb_of(s->setting), s->set_result}))
        log_suite(LOG_LEVEL_WARNING, "clock: %s", s->why);
}

// A setting that the pin's driver does not offer is not tried: the answer is known.
bool is_offered(const dpll_steering* s, const dpll_setting& setting) {
    const dpll_pin* pin = dpll_view_pin(s->view, setting.pin);
    return pin && (pin->capabilities & (setting.what == DPLL_PIN_A_PRIO ? PIN_CAN_PRIO : PIN_CAN_STATE));
}

// The pin is as the setting would make it.
bool is_so(const dpll_steering* s, const dpll_setting& setting) {
    const dpll_pin* pin = dpll_view_pin(s->view, setting.pin);
    const dpll_parent* place = pin ? dpll_pin_on(*pin, setting.parent.id, setting.parent.is_pin) : nullptr;
    if (!place) return setting.releases;
    if (setting.what == DPLL_PIN_A_PRIO) return place->prio == setting.value;
    return place->state == setting.value ||
           (setting.value == PIN_SELECTABLE && place->state == PIN_CONNECTED);
}

void finish(dpll_steering* s, dpll_steer_end end) {
    s->phase = dpll_steer_phase::over;
    s->end = end;
}

// A setting that was taken, of a pin that can't be read: the next release is planned by it.
void believe(dpll_steering* s) {
    const dpll_pin* known = dpll_view_pin(s->view, s->setting.pin);
    if (!known) return;
    dpll_pin pin = *known;
    for (std::size_t i = 0; i < pin.parent_count; ++i) {
        dpll_parent& place = pin.parents[i];
        if (place.id != s->setting.parent.id || place.is_pin != s->setting.parent.is_pin) continue;
        (s->setting.what == DPLL_PIN_A_PRIO ? place.prio : place.state) = s->setting.value;
    }
    (void)dpll_view_take_pin(s->view, pin);  // over what is there
}

// Refused as well as done: what is true counts.
void check(dpll_steering* s, int set_result) {
    s->set_result = set_result;
    s->phase = dpll_steer_phase::checks;
    dpll_read_pin(s->link, s->setting.pin);
}

// Once: it is a property of the driver.
void say_no_guard(dpll_steering* s) {
    char pin[80];
    if (s->setting.what != DPLL_PIN_A_PRIO || !s->setting.releases) return;
    if (std::exchange(s->no_guard_said, true)) return;
    log_suite(LOG_LEVEL_WARNING,
              "clock: %s can be ranked, but not ruled out: the device may go on following it",
              dpll_pin_words(s->view, s->table, s->setting.pin, pin));
}

void set(dpll_steering* s) {
    say_no_guard(s);
    if (!is_offered(s, s->setting)) return check(s, -EOPNOTSUPP);
    nl_builder request;
    genl_begin(s->link, &request, DPLL_CMD_PIN_SET, DPLL_VERSION, false);
    dpll_put_pin_setting(&request, s->setting.pin, s->setting.parent, s->setting.what, s->setting.value);
    ++s->settings;
    s->phase = dpll_steer_phase::sets;
    genl_request(s->link, request);
}

void was_set(dpll_steering* s) {
    const int result = s->link->result;
    // -EPIPE: the helper is gone, and what became of the setting is not known.
    if (result != -EBUSY && result != -EAGAIN && result != -EPIPE) return check(s, result);
    note_refusal(s, result);
    finish(s, dpll_steer_end::busy);
}

void was_checked(dpll_steering* s) {
    s->phase = dpll_steer_phase::plan;
    if (s->set_result == 0 && s->link->result < 0 && dpll_is_bad(*s->bad, s->setting.pin)) believe(s);
    // Some drivers call it an error when it was so already.
    if (s->set_result == 0 || is_so(s, s->setting)) return;
    say_refusal(s);
    const bool forbidden = s->set_result == -EPERM || s->set_result == -EACCES;
    const bool target_refused = !s->setting.releases && s->setting.what == DPLL_PIN_A_STATE;
    if (forbidden || target_refused) finish(s, dpll_steer_end::failed);
}

void round_is_done(dpll_steering* s) {
    if (!s->goal.has_target || s->is_second_round) return finish(s, dpll_steer_end::reached);
    // Releasing others may have taken the target along.
    s->is_second_round = true;
    s->tried.count = 0;
    s->phase = dpll_steer_phase::looks_at_target;
    dpll_read_pin(s->link, s->goal.target);
}

void say_unreachable(dpll_steering* s) {
    char pin[80];
    const char* fault = dpll_is_bad(*s->bad, s->goal.target) ? "can't be read, so is" : "is";
    std::snprintf(s->why, sizeof s->why, "%s %s no input of device %u",
                  dpll_pin_words(s->view, s->table, s->goal.target, pin), fault, s->goal.device);
    if (!is_said(s, {s->goal.target, "reach", 0})) log_suite(LOG_LEVEL_WARNING, "clock: %s", s->why);
}

void plan(dpll_steering* s) {
    if (!dpll_view_device(s->view, s->goal.device)) s->is_abandoned = true;
    if (s->is_abandoned) return finish(s, dpll_steer_end::abandoned);
    const dpll_step step = dpll_plan_next(s->view, s->goal, &s->tried, &s->setting);
    if (step == dpll_step::done) return round_is_done(s);
    if (step == dpll_step::unreachable) {
        say_unreachable(s);
        return finish(s, dpll_steer_end::failed);
    }
    s->tried.settings[s->tried.count++] = s->setting;
    if (!s->setting.releases) return set(s);
    // The driver may have released it by itself when the target came in.
    s->phase = dpll_steer_phase::looks;
    dpll_read_pin(s->link, s->setting.pin);
}

void was_looked_at(dpll_steering* s) {
    if (!s->is_abandoned && !(s->link->result == 0 && is_so(s, s->setting))) return set(s);
    s->phase = dpll_steer_phase::plan;
}

void go_on(dpll_steering* s) {
    switch (s->phase) {
        case dpll_steer_phase::looks:
            return was_looked_at(s);
        case dpll_steer_phase::sets:
            return was_set(s);
        case dpll_steer_phase::checks:
            return was_checked(s);
        case dpll_steer_phase::plan:
            return plan(s);
        case dpll_steer_phase::looks_at_target:
            s->phase = dpll_steer_phase::plan;
            return;
        case dpll_steer_phase::over:
            return;
    }
}

}  // namespace

void dpll_steer_begin(dpll_steering* s, const dpll_goal& goal) {
    if (goal.managed != s->managed) std::copy_n(goal.managed, goal.managed_count, s->managed);
    s->goal = goal;
    s->goal.managed = s->managed;
    s->tried.count = 0;
    s->is_second_round = s->is_abandoned = false;
    s->set_result = 0;
    s->why[0] = 0;
    s->phase = dpll_steer_phase::plan;
}

bool dpll_steer_run(dpll_steering* s) {
    while (s->phase != dpll_steer_phase::over && !genl_waits(s->link)) go_on(s);
    return s->phase == dpll_steer_phase::over;
}

void dpll_steer_abandon(dpll_steering* s) {
    s->is_abandoned = true;
}

bool dpll_steer_is_over(const dpll_steering* s) {
    return s->phase == dpll_steer_phase::over;
}

void dpll_read_device(genl* link, std::uint32_t id) {
    read_one(link, DPLL_CMD_DEVICE_GET, DPLL_A_ID, id);
}

void dpll_read_pin(genl* link, std::uint32_t id) {
    read_one(link, DPLL_CMD_PIN_GET, DPLL_PIN_A_ID, id);
}

const char* dpll_pin_words(const dpll_view* view, const port_table* table, std::uint32_t id,
                           char (&out)[80]) {
    const nsmd_port* p = port_table_first(table);
    while (p && !(p->has_dpll_pin && p->dpll_pin == id)) p = p->next;
    const dpll_pin* pin = dpll_view_pin(view, id);
    const char* name = p ? p->name : pin && pin->board_label[0] ? pin->board_label : "unnamed";
    std::snprintf(out, sizeof out, "pin %u (%s)", id, name);
    return out;
}
