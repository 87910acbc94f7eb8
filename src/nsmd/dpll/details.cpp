// What the kernel's clock tells beyond its state, for the daemon: the lock's error, and of each port's pin
// its label, its operational state and its frequency.
#include <cstring>

#include "nsmd/dpll/record.h"
#include "nsmd/dpll/words.h"

namespace {

// Of several levels, which stand for several kinds of network, the one that promises least. Numbers grow with
// the kernel's list, not with the quality.
std::uint32_t level_of(const dpll_device& d) {
    static constexpr std::uint32_t FROM_WORST[] = {4, 7, 3, 2, 1, 8, 5, 6};
    for (const std::uint32_t level : FROM_WORST)
        if (d.quality & std::uint32_t{1} << level) return level;
    return 0;
}

dpll_detail of_clock(const dpll_kernel* k, const dpll_device& d) {
    dpll_detail out{};
    out.error = d.error;
    out.quality = k->options.tells_quality ? level_of(d) : 0;
    out.known =
        (out.error ? nsm_detail_body::HAS_ERROR : 0U) | (out.quality ? nsm_detail_body::HAS_QUALITY : 0U);
    return out;
}

dpll_detail of_pin(const dpll_kernel* k, std::uint32_t subject, const dpll_pin* pin) {
    dpll_detail out{};
    out.subject = subject;
    if (!pin) return out;
    const dpll_measured& m = dpll_measured_of(*pin, k->device);
    out.state = dpll_operstate_of(*pin, k->device);
    if (out.state) out.known |= nsm_detail_body::HAS_STATE;
    if (m.has_offset) out.known |= nsm_detail_body::HAS_OFFSET;
    if (m.has_frequency) out.known |= nsm_detail_body::HAS_FREQUENCY;
    out.offset_ppt = m.has_offset ? m.offset_ppt : 0;
    out.frequency_mhz = m.has_frequency ? m.frequency_mhz : 0;
    const char* label = dpll_label_of(*pin);
    std::memcpy(out.label, label, strnlen(label, sizeof out.label));
    return out;
}

}  // namespace

void dpll_kernel_details(const void* self, void (*take)(void*, const dpll_detail&), void* arg) {
    const auto* k = static_cast<const dpll_kernel*>(self);
    const dpll_device* d = dpll_kernel_device(k);
    if (!d) return;
    take(arg, of_clock(k, *d));
    for (const nsmd_port* p = port_table_first(k->table); p; p = p->next)
        if (p->ifindex)
            take(arg,
                 of_pin(k, p->ifindex, p->has_dpll_pin ? dpll_view_pin(&k->view, p->dpll_pin) : nullptr));
}
