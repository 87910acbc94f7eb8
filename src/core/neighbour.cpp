// The log tells of a neighbour that is another one than it told of last: a cable was moved, whether or not
// the link went down meanwhile. Whoever sends with ever new addresses gets a line a minute for each port, and
// the one that is there when the minute ends is told with the next frame.
#include "core/neighbour.h"

#include <algorithm>
#include <cstdio>

#include "core/debug.h"

bool ssm_address_named(const std::uint8_t* address) {
    constexpr std::uint8_t GROUP = 1;
    return !(address[0] & GROUP) &&
           std::any_of(address, address + SSM_ADDRESS_SIZE, [](std::uint8_t octet) { return octet != 0; });
}

const std::uint8_t* ssm_neighbour(const ssm_port* port) {
    return port->recv_pdu && ssm_address_named(port->neighbour) ? port->neighbour : nullptr;
}

ssm_address_text ssm_address_str(const std::uint8_t* a) {
    ssm_address_text said;
    std::snprintf(said.text, sizeof said.text, "%02x:%02x:%02x:%02x:%02x:%02x", a[0], a[1], a[2], a[3], a[4],
                  a[5]);
    return said;
}

void ssm_neighbour_changed(ssm_port* port, const std::uint8_t* source) {
    const nanoseconds now = thread_now(g_p_esmcd);
    const bool repeated = std::memcmp(port->neighbour, source, SSM_ADDRESS_SIZE) == 0;
    const bool open = log_limit_open(&port->neighbour_limit, now);
    if (repeated && !open) return;
    if (repeated) --port->neighbour_limit.silent;  // when it could not be told, it was counted itself
    std::memcpy(port->neighbour, source, SSM_ADDRESS_SIZE);
    port->neighbour_untold = 0;
    if (!ssm_address_named(source)) return;
    const bool first = !ssm_address_named(port->neighbour_logged);
    if (!first && std::memcmp(port->neighbour_logged, source, SSM_ADDRESS_SIZE) != 0) {
        log_limited_at(&port->neighbour_limit, now, LOG_LEVEL_INFO, ": neighbour of %s is now %s (was %s)",
                       port->intf->name, ssm_address_str(source).text,
                       ssm_address_str(port->neighbour_logged).text);
        if (!open) {
            port->neighbour_untold = 1;
            return;
        }
    }
    std::memcpy(port->neighbour_logged, source, SSM_ADDRESS_SIZE);
}
