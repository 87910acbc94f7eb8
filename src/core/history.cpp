// Everything is seen at the end of an event, by comparing where the clock stands with what was recorded last:
// whatever led there, by whatever way, is one change.
#include "core/history.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <utility>

#include "core/debug.h"
#include "core/opts.h"
#include "core/ports.h"
#include "core/ql.h"
#include "core/select.h"

namespace {

constexpr nanoseconds WINDOW = 60 * NS_PER_S;

const char* state_text(std::uint8_t state) {
    static constexpr const char* TEXTS[] = {"none", "master", "free-run", "holdover", "locked"};
    return TEXTS[state];
}

const char* quality_text(std::uint32_t quality) {
    return ssm_ql_to_str(quality, SSM_QL_STYLE_SHORT);
}

void record(ssm_change_kind kind, const char* from, const char* to, const char* why) {
    ssm_history& kept = g_s_master->history;
    ssm_change& change = kept.changes[kept.count++ % SSM_HISTORY_SIZE];
    change.wall = wall_now();
    change.monotonic = thread_now(g_p_esmcd);
    change.kind = kind;
    std::snprintf(change.from, sizeof change.from, "%s", from);
    std::snprintf(change.to, sizeof change.to, "%s", to);
    std::snprintf(change.why, sizeof change.why, "%s", why);
    const auto at = static_cast<std::size_t>(kind);
    if (at < SSM_CHANGE_KINDS && std::strcmp(from, to) != 0) kept.last[at] = change.monotonic;
}

// ---- Why ----

struct reason {
    char text[48];
};

reason say(const char* text, const char* subject = "") {
    reason said;
    std::snprintf(said.text, sizeof said.text, "%s%s", text, subject);
    return said;
}

// Why the port that was the source is none any more, and this one, if any, is.
reason why_source(std::uint32_t former_index, const ssm_port* source) {
    if (source && source == g_s_master->force_port) return say("forced");
    if (source && source == g_s_master->manual_port) return say("manual switch");
    if (g_s_master->force_e1) return say("the E1 input is forced");
    if (g_s_master->device_type == SSM_MASTER_ONLY) return say("master-only");
    if (!former_index)
        return say("offers ", source ? quality_text(ssm_port_select_quality(source)) : "nothing");
    const ssm_port* former = ssm_port_lookup_by_ifindex(former_index);
    if (!former) return say("the port is gone");
    const ssm_refusal refusal = ssm_candidate_check(former);
    if (refusal != ssm_refusal::none) return say(ssm_refusal_text(refusal));
    if (!source) return say("the own clock is better");
    const ssm_order order = ssm_candidate_compare(source, former);
    return order.winner < 0 ? say("better ", order.key) : say("chosen anew");
}

// Why what is advertised changed though the source did not.
reason why_quality(const char* source) {
    if (g_s_master->dpll_state == SSM_DPLL_HOLDOVER) return say("the clock holds over");
    if (g_s_master->dpll_state == SSM_DPLL_FREERUN) return say("the clock runs free");
    return say("of the source ", source);
}

// ---- The log ----

int window_over(thread*) {
    ssm_history& kept = g_s_master->history;
    kept.window_timer = nullptr;
    if (kept.lines > SSM_HISTORY_LINES)
        SSM_LOG(LOG_LEVEL_INFO, "%s%s%d more changes in %d s",
                static_cast<int>(kept.lines - SSM_HISTORY_LINES), static_cast<int>(WINDOW / NS_PER_S));
    return 0;
}

// Whether this change gets a line of its own. The first one of a minute begins it.
bool may_say() {
    ssm_history& kept = g_s_master->history;
    if (!kept.window_timer) {
        kept.lines = 0;
        kept.window_timer = thread_add_timer_msec(g_p_esmcd, window_over, nullptr, WINDOW / NS_PER_MS);
    }
    return kept.lines++ < SSM_HISTORY_LINES;
}

// "source p2, PRC; p1 before: link down"
void log_change(std::uint8_t state, bool moved, const char* former, const char* why) {
    if (!may_say()) return;
    const char* quality = quality_text(g_s_master->current_quality);
    const ssm_port* source = g_s_master->selected_port;
    if (!moved)
        SSM_LOG(LOG_LEVEL_INFO, "%s%s%s, %s", state_text(state), quality);
    else if (!source)
        SSM_LOG(LOG_LEVEL_INFO, "%s%sno source, %s, %s; %s before: %s", state_text(state), quality, former,
                why);
    else
        SSM_LOG(LOG_LEVEL_INFO, "%s%ssource %s, %s; %s before: %s", source->intf->name, quality, former, why);
}

void became_source(ssm_port* port) {
    ssm_statistics& s = *port->statistics;
    std::shift_right(std::begin(s.source_times), std::end(s.source_times), 1);
    s.source_times[0] = thread_now(g_p_esmcd);
    ++s.sources;
}

}  // namespace

const char* ssm_change_kind_text(ssm_change_kind kind) {
    switch (kind) {
        case ssm_change_kind::source:
            return "source";
        case ssm_change_kind::quality:
            return "quality";
        case ssm_change_kind::state:
            return "state";
        case ssm_change_kind::command:
            return "command";
        case ssm_change_kind::hardware:
            return "hardware";
    }
    return "unknown";
}

namespace {

void note_standing(const ssm_standing& now) {
    ssm_history& kept = g_s_master->history;
    const ssm_port* source = now.source;
    g_s_master->standing = now;
    kept.state = static_cast<std::uint8_t>(ssm_running_state());
    kept.source = source ? source->ifindex : 0;
    std::snprintf(kept.source_name, sizeof kept.source_name, "%s", source ? source->intf->name : "none");
}

}  // namespace

void ssm_history_resumed() {
    note_standing(ssm_standing_of(*g_s_master));
    const char* state = state_text(g_s_master->history.state);
    record(ssm_change_kind::state, state, state, "the daemon was restarted");
}

void ssm_history_changed(const ssm_standing& now) {
    ssm_history& kept = g_s_master->history;
    ssm_port* source = g_s_master->selected_port;
    const ssm_standing before = g_s_master->standing;
    const std::uint8_t state_before = kept.state;
    const std::uint32_t index_before = kept.source;
    char former[IF_NAME_SIZE];
    std::snprintf(former, sizeof former, "%s", kept.source_name);
    note_standing(now);
    if (state_before == 0) return;  // what it begins with is no change
    const std::uint8_t state = kept.state;
    const std::uint32_t index = kept.source;
    const bool moved = index_before != index;
    const reason why = moved ? why_source(index_before, source) : why_quality(kept.source_name);
    if (moved) record(ssm_change_kind::source, former, kept.source_name, why.text);
    if (moved && source) became_source(source);
    if (before.quality != now.quality)
        record(ssm_change_kind::quality, quality_text(before.quality), quality_text(now.quality), why.text);
    if (state_before != state)
        record(ssm_change_kind::state, state_text(state_before), state_text(state), why.text);
    if (moved || before.quality != now.quality || state_before != state)
        log_change(state, moved, former, why.text);
}

void ssm_history_command(const char* from, const char* to, const char* why) {
    record(ssm_change_kind::command, from, to, why);
}

void ssm_history_hardware(const char* from, const char* to) {
    record(ssm_change_kind::hardware, from, to, "lock error");
    if (may_say()) SSM_LOG(LOG_LEVEL_WARNING, "%s%sclock hardware: lock error %s; %s before", to, from);
}

const ssm_change* ssm_history_get(std::size_t back) {
    const ssm_history& kept = g_s_master->history;
    if (back >= std::min<std::uint64_t>(kept.count, SSM_HISTORY_SIZE)) return nullptr;
    return &kept.changes[(kept.count - 1 - back) % SSM_HISTORY_SIZE];
}

bool ssm_flapping(const ssm_port* port) {
    const nanoseconds oldest = port->statistics->source_times[SSM_FLAPPING_TIMES - 1];
    return oldest && thread_now(g_p_esmcd) - oldest < SSM_FLAPPING_TIME;
}
