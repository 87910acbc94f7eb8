// The table of distances is small: a network has few masters, and only those that this switch followed within
// the last hold are in it. When it is full the one that ends first goes, and until its end nothing is proved
// for clocks that are not in the table.
#include "core/guard.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <utility>

#include "core/debug.h"
#include "core/opts.h"
#include "core/pdu.h"
#include "core/ports.h"
#include "core/ql.h"
#include "core/select.h"

// ---- Distances ------------------------------------------------------------------------------------------

namespace {

constexpr std::uint32_t ANY_DISTANCE = SSM_HOPS_MAX + 1;

bool same_clock(const std::uint8_t* a, const std::uint8_t* b) {
    return std::memcmp(a, b, SSM_CLOCK_ID_SIZE) == 0;
}

ssm_distance* find(ssm_distances* told, const std::uint8_t* clock_id) {
    for (std::uint32_t i = 0; i < told->count; ++i)
        if (same_clock(told->of[i].clock_id, clock_id)) return &told->of[i];
    return nullptr;
}

bool counts(const ssm_distance& distance, nanoseconds now) {
    return distance.forget_at == 0 || distance.forget_at > now;
}

ssm_distance* make_room(ssm_distances* told) {
    if (told->count < std::size(told->of)) return &told->of[told->count++];
    const auto end_of = [](const ssm_distance& d) { return d.forget_at ? d.forget_at : UINT64_MAX; };
    ssm_distance* const first = std::ranges::min_element(told->of, {}, end_of);
    told->unsure_until = std::max(told->unsure_until, first->forget_at);
    return first;
}

}  // namespace

std::uint32_t ssm_distance_limit(const ssm_distances* told, const std::uint8_t* clock_id, nanoseconds now) {
    for (std::uint32_t i = 0; i < told->count; ++i)
        if (counts(told->of[i], now) && same_clock(told->of[i].clock_id, clock_id)) return told->of[i].hops;
    return now < told->unsure_until ? 0 : ANY_DISTANCE;
}

void ssm_distance_tell(ssm_distances* told, const std::uint8_t* clock_id, std::uint8_t hops,
                       nanoseconds now) {
    ssm_distance* known = find(told, clock_id);
    if (known && counts(*known, now)) {
        known->hops = std::min(known->hops, hops);
        known->forget_at = 0;
        return;
    }
    if (!known) known = make_room(told);
    std::memcpy(known->clock_id, clock_id, SSM_CLOCK_ID_SIZE);
    known->hops = hops;
    known->forget_at = 0;
}

void ssm_distance_end(ssm_distances* told, const std::uint8_t* but, nanoseconds forget_at) {
    for (std::uint32_t i = 0; i < told->count; ++i) {
        ssm_distance& distance = told->of[i];
        if (distance.forget_at == 0 && !(but && same_clock(distance.clock_id, but)))
            distance.forget_at = forget_at;
    }
}

void ssm_distance_extend(ssm_distances* told, nanoseconds forget_at) {
    for (std::uint32_t i = 0; i < told->count; ++i) {
        ssm_distance& distance = told->of[i];
        if (distance.forget_at) distance.forget_at = std::max(distance.forget_at, forget_at);
    }
}

nanoseconds ssm_distance_forget(ssm_distances* told, nanoseconds now) {
    nanoseconds next = now < told->unsure_until ? told->unsure_until : 0;
    for (std::uint32_t i = 0; i < told->count;) {
        const ssm_distance& distance = told->of[i];
        if (!counts(distance, now)) {
            told->of[i] = told->of[--told->count];
            continue;
        }
        if (distance.forget_at && (!next || distance.forget_at < next)) next = distance.forget_at;
        ++i;
    }
    return next;
}

// ---- The guard ------------------------------------------------------------------------------------------

namespace {

bool selects() {
    return g_s_master->global_enable && g_s_master->ssm_enable && g_s_master->device_type != SSM_MASTER_ONLY;
}

// No force switch does it in the guard's place either.
bool chooses() {
    return selects() && !g_s_master->force_e1 && !ssm_force_port_in_effect();
}

nanoseconds hold() {
    return g_s_master->guard.hold_ms * NS_PER_MS;
}

ssm_told told_now() {
    ssm_told told = {};
    ssm_pdu_identity(told.clock_id, &told.hops);
    const ssm_port* source = g_s_master->selected_port;
    told.source = source ? source->ifindex : 0;
    told.quality = static_cast<ssm_quality>(g_s_master->current_quality);
    return told;
}

void watch_distances();

int distances_ended(thread*) {
    g_s_master->guard.timer = nullptr;
    watch_distances();
    if (ssm_guard_in_force() && selects()) ssm_clock_select();
    return 0;
}

// An offer becomes proved when a distance is forgotten, so selection has to look again then. Without memory
// for the timer the next change does it.
void watch_distances() {
    ssm_guard& guard = g_s_master->guard;
    const nanoseconds now = thread_now(g_p_esmcd), next = ssm_distance_forget(&guard.distances, now);
    if (guard.timer || !next) return;
    const nanoseconds ms = (next - now + NS_PER_MS - 1) / NS_PER_MS;
    guard.timer = thread_add_timer_msec(g_p_esmcd, distances_ended, nullptr, static_cast<std::uint32_t>(ms));
}

bool may_say(nanoseconds* said_at) {
    const nanoseconds now = thread_now(g_p_esmcd);
    if (*said_at && now - *said_at < SSM_GUARD_QUIET) return false;
    *said_at = now;
    return true;
}

void log_refusal(ssm_port* port) {
    if (may_say(&port->guard_said_at))
        SSM_LOG(LOG_LEVEL_INFO, "%s%sloop guard: %s is not followed: %s (clock %s)", port->intf->name,
                ssm_guard_objection(port).text, ssm_clock_id_str(port->recv_clockid));
}

bool due_for_alarm(const ssm_port* port) {
    return port->guard_refused_at && thread_now(g_p_esmcd) - port->guard_refused_at >= SSM_GUARD_ALARM_AFTER;
}

void watch_refused();

int alarm_due(thread*) {
    g_s_master->guard.alarm = nullptr;
    ssm_port_walk([](ssm_port* port) {
        if (port->guard_alarmed || !due_for_alarm(port) || !ssm_guard_refused_ms(port)) return;
        port->guard_alarmed = true;
        SSM_LOG(LOG_LEVEL_WARNING, "%s%sloop guard: %s has not been followed for %d s: %s (clock %s)",
                port->intf->name, static_cast<int>(SSM_GUARD_ALARM_AFTER / NS_PER_S),
                ssm_guard_objection(port).text, ssm_clock_id_str(port->recv_clockid));
    });
    watch_refused();
    return 0;
}

// Without memory for the timer the next offer that is refused starts it.
void watch_refused() {
    ssm_guard& guard = g_s_master->guard;
    if (guard.alarm) return;
    nanoseconds first = 0;
    ssm_port_walk([&first](const ssm_port* port) {
        const nanoseconds since = port->guard_refused_at;
        if (since && !port->guard_alarmed && !due_for_alarm(port) && (!first || since < first)) first = since;
    });
    if (!first) return;
    const nanoseconds left = first + SSM_GUARD_ALARM_AFTER - thread_now(g_p_esmcd);
    guard.alarm = thread_add_timer_msec(g_p_esmcd, alarm_due, nullptr,
                                        static_cast<std::uint32_t>((left + NS_PER_MS - 1) / NS_PER_MS));
}

// What would be preferred to the choice, and is refused.
bool stands_back(const ssm_port* port, const ssm_port* chosen) {
    return !chosen || ssm_candidate_compare(port, chosen).winner < 0;
}

void forget_refused(ssm_port* port) {
    port->guard_refused_at = 0;
    port->guard_alarmed = false;
}

// Brings what the records say about refused offers up to date. Whether one of them may lead back here.
bool note_refused_offers(const ssm_port* chosen) {
    ssm_guard& guard = g_s_master->guard;
    bool lead_back = false;
    guard.refusing = false;
    ssm_port_walk([&](ssm_port* port) {
        // The cheapest question first; the dearest one, which looks at all other ports, not again.
        const ssm_guard_verdict verdict = ssm_guard_judge(port);
        const bool known = port->guard_refused_at && ssm_candidate_by_itself(port);
        if (verdict == ssm_guard_verdict::follow || !stands_back(port, chosen) ||
            !(known || ssm_refusal_by_guard(ssm_candidate_check(port))))
            return forget_refused(port);
        guard.refusing = true;
        lead_back |= verdict == ssm_guard_verdict::may_lead_back;
        if (port->guard_refused_at) return;
        port->guard_refused_at = thread_now(g_p_esmcd);
        ++guard.refused;
        log_refusal(port);
    });
    if (guard.refusing) watch_refused();
    return lead_back;
}

void begin_hold() {
    ssm_guard& guard = g_s_master->guard;
    if (guard.holding_since) return;
    guard.holding_since = thread_now(g_p_esmcd);
    ++guard.holds;
    if (may_say(&guard.hold_said_at))
        SSM_LOG(LOG_LEVEL_INFO, "%s%sloop guard: no offer is proved, holding over for at most %d ms",
                static_cast<int>(guard.hold_ms));
}

void end_hold(const ssm_port* chosen) {
    ssm_guard& guard = g_s_master->guard;
    if (!guard.holding_since) return;
    const nanoseconds lasted = thread_now(g_p_esmcd) - guard.holding_since;
    guard.longest_hold = std::max(guard.longest_hold, lasted);
    if (guard.hold_said_at == guard.holding_since)
        SSM_LOG(LOG_LEVEL_INFO, "%s%sloop guard: held over for %d ms, %s%s",
                static_cast<int>(lasted / NS_PER_MS), chosen ? "now from " : "no offer is left",
                chosen ? chosen->intf->name : "");
    guard.holding_since = 0;
}

// Somebody else chooses: what the guard last saw is of the past.
void stand_down() {
    end_hold(nullptr);
    if (std::exchange(g_s_master->guard.refusing, false)) ssm_port_walk(forget_refused);
}

// In holdover a switch is as good a clock as one that tells its holdover quality. A source that it follows
// already, or that the operator vouches for, is not measured so.
bool own_holdover_as_good(const ssm_port* port) {
    if (g_s_master->freerun || port == g_s_master->selected_port || port->force_rx_quality != QL_NONE)
        return false;
    return ssm_ql_compare(ssm_port_select_quality(port), ssm_holdover_quality()) >= 0;
}

}  // namespace

void ssm_guard_init(ssm_guard* guard) {
    guard->hold_ms = SSM_GUARD_HOLD_MS;
    guard->hops = SSM_GUARD_HOPS;
}

void ssm_guard_restart() {
    ssm_guard& guard = g_s_master->guard;
    thread_cancel(guard.timer);
    guard.timer = nullptr;
    thread_cancel(guard.alarm);
    guard.alarm = nullptr;
    guard.distances = {};
    guard.told = {};
    guard.tell = true;
    guard.refusing = false;
    guard.holding_since = 0;
    ssm_port_walk(forget_refused);
}

void ssm_guard_resume() {
    ssm_guard& guard = g_s_master->guard;
    guard.told = told_now();
    guard.tell = false;
    watch_distances();
    if (guard.refusing) watch_refused();
}

bool ssm_guard_in_force() {
    return g_s_master->guard.enable && g_s_master->ssm_extend;
}

std::uint32_t ssm_guard_limit(const ssm_port* port) {
    return ssm_distance_limit(&g_s_master->guard.distances, port->recv_clockid, thread_now(g_p_esmcd));
}

ssm_guard_verdict ssm_guard_judge(const ssm_port* port) {
    if (port->recv_hop_count > g_s_master->guard.hops) return ssm_guard_verdict::too_many_hops;
    if (own_holdover_as_good(port)) return ssm_guard_verdict::own_holdover_as_good;
    // Who names no clock gets our own identity passed on: nothing of it can come back unseen.
    if (!ssm_clock_id_named(port->recv_clockid)) return ssm_guard_verdict::follow;
    return port->recv_hop_count < ssm_guard_limit(port) ? ssm_guard_verdict::follow
                                                        : ssm_guard_verdict::may_lead_back;
}

std::uint32_t ssm_guard_hold_left_ms() {
    const ssm_guard& guard = g_s_master->guard;
    return guard.holding_since && guard.timer ? thread_timer_remaining_ms(guard.timer) : 0;
}

std::uint32_t ssm_guard_refused_ms(const ssm_port* port) {
    if (!ssm_guard_in_force() || !port->guard_refused_at || !ssm_refusal_by_guard(ssm_candidate_check(port)))
        return 0;
    return static_cast<std::uint32_t>((thread_now(g_p_esmcd) - port->guard_refused_at) / NS_PER_MS);
}

ssm_guard_words ssm_guard_objection(const ssm_port* port) {
    ssm_guard_words said = {};
    switch (ssm_guard_judge(port)) {
        case ssm_guard_verdict::follow:
            break;
        case ssm_guard_verdict::too_many_hops:
            std::snprintf(said.text, sizeof said.text, "%s: %d, limit %u",
                          ssm_refusal_text(ssm_refusal::too_many_hops), port->recv_hop_count,
                          static_cast<unsigned>(g_s_master->guard.hops));
            break;
        case ssm_guard_verdict::own_holdover_as_good:
            std::snprintf(said.text, sizeof said.text, "%s",
                          ssm_refusal_text(ssm_refusal::own_holdover_as_good));
            break;
        case ssm_guard_verdict::may_lead_back:
            std::snprintf(said.text, sizeof said.text, "%s: %d hops, ours %u",
                          ssm_refusal_text(ssm_refusal::may_lead_back), port->recv_hop_count,
                          static_cast<unsigned>(ssm_guard_limit(port)));
            break;
    }
    return said;
}

void ssm_guard_selected(const ssm_port* chosen, bool refused_some) {
    const bool lead_back = (refused_some || g_s_master->guard.refusing) && note_refused_offers(chosen);
    if (!chosen && lead_back)
        begin_hold();
    else
        end_hold(chosen);
}

void ssm_guard_sending(const std::uint8_t* clock_id, std::uint8_t hops, ssm_quality quality) {
    if (quality == QL_DNU || same_clock(clock_id, g_s_master->clock_id)) return;
    ssm_distance_tell(&g_s_master->guard.distances, clock_id, hops, thread_now(g_p_esmcd));
}

void ssm_guard_sent_late() {
    ssm_distance_extend(&g_s_master->guard.distances, thread_now(g_p_esmcd) + hold());
}

void ssm_guard_after_event() {
    ssm_guard& guard = g_s_master->guard;
    if (!chooses()) stand_down();
    if (!g_s_master->global_enable || !g_s_master->ssm_enable) return;
    const ssm_told now = told_now();
    if (!guard.tell && now == guard.told) return;
    guard.tell = false;
    guard.told = now;
    ssm_distance_end(&guard.distances, now.quality == QL_DNU ? nullptr : now.clock_id,
                     thread_now(g_p_esmcd) + hold());
    ssm_pdu_tx_events();
    watch_distances();
}
