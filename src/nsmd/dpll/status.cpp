// The kernel clock's part of the status report: the device, what is not as it is to be, the pins. Called by
// the kernel backend's owner; changes nothing.
#include <cinttypes>
#include <cstring>

#include "nsmd/dpll/record.h"
#include "nsmd/dpll/words.h"
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
    if (k->unread)
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

}  // namespace

bool dpll_kernel_status(const void* self, text_buffer* out) {
    const auto* k = static_cast<const dpll_kernel*>(self);
    char words[80];
    bool ok = netlink_channel_status(&k->link.channel, dpll_kernel_subject(k, words), out) &&
              put_device(k, out) && put_reading(k, out) && put_trouble(k, out);
    for (const dpll_pin_node* n = k->view.pins; ok && n; n = n->next)
        if (k->has_device && dpll_view_leads_to(&k->view, n->pin, k->device)) ok = put_pin(k, n->pin, out);
    return ok;
}
