// What must come of failures, limits and the operator's switches, said once more and otherwise: from what was
// done to the daemon and from what its records say of configuration and of PDUs heard, never by its own
// functions.
#pragma once

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <map>
#include <vector>

#include "core/records.h"
#include "core/supervision.h"
#include "fuzz/world.h"

class source_model {
  public:
    // ---- Order of qualities, best first ----

    // The place of a quality in the order in force; 99: it has none.
    static int place(ssm_quality quality) {
        static constexpr ssm_quality OPTION_1[] = {0x2102,   0x2002, 0x2302,  QL_PRC, QL_SSU_A,
                                                   QL_SSU_B, 0x220B, QL_EEC1, QL_DNU};
        static constexpr ssm_quality OPTION_2[] = {0x2101,  0x2001, 0x2301,  QL_PRS, QL_STU,  QL_ST2, QL_TNC,
                                                   QL_ST3E, 0x220A, QL_EEC2, QL_SMC, QL_PROV, QL_DNU};
        const auto in = [quality](const auto& order) {
            const auto* at = std::ranges::find(order, quality);
            return at == std::end(order) ? 99 : static_cast<int>(at - std::begin(order));
        };
        return g_s_master->ql_option == SSM_OPTION_1 ? in(OPTION_1) : in(OPTION_2);
    }
    static ssm_quality offered(const ssm_port* p) {
        if (p->force_rx_quality != QL_NONE) return p->force_rx_quality;
        const bool capped = p->max_rx_quality != QL_NONE && p->recv_quality != QL_NONE &&
                            place(p->recv_quality) < place(p->max_rx_quality);
        return capped ? p->max_rx_quality : p->recv_quality;
    }
    static ssm_quality to_send(const ssm_port* p, ssm_quality quality) {
        const ssm_port* source = g_s_master->selected_port;
        if (p == source || (source && p->dnu_group && p->dnu_group == source->dnu_group)) return QL_DNU;
        if (p->force_tx_quality != QL_NONE) quality = p->force_tx_quality;
        if (p->min_tx_quality != QL_NONE && place(quality) > place(p->min_tx_quality)) return QL_DNU;
        if (p->max_tx_quality != QL_NONE && place(quality) < place(p->max_tx_quality))
            return p->max_tx_quality;
        return quality;
    }
    static bool runs() { return g_s_master->global_enable && g_s_master->ssm_enable; }

    // ---- Failures ----

    struct watched {
        bool up = false, held_link = false, held_silence = false, failed = false;
        std::uint64_t held_until = 0, restored_at = 0;  // 0: no time runs
    };
    std::map<std::uint32_t, watched> ports;

    static bool offers(const ssm_port* p, const watched& w) {
        if (!p->synce_enable || !w.up || !runs()) return false;
        if (p->force_rx_quality == QL_NONE && !p->recv_pdu) return false;
        return offered(p) != QL_NONE && offered(p) != QL_DNU;
    }
    // True: the failure is held off.
    static bool fails(const ssm_port* p, watched* w, bool link, std::uint64_t now) {
        const std::uint32_t hold = p->hold_off_ms ? p->hold_off_ms : g_s_master->hold_off_ms;
        if (!w->held_until && hold && offers(p, *w)) w->held_until = now + hold;
        if (!w->held_until) failed(p, w, link);
        if (w->held_until) (link ? w->held_link : w->held_silence) = true;
        return w->held_until != 0;
    }
    // Silence is no failure of a port whose quality is the operator's word.
    static void failed(const ssm_port* p, watched* w, bool link) {
        const std::uint32_t restore = p->restore_set ? p->restore_s : g_s_master->restore_s;
        if (link || p->force_rx_quality == QL_NONE) {
            w->restored_at = 0;
            w->failed |= restore && offers(p, *w);
        }
        if (link) w->up = false;
        w->held_link = w->held_silence = false;
        w->held_until = 0;
    }
    static void link_recovers(const ssm_port* p, watched* w, std::uint64_t now) {
        const bool was_up = std::exchange(w->up, true);
        w->held_link = false;
        if (!w->held_silence) w->held_until = 0;
        if (!was_up && p->force_rx_quality != QL_NONE) without_fault(p, w, now);
    }
    static void heard(const ssm_port* p, watched* w, std::uint64_t now) {
        w->held_silence = false;
        if (!w->held_link) w->held_until = 0;
        without_fault(p, w, now);
    }
    // The time begins with the first sign of life, on a link that is up.
    static void without_fault(const ssm_port* p, watched* w, std::uint64_t now) {
        if (!w->failed || w->restored_at || !w->up) return;
        const std::uint32_t restore = p->restore_set ? p->restore_s : g_s_master->restore_s;
        w->failed = restore != 0;
        if (restore) w->restored_at = now + restore * 1000ULL;
    }

    // ---- The choice ----

    static bool replaced(const ssm_port* p) {
        return g_s_master->ssm_extend && !p->replace_clockid && ssm_port_walk_until([p](const ssm_port* q) {
                   return q->replace_clockid && std::ranges::equal(p->recv_clockid, q->recv_clockid);
               });
    }
    bool candidate(const ssm_port* p) const {
        const watched& w = ports.at(p->ifindex);
        if (!offers(p, w) || w.failed || p->lockout || replaced(p)) return false;
        if (g_s_master->ssm_extend && std::ranges::equal(p->recv_clockid, g_s_master->clock_id)) return false;
        return p->min_rx_quality == QL_NONE || place(offered(p)) <= place(p->min_rx_quality);
    }
    struct choice {
        std::vector<const ssm_port*> best;  // all of the best quality, in the order of the automatic choice
        bool known = true;                  // all qualities have a place
    };
    choice candidates() const {
        choice c;
        ssm_port_walk([&](const ssm_port* p) {
            if (!candidate(p)) return;
            const int at = place(offered(p));
            c.known &= at != 99;
            if (!c.best.empty() && at < place(offered(c.best[0]))) c.best.clear();
            if (c.best.empty() || at == place(offered(c.best[0]))) c.best.push_back(p);
        });
        std::ranges::sort(c.best, {}, [](const ssm_port* p) {
            return std::tuple(p->priority, g_s_master->ssm_extend ? p->recv_hop_count : 0, p->ifindex);
        });
        return c;
    }
};
