// Carries the plan's settings out. Called by the kernel backend; owns nothing but the list of what was tried.
// After each setting the pin is read again, because drivers differ in what else a setting changes; what the
// kernel then shows counts, not the code that it answered with. A refusal is said in one line.
#include "nsmd/clock/steer.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "suite/log/log.h"

namespace {

int read_one(genl* link, dpll_command command, std::uint16_t attr, std::uint32_t id) {
    nl_builder request;
    genl_begin(link, &request, command, DPLL_VERSION, false);
    nl_put_u32(&request, attr, id);
    return genl_transact(link, request);
}

void say_refusal(dpll_steering* s, const dpll_setting& setting, int result) {
    char pin[80];
    ++s->refusals;
    const char* what = setting.what == DPLL_PIN_A_PRIO ? "rank" : setting.releases ? "release" : "use";
    log_suite(LOG_LEVEL_WARNING, "clock: can't %s %s: %s", what,
              dpll_pin_words(s->view, s->table, setting.pin, pin), std::strerror(-result));
}

// A setting that the pin's driver does not offer is not tried: the answer is known.
bool is_offered(const dpll_steering* s, const dpll_setting& setting) {
    const dpll_pin* pin = dpll_view_pin(s->view, setting.pin);
    return pin && (pin->capabilities & (setting.what == DPLL_PIN_A_PRIO ? PIN_CAN_PRIO : PIN_CAN_STATE));
}

int set_pin(dpll_steering* s, const dpll_setting& setting) {
    if (!is_offered(s, setting)) return -EOPNOTSUPP;
    nl_builder request;
    genl_begin(s->link, &request, DPLL_CMD_PIN_SET, DPLL_VERSION, false);
    dpll_put_pin_setting(&request, setting.pin, setting.parent, setting.what, setting.value);
    ++s->settings;
    return genl_transact(s->link, request);
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

dpll_steer_end carry_out(dpll_steering* s, const dpll_setting& setting) {
    const int result = set_pin(s, setting);
    if (result == -EBUSY || result == -EAGAIN) return dpll_steer_end::busy;
    (void)dpll_read_pin(s->link, setting.pin);  // refused as well as done: what is true counts
    // Some drivers call it an error when it was so already.
    if (result == 0 || is_so(s, setting)) return dpll_steer_end::reached;
    say_refusal(s, setting, result);
    const bool forbidden = result == -EPERM || result == -EACCES;
    const bool target_refused = !setting.releases && setting.what == DPLL_PIN_A_STATE;
    return forbidden || target_refused ? dpll_steer_end::failed : dpll_steer_end::reached;
}

dpll_steer_end run_round(dpll_steering* s, const dpll_goal& goal) {
    dpll_setting setting;
    s->tried.count = 0;
    for (;;) {
        const dpll_step step = dpll_plan_next(s->view, goal, s->tried, &setting);
        if (step == dpll_step::done) return dpll_steer_end::reached;
        if (step == dpll_step::unreachable) {
            log_suite(LOG_LEVEL_WARNING, "clock: pin %u is no input of device %u", goal.target, goal.device);
            return dpll_steer_end::failed;
        }
        s->tried.settings[s->tried.count++] = setting;
        // The driver may have released it by itself when the target came in.
        if (setting.releases && dpll_read_pin(s->link, setting.pin) == 0 && is_so(s, setting)) continue;
        const dpll_steer_end end = carry_out(s, setting);
        if (end != dpll_steer_end::reached) return end;
    }
}

}  // namespace

dpll_steer_end dpll_steer_to(dpll_steering* s, const dpll_goal& goal) {
    const dpll_steer_end end = run_round(s, goal);
    if (end != dpll_steer_end::reached || !goal.has_target) return end;
    // Releasing others may have taken the target along.
    (void)dpll_read_pin(s->link, goal.target);
    return run_round(s, goal);
}

int dpll_read_device(genl* link, std::uint32_t id) {
    return read_one(link, DPLL_CMD_DEVICE_GET, DPLL_A_ID, id);
}

int dpll_read_pin(genl* link, std::uint32_t id) {
    return read_one(link, DPLL_CMD_PIN_GET, DPLL_PIN_A_ID, id);
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
