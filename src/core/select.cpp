// Selection in three steps that don't mix: which ports are candidates (ssm_candidate_check), which one is
// best (the rank, one number a candidate), and what follows from the choice (select_port, no_candidate). Run
// after every accepted PDU, so the walk touches each port once and costs nothing for what is switched off.
#include "core/select.h"

#include <array>
#include <cstring>

#include "core/debug.h"
#include "core/opts.h"
#include "core/pdu.h"
#include "core/ports.h"

// ---- Ranking ------------------------------------------------------------------------------------------

namespace {

// The place of every code in the quality order; smaller is better. Option 1 codes are in order as they are;
// of option 2, three are not.
using rank_table = std::array<std::uint8_t, 256>;

consteval rank_table codes_in_order() {
    rank_table ranks;
    for (std::size_t code = 0; code < ranks.size(); ++code) ranks[code] = static_cast<std::uint8_t>(code);
    return ranks;
}

consteval rank_table option_2_order() {
    rank_table ranks = codes_in_order();
    ranks[QL_STU] = 2;
    ranks[QL_ST2] = 3;
    ranks[QL_ST3E] = 5;
    return ranks;
}

constexpr rank_table OPTION_1_RANKS = codes_in_order(), OPTION_2_RANKS = option_2_order();

const rank_table& ranks_in_force() {
    return g_s_master->ql_option == SSM_OPTION_1 ? OPTION_1_RANKS : OPTION_2_RANKS;
}

// All keys of a candidate in one number, the first key in the highest bits, so that the smaller number is the
// better candidate: quality, priority, hop count (only with the extension on), interface index.
constexpr unsigned QUALITY_SHIFT = 48, PRIORITY_SHIFT = 40, HOP_SHIFT = 32;

// `ifindex` is that of the port's interface, which the walk has at hand.
std::uint64_t candidate_rank(const ssm_port* port, std::uint32_t ifindex, const rank_table& ranks,
                             bool extend) {
    const std::uint64_t quality = ranks[ssm_port_select_quality(port)];
    const std::uint64_t hops = extend ? port->recv_hop_count : 0;
    return quality << QUALITY_SHIFT | std::uint64_t{port->priority} << PRIORITY_SHIFT | hops << HOP_SHIFT |
           ifindex;
}

// Without SSM only priority and index count.
std::uint64_t priority_rank(const ssm_port* port) {
    return std::uint64_t{port->priority} << PRIORITY_SHIFT | port->intf->ifindex;
}

bool same_clock_id(const std::uint8_t* a, const std::uint8_t* b) {
    return std::memcmp(a, b, SSM_CLOCK_ID_SIZE) == 0;
}

}  // namespace

std::int32_t ssm_ql_compare(std::uint8_t a, std::uint8_t b) {
    const rank_table& ranks = ranks_in_force();
    const std::uint8_t rank_a = ranks[a], rank_b = ranks[b];
    return (rank_a > rank_b) - (rank_a < rank_b);
}

std::uint8_t ssm_port_select_quality(const ssm_port* port) {
    return static_cast<std::uint8_t>(port->force_rx_quality != QL_NONE ? port->force_rx_quality
                                                                       : port->recv_quality);
}

ssm_order ssm_candidate_compare(const ssm_port* a, const ssm_port* b) {
    const bool extend = g_s_master->ssm_extend != 0;
    const std::uint64_t rank_a = candidate_rank(a, a->intf->ifindex, ranks_in_force(), extend);
    const std::uint64_t rank_b = candidate_rank(b, b->intf->ifindex, ranks_in_force(), extend);
    if (rank_a == rank_b) return {0, ssm_key::none};
    const std::uint64_t differs = rank_a ^ rank_b;
    ssm_key key = ssm_key::ifindex;
    if (differs >> QUALITY_SHIFT)
        key = ssm_key::quality;
    else if (differs >> PRIORITY_SHIFT)
        key = ssm_key::priority;
    else if (differs >> HOP_SHIFT)
        key = ssm_key::hop_count;
    return {rank_a < rank_b ? -1 : 1, key};
}

ssm_own_clock ssm_own_clock_compare(const ssm_port* best) {
    const auto own_quality = static_cast<std::uint8_t>(g_s_master->local_quality);
    const std::int32_t order = ssm_ql_compare(ssm_port_select_quality(best), own_quality);
    if (order > 0) return ssm_own_clock::better_quality;
    if (order == 0 && best->priority >= g_s_master->local_priority) return ssm_own_clock::not_worse_priority;
    return ssm_own_clock::worse;
}

// ---- Candidates ---------------------------------------------------------------------------------------

namespace {

// The ports with replace-clockid, by the identity that they receive, so that a selection over many ports asks
// in constant time whether an identity is among them. Made anew for each selection; when the ports don't fit,
// the question is answered by a walk.
class replaced_ids {
  public:
    void collect() {
        ssm_port_walk([this](const ssm_port* port) {
            if (!port->replace_clockid) return;
            if (count_++ == 0) slots_.fill(nullptr);
            if (count_ <= SLOTS / 2) insert(port);
        });
    }

    // The first port of the walk that received `id`, or null.
    const ssm_port* find(const std::uint8_t* id) const {
        if (count_ == 0) return nullptr;
        if (count_ > SLOTS / 2) return walk(id);
        for (std::size_t at = slot_of(id); slots_[at]; at = (at + 1) % SLOTS)
            if (same_clock_id(slots_[at]->recv_clockid, id)) return slots_[at];
        return nullptr;
    }

    static const ssm_port* walk(const std::uint8_t* id) {
        const ssm_port* found = nullptr;
        ssm_port_walk_until([&](const ssm_port* port) {
            if (!port->replace_clockid || !same_clock_id(port->recv_clockid, id)) return false;
            found = port;
            return true;
        });
        return found;
    }

  private:
    static constexpr std::size_t SLOTS = 1024;

    static std::size_t slot_of(const std::uint8_t* id) {
        std::uint64_t value;
        std::memcpy(&value, id, sizeof value);
        return static_cast<std::size_t>(value * 0x9E3779B97F4A7C15U >> 54);  // top ten bits: one of SLOTS
    }

    void insert(const ssm_port* port) {
        std::size_t at = slot_of(port->recv_clockid);
        while (slots_[at]) {
            if (same_clock_id(slots_[at]->recv_clockid, port->recv_clockid))
                return;  // the first of the walk stays
            at = (at + 1) % SLOTS;
        }
        slots_[at] = port;
    }

    std::size_t count_ = 0;
    std::array<const ssm_port*, SLOTS> slots_;  // filled only when there is something to hold
};

// What the port itself says; the look at the other ports (replaced identities) comes after it.
ssm_refusal check_port(const ssm_port* port, bool extend) {
    if (!port->synce_enable) return ssm_refusal::synce_disabled;
    if (!port->link_up) return ssm_refusal::link_down;
    if (port->force_rx_quality == QL_NONE) {
        if (!port->recv_pdu) return ssm_refusal::nothing_received;
        if (port->recv_quality == QL_DNU) return ssm_refusal::received_dnu;
    } else if (port->force_rx_quality == QL_DNU) {
        return ssm_refusal::forced_dnu;
    }
    if (extend && same_clock_id(port->recv_clockid, g_s_master->clock_id)) return ssm_refusal::own_clock_id;
    return ssm_refusal::none;
}

[[gnu::cold, gnu::noinline]] void log_refusal(const ssm_port* port) {
    SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_DEBUG,
              "%s%sdon't select clock on port, status:  port  %d, synce_enable  %d, link_up  %d,recv_pdu  "
              "%d, recv_quality %d "
              "  force_rx_quality  %d",
              static_cast<int>(port->intf->ifindex), static_cast<int>(port->synce_enable),
              static_cast<int>(port->link_up), static_cast<int>(port->recv_pdu), port->recv_quality,
              port->force_rx_quality);
}

[[gnu::cold, gnu::noinline]] void log_replaced(const ssm_port* found) {
    SSM_LOG(
        LOG_LEVEL_DEBUG,
        "%s%sdon't compare replace clockid on port, status:                                       port  %d, "
        "replace_clockid %d",
        static_cast<int>(found->intf->ifindex), static_cast<int>(found->replace_clockid));
}

// The walk's verdict on one port, with its log lines.
template <bool EXTEND>
bool is_candidate(const ssm_port* port, const replaced_ids& replaced) {
    if (__builtin_expect(check_port(port, EXTEND) != ssm_refusal::none, 0)) {
        log_refusal(port);
        return false;
    }
    if (!EXTEND || port->replace_clockid) return true;
    const ssm_port* found = replaced.find(port->recv_clockid);
    if (!found) return true;
    log_replaced(found);
    SSM_TRACE(SSM_DEBUG_EVENT, LOG_LEVEL_DEBUG,
              "%s%sdon't select clock on port, status:  port  %d, replace_clockid %d",
              static_cast<int>(port->intf->ifindex), 1);
    return false;
}

// Once for each state of the extension, so that without it the walk asks nothing about identities and hops.
template <bool EXTEND>
ssm_port* best_candidate() {
    const rank_table& ranks = ranks_in_force();
    replaced_ids replaced;
    if (EXTEND) replaced.collect();

    ssm_port* best = nullptr;
    std::uint64_t best_rank = UINT64_MAX;
    if (!g_p_esmcd) return nullptr;
    for (const interface* intf : if_list(&g_p_esmcd->ifm)) {
        ssm_port* port = ssm_if_port(intf);
        if (!port || !is_candidate<EXTEND>(port, replaced)) continue;
        const std::uint64_t rank = candidate_rank(port, intf->ifindex, ranks, EXTEND);
        if (rank >= best_rank) continue;
        best = port;
        best_rank = rank;
    }
    return best;
}

}  // namespace

ssm_refusal ssm_candidate_check(const ssm_port* port) {
    const ssm_refusal refusal = check_port(port, g_s_master->ssm_extend != 0);
    if (refusal != ssm_refusal::none || !g_s_master->ssm_extend || port->replace_clockid) return refusal;
    return replaced_ids::walk(port->recv_clockid) ? ssm_refusal::replaced_clock_id : ssm_refusal::none;
}

std::int32_t ssm_replace_clockid_seen(const std::uint8_t* clockid) {
    const ssm_port* found = replaced_ids::walk(clockid);
    if (found) log_replaced(found);
    return found ? 1 : 0;
}

ssm_port* ssm_best_candidate() {
    return g_s_master->ssm_extend ? best_candidate<true>() : best_candidate<false>();
}

ssm_port* ssm_best_without_ssm() {
    ssm_port* best = nullptr;
    ssm_port_walk([&best](ssm_port* port) {
        if (!port->link_up || !port->synce_enable) return;
        if (!best || priority_rank(port) < priority_rank(best)) best = port;
    });
    return best;
}

const char* ssm_refusal_text(ssm_refusal refusal) {
    switch (refusal) {
        case ssm_refusal::none:
            return "candidate";
        case ssm_refusal::synce_disabled:
            return "synce disabled";
        case ssm_refusal::link_down:
            return "link down";
        case ssm_refusal::nothing_received:
            return "nothing received";
        case ssm_refusal::forced_dnu:
            return "forced DNU";
        case ssm_refusal::received_dnu:
            return "received DNU";
        case ssm_refusal::own_clock_id:
            return "own clock";
        case ssm_refusal::replaced_clock_id:
            return "replaced clockid";
    }
    return "unknown";
}

const char* ssm_key_text(ssm_key key) {
    switch (key) {
        case ssm_key::none:
            return "none";
        case ssm_key::quality:
            return "quality";
        case ssm_key::priority:
            return "priority";
        case ssm_key::hop_count:
            return "hop count";
        case ssm_key::ifindex:
            return "interface index";
    }
    return "unknown";
}

// ---- Applying the choice ------------------------------------------------------------------------------

namespace {

void advertise(std::uint8_t quality) {
    if (quality == g_s_master->current_quality) return;
    g_s_master->current_quality = quality;
    (void)ssm_pdu_tx_all();  // a port that can't send now sends its next information PDU
}

// Selection makes the chosen port gephy slave, and takes the role from the one chosen before.
void move_gephy_role(ssm_port* port) {
    const ssm_port* former = g_s_master->selected_port;
    if (former && former->intf != port->intf) (void)ssm_opts_set_gephy_role(former->intf, 0, 0);
    (void)ssm_opts_set_gephy_role(port->intf, 1, SSM_GEPHY_SLAVE);
    g_s_master->gephy_dynamic_intf = port->intf;
}

void select_port(ssm_port* port) {
    (void)ssm_opts_switch_port(port->intf->ifindex);  // says when it is selected already: nothing to do then
    if (g_s_master->gephy_dynamic) move_gephy_role(port);
    g_s_master->selected_port = port;

    // While the DPLL is in holdover a received quality is not true of our clock yet; a forced one is the
    // operator's word.
    if (g_s_master->dpll_state != SSM_DPLL_HOLDOVER)
        advertise(ssm_port_select_quality(port));
    else if (port->force_rx_quality != QL_NONE)
        advertise(static_cast<std::uint8_t>(port->force_rx_quality));
}

void no_candidate() {
    interface* intf = g_s_master->gephy_dynamic_intf;
    const ssm_port* port = intf ? static_cast<const ssm_port*>(intf->port) : nullptr;
    // With the bit set the port is just going through the down that its own role change causes.
    if (port && !(port->event_skip & SSM_SKIP_NEXT_DOWN)) {
        (void)ssm_opts_set_gephy_role(intf, 0, 0);
        g_s_master->gephy_dynamic_intf = nullptr;
    }
    ssm_opts_no_source();
}

// A forced port counts only while the switch and the port itself could use it.
bool force_port_in_effect() {
    const ssm_port* forced = g_s_master->force_port;
    return forced && g_s_master->global_enable && forced->link_up && forced->synce_enable;
}

void switch_without_ssm(ssm_port* port) {
    (void)ssm_opts_switch_port(port->intf->ifindex);  // as in select_port
    g_s_master->selected_port = port;
}

}  // namespace

void ssm_clock_select() {
    if (g_s_master->device_type == SSM_MASTER_ONLY) {
        g_s_master->selected_port = nullptr;
        g_s_master->current_quality = g_s_master->local_quality;
        return;
    }
    if (g_s_master->force_e1 || force_port_in_effect()) {
        (void)ssm_opts_force_switch_if();  // always 0
        return;
    }
    ssm_select_by_role(g_s_master->device_type);
}

void ssm_select_by_role(std::uint32_t role) {
    if (role == SSM_SLAVE_ONLY)
        ssm_select_slave_only();
    else
        ssm_select_default();
}

void ssm_select_default() {
    ssm_port* best = ssm_best_candidate();
    if (!best)
        no_candidate();
    else if (ssm_own_clock_compare(best) == ssm_own_clock::worse)
        select_port(best);
    else
        ssm_opts_no_source();
}

void ssm_select_slave_only() {
    if (ssm_port* best = ssm_best_candidate())
        select_port(best);
    else
        no_candidate();
}

std::int32_t ssm_select_without_ssm(std::uint32_t role) {
    if (g_s_master->force_e1 || force_port_in_effect() || role == SSM_MASTER_ONLY) return 0;

    ssm_port* best = ssm_best_without_ssm();
    if (best && (role == SSM_SLAVE_ONLY || best->priority < g_s_master->local_priority))
        switch_without_ssm(best);
    else
        ssm_opts_no_source();
    return 0;
}
