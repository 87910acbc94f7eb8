// The first command of anyone with a new card. Reads everything once, as the kernel backend does, and goes
// through what following a port needs, in the order in which one thing rests on another; the first that is
// missing is the answer. Pins that can't be read are named, and count as no pins. Memory that runs out cuts
// the listing short.
#include "nsmd/probe.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "nsmd/dpll/steer.h"
#include "suite/log/log.h"

namespace {

struct probe {
    genl link;
    dpll_view view;
    dpll_singly singly;
    const port_table* table;
    const dpll_kernel_options* options;
    text_buffer* out;
    const dpll_device* device;
};

void message_came(void* arg, const genl_message& m) {
    auto* p = static_cast<probe*>(arg);
    dpll_device device;
    dpll_pin pin;
    if (m.command == DPLL_CMD_DEVICE_GET && dpll_device_parse(m.attributes, &device))
        (void)dpll_view_take_device(&p->view, device);
    if (m.command == DPLL_CMD_PIN_GET && dpll_pin_parse(m.attributes, &pin))
        (void)dpll_view_take_pin(&p->view, pin);
}

int read_all(probe* p, dpll_command command) {
    constexpr unsigned TRIES = 3;  // a list may change while it is told
    for (unsigned i = 0; i < TRIES; ++i) {
        nl_builder request;
        genl_begin(&p->link, &request, command, DPLL_VERSION, true);
        genl_request(&p->link, request);
        if (p->link.result != -EAGAIN) break;
    }
    return p->link.result;
}

const char* error_words(int error) {
    switch (error) {
        case -ENOENT:
        case -EPROTONOSUPPORT:
            return "this kernel has no DPLL interface: it needs Linux 6.7 or later with a driver for clock "
                   "hardware "
                   "configured";
        case -EPERM:
        case -EACCES:
            return "no permission to read the kernel's DPLL interface: CAP_NET_ADMIN is needed";
        default:
            return nullptr;
    }
}

void list(const probe& p) {
    char words[80];
    bool ok = true;
    for (const dpll_device_node* n = p.view.devices; ok && n; n = n->next)
        ok = text_printf(p.out, "device %u ", n->device.id) && dpll_put_device(n->device, p.out) &&
             text_printf(p.out, "\n");
    for (const dpll_pin_node* n = p.view.pins; ok && n; n = n->next)
        ok = text_printf(p.out, "%s:", dpll_pin_words(&p.view, p.table, n->pin.id, words)) &&
             dpll_put_pin(n->pin, p.out) && text_printf(p.out, "\n");
    ok = ok && dpll_put_bad_pins(p.singly, p.out);
    for (const nsmd_port* port = port_table_first(p.table); ok && port; port = port->next)
        ok = port->has_dpll_pin ? text_printf(p.out, "port %s: pin %u\n", port->name, port->dpll_pin)
                                : text_printf(p.out, "port %s: no clock pin\n", port->name);
}

const dpll_pin* pin_of(const probe& p, const nsmd_port& port) {
    return port.has_dpll_pin ? dpll_view_pin(&p.view, port.dpll_pin) : nullptr;
}

bool leads_to_device(const probe& p, const nsmd_port& port) {
    const dpll_pin* pin = pin_of(p, port);
    return pin && dpll_view_leads_to(&p.view, *pin, p.device->id);
}

// By settings that the drivers of the pin and of a MUX pin before it offer.
bool can_be_followed(const probe& p, const nsmd_port& port) {
    if (!leads_to_device(p, port)) return false;
    const dpll_pin* pin = pin_of(p, port);
    const bool is_ranked = p.device->mode == DPLL_MODE_AUTOMATIC && (pin->capabilities & PIN_CAN_PRIO);
    return (pin->capabilities & PIN_CAN_STATE) || is_ranked;
}

// The first port of which that holds, from `port` on; null: none.
const nsmd_port* next_port(const probe& p, const nsmd_port* port,
                           bool (*holds)(const probe&, const nsmd_port&)) {
    while (port && !holds(p, *port)) port = port->next;
    return port;
}

const nsmd_port* first_port(const probe& p, bool (*holds)(const probe&, const nsmd_port&)) {
    return next_port(p, port_table_first(p.table), holds);
}

bool has_pin(const probe&, const nsmd_port& port) {
    return port.has_dpll_pin;
}

bool has_bad_pin(const probe& p, const nsmd_port& port) {
    return port.has_dpll_pin && dpll_is_bad(p.singly.bad, port.dpll_pin);
}

// By rank alone nothing can be ruled out.
bool can_only_be_ranked(const probe& p, const nsmd_port& port) {
    return can_be_followed(p, port) && !(pin_of(p, port)->capabilities & PIN_CAN_STATE);
}

const char* what_is_missing(const probe& p) {
    if (!p.view.devices)
        return "no clock device: no driver that is loaded has one (firmware or the card may have to enable "
               "it)";
    if (!p.device && p.options->device) return "no clock device of that name";
    if (!p.device) return "no clock device of type EEC, which is what drives Ethernet ports";
    if (!port_table_first(p.table)) return "no Ethernet port: name virtual ones with --port";
    if (!first_port(p, has_pin)) return "no port has a clock pin: their drivers tell of none";
    if (!first_port(p, leads_to_device))
        return first_port(p, has_bad_pin) ? "no port's clock pin that can be read leads to the device"
                                          : "no port's clock pin leads to the device";
    if (!first_port(p, can_be_followed))
        return "the driver lets nobody set the state of the ports' clock pins";
    return nullptr;
}

void choose_device(probe* p) {
    std::uint32_t pins[PORT_INDEX_MAX];
    std::size_t count = 0;
    for (const nsmd_port* port = port_table_first(p->table); port && count < PORT_INDEX_MAX;
         port = port->next)
        if (port->has_dpll_pin) pins[count++] = port->dpll_pin;
    p->device = dpll_view_choose(&p->view, p->options->device, pins, count);
}

void say_yes(const probe& p) {
    bool ok = text_printf(p.out, "yes: clock device %u can follow", p.device->id);
    const char* between = " ";
    for (const nsmd_port* port = first_port(p, can_be_followed); ok && port;
         port = next_port(p, port->next, can_be_followed), between = ", ")
        ok = text_printf(p.out, "%s%s", between, port->name);
    if (ok) (void)text_printf(p.out, "\n");
}

void add_notes(const probe& p, bool is_partial) {
    bool ok = !is_partial || text_printf(p.out,
                                         "note: the kernel's list of pins ends at one that can't be "
                                         "read: those behind it that are no port's are not shown\n");
    for (const dpll_pin_node* n = p.view.pins; ok && n; n = n->next)
        if (n->pin.type == DPLL_PIN_EXT && dpll_view_leads_to(&p.view, n->pin, p.device->id))
            ok = text_printf(p.out, "note: external input: --bits1 %s\n", dpll_label_of(n->pin));
    if (ok && first_port(p, can_only_be_ranked))
        (void)text_printf(
            p.out,
            "note: pins can be ranked, but not ruled out: in holdover the device may go on following one\n");
}

// What the list of pins left out. False: no pin can be read.
bool read_singly(probe* p) {
    p->singly = {&p->link, &p->view, &p->view, p->table, p->options->bits, {}, 0, 0};
    while (dpll_singly_ask(&p->singly)) dpll_singly_answered(&p->singly);
    return p->view.pins;
}

bool read_and_judge(probe* p) {
    int error = read_all(p, DPLL_CMD_DEVICE_GET);
    const bool has_devices = error == 0;
    if (has_devices) error = read_all(p, DPLL_CMD_PIN_GET);
    const bool is_partial =
        has_devices && error < 0 && error != -EAGAIN && !error_words(error) && read_singly(p);
    if (is_partial) error = 0;
    if (error == 0) choose_device(p);
    list(*p);
    const char* missing = error < 0 ? error_words(error) : what_is_missing(*p);
    if (missing)
        (void)text_printf(p->out, "no: %s\n", missing);
    else if (error < 0)
        (void)text_printf(p->out, "no: devices and pins can't be read: %s\n", std::strerror(-error));
    if (missing || error < 0) return false;
    add_notes(*p, is_partial);
    say_yes(*p);
    return true;
}

}  // namespace

bool nsmd_probe(const port_table* table, const netlink_edge& edge, const dpll_kernel_options& options,
                text_buffer* out) {
    probe p{};
    p.table = table;
    p.options = &options;
    p.out = out;
    const int error = genl_open(&p.link, edge, DPLL_FAMILY, nullptr, {message_came, [](void*) {}, &p});
    if (error < 0) {
        const char* words = error_words(error);
        (void)text_printf(out, "no: %s\n", words ? words : std::strerror(-error));
        return false;
    }
    const bool yes = read_and_judge(&p);
    genl_close(&p.link);
    dpll_view_clear(&p.view);
    return yes;
}

int nsmd_probe_print(lib_globals* ctx, const nsmd_options& options, const nsmd_edges& edges) {
    port_table* table = port_table_create(
        options.patterns, options.pattern_count,
        {[](void*, const nsmd_port&, port_event) {}, [](void*, const bridge_identity&) {}, nullptr});
    link_watch* watch = table ? link_watch_start(ctx, table, edges.netlink, options.poll) : nullptr;
    text_buffer out;
    bool yes = false;
    if (watch && link_watch_wait_ready(watch, edges.link_wait_ms))
        yes = nsmd_probe(table, edges.netlink, options.kernel, &out);
    else
        log_suite(LOG_LEVEL_ERROR, "the kernel does not list its links");
    std::fputs(out.c_str(), stdout);
    text_free(&out);
    link_watch_stop(watch);
    port_table_free(table);
    return yes && std::fflush(stdout) == 0 ? 0 : 1;
}
