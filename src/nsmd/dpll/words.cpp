// Puts devices and pins into words: tables of the interface's numbers, and what is told of a pin in one line.
// Pure functions.
#include <cinttypes>
#include <cstdlib>
#include <span>

#include "nsmd/dpll/view.h"

namespace {

constexpr const char* MODES[] = {"no mode", "manual", "automatic"};
constexpr const char* TYPES[] = {"unknown", "PPS", "EEC", "generic"};
constexpr const char* STATUSES[] = {"unknown", "unlocked", "locked", "locked, holdover acquired", "holdover"};
constexpr const char* ERRORS[] = {"none", "none", "undefined", "media down", "frequency offset too high"};
constexpr const char* PIN_TYPES[] = {
    "", "MUX", "external", "SyncE port", "internal oscillator", "GNSS", "controlled oscillator"};
constexpr const char* STATES[] = {"", ", connected", ", disconnected", ", selectable"};
constexpr const char* OPERSTATES[] = {"", ", active", ", standby", ", no signal", ", quality failed"};

// What the table does not have is as its first word says.
const char* word_of(std::span<const char* const> words, std::uint32_t number) {
    return words[number < words.size() ? number : 0];
}

bool put_measured(const dpll_measured& m, text_buffer* out) {
    bool ok = true;
    if (m.has_offset)
        ok = text_printf(out, "; frequency offset %s%" PRIu64 ".%03" PRIu64 " ppb",
                         m.offset_ppt < 0 ? "-" : "",
                         static_cast<std::uint64_t>(std::llabs(m.offset_ppt)) / 1000,
                         static_cast<std::uint64_t>(std::llabs(m.offset_ppt)) % 1000);
    if (ok && m.has_frequency)
        ok = text_printf(out, "; measured %" PRIu64 ".%03" PRIu64 " Hz", m.frequency_mhz / 1000,
                         m.frequency_mhz % 1000);
    return ok;
}

bool put_place(const dpll_parent& p, text_buffer* out) {
    bool ok = text_printf(out, " %s %s %u%s%s", p.direction == PIN_OUTPUT ? "to" : "on",
                          p.is_pin ? "pin" : "device", p.id, word_of(STATES, p.state),
                          word_of(OPERSTATES, p.operstate));
    if (ok && p.has_prio) ok = text_printf(out, ", priority %u", p.prio);
    return ok && put_measured(p.measured, out);
}

bool put_label(const char* kind, const char* label, text_buffer* out) {
    return !*label || text_printf(out, "; %s %s", kind, label);
}

}  // namespace

const char* dpll_mode_word(std::uint32_t mode) {
    return word_of(MODES, mode);
}

const char* dpll_lock_error_words(std::uint32_t error) {
    return word_of(ERRORS, error);
}

bool dpll_put_device(const dpll_device& d, text_buffer* out) {
    return text_printf(out, "(%s %016" PRIx64 "), %s, status %u (%s), error %u (%s), type %s", d.module,
                       d.clock_id, dpll_mode_word(d.mode), d.status, word_of(STATUSES, d.status), d.error,
                       dpll_lock_error_words(d.error), word_of(TYPES, d.type));
}

bool dpll_put_pin(const dpll_pin& pin, text_buffer* out) {
    bool ok = true;
    for (std::size_t i = 0; ok && i < pin.parent_count; ++i) ok = put_place(pin.parents[i], out);
    const char* type = word_of(PIN_TYPES, pin.type);
    if (ok && *type) ok = text_printf(out, "; %s", type);
    return ok && put_label("label", pin.board_label, out) && put_label("panel", pin.panel_label, out) &&
           put_label("package", pin.package_label, out) && put_measured(pin.measured, out);
}

const dpll_measured& dpll_measured_of(const dpll_pin& pin, std::uint32_t device) {
    const dpll_parent* place = dpll_pin_on(pin, device, false);
    const bool is_told = place && (place->measured.has_offset || place->measured.has_frequency);
    return is_told ? place->measured : pin.measured;
}

std::uint32_t dpll_operstate_of(const dpll_pin& pin, std::uint32_t device) {
    std::uint32_t behind_mux = 0;
    for (std::size_t i = 0; i < pin.parent_count; ++i) {
        const dpll_parent& p = pin.parents[i];
        if (!p.is_pin && p.id == device) return p.operstate;
        if (p.is_pin && p.operstate) behind_mux = p.operstate;
    }
    return behind_mux;
}

const char* dpll_label_of(const dpll_pin& pin) {
    if (pin.board_label[0]) return pin.board_label;
    return pin.panel_label[0] ? pin.panel_label : pin.package_label;
}
