// What is known of the kernel's clock devices and pins.
#pragma once

#include "nsmd/dpll/message.h"
#include "suite/base/text.h"

struct dpll_device_node {
    dpll_device device;
    dpll_device_node* next;
};

struct dpll_pin_node {
    dpll_pin pin;
    dpll_pin_node* next;
};

struct dpll_view {
    dpll_device_node* devices = nullptr;  // by ascending identity
    dpll_pin_node* pins = nullptr;        // by ascending identity
};

// Stores what a message says about a device (pin), over what was known. False when memory is exhausted.
bool dpll_view_take_device(dpll_view* view, const dpll_device& device);
bool dpll_view_take_pin(dpll_view* view, const dpll_pin& pin);
void dpll_view_drop_device(dpll_view* view, std::uint32_t id);
void dpll_view_drop_pin(dpll_view* view, std::uint32_t id);
void dpll_view_clear(dpll_view* view);

const dpll_device* dpll_view_device(const dpll_view* view, std::uint32_t id);
const dpll_pin* dpll_view_pin(const dpll_view* view, std::uint32_t id);
// By identity in decimal, or by any of its labels.
const dpll_pin* dpll_view_named_pin(const dpll_view* view, const char* name);
// The device that drives Ethernet clocks: the named one ("ID", "MODULE" or "MODULE/CLOCKID" with the clock in
// hexadecimal), else the first of that type, one that `pin` leads to before others. Null when there is none.
const dpll_device* dpll_view_choose(const dpll_view* view, const char* name, const std::uint32_t* pins,
                                    std::size_t pin_count);

// The pin's place on a device (pin); null when it does not hang there.
const dpll_parent* dpll_pin_on(const dpll_pin& pin, std::uint32_t parent_id, bool parent_is_pin);
// The pin hangs on the device, directly or through a MUX pin.
bool dpll_view_leads_to(const dpll_view* view, const dpll_pin& pin, std::uint32_t device);
// The input that the device follows: a pin directly on it, or null. `*child`: where that is a MUX pin, the
// pin that it passes on, else null.
const dpll_pin* dpll_view_active_input(const dpll_view* view, std::uint32_t device, const dpll_pin** child);

// words.cpp: the same in words, for the status report and the probe.

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
