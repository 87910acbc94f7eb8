// Who is at the other end of a port's link, as the source address of the last frame that was taken says, DNUs
// among them: what joins the ends of links to a network without another protocol. It counts as long as what
// was heard does, and is the sender's own claim.
#pragma once

#include <cstring>

#include "core/records.h"

// Null while nothing that was heard counts, or what was heard names no station.
const std::uint8_t* ssm_neighbour(const ssm_port* port);

// As 02:00:00:00:00:01.
struct ssm_address_text {
    char text[18];
};
ssm_address_text ssm_address_str(const std::uint8_t* address);
bool ssm_address_named(const std::uint8_t* address);  // a station's: no group's, and not all zeros

// For the next two alone: takes up a new address, and says that it is one as soon as the limit lets it.
void ssm_neighbour_changed(ssm_port* port, const std::uint8_t* source);
// A frame was taken; nearly every one repeats the address of the one before it.
inline void ssm_neighbour_heard(ssm_port* port, const std::uint8_t* source) {
    if (std::memcmp(port->neighbour, source, SSM_ADDRESS_SIZE) != 0 || port->neighbour_untold)
        ssm_neighbour_changed(port, source);
}
