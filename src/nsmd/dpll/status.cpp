// What is told of the kernel's clock: the status report with the device, what is not as it is to be and the
// pins; and for the daemon, beyond the state, the lock's error, and of each port's pin its label, its
// operational state and its frequency. Called by the kernel backend's owner; changes nothing.
#include <cinttypes>
#include <cstring>

#include "nsmd/dpll/record.h"
#include "suite/loop/thread.h"

namespace {

bool put_next_try(const dpll_kernel* k, const retry& r, unsigned tries, text_buffer* out) {
    const nanoseconds now = thread_now(k->ctx);
    if (!r.event) return text_printf(out, "\n");
    const auto ms = static_cast<unsigned>(r.event->due > now ? (r.event->due - now) / NS_PER_MS : 0);
    return text_printf(out, "; %u tries, again in %u.%u s\n", tries, ms / 1000, ms % 1000 / 100);
}

bool put_reading(const dpll_kernel* k, text_buffer* out) {
    if (k->read_tries == 0) return true;
    return text_printf(out, "clock: devices and pins can't be read: %s", std::strerror(-k->read_result)) &&
           put_next_try(k, k->reading, k->read_tries, out);
}

bool put_trouble(const dpll_kernel* k, text_buffer* out) {
    bool ok = true;
    if (k->singly_tries)
        ok = text_printf(out, "clock: the list of pins fails, read one by one %zu can't be",
                         k->singly.bad.count) &&
             put_next_try(k, k->reading, k->singly_tries, out);
    if (ok && k->unread)
        ok = text_printf(out, "clock: the state could not be read %u times: %s\n", k->unread,
                         std::strerror(-k->unread_result));
    if (ok && k->trouble[0])
        ok = text_printf(out, "clock: not as wanted: %s%s", k->trouble,
                         k->fell_back ? "; holdover instead" : "") &&
             put_next_try(k, k->steers_again, k->steer_tries, out);
    if (ok && k->hands) ok = text_printf(out, "clock: pins changed by others %" PRIu64 " times\n", k->hands);
    return ok;
}

bool put_device(const dpll_kernel* k, text_buffer* out) {
    const dpll_device* d = dpll_kernel_device(k);
    if (!d) return text_printf(out, "clock: kernel interface, no device\n");
    return text_printf(out, "clock: kernel device %u ", d->id) && dpll_put_device(*d, out) &&
           text_printf(out, "; %" PRIu64 " settings, %" PRIu64 " refused\n", k->steering.settings,
                       k->steering.refusals);
}

bool put_pin(const dpll_kernel* k, const dpll_pin& pin, text_buffer* out) {
    char words[80];
    return text_printf(out, "%s:", dpll_pin_words(&k->view, k->table, pin.id, words)) &&
           dpll_put_pin(pin, out) && text_printf(out, "\n");
}

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
    if (!pin || dpll_is_bad(k->singly.bad, pin->id)) return out;
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

bool dpll_kernel_status(const void* self, text_buffer* out) {
    const auto* k = static_cast<const dpll_kernel*>(self);
    char words[80];
    bool ok = netlink_channel_status(&k->link.channel, dpll_kernel_subject(k, words), out) &&
              put_device(k, out) && put_reading(k, out) && put_trouble(k, out);
    for (const dpll_pin_node* n = k->view.pins; ok && n; n = n->next)
        if (k->has_device && !dpll_is_bad(k->singly.bad, n->pin.id) &&
            dpll_view_leads_to(&k->view, n->pin, k->device))
            ok = put_pin(k, n->pin, out);
    return ok && dpll_put_bad_pins(k->singly, out);
}

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
