// Reads and builds the messages of the kernel's clock interface. Pure functions, called by the kernel
// backend. Attributes that are not known are skipped, those that are missing stay zero.
#include "nsmd/clock/message.h"

#include <algorithm>
#include <cstring>

namespace {

template <std::size_t size>
void copy_text(char (&out)[size], const_octets value) {
    const std::string_view text = nl_text(value);
    const std::size_t length = std::min(text.size(), size - 1);
    std::memcpy(out, text.data(), length);
    out[length] = 0;
}

void parse_parent(const_octets nest, bool is_pin, dpll_pin* out) {
    if (out->parent_count == dpll_pin::PARENTS_MAX) return;
    dpll_parent parent{};
    parent.is_pin = is_pin;
    bool named = false;
    nl_attr attr;
    while (nl_next_attr(&nest, &attr)) {
        switch (attr.type) {
            case DPLL_PIN_A_PARENT_ID:
                parent.id = nl_u32(attr.value);
                named = true;
                break;
            case DPLL_PIN_A_DIRECTION:
                parent.direction = nl_u32(attr.value);
                break;
            case DPLL_PIN_A_STATE:
                parent.state = nl_u32(attr.value);
                break;
            case DPLL_PIN_A_OPERSTATE:
                parent.operstate = nl_u32(attr.value);
                break;
            case DPLL_PIN_A_PRIO:
                parent.prio = nl_u32(attr.value);
                parent.has_prio = true;
                break;
            default:
                break;
        }
    }
    if (named) out->parents[out->parent_count++] = parent;
}

}  // namespace

bool dpll_device_parse(const_octets attributes, dpll_device* out) {
    *out = dpll_device{};
    bool named = false;
    nl_attr attr;
    while (nl_next_attr(&attributes, &attr)) {
        switch (attr.type) {
            case DPLL_A_ID:
                out->id = nl_u32(attr.value);
                named = attr.value.size() >= 4;
                break;
            case DPLL_A_MODULE_NAME:
                copy_text(out->module, attr.value);
                break;
            case DPLL_A_CLOCK_ID:
                out->clock_id = nl_u64(attr.value);
                break;
            case DPLL_A_MODE:
                out->mode = nl_u32(attr.value);
                break;
            case DPLL_A_LOCK_STATUS:
                out->status = nl_u32(attr.value);
                break;
            case DPLL_A_LOCK_STATUS_ERROR:
                out->error = nl_u32(attr.value);
                break;
            case DPLL_A_TYPE:
                out->type = nl_u32(attr.value);
                break;
            default:
                break;
        }
    }
    return named;
}

bool dpll_pin_parse(const_octets attributes, dpll_pin* out) {
    *out = dpll_pin{};
    bool named = false;
    nl_attr attr;
    while (nl_next_attr(&attributes, &attr)) {
        switch (attr.type) {
            case DPLL_PIN_A_ID:
                out->id = nl_u32(attr.value);
                named = attr.value.size() >= 4;
                break;
            case DPLL_PIN_A_BOARD_LABEL:
                copy_text(out->board_label, attr.value);
                break;
            case DPLL_PIN_A_PANEL_LABEL:
                copy_text(out->panel_label, attr.value);
                break;
            case DPLL_PIN_A_PACKAGE_LABEL:
                copy_text(out->package_label, attr.value);
                break;
            case DPLL_PIN_A_TYPE:
                out->type = nl_u32(attr.value);
                break;
            case DPLL_PIN_A_CAPABILITIES:
                out->capabilities = nl_u32(attr.value);
                break;
            case DPLL_PIN_A_PARENT_DEVICE:
                parse_parent(attr.value, false, out);
                break;
            case DPLL_PIN_A_PARENT_PIN:
                parse_parent(attr.value, true, out);
                break;
            default:
                break;
        }
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
