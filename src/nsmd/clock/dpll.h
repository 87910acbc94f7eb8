// The clock hardware as nsmd sees it: what esmcd wants of it, what it reports, and the backends that do it.
#pragma once

#include <cstdint>

#include "nsmd/links/port_table.h"
#include "suite/base/context.h"
#include "suite/base/text.h"
#include "suite/manager/wire.h"

// States on the NSM link. Any other value is transient: the daemon shows it and changes nothing.
enum dpll_state : std::uint32_t { DPLL_FREERUN = 2, DPLL_HOLDOVER = 3, DPLL_LOCKED = 4, DPLL_TRANSIENT = 5 };

constexpr std::uint32_t DPLL_SOURCE_BITS = 9999;  // the index that stands for an external input

// What the daemon asked for last, of each kind. The hardware follows the whole of it: off means free-running;
// else a holdover that was asked for; else the external input, or the selected port.
struct dpll_wanted {
    bool enable;
    std::uint32_t recovery_select;  // 0 the ports, 1 and 2 the external inputs
    bool holdover;
    std::uint32_t selected;  // esmcd's interface index; 0: nothing said yet, what is followed stays
};

struct dpll_report {
    std::uint32_t state;
    std::uint32_t source;  // interface index of the reference in use, DPLL_SOURCE_BITS, or 0 for none
};

// What else is known of the clock or of a pin, as the link tells it (suite/manager/wire.h).
struct dpll_detail {
    std::uint32_t subject;  // 0 the clock; else a source, as in the report
    std::uint32_t known;    // nsm_detail_body::HAS_...; what is not known is zero
    std::uint32_t error, quality, state;
    std::int64_t offset_ppt;
    std::uint64_t frequency_mhz;
    char label[nsm_detail_body::LABEL_SIZE];  // filled up with zeros
};

struct dpll_sink {
    void (*report)(void* arg, const dpll_report& report);  // something in it changed
    void (*pins)(void* arg);  // pins came or went: which port has which is to be asked again
    void* arg;
};

// One backend. Reports come from the loop or from inside of the calls.
struct dpll_backend {
    void (*apply)(void* self, const dpll_wanted& wanted);  // requests came, or must be stated again
    void (*port)(void* self, const nsmd_port& port, port_event event);
    dpll_report (*current)(const void* self);
    bool (*status)(const void* self, text_buffer* out);
    void (*finish)(void* self);  // frees; the hardware is left as it is
    void* self;
    // Once a second while nsmd serves, the first time when it begins to: from then on nothing may wait for a
    // driver. Null: nothing to do.
    void (*tend)(void* self) = nullptr;
    // Hands over what is known now, of the clock and of each port. Null, or nothing: there is no more to
    // tell.
    void (*details)(const void* self, void (*take)(void* arg, const dpll_detail& detail),
                    void* arg) = nullptr;
};

// The clock that is none: free-running whatever is asked.
dpll_backend dpll_none();

const char* dpll_state_word(std::uint32_t state);
