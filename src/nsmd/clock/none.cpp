// A switch without clock hardware: the requests have been logged by whoever took them, the state is
// free-running for ever.
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
    return {"none", apply, port, current, status, finish, nullptr};
}
