// Selection in three steps that don't mix: which ports are candidates (ssm_candidate_check), which one is
// best (the rank, one number a port), and what follows from the choice (select_port, no_candidate). Run after
// every accepted PDU: the walk compares first, and asks only of a port that would win whether it is a
// candidate.
#include "core/select.h"

#include <array>
#include <cstring>
#include <utility>

#include "core/debug.h"
#include "core/opts.h"
#include "core/pdu.h"
#include "core/ports.h"
#include "core/ql.h"
#include "core/supervision.h"

// ---- Ranking ------------------------------------------------------------------------------------------

namespace {

using port_rank = std::uint64_t;

// The place of every SSM code in the quality order; smaller is better. Option 1 codes are in order as they
// are; of option 2, three are not. Enhanced codes have places of their own before their SSM code's, best
// first: ePRTC, PRTC, ePRC. (eEEC has another SSM code.)
using rank_table = std::array<std::uint16_t, 256>;
constexpr std::uint16_t PLACES_A_CODE = 4;
constexpr unsigned RANK_BITS = 10;

consteval rank_table codes_in_order() {
    rank_table ranks;
    for (std::size_t code = 0; code < ranks.size(); ++code)
        ranks[code] = static_cast<std::uint16_t>(code * PLACES_A_CODE);
    return ranks;
}

consteval rank_table option_2_order() {
    rank_table ranks = codes_in_order();
    ranks[QL_STU] = 2 * PLACES_A_CODE;
    ranks[QL_ST2] = 3 * PLACES_A_CODE;
    ranks[QL_ST3E] = 5 * PLACES_A_CODE;
    return ranks;
}

constexpr rank_table OPTION_1_RANKS = codes_in_order(), OPTION_2_RANKS = option_2_order();

const rank_table& ranks_in_force() {
    return g_s_master->ql_option == SSM_OPTION_1 ? OPTION_1_RANKS : OPTION_2_RANKS;
}

// By how many places better than the SSM code alone.
unsigned better_by(std::uint8_t enhanced) {
    switch (enhanced) {
        case QL_ENHANCED_EPRTC:
            return 3;
        case QL_ENHANCED_PRTC:
            return 2;
        case QL_ENHANCED_EPRC:
        case QL_ENHANCED_EEEC:
            return 1;
        default:
            return 0;
    }
}

port_rank quality_rank(ssm_quality quality) {
    return ranks_in_force()[ssm_code_of(quality)] - port_rank{better_by(ssm_enhanced_of(quality))};
}

// Of what a port offers. Nearly always that is a plain code without a limit.
inline port_rank offer_rank(const ssm_port* port, const rank_table& ranks) {
    const ssm_quality quality =
        port->force_rx_quality != QL_NONE ? port->force_rx_quality : port->recv_quality;
    if (ssm_enhanced_of(quality) | port->limited) [[unlikely]]
        return quality_rank(ssm_port_select_quality(port));
    return ranks[ssm_code_of(quality)];
}

constexpr unsigned bit(ssm_rule rule) {
    return 1U << static_cast<unsigned>(rule);
}
constexpr unsigned WITH_EXTENSION = bit(ssm_rule::extension);
constexpr unsigned WITH_SSM = bit(ssm_rule::quality) | WITH_EXTENSION;
constexpr unsigned ALWAYS = bit(ssm_rule::priority) | WITH_SSM;

// By what candidates are ranked: the first row counts most, and the smaller value is the better one. Rank,
// comparison and the reason that the shows give all follow from these rows; the last one differs for any two
// ports.
constexpr struct {
    const char* name;
    unsigned bits;   // that the value has at most
    unsigned rules;  // under which it counts
    port_rank (*value)(const ssm_port*, const rank_table& ranks);
} KEYS[] = {
    {"quality", RANK_BITS, WITH_SSM, offer_rank},
    {"priority", 8, ALWAYS,
     [](const ssm_port* port, const rank_table&) -> port_rank { return port->priority; }},
    {"hop count", 8, WITH_EXTENSION,
     [](const ssm_port* port, const rank_table&) -> port_rank { return port->recv_hop_count; }},
    {"interface index", 32, ALWAYS,
     [](const ssm_port* port, const rank_table&) -> port_rank { return port->ifindex; }},
};

// All keys in one number, the first one in the highest bits: a key begins where those behind it end.
constexpr std::size_t KEY_COUNT = std::size(KEYS);
consteval std::array<unsigned, KEY_COUNT> places_of_keys() {
    std::array<unsigned, KEY_COUNT> places = {};
    for (std::size_t i = KEY_COUNT - 1; i > 0; --i) places[i - 1] = places[i] + KEYS[i].bits;
    return places;
}
constexpr std::array<unsigned, KEY_COUNT> SHIFT = places_of_keys();
static_assert(SHIFT[0] + KEYS[0].bits <= 64, "the keys must fit into one number");

consteval port_rank keys_under(ssm_rule rule) {
    port_rank mask = 0;
    for (std::size_t i = 0; i < KEY_COUNT; ++i)
        if (KEYS[i].rules & bit(rule)) mask |= ((port_rank{1} << KEYS[i].bits) - 1) << SHIFT[i];
    return mask;
}

port_rank mask_of(ssm_rule rule) {
    static constexpr port_rank MASKS[] = {keys_under(ssm_rule::priority), keys_under(ssm_rule::quality),
                                          keys_under(ssm_rule::extension)};
    return MASKS[static_cast<std::size_t>(rule)];
}

template <std::size_t... Key>
port_rank all_keys(const ssm_port* port, const rank_table& ranks, std::index_sequence<Key...>) {
    return ((KEYS[Key].value(port, ranks) << SHIFT[Key]) | ...);
}

port_rank rank_of(const ssm_port* port, const rank_table& ranks, port_rank mask) {
    return all_keys(port, ranks, std::make_index_sequence<KEY_COUNT>{}) & mask;
}

// The name of the first key that makes a difference; null: none does.
const char* first_difference(port_rank differs) {
    for (std::size_t i = 0; i < KEY_COUNT; ++i)
        if (differs >> SHIFT[i]) return KEYS[i].name;
    return nullptr;
}

bool same_clock_id(const std::uint8_t* a, const std::uint8_t* b) {
    return std::memcmp(a, b, SSM_CLOCK_ID_SIZE) == 0;
}

}  // namespace

std::int32_t ssm_ql_compare(ssm_quality a, ssm_quality b) {
    const port_rank rank_a = quality_rank(a), rank_b = quality_rank(b);
    return (rank_a > rank_b) - (rank_a < rank_b);
}

ssm_quality ssm_port_select_quality(const ssm_port* port) {
    if (port->force_rx_quality != QL_NONE) return port->force_rx_quality;
    const ssm_quality received = port->recv_quality;
    if (!port->limited || received == QL_NONE) return received;
    return quality_rank(received) < quality_rank(port->max_rx_quality) ? port->max_rx_quality : received;
}

ssm_quality ssm_quality_followed(const ssm_port* port) {
    const ssm_master& clock = *g_s_master;
    const bool vouched_for = port->force_rx_quality != QL_NONE;
    if (!clock.advertise_when_locked || clock.dpll_state == SSM_DPLL_LOCK || vouched_for)
        return ssm_port_select_quality(port);
    return clock.dpll_state == SSM_DPLL_HOLDOVER ? ssm_holdover_quality()
                                                 : static_cast<ssm_quality>(clock.local_quality);
}

ssm_rule ssm_rule_in_force() {
    if (!g_s_master->ssm_enable) return ssm_rule::priority;
    return g_s_master->ssm_extend ? ssm_rule::extension : ssm_rule::quality;
}

ssm_order ssm_candidate_compare(const ssm_port* a, const ssm_port* b, ssm_rule rule) {
    const rank_table& ranks = ranks_in_force();
    const port_rank rank_a = rank_of(a, ranks, mask_of(rule)), rank_b = rank_of(b, ranks, mask_of(rule));
    return {(rank_a > rank_b) - (rank_a < rank_b), first_difference(rank_a ^ rank_b)};
}

ssm_own_clock ssm_own_clock_compare(const ssm_port* best, ssm_rule rule) {
    if (rule != ssm_rule::priority) {
        const auto own_quality = static_cast<ssm_quality>(g_s_master->local_quality);
        const std::int32_t order = ssm_ql_compare(ssm_port_select_quality(best), own_quality);
        if (order > 0) return ssm_own_clock::better_quality;
        if (order < 0) return ssm_own_clock::worse;
    }
    return best->priority < g_s_master->local_priority ? ssm_own_clock::worse
                                                       : ssm_own_clock::not_worse_priority;
}

// ---- Candidates ---------------------------------------------------------------------------------------

namespace {

// What the port itself says; the look at the other ports (replaced identities) comes after it.
ssm_refusal check_port(const ssm_port* port, ssm_rule rule) {
    if (!port->synce_enable) return ssm_refusal::synce_disabled;
    if (port->lockout) return ssm_refusal::locked_out;
    if (!port->link_up) return ssm_refusal::link_down;
    if (rule == ssm_rule::priority) return ssm_refusal::none;
    if (port->force_rx_quality == QL_NONE) {
        if (!port->recv_pdu) return ssm_refusal::nothing_received;
        if (port->recv_quality == QL_DNU) return ssm_refusal::received_dnu;
    } else if (port->force_rx_quality == QL_DNU) {
        return ssm_refusal::forced_dnu;
    }
    if (port->failed) return ssm_refusal::waiting_to_restore;
    if (ssm_below_minimum(port)) return ssm_refusal::below_minimum;
    if (rule == ssm_rule::extension && same_clock_id(port->recv_clockid, g_s_master->clock_id))
        return ssm_refusal::own_clock_id;
    return ssm_refusal::none;
}

bool guarded(ssm_rule rule) {
    return rule == ssm_rule::extension && g_s_master->guard.enable;
}

ssm_refusal refusal_of(ssm_guard_verdict verdict) {
    switch (verdict) {
        case ssm_guard_verdict::follow:
            break;
        case ssm_guard_verdict::too_many_hops:
            return ssm_refusal::too_many_hops;
        case ssm_guard_verdict::own_holdover_as_good:
            return ssm_refusal::own_holdover_as_good;
        case ssm_guard_verdict::may_lead_back:
            return ssm_refusal::may_lead_back;
    }
    return ssm_refusal::none;
}

// The port with replace-clockid that received this identity, or null.
ssm_port* replacing_port(const std::uint8_t* clockid) {
    ssm_port* found = nullptr;
    ssm_record_walk([&](ssm_port* port) {
        if (same_clock_id(port->recv_clockid, clockid) && port->replace_clockid && !found) found = port;
    });
    return found;
}

// Every run says why it refuses a port; most of them never get as far as to be asked.
[[gnu::cold, gnu::noinline]] void log_refusals(ssm_rule rule) {
    ssm_port_walk([rule](const ssm_port* port) {
        const ssm_refusal refusal = ssm_candidate_check(port, rule);
        if (refusal == ssm_refusal::none) return;
        if (refusal == ssm_refusal::replaced_clock_id) {
            SSM_LOG(LOG_LEVEL_DEBUG, "%s%sdon't select clock on port, status:  port  %d, replace_clockid %d",
                    static_cast<int>(port->ifindex), 1);
            return;
        }
        SSM_LOG(LOG_LEVEL_DEBUG,
                "%s%sdon't select clock on port, status:  port  %d, synce_enable  %d, link_up  %d,recv_pdu  "
                "%d, recv_quality %d "
                "  force_rx_quality  %d",
                static_cast<int>(port->ifindex), static_cast<int>(port->synce_enable),
                static_cast<int>(port->link_up), static_cast<int>(port->recv_pdu), port->recv_quality,
                port->force_rx_quality);
    });
}

// The best port that says nothing against itself, among those that rank no better than `floor`; null: none.
// Whether the guard refused one that would be better is added to *refused.
ssm_port* best_from(port_rank floor, ssm_rule rule, port_rank* rank_found, bool* refused) {
    const port_rank mask = mask_of(rule);
    const rank_table& ranks = ranks_in_force();
    ssm_port* best = nullptr;
    port_rank best_rank = UINT64_MAX;
    ssm_record_walk([&](ssm_port* port) {
        const port_rank rank = rank_of(port, ranks, mask);
        if (rank >= best_rank) [[likely]]
            return;
        if (rank < floor || check_port(port, rule) != ssm_refusal::none) return;
        if (guarded(rule) && ssm_guard_judge(port) != ssm_guard_verdict::follow) {
            *refused = true;
            return;
        }
        best = port;
        best_rank = rank;
    });
    *rank_found = best_rank;
    return best;
}

}  // namespace

ssm_refusal ssm_candidate_check(const ssm_port* port, ssm_rule rule) {
    const ssm_refusal refusal = check_port(port, rule);
    if (refusal != ssm_refusal::none || rule != ssm_rule::extension) return refusal;
    if (!port->replace_clockid && replacing_port(port->recv_clockid)) return ssm_refusal::replaced_clock_id;
    return guarded(rule) ? refusal_of(ssm_guard_judge(port)) : ssm_refusal::none;
}

bool ssm_candidate_by_itself(const ssm_port* port) {
    return check_port(port, ssm_rule_in_force()) == ssm_refusal::none;
}

std::int32_t ssm_replace_clockid_seen(const std::uint8_t* clockid) {
    ssm_port* found = replacing_port(clockid);
    if (!found) return 0;
    // Whatever the debug flags, but not again with every PDU.
    if (!same_clock_id(found->logged_clockid, clockid)) {
        std::memcpy(found->logged_clockid, clockid, SSM_CLOCK_ID_SIZE);
        SSM_LOG(
            LOG_LEVEL_DEBUG,
            "%s%sdon't compare replace clockid on port, status:                                       port "
            " %d, replace_clockid %d",
            static_cast<int>(found->ifindex), static_cast<int>(found->replace_clockid));
    }
    return 1;
}

namespace {

ssm_port* best_candidate(ssm_rule rule, bool* refused) {
    port_rank rank = 0;
    ssm_port* best = best_from(0, rule, &rank, refused);
    if (rule != ssm_rule::extension) return best;
    while (best && !best->replace_clockid && ssm_replace_clockid_seen(best->recv_clockid))
        best = best_from(rank + 1, rule, &rank, refused);
    return best;
}

}  // namespace

ssm_port* ssm_best_candidate(ssm_rule rule) {
    bool refused = false;
    return best_candidate(rule, &refused);
}

bool ssm_refusal_by_guard(ssm_refusal refusal) {
    return refusal == ssm_refusal::too_many_hops || refusal == ssm_refusal::own_holdover_as_good ||
           refusal == ssm_refusal::may_lead_back;
}

const char* ssm_refusal_text(ssm_refusal refusal) {
    switch (refusal) {
        case ssm_refusal::none:
            return "candidate";
        case ssm_refusal::synce_disabled:
            return "synce disabled";
        case ssm_refusal::locked_out:
            return "locked out";
        case ssm_refusal::below_minimum:
            return "below the minimum";
        case ssm_refusal::waiting_to_restore:
            return "waiting to restore";
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
        case ssm_refusal::too_many_hops:
            return "too many hops";
        case ssm_refusal::own_holdover_as_good:
            return "own holdover as good";
        case ssm_refusal::may_lead_back:
            return "may lead back here";
    }
    return "unknown";
}

// ---- Applying the choice ------------------------------------------------------------------------------

namespace {

void advertise(ssm_quality quality) {
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
    (void)ssm_opts_switch_port(port->ifindex);  // says when it is selected already: nothing to do then
    if (g_s_master->gephy_dynamic) move_gephy_role(port);
    g_s_master->selected_port = port;

    // While the DPLL is in holdover a received quality is not true of our clock yet; a forced one is the
    // operator's word.
    if (g_s_master->dpll_state != SSM_DPLL_HOLDOVER)
        advertise(ssm_quality_followed(port));
    else if (port->force_rx_quality != QL_NONE)
        advertise(port->force_rx_quality);
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

// With SSM on. Says, when asked to, why ports are refused.
ssm_port* choose() {
    const ssm_rule rule = g_s_master->ssm_extend ? ssm_rule::extension : ssm_rule::quality;
    if (ssm_debugging(SSM_DEBUG_EVENT)) log_refusals(rule);
    bool refused = false;
    ssm_port* best = best_candidate(rule, &refused);
    if (guarded(rule)) ssm_guard_selected(best, refused);
    if (g_s_master->manual_port || g_s_master->non_revertive) best = ssm_choice_of_operator(best);
    return best;
}

void switch_without_ssm(ssm_port* port) {
    (void)ssm_opts_switch_port(port->ifindex);  // as in select_port
    g_s_master->selected_port = port;
}

}  // namespace

void ssm_clock_select() {
    if (g_s_master->device_type == SSM_MASTER_ONLY) {
        g_s_master->selected_port = nullptr;
        g_s_master->current_quality = g_s_master->local_quality;
        return;
    }
    if (g_s_master->force_e1 || ssm_force_port_in_effect()) {
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
    ssm_port* best = choose();
    if (!best) {
        no_candidate();
        return;
    }
    const ssm_own_clock own = ssm_own_clock_compare(best, ssm_rule::quality);
    const bool overridden = own == ssm_own_clock::not_worse_priority && best == g_s_master->manual_port;
    if (own == ssm_own_clock::worse || overridden) {
        select_port(best);
    } else {
        ssm_manual_drop("the own clock is better");
        ssm_opts_no_source();
    }
}

void ssm_select_slave_only() {
    if (ssm_port* best = choose())
        select_port(best);
    else
        no_candidate();
}

std::int32_t ssm_select_without_ssm(std::uint32_t role) {
    if (g_s_master->force_e1 || ssm_force_port_in_effect() || role == SSM_MASTER_ONLY) return 0;

    ssm_port* best = ssm_best_candidate(ssm_rule::priority);
    if (best &&
        (role == SSM_SLAVE_ONLY || ssm_own_clock_compare(best, ssm_rule::priority) == ssm_own_clock::worse))
        switch_without_ssm(best);
    else
        ssm_opts_no_source();
    return 0;
}
