// The layout is that of the records below, in the order of octets of this machine: a head, the clock, the
// changes of its history, the ports. The head says how long each is, so that a release which appends fields
// reads what one without them wrote, and the other way round; any other change is a new VERSION.
#include "restart/snapshot.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <type_traits>

#include "core/nsm_request.h"
#include "core/ports.h"
#include "core/supervision.h"
#include "core/timers.h"

namespace {

constexpr std::uint32_t VERSION = 1;

struct kept_head {
    std::uint32_t version;
    std::uint32_t clock_size, change_size, port_size;  // octets of one
    std::uint32_t changes, ports;                      // how many
    snapshot_origin origin;
};

struct kept_clock {
    std::uint64_t history_count;
    std::uint64_t guard_refused, guard_holds;
    nanoseconds guard_longest_hold, guard_holding_since, guard_hold_said_at;
    ssm_distances distances;
    std::uint32_t dpll_state, nsm_source_ifindex;
    std::uint32_t current_quality, holdover, freerun;
    std::uint32_t selected, manual, gephy_dynamic;  // interface indexes; 0: none
    std::uint32_t guard_refusing, zero;
    std::uint8_t clock_id[SSM_CLOCK_ID_SIZE];
    nanoseconds history_last[SSM_CHANGE_KINDS];
};

struct kept_port {
    ssm_statistics statistics;
    nanoseconds event_credit, guard_refused_at;
    nanoseconds timeout_at, hold_off_until, restore_until;  // 0: it does not run
    std::uint32_t ifindex, recv_pdu;
    std::uint16_t recv_quality, send_quality;
    std::uint8_t up, link_up;  // as NSM said; what it counts for, while a failure is held off
    std::uint8_t recv_hop_count, recv_form, recv_flags, recv_eeec, recv_eec;
    std::uint8_t failed, held_failures, event_skip, guard_alarmed, zero;
    std::uint8_t recv_clockid[SSM_CLOCK_ID_SIZE];
    std::uint8_t neighbour[SSM_ADDRESS_SIZE], neighbour_logged[SSM_ADDRESS_SIZE];
    char name[20];
};
static_assert(std::has_unique_object_representations_v<kept_port>, "no octet is left to chance");
static_assert(sizeof(kept_port::name) >= IF_NAME_SIZE);

std::uint32_t index_of(const ssm_port* port) {
    return port ? port->ifindex : 0;
}

ssm_port* port_of(std::uint32_t ifindex) {
    return ifindex ? ssm_if_port(if_lookup_by_index(g_p_esmcd->ifm, ifindex)) : nullptr;
}

// ---- What is the same in the record and in what is kept of it ----

// Each pair is given to copy(one, other), which goes in one direction or the other.
template <typename Kept, typename Copy>
void each_of_port(ssm_port* port, Kept* kept, Copy copy) {
    copy(*port->statistics, kept->statistics);
    copy(port->event_credit, kept->event_credit);
    copy(port->guard_refused_at, kept->guard_refused_at);
    copy(port->recv_pdu, kept->recv_pdu);
    copy(port->recv_quality, kept->recv_quality);
    copy(port->send_quality, kept->send_quality);
    copy(port->recv_hop_count, kept->recv_hop_count);
    copy(port->recv_form, kept->recv_form);
    copy(port->recv_flags, kept->recv_flags);
    copy(port->recv_eeec, kept->recv_eeec);
    copy(port->recv_eec, kept->recv_eec);
    copy(port->recv_clockid, kept->recv_clockid);
    copy(port->neighbour, kept->neighbour);
    copy(port->neighbour_logged, kept->neighbour_logged);
    copy(port->failed, kept->failed);
    copy(port->held_failures, kept->held_failures);
    copy(port->event_skip, kept->event_skip);
}

template <typename Kept, typename Copy>
void each_of_clock(ssm_master* clock, Kept* kept, Copy copy) {
    ssm_guard& guard = clock->guard;
    copy(clock->current_quality, kept->current_quality);
    copy(clock->holdover, kept->holdover);
    copy(clock->freerun, kept->freerun);
    copy(clock->dpll_state, kept->dpll_state);
    copy(clock->nsm_source_ifindex, kept->nsm_source_ifindex);
    copy(clock->clock_id, kept->clock_id);
    copy(clock->history.count, kept->history_count);
    copy(clock->history.last, kept->history_last);
    copy(guard.distances, kept->distances);
    copy(guard.refused, kept->guard_refused);
    copy(guard.holds, kept->guard_holds);
    copy(guard.longest_hold, kept->guard_longest_hold);
    copy(guard.holding_since, kept->guard_holding_since);
    copy(guard.hold_said_at, kept->guard_hold_said_at);
}

constexpr auto keep = [](const auto& record, auto& kept) {
    static_assert(sizeof record == sizeof kept);
    std::memcpy(&kept, &record, sizeof kept);
};
constexpr auto restore = [](auto& record, const auto& kept) {
    static_assert(sizeof record == sizeof kept);
    std::memcpy(&record, &kept, sizeof record);
};

// ---- Writing ----

nanoseconds end_of(const thread* timer) {
    return timer ? timer->due : 0;
}

kept_clock keep_clock() {
    kept_clock kept = {};
    each_of_clock(g_s_master, &kept, keep);
    kept.selected = index_of(g_s_master->selected_port);
    kept.manual = index_of(g_s_master->manual_port);
    kept.gephy_dynamic = g_s_master->gephy_dynamic_intf ? g_s_master->gephy_dynamic_intf->ifindex : 0;
    kept.guard_refusing = g_s_master->guard.refusing;
    return kept;
}

kept_port keep_port(ssm_port* port) {
    kept_port kept = {};
    each_of_port(port, &kept, keep);
    kept.ifindex = port->ifindex;
    kept.up = port->intf->up;
    kept.link_up = port->link_up != 0;
    kept.guard_alarmed = port->guard_alarmed;
    kept.timeout_at = end_of(port->timeout_timer);
    kept.hold_off_until = end_of(port->hold_off_timer);
    kept.restore_until = end_of(port->restore_timer);
    std::snprintf(kept.name, sizeof kept.name, "%s", port->intf->name);
    return kept;
}

std::uint32_t changes_kept() {
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(g_s_master->history.count, SSM_HISTORY_SIZE));
}

}  // namespace

bool snapshot_write(const snapshot_origin& origin, text_buffer* out) {
    kept_head head = {VERSION, sizeof(kept_clock), sizeof(ssm_change), sizeof(kept_port), changes_kept(), 0,
                      origin};
    ssm_port_walk([&head](const ssm_port*) { ++head.ports; });
    const kept_clock clock = keep_clock();
    // In the places where they lie in the ring.
    bool good = text_append(out, &head, sizeof head) && text_append(out, &clock, sizeof clock) &&
                text_append(out, g_s_master->history.changes, head.changes * sizeof(ssm_change));
    ssm_port_walk([&](ssm_port* port) {
        const kept_port kept = keep_port(port);
        good = good && text_append(out, &kept, sizeof kept);
    });
    return good;
}

// ---- Reading ----

namespace {

// What of a record was written, and zeros for what was not.
template <typename Record>
Record read_record(const_octets state, std::size_t at, std::size_t size) {
    Record record = {};
    std::memcpy(&record, &state[at], std::min(size, sizeof record));
    return record;
}

kept_head read_head(const_octets state) {
    return read_record<kept_head>(state, 0, sizeof(kept_head));
}

kept_clock read_clock(const_octets state) {
    return read_record<kept_clock>(state, sizeof(kept_head), read_head(state).clock_size);
}

std::size_t changes_at(const kept_head& head) {
    return sizeof head + head.clock_size;
}

std::size_t ports_at(const kept_head& head) {
    return changes_at(head) + std::size_t{head.changes} * head.change_size;
}

kept_port read_port(const_octets state, std::uint32_t number) {
    const kept_head head = read_head(state);
    return read_record<kept_port>(state, ports_at(head) + std::size_t{number} * head.port_size,
                                  head.port_size);
}

bool has_sizes(const kept_head& head, std::size_t size) {
    constexpr std::uint32_t SIZE_MAX_OF_ONE = 4096, COUNT_MAX = 4096;
    return head.clock_size <= SIZE_MAX_OF_ONE && head.change_size <= SIZE_MAX_OF_ONE &&
           head.port_size <= SIZE_MAX_OF_ONE && head.changes <= SSM_HISTORY_SIZE && head.ports <= COUNT_MAX &&
           ports_at(head) + std::size_t{head.ports} * head.port_size == size;
}

bool differs(snapshot_difference* difference, const char* name, const char* what) {
    std::snprintf(difference->text, sizeof difference->text, "%s%s", name, what);
    return false;
}

bool port_agrees(const kept_port& kept, snapshot_difference* difference) {
    const ssm_port* port = port_of(kept.ifindex);
    if (!port || std::strcmp(port->intf->name, kept.name) != 0)
        return differs(difference, kept.name, " is gone");
    return port->intf->up == (kept.up != 0) || differs(difference, kept.name, ": its link changed");
}

}  // namespace

bool snapshot_read_origin(const_octets state, snapshot_origin* origin) {
    if (state.size() < sizeof(kept_head)) return false;
    const kept_head head = read_head(state);
    if (head.version != VERSION || !has_sizes(head, state.size())) return false;
    *origin = head.origin;
    return read_clock(state).distances.count <= std::size(ssm_distances{}.of);
}

bool snapshot_agrees(const_octets state, snapshot_difference* difference) {
    const kept_clock clock = read_clock(state);
    if (std::memcmp(clock.clock_id, g_s_master->clock_id, sizeof clock.clock_id) != 0)
        return differs(difference, "", "the switch's identity is another");
    if (clock.dpll_state != g_s_master->dpll_state ||
        clock.nsm_source_ifindex != g_s_master->nsm_source_ifindex)
        return differs(difference, "", "the clock hardware reports another state");
    const std::uint32_t ports = read_head(state).ports;
    for (std::uint32_t i = 0; i < ports; ++i) {
        kept_port kept = read_port(state, i);
        kept.name[sizeof kept.name - 1] = 0;
        if (!port_agrees(kept, difference)) return false;
    }
    std::uint32_t now = 0;
    ssm_port_walk([&now](const ssm_port*) { ++now; });
    return now == ports || differs(difference, "", "there are more ports");
}

// ---- Going on ----

namespace {

constexpr std::uint32_t TIMEOUT_LEFT_MIN_MS = 2 * SSM_SEND_PERIOD_MS;  // nobody listened in between

std::uint32_t left_ms(nanoseconds end, nanoseconds now) {
    return end > now ? static_cast<std::uint32_t>((end - now + NS_PER_MS - 1) / NS_PER_MS) : 0;
}

// 0 for what did not run; what ended meanwhile ends now.
std::uint32_t left_of(nanoseconds end, nanoseconds now) {
    return end ? std::max(left_ms(end, now), 1U) : 0;
}

void apply_port(const kept_port& kept, nanoseconds now) {
    ssm_port* port = port_of(kept.ifindex);
    each_of_port(port, &kept, restore);
    port->link_up = kept.link_up;
    port->guard_alarmed = kept.guard_alarmed != 0;
    const std::uint32_t timeout =
        kept.timeout_at ? std::max(left_ms(kept.timeout_at, now), TIMEOUT_LEFT_MIN_MS) : 0;
    const nanoseconds said = kept.statistics.last_out;
    ssm_port_timers_resume(port, timeout, left_ms(said + SSM_SEND_PERIOD_MS * NS_PER_MS, now));
    ssm_supervision_resume(port, left_of(kept.hold_off_until, now), left_of(kept.restore_until, now));
}

void apply_history(const_octets state) {
    const kept_head head = read_head(state);
    for (std::uint32_t i = 0; i < head.changes; ++i) {
        ssm_change& change = g_s_master->history.changes[i];
        change = read_record<ssm_change>(state, changes_at(head) + std::size_t{i} * head.change_size,
                                         head.change_size);
        change.from[sizeof change.from - 1] = change.to[sizeof change.to - 1] = 0;
        change.why[sizeof change.why - 1] = 0;
    }
}

// The role that selection gave its source is there already: no link goes down for it.
void apply_dynamic_role(std::uint32_t ifindex) {
    ssm_port* port = port_of(ifindex);
    if (!port || !g_s_master->gephy_dynamic) return;
    g_s_master->gephy_dynamic_intf = port->intf;
    port->gephy_role_enable = 1;
    port->gephy_role = SSM_GEPHY_SLAVE;
    (void)ssm_nsm_set_gephy_role(ifindex, 1, SSM_GEPHY_SLAVE);
}

// NSM waits for somebody who chooses: it is told what it was told before.
void state_choice() {
    if (g_s_master->holdover)
        (void)ssm_nsm_send_holdover(1);
    else if (g_s_master->selected_port)
        (void)ssm_nsm_selected_if_index(g_s_master->selected_port->ifindex, 0);
}

void apply_clock(const kept_clock& kept) {
    each_of_clock(g_s_master, &kept, restore);
    g_s_master->selected_port = port_of(kept.selected);
    g_s_master->manual_port = port_of(kept.manual);
    g_s_master->guard.refusing = kept.guard_refusing != 0;
    apply_dynamic_role(kept.gephy_dynamic);
}

}  // namespace

void snapshot_apply(const_octets state) {
    const nanoseconds now = thread_now(g_p_esmcd);
    const std::uint32_t ports = read_head(state).ports;
    for (std::uint32_t i = 0; i < ports; ++i) apply_port(read_port(state, i), now);
    apply_history(state);
    apply_clock(read_clock(state));
    state_choice();
    ssm_guard_resume();
    ssm_history_resumed();
}
