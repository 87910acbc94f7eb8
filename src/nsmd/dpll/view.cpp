// The records of the kernel's clock devices and pins, kept from answers and notifications alike. Owned and
// called by the kernel backend; exhausted memory is told by the take functions and costs the record.
#include "nsmd/dpll/view.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "suite/base/memory.h"

namespace {

std::uint32_t id_of(const dpll_device_node& n) {
    return n.device.id;
}
std::uint32_t id_of(const dpll_pin_node& n) {
    return n.pin.id;
}

// The node with this identity, made at its place when there is none; null when memory is exhausted.
template <typename node>
node* get(node** link, std::uint32_t id) {
    while (*link && id_of(**link) < id) link = &(*link)->next;
    if (*link && id_of(**link) == id) return *link;
    auto* made = static_cast<node*>(memmgr_calloc(sizeof(node), MTYPE_NSMD));
    if (!made) return nullptr;
    made->next = *link;
    *link = made;
    return made;
}

template <typename node>
void drop(node** link, std::uint32_t id) {
    while (*link && id_of(**link) != id) link = &(*link)->next;
    if (!*link) return;
    node* gone = *link;
    *link = gone->next;
    memmgr_free(gone, MTYPE_NSMD);
}

template <typename node>
void clear(node** first) {
    while (*first) drop(first, id_of(**first));
}

bool is_named(const dpll_device& d, const char* name) {
    char text[64];
    std::snprintf(text, sizeof text, "%" PRIu32, d.id);
    if (std::strcmp(text, name) == 0 || std::strcmp(d.module, name) == 0) return true;
    const char* slash = std::strrchr(name, '/');
    if (!slash || std::strlen(d.module) != static_cast<std::size_t>(slash - name)) return false;
    if (std::strncmp(d.module, name, static_cast<std::size_t>(slash - name)) != 0) return false;
    char* end = nullptr;
    return std::strtoull(slash + 1, &end, 16) == d.clock_id && *end == 0 && end != slash + 1;
}

bool is_active(const dpll_parent& p) {
    if (p.direction == PIN_OUTPUT) return false;
    // Where the kernel tells the operational state, the other is only what was asked for.
    return p.operstate ? p.operstate == PIN_OPER_ACTIVE : p.state == PIN_CONNECTED;
}

const dpll_pin* connected_child(const dpll_view* view, std::uint32_t mux) {
    for (const dpll_pin_node* n = view->pins; n; n = n->next) {
        const dpll_parent* p = dpll_pin_on(n->pin, mux, true);
        if (p && is_active(*p)) return &n->pin;
    }
    return nullptr;
}

}  // namespace

bool dpll_view_take_device(dpll_view* view, const dpll_device& device) {
    dpll_device_node* n = get(&view->devices, device.id);
    if (n) n->device = device;
    return n != nullptr;
}

bool dpll_view_take_pin(dpll_view* view, const dpll_pin& pin) {
    dpll_pin_node* n = get(&view->pins, pin.id);
    if (n) n->pin = pin;
    return n != nullptr;
}

void dpll_view_drop_device(dpll_view* view, std::uint32_t id) {
    drop(&view->devices, id);
}
void dpll_view_drop_pin(dpll_view* view, std::uint32_t id) {
    drop(&view->pins, id);
}

void dpll_view_clear(dpll_view* view) {
    clear(&view->devices);
    clear(&view->pins);
}

const dpll_device* dpll_view_device(const dpll_view* view, std::uint32_t id) {
    for (const dpll_device_node* n = view->devices; n; n = n->next)
        if (n->device.id == id) return &n->device;
    return nullptr;
}

const dpll_pin* dpll_view_pin(const dpll_view* view, std::uint32_t id) {
    for (const dpll_pin_node* n = view->pins; n; n = n->next)
        if (n->pin.id == id) return &n->pin;
    return nullptr;
}

const dpll_pin* dpll_view_named_pin(const dpll_view* view, const char* name) {
    for (const dpll_pin_node* n = view->pins; n; n = n->next) {
        char id[16];
        std::snprintf(id, sizeof id, "%" PRIu32, n->pin.id);
        for (const char* label :
             {static_cast<const char*>(id), n->pin.board_label, n->pin.panel_label, n->pin.package_label})
            if (std::strcmp(label, name) == 0) return &n->pin;
    }
    return nullptr;
}

const dpll_device* dpll_view_choose(const dpll_view* view, const char* name, const std::uint32_t* pins,
                                    std::size_t pin_count) {
    const dpll_device* first = nullptr;
    for (const dpll_device_node* n = view->devices; n; n = n->next) {
        if (name && is_named(n->device, name)) return &n->device;
        if (name || n->device.type != DPLL_TYPE_EEC) continue;
        for (std::size_t i = 0; i < pin_count; ++i) {
            const dpll_pin* pin = dpll_view_pin(view, pins[i]);
            if (pin && dpll_view_leads_to(view, *pin, n->device.id)) return &n->device;
        }
        if (!first) first = &n->device;
    }
    return first;
}

const dpll_parent* dpll_pin_on(const dpll_pin& pin, std::uint32_t parent_id, bool parent_is_pin) {
    for (std::size_t i = 0; i < pin.parent_count; ++i)
        if (pin.parents[i].id == parent_id && pin.parents[i].is_pin == parent_is_pin) return &pin.parents[i];
    return nullptr;
}

bool dpll_view_leads_to(const dpll_view* view, const dpll_pin& pin, std::uint32_t device) {
    if (dpll_pin_on(pin, device, false)) return true;
    for (std::size_t i = 0; i < pin.parent_count; ++i) {
        const dpll_pin* mux = pin.parents[i].is_pin ? dpll_view_pin(view, pin.parents[i].id) : nullptr;
        if (mux && dpll_pin_on(*mux, device, false)) return true;
    }
    return false;
}

const dpll_pin* dpll_view_active_input(const dpll_view* view, std::uint32_t device, const dpll_pin** child) {
    *child = nullptr;
    for (const dpll_pin_node* n = view->pins; n; n = n->next) {
        const dpll_parent* p = dpll_pin_on(n->pin, device, false);
        if (!p || !is_active(*p)) continue;
        *child = connected_child(view, n->pin.id);
        return &n->pin;
    }
    return nullptr;
}
