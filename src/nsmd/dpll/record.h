// The kernel backend's record and what its files call of each other. Private to the kernel backend.
#pragma once

#include "nsmd/dpll/kernel.h"
#include "nsmd/dpll/steer.h"
#include "suite/log/limit.h"
#include "suite/loop/retry.h"

enum class clock_task {
    none,
    reads_devices,
    reads_pins,
    reads_singly,
    reads_device,
    reads_target,
    sets_mode,
    reads_mode,
    steers
};

// Polls in a row that did not tell the device's state: so many, and what it was is not believed any more; so
// many, and the clock is taken to run free.
constexpr unsigned DPLL_UNREAD_DOUBTED = 3, DPLL_UNREAD_LOST = 10;
// Polls that did not come to pass behind one setting or list that takes its time, until the same.
constexpr unsigned DPLL_HELD_LOST = 30;

struct dpll_kernel {
    lib_globals* ctx;
    const port_table* table;
    dpll_kernel_options options;
    dpll_sink sink;
    genl link;
    dpll_view view;
    bool has_device;
    std::uint32_t device;
    dpll_wanted wanted;
    bool was_asked;  // `wanted` holds
    dpll_report now;
    clock_task task;
    bool read_wanted, steer_wanted, poll_wanted;  // the tasks to come, in this order
    bool pins_changed;                            // since the links were last asked for theirs
    bool awaits_links;                            // their answers come before the tasks
    thread* poll_timer;
    thread* again_timer;  // the hardware changed: read, and state what is wanted again

    // Reading.
    bool stale;       // what is known may be old: read all
    dpll_view fresh;  // being read; what was known before serves until it is whole
    unsigned dump_tries;
    retry reading;  // after one that failed
    unsigned read_tries;
    int read_result;
    nanoseconds list_fails_since;  // that of the pins, while that of the devices does not; 0: it doesn't
    dpll_singly singly;
    unsigned singly_tries;     // that the view is of, one by one; 0: it is whole
    std::uint32_t polled_pin;  // the one to be followed, as it was last asked for
    unsigned unread;           // polls in a row that told nothing
    int unread_result;
    unsigned held;              // polls that wait behind another request
    nanoseconds unclear_since;  // locked, but to nothing that is seen; 0: not so

    // Steering.
    dpll_steering steering;
    retry steers_again;  // what is wanted is not so
    unsigned steer_tries;
    char trouble[128];       // why it is not so; empty: it is
    bool fell_back;          // holding over, as the source can't be followed
    bool fall_said;          // of this wish
    bool no_pin_said;        // of this wish
    bool settled;            // at the end of the last steering all was as it was to be
    bool pins_heard;         // since then
    nanoseconds calm_since;  // it has been so; 0: never yet, or it is not so
    bool mode_tried;         // before this steering
    int mode_result;         // of the last setting of the mode
    bool mode_said;          // that it can't be set
    log_limit hand_said;
    std::uint64_t hands;  // how often the pins were changed by somebody else
};

// wanted.cpp: what follows from what is wanted and known.

// Takes the device that is to drive the clock; true: another one than before.
bool dpll_kernel_choose(dpll_kernel* k);
// What is to be done about the pins, with `pins` as the place for the list of ours. False: nothing.
bool dpll_kernel_goal(dpll_kernel* k, dpll_goal* goal, std::uint32_t (&pins)[DPLL_MANAGED_MAX]);
// What the device does. `*is_clear` false: locked, but no input is seen to be in use, as between the release
// of a pin and the hardware's own word that the lock is lost.
dpll_report dpll_kernel_observe(const dpll_kernel* k, bool* is_clear);
bool dpll_kernel_is_lost(const dpll_kernel* k);               // nothing has been known of its state for long
const dpll_device* dpll_kernel_device(const dpll_kernel* k);  // null: none
// "the driver of clock device 5 (chip)". Returns `out`.
const char* dpll_kernel_subject(const dpll_kernel* k, char (&out)[80]);

// status.cpp
void dpll_kernel_details(const void* self, void (*take)(void* arg, const dpll_detail& detail), void* arg);
bool dpll_kernel_status(const void* self, text_buffer* out);
