// What is common to all clocks, and the one that is none: a switch without clock hardware runs free for ever,
// whatever is asked. The requests have been logged by whoever took them.
#include "nsmd/clock/dpll.h"

namespace {

void apply(void*, const dpll_wanted&) {}
void port(void*, const nsmd_port&, port_event) {}
dpll_report current(const void*) {
    return {DPLL_FREERUN, 0};
}
bool status(const void*, text_buffer* out) {
    return text_printf(out, "clock: no hardware\n");
}
void finish(void*) {}

}  // namespace

dpll_backend dpll_none() {
    return {apply, port, current, status, finish, nullptr};
}

const char* dpll_state_word(std::uint32_t state) {
    switch (state) {
        case DPLL_FREERUN:
            return "free-running";
        case DPLL_HOLDOVER:
            return "holdover";
        case DPLL_LOCKED:
            return "locked";
        default:
            return "in transition";
    }
}
