// No PDU is sent and no selection is run here, but for the loop guard and for "advertise when-locked": a
// changed quality goes out with each port's next information PDU.
#include "core/feedback.h"

#include "core/debug.h"
#include "core/opts.h"
#include "core/pdu.h"
#include "core/ports.h"
#include "core/ql.h"
#include "core/select.h"

namespace {

// The hardware side's code of the DPLL's reference, as an interface index.
std::uint32_t source_to_ifindex(std::uint32_t source) {
    switch (source) {
        case 1:
            return 26;
        case 2:
            return 25;
        case 3:
            return 24;
        case 4:
            return 20;
        case 8:
            return SSM_IFINDEX_E1;
        default:
            return 0;
    }
}

}  // namespace

void ssm_gephy_release_others() {
    ssm_port_walk([](ssm_port* port) {
        if (port->intf != g_s_master->gephy_dynamic_intf) (void)ssm_opts_set_gephy_role(port->intf, 0, 0);
    });
}

void ssm_clock_state_recv(const nsm_clock_state_message* message) {
    const bool locked = message->state == SSM_DPLL_LOCK;
    if (!locked && g_s_master->gephy_dynamic_intf) {
        (void)ssm_opts_set_gephy_role(g_s_master->gephy_dynamic_intf, 0, 0);
        g_s_master->gephy_dynamic_intf = nullptr;
    }
    if (locked && g_s_master->gephy_dynamic) ssm_gephy_release_others();

    g_s_master->nsm_source_ifindex = source_to_ifindex(message->source);
    g_s_master->dpll_state = message->state;
    SSM_LOG(LOG_LEVEL_INFO, "%s%sReceive NSM_MSG_SSM_SEND_BACK_CLOCK_STATE  %d",
            static_cast<int>(message->state));

    if (!g_s_master->global_enable || !g_s_master->ssm_enable) return;
    const std::uint32_t before = g_s_master->current_quality;
    if (message->state == SSM_DPLL_HOLDOVER)
        g_s_master->current_quality = ssm_holdover_quality();
    else if (message->state == SSM_DPLL_FREERUN)
        g_s_master->current_quality = g_s_master->local_quality;
    // Who waits for our clock shall not wait for our next PDU as well.
    else if (locked && (ssm_guard_in_force() || g_s_master->advertise_when_locked))
        return ssm_clock_select();
    if (g_s_master->advertise_when_locked && g_s_master->current_quality != before) (void)ssm_pdu_tx_all();
}
