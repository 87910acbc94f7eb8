// What the clock hardware tells beyond its state, on its way to the clients: each detail when it changed.
#pragma once

#include "nsmd/clock/dpll.h"
#include "nsmd/server/server.h"

// Zero at first. What was told last of the clock (0) and of each port, as sums.
struct detail_teller {
    nsmd_server* server;
    std::uint32_t steady[PORT_INDEX_MAX + 1];  // without what moves all the time
    std::uint32_t whole[PORT_INDEX_MAX + 1];   // 0: nothing was told
    bool seen[PORT_INDEX_MAX + 1];
    unsigned turns;
};

// Once a second: tells all clients what changed since; frequencies, which never rest, each ten seconds.
void details_tell_changes(detail_teller* t, const dpll_backend& clock);
// Tells a client that just came all there is.
void details_tell_all(detail_teller* t, nsmd_peer* peer, const dpll_backend& clock);
