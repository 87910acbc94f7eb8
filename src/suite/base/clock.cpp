// The one place that reads the system's clocks. Everything else takes its time from the event loop's turn, so
// that a test can put a clock of its own there.
#include "suite/base/clock.h"

#include <ctime>

namespace {

nanoseconds read_clock(clockid_t id) {
    timespec t{};
    // Can only fail for a clock that the system does not have; both of ours are always there.
    (void)clock_gettime(id, &t);
    return static_cast<nanoseconds>(t.tv_sec) * NS_PER_S + static_cast<nanoseconds>(t.tv_nsec);
}

}  // namespace

nanoseconds monotonic_now() {
    return read_clock(CLOCK_MONOTONIC);
}

nanoseconds wall_now() {
    return read_clock(CLOCK_REALTIME);
}
