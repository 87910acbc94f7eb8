// Reads and builds the messages of the kernel's clock interface. Pure functions, called by the kernel
// backend. Attributes that are not known are skipped, those that are missing stay zero.
#include "nsmd/dpll/message.h"

namespace {

// An attribute of 32 bits and where it goes.
template <typename record>
struct number_field {
    std::uint16_t type;
    std::uint32_t record::*to;
};

constexpr number_field<dpll_device> DEVICE_NUMBERS[] = {
    {DPLL_A_ID, &dpll_device::id},
    {DPLL_A_MODE, &dpll_device::mode},
    {DPLL_A_LOCK_STATUS, &dpll_device::status},
    {DPLL_A_LOCK_STATUS_ERROR, &dpll_device::error},
    {DPLL_A_TYPE, &dpll_device::type},
};

constexpr number_field<dpll_pin> PIN_NUMBERS[] = {
    {DPLL_PIN_A_ID, &dpll_pin::id},
    {DPLL_PIN_A_TYPE, &dpll_pin::type},
    {DPLL_PIN_A_CAPABILITIES, &dpll_pin::capabilities},
};

constexpr number_field<dpll_parent> PARENT_NUMBERS[] = {
    {DPLL_PIN_A_PARENT_ID, &dpll_parent::id}, {DPLL_PIN_A_DIRECTION, &dpll_parent::direction},
    {DPLL_PIN_A_STATE, &dpll_parent::state},  {DPLL_PIN_A_OPERSTATE, &dpll_parent::operstate},
    {DPLL_PIN_A_PRIO, &dpll_parent::prio},
};

template <typename record, std::size_t count>
void take_number(const number_field<record> (&fields)[count], const nl_attr& attr, record* out) {
    for (const auto& field : fields)
        if (field.type == attr.type) out->*field.to = nl_u32(attr.value);
}

// Of the two forms of the offset the finer one counts, in whatever order they come.
void take_measured(const nl_attr& attr, dpll_measured* out) {
    constexpr std::int64_t PPT_IN_PPM = 1000000;
    if (attr.type == DPLL_PIN_A_MEASURED_FREQUENCY) {
        out->has_frequency = true;
        out->frequency_mhz = nl_u64(attr.value);
    }
    const bool is_fine = attr.type == DPLL_PIN_A_FFO_PPT;
    if (!is_fine && (attr.type != DPLL_PIN_A_FFO || out->offset_is_fine)) return;
    out->has_offset = true;
    out->offset_is_fine = is_fine;
    const std::int64_t value = nl_sint(attr.value);
    if (__builtin_mul_overflow(value, is_fine ? 1 : PPT_IN_PPM, &out->offset_ppt)) out->has_offset = false;
}

std::uint32_t bit_of(const_octets value) {
    const std::uint32_t number = nl_u32(value);
    return number < 32 ? std::uint32_t{1} << number : 0;
}

void parse_parent(const_octets nest, bool is_pin, dpll_pin* out) {
    if (out->parent_count == dpll_pin::PARENTS_MAX) return;
    dpll_parent parent{};
    parent.is_pin = is_pin;
    bool named = false;
    nl_attr attr;
    while (nl_next_attr(&nest, &attr)) {
        take_number(PARENT_NUMBERS, attr, &parent);
        named |= attr.type == DPLL_PIN_A_PARENT_ID;
        parent.has_prio |= attr.type == DPLL_PIN_A_PRIO;
        take_measured(attr, &parent.measured);
    }
    if (named) out->parents[out->parent_count++] = parent;
}

}  // namespace

bool dpll_device_parse(const_octets attributes, dpll_device* out) {
    *out = dpll_device{};
    bool named = false;
    nl_attr attr;
    while (nl_next_attr(&attributes, &attr)) {
        take_number(DEVICE_NUMBERS, attr, out);
        named |= attr.type == DPLL_A_ID && attr.value.size() >= 4;
        if (attr.type == DPLL_A_MODULE_NAME) nl_copy_text(out->module, attr.value);
        if (attr.type == DPLL_A_CLOCK_ID) out->clock_id = nl_u64(attr.value);
        if (attr.type == DPLL_A_MODE_SUPPORTED) out->modes |= bit_of(attr.value);
        if (attr.type == DPLL_A_CLOCK_QUALITY_LEVEL) out->quality |= bit_of(attr.value);
    }
    return named;
}

bool dpll_pin_parse(const_octets attributes, dpll_pin* out) {
    *out = dpll_pin{};
    bool named = false;
    nl_attr attr;
    while (nl_next_attr(&attributes, &attr)) {
        take_number(PIN_NUMBERS, attr, out);
        named |= attr.type == DPLL_PIN_A_ID && attr.value.size() >= 4;
        if (attr.type == DPLL_PIN_A_BOARD_LABEL) nl_copy_text(out->board_label, attr.value);
        if (attr.type == DPLL_PIN_A_PANEL_LABEL) nl_copy_text(out->panel_label, attr.value);
        if (attr.type == DPLL_PIN_A_PACKAGE_LABEL) nl_copy_text(out->package_label, attr.value);
        take_measured(attr, &out->measured);
        if (attr.type == DPLL_PIN_A_PARENT_DEVICE) parse_parent(attr.value, false, out);
        if (attr.type == DPLL_PIN_A_PARENT_PIN) parse_parent(attr.value, true, out);
    }
    return named;
}

void dpll_put_pin_setting(nl_builder* b, std::uint32_t pin, const dpll_parent& parent, dpll_pin_attr what,
                          std::uint32_t value) {
    nl_put_u32(b, DPLL_PIN_A_ID, pin);
    const std::size_t nest =
        nl_nest_begin(b, parent.is_pin ? DPLL_PIN_A_PARENT_PIN : DPLL_PIN_A_PARENT_DEVICE);
    nl_put_u32(b, DPLL_PIN_A_PARENT_ID, parent.id);
    nl_put_u32(b, what, value);
    nl_nest_end(b, nest);
}

void dpll_put_mode(nl_builder* b, std::uint32_t device, std::uint32_t mode) {
    nl_put_u32(b, DPLL_A_ID, device);
    nl_put_u32(b, DPLL_A_MODE, mode);
}
