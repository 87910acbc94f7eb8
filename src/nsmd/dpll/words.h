// Clock devices and pins in words, for the status report and the probe.
#pragma once

#include "nsmd/dpll/view.h"
#include "suite/base/text.h"

const char* dpll_mode_word(std::uint32_t mode);
const char* dpll_lock_error_words(std::uint32_t error);

// "(chip 0102030405060708), type EEC, manual, status 3 (locked, holdover acquired), error 1 (none)"
bool dpll_put_device(const dpll_device& device, text_buffer* out);
// " on device 1, connected, priority 0; label SWP0; frequency offset 1.250 ppb"
bool dpll_put_pin(const dpll_pin& pin, text_buffer* out);

// Towards this device where that is told, else of the pin itself.
const dpll_measured& dpll_measured_of(const dpll_pin& pin, std::uint32_t device);
// Its operational state on the device, or on a MUX pin before it; 0: not told.
std::uint32_t dpll_operstate_of(const dpll_pin& pin, std::uint32_t device);
// The first label that it has, or "".
const char* dpll_label_of(const dpll_pin& pin);
