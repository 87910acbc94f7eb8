// Random operations, frames, link events, clock states and waits against the rules that must hold after each
// of them. A script that breaks a rule is shrunk to the shortest one that still does, and printed.
//
//   ESMC_RANDOM_STEPS=5000000 ESMC_RANDOM_SEED=7 scenario_test --gtest_filter='random_rules.*'
#include <cstdlib>
#include <optional>
#include <random>
#include <sstream>

#include "scenario/sim.h"
#include "scenario/source_model.h"

namespace {

constexpr std::uint32_t PORTS = 6;
constexpr std::uint8_t QUALITIES[] = {QL_PRC, QL_SSU_A, QL_SSU_B, QL_EEC1, QL_DNU,
                                      QL_PRS, QL_STU,   QL_ST2,   QL_EEC2, 5};
constexpr const char* TOKENS[] = {"prc", "ssu-a", "ssu-b", "eec1", "dnu", "na", "prs", "st2", "tnc", "dus"};
constexpr const char* LIMITS[] = {"ssu-a", "na", "prc", "na", "ssu-b", "na", "prtc", "eprc", "eeec", "st2"};

// What can be in force beside each other; a forced and a manual switch can't.
enum feature {
    HOLD_OFF,
    RESTORE,
    LOCKOUT,
    FORCED,
    MANUAL,
    LIMIT,
    NON_REVERTIVE,
    OWN_FORM,
    STANDARD_FORM,
    GUARD,
    FEATURES
};

struct step {
    std::size_t what;
    std::uint32_t port, value, other;

    std::uint32_t on() const { return value % 2; }
    std::uint32_t mostly_on() const { return value % 4 != 0; }
    std::uint8_t quality() const { return QUALITIES[value % std::size(QUALITIES)]; }
};
using script = std::vector<step>;

class random_rules : public sim {
  protected:
    void SetUp() override {}
    void TearDown() override {}

    static script make_script(std::mt19937& random, std::size_t length) {
        std::vector<int> weights;
        for (const action& a : ACTIONS) weights.push_back(a.weight);
        std::discrete_distribution<std::size_t> actions(weights.begin(), weights.end());
        std::uniform_int_distribution<std::uint32_t> ports(1, PORTS), values;
        script s;
        for (std::size_t i = 0; i < length; ++i)
            s.push_back({actions(random), ports(random), values(random), values(random)});
        return s;
    }

    // Runs a script on a fresh daemon; the first broken rule, with the number of the step after which it was.
    struct fault {
        std::size_t at;
        std::string what;
    };
    std::optional<fault> run(const script& steps) {
        sim::SetUp();
        daemon->as_the_daemon = true;
        broken.clear();
        holdover_word = 1;
        last_said.clear();
        model = {};
        daemon->on_sent = [this](std::uint32_t index, const_octets frame) {
            check_sent(index, frame.subspan(PDU_AT));
        };
        for (std::uint32_t i = 1; i <= PORTS; ++i) nsm_says(NSM_MSG_LINK_ADD, port_body(i));
        follow_records();
        std::optional<fault> found;
        for (std::size_t i = 0; i < steps.size() && !found; ++i) {
            const auto act = [&] { ACTIONS[steps[i].what].run(*this, steps[i]); };
            chosen = false;
            former = {g_s_master->selected_port, g_s_master->manual_port};
            if (ACTIONS[steps[i].what].is_command)
                daemon->in_event(act);
            else
                act();
            follow_records();
            check_records();
            check_sources();
            note_features();
            check_requests();
            if (!broken.empty()) found = fault{i, broken};
        }
        sim::TearDown();
        return found;
    }

    // Drops each step without which the rest still breaks a rule.
    script shrink(script failing) {
        for (std::size_t at = failing.size(); at-- > 0;) {
            script shorter = failing;
            shorter.erase(shorter.begin() + static_cast<std::ptrdiff_t>(at));
            if (run(shorter)) failing = shorter;
        }
        return failing;
    }

    static std::string print(const script& steps) {
        std::ostringstream out;
        for (const step& s : steps)
            out << "  " << ACTIONS[s.what].name << " " << s.port << " " << s.value << " " << s.other << "\n";
        return out.str();
    }

  private:
    struct action {
        const char* name;
        int weight;
        bool is_command;
        void (*run)(random_rules&, const step&);
    };
    static const action ACTIONS[40];

    std::string broken;

    void rule(bool holds, const char* what) {
        if (!holds && broken.empty()) broken = what;
    }

    void hear_from(const step& s, bool event) {
        neighbour_pdu& pdu = last_said[s.port];
        // Neighbours mostly say again what they said before.
        if (s.other % 4 == 0) {
            pdu = {.quality = s.quality(), .extended = s.other / 4 % 2 == 0};
            pdu.clock_id = {0, 1, 2, 0xFF, 0xFE, 0, 0, static_cast<std::uint8_t>(s.other / 8 % 4)};
            pdu.hops = static_cast<std::uint8_t>(s.other / 32 % 3);
            pdu.standard = s.other / 128 % 2;
            pdu.enhanced = static_cast<std::uint8_t>(s.other / 256 % 3 ? 0xFF : 0x20 + s.other / 768 % 4);
            pdu.eec = pdu.hops;
        }
        pdu.event = event;
        chosen = takes(s.port, pdu.quality);
        hear(s.port, pdu);
        if (!chosen) return;
        source_model::heard(port(s.port), &model.ports[s.port], daemon->now_ms());
        check_choice_is_settled();
    }

    void change_link(std::uint32_t index, bool up, bool bind) {
        const ssm_port* p = port(index);
        const bool watched = p && model.ports.contains(index),
                   skipped = p && p->event_skip & SSM_SKIP_NEXT_DOWN;
        const std::uint64_t now = daemon->now_ms();
        source_model::watched* w = watched ? &model.ports[index] : nullptr;
        // Before the event, while what the port offers is what it was.
        if (watched && up) source_model::link_recovers(p, w, now);
        if (watched && !up && w->up && !skipped && (p->intf->up || !bind))
            (void)source_model::fails(p, w, true, now);
        if (bind)
            nsm_says(NSM_MSG_LINK_ADD, port_body(index, up));
        else if (up)
            link_up(index);
        else
            link_down(index);
    }

    // From one moment at which something is due to the next: nothing happens to a port between.
    void wait(std::uint64_t ms) {
        for (const std::uint64_t end = daemon->now_ms() + ms; daemon->now_ms() < end;) {
            std::uint64_t next = end;
            const std::uint64_t now = daemon->now_ms();
            const auto sooner = [&](std::uint64_t due) {
                if (due > now) next = std::min(next, due);
            };
            ssm_port_walk([&](const ssm_port* p) {
                sooner(silent_at(p));
                sooner(model.ports[p->ifindex].held_until);
                sooner(model.ports[p->ifindex].restored_at);
            });
            if (next > now + 1) advance(static_cast<std::uint32_t>(next - 1 - now));
            check_sources();
            become_due(next);
        }
    }
    std::uint64_t silent_at(const ssm_port* p) {
        return p->timeout_timer ? daemon->now_ms() + thread_timer_remaining_ms(p->timeout_timer) : 0;
    }
    void become_due(std::uint64_t now) {
        std::vector<std::uint32_t> silent, lost;
        ssm_port_walk([&](const ssm_port* p) {
            source_model::watched& w = model.ports[p->ifindex];
            // Of what is due at the same moment this was begun first: the others take no longer.
            if (w.restored_at == now) {
                w.failed = false;
                w.restored_at = 0;
                chosen = true;
            }
            if (w.held_until == now) {
                const bool link = w.held_link;
                source_model::failed(p, &w, link);
                (link ? lost : silent).push_back(p->ifindex);
            }
            if (silent_at(p) == now && w.up && !source_model::fails(p, &w, false, now))
                silent.push_back(p->ifindex);
        });
        chosen &= silent.empty() && lost.empty();
        former = {g_s_master->selected_port, g_s_master->manual_port};
        advance(1);
        for (const std::uint32_t index : silent)
            rule(port(index)->recv_quality == QL_NONE && !port(index)->recv_pdu,
                 "who is silent is forgotten");
        check_sources();
        chosen = false;
    }

    void end_restore(ssm_port* which) {
        for (auto& [index, w] : model.ports)
            if (!which || which->ifindex == index)
                w = {w.up, w.held_link, w.held_silence, false, w.held_until, 0};
        chosen = ssm_opts_end_restore(which) == 0;
    }

    // Records that came or went with the last step.
    void follow_records() {
        for (std::uint32_t i = 1; i <= PORTS; ++i) {
            const ssm_port* p = port(i);
            if (!p)
                model.ports.erase(i);
            else if (!model.ports.contains(i))
                model.ports[i].up = p->link_up;
            if (p && !p->synce_enable) model.ports[i] = {.up = model.ports[i].up};
        }
    }

    // As the command does it.
    static void set_gephy_by_command(interface* i, std::uint32_t on, std::uint32_t role) {
        ssm_port* p = ssm_if_port(i);
        if (!p || g_s_master->ssm_enable || ssm_opts_set_gephy_role(i, on, on ? role : 0) < 0) return;
        if (!on || p->gephy_by_command) return;
        p->gephy_by_command = 1;
        ++g_s_master->gephy_manual_count;
    }

    // Without selection's own roles, a report of the clock leaves all roles alone.
    void report_clock(std::uint32_t state, std::uint32_t source) {
        const std::uint32_t before = g_s_master->gephy_manual_count;
        dpll(state, source);
        rule(g_s_master->gephy_dynamic || g_s_master->gephy_manual_count == before,
             "a role set by command stays");
    }

    // ---- The rules ----

    void check_records() {
        const ssm_master& m = *g_s_master;
        virtual_daemon::check_records([this](bool holds, const char* what) { rule(holds, what); });
        // The operator's force switch is stronger than the role.
        rule(m.device_type != SSM_MASTER_ONLY || !m.selected_port || m.selected_port == m.force_port,
             "no source of a master-only switch");
        rule(!m.selected_port || !m.selected_port->lockout, "no locked-out source");
        rule(!m.manual_port || !m.force_port, "forced and manual exclude each other");
        std::uint32_t forced = 0, manual = 0;
        ssm_port_walk([&](const ssm_port* p) {
            forced += (p->force_rx_quality != QL_NONE) + (p->force_tx_quality != QL_NONE);
            manual += p->gephy_by_command;
            rule(!p->gephy_by_command || p->gephy_role_enable, "no gephy command without a role");
        });
        const bool option_1 = m.ql_option == SSM_OPTION_1;
        rule((option_1 ? m.forced_ql_count_op1 : m.forced_ql_count_op2) == forced,
             "count of forced qualities");
        rule((option_1 ? m.forced_ql_count_op2 : m.forced_ql_count_op1) == 0, "count of the other option");
        rule(m.gephy_manual_count == manual, "count of manual gephy roles");
    }

    // Failures are as they must be, to the millisecond; and the choice, where one has just been made.
    void check_sources() {
        const std::uint64_t now = daemon->now_ms();
        ssm_port_walk([&](const ssm_port* p) {
            const source_model::watched& w = model.ports[p->ifindex];
            rule(p->link_up == w.up, "a lost link counts after the hold-off, and then at once");
            rule(ssm_hold_off_left_ms(p) == (w.held_until ? w.held_until - now : 0),
                 "time left of the hold-off");
            rule(p->failed == w.failed, "a source has failed until it was restored");
            rule(ssm_restore_left_s(p) == (w.restored_at ? (w.restored_at - now + 999) / 1000 : 0),
                 "time left of waiting to restore");
        });
        const ssm_master& m = *g_s_master;
        if (chosen && source_model::runs() && m.device_type != SSM_MASTER_ONLY && !m.force_port)
            check_choice();
    }

    // Every rule but the guard's, which may refuse any of them.
    void check_choice() {
        const ssm_master& m = *g_s_master;
        const ssm_port* source = m.selected_port;
        rule(!source || model.candidate(source), "the source is a candidate");
        const source_model::choice all = model.candidates();
        const int own = source_model::place(static_cast<ssm_quality>(m.local_quality));
        if (!all.known || own == 99 || (m.guard.enable && m.ssm_extend)) return;
        const auto among = [&](const ssm_port* p) { return std::ranges::count(all.best, p) == 1; };
        const ssm_port* best = all.best.empty() ? nullptr : all.best[0];
        if (m.non_revertive && among(former.source)) best = former.source;
        if (among(former.manual) && among(m.manual_port)) best = former.manual;
        if (among(m.manual_port)) best = m.manual_port;
        rule(!m.manual_port || among(m.manual_port), "a manual switch is to a port of the best quality");
        const int offer = best ? source_model::place(source_model::offered(best)) : 99;
        const bool own_better =
            m.device_type != SSM_SLAVE_ONLY &&
            (own < offer || (own == offer && best != m.manual_port && best->priority >= m.local_priority));
        if (own_better) best = nullptr;
        rule(source == best, "the source is the one that the rules choose");
        rule(m.manual_port || !among(former.manual) || own <= offer, "a manual switch ends for a reason");
        rule(!source || m.dpll_state == SSM_DPLL_HOLDOVER ||
                 m.current_quality == source_model::offered(source),
             "what the source offers is advertised");
    }

    void note_features() {
        const ssm_master& m = *g_s_master;
        bool now[FEATURES] = {};
        now[FORCED] = m.force_port;
        now[MANUAL] = m.manual_port;
        now[NON_REVERTIVE] = m.non_revertive;
        now[GUARD] = m.guard.enable && m.ssm_extend;
        ssm_port_walk([&](const ssm_port* p) {
            const source_model::watched& w = model.ports[p->ifindex];
            now[HOLD_OFF] |= w.held_until != 0;
            now[RESTORE] |= w.restored_at != 0;
            now[LOCKOUT] |= p->lockout && source_model::offers(p, w);
            now[LIMIT] |= source_model::offers(p, w) &&
                          (p->min_rx_quality != QL_NONE || source_model::offered(p) != p->recv_quality);
            const bool standard = (p->extend_form ? p->extend_form : m.extend_form) == SSM_FORM_STANDARD;
            now[standard ? STANDARD_FORM : OWN_FORM] |= m.ssm_extend && p->send_timer;
        });
        for (std::size_t one = 0; one < FEATURES; ++one)
            for (std::size_t other = 0; other < one; ++other) together[one][other] += now[one] && now[other];
    }

    void check_sent(std::uint32_t index, const_octets pdu) {
        const std::uint8_t quality = pdu[13];
        const ssm_port* p = port(index);
        rule(p != nullptr, "PDUs leave on ports with a record");
        if (!p || !p->link_up) return;  // nothing leaves
        const ssm_port* source = g_s_master->selected_port;
        rule(p->synce_enable && g_s_master->global_enable && g_s_master->ssm_enable,
             "no PDU where none is due");
        rule(p->esmc_mode == SSM_ESMC_TX || p->esmc_mode == SSM_ESMC_ALL,
             "no PDU against the port's direction");
        rule(p != source || quality == QL_DNU, "the source is told DNU");
        rule(!source || !p->dnu_group || p->dnu_group != source->dnu_group || quality == QL_DNU,
             "the source's DNU group is told DNU");
        rule(quality != QL_NONE && quality <= QL_DNU, "qualities on the wire are codes");
        rule(virtual_daemon::is_extension(quality, pdu.subspan(14)), "an extended TLV is one of two forms");
        const auto current = static_cast<ssm_quality>(g_s_master->current_quality);
        const bool placed = g_s_master->force_port == nullptr && source_model::place(current) != 99;
        if (!placed) return;
        const ssm_quality due = source_model::to_send(p, current);
        rule(quality == (due & 0xFF), "what is sent is within the limits");
        const int enhanced = due >> 8 ? due >> 8 : 0xFF;
        rule(pdu[16] != 20 || pdu[17] == enhanced, "the enhanced code is that of the quality");
    }

    // Holdover is requested on and off in turn, never twice the same; a source is named again only by a force
    // switch.
    void check_requests() {
        for (const nsm_request& r : take_requests()) {
            if (r[0] == NSM_MSG_SSM_HOLDOVER_ENABLE)
                rule(std::exchange(holdover_word, r[1]) != r[1], "holdover is not requested twice");
            if (r[0] == NSM_MSG_SSM_SELECTED_IF_INDEX) rule(r[1] >= 1 && r[1] <= PORTS, "a source is a port");
        }
    }

    bool takes(std::uint32_t index, std::uint8_t quality) {
        const ssm_port* p = port(index);
        const ssm_master& m = *g_s_master;
        return p && p->synce_enable && (p->esmc_mode == SSM_ESMC_RX || p->esmc_mode == SSM_ESMC_ALL) &&
               m.global_enable && m.ssm_enable && m.device_type != SSM_MASTER_ONLY &&
               ssm_ql_receivable(quality);
    }

    // A selection right after an accepted PDU finds nothing left to do: what was skipped was rightly skipped.
    void check_choice_is_settled() {
        const ssm_port* before = g_s_master->selected_port;
        const std::uint32_t quality = g_s_master->current_quality;
        ssm_clock_select();
        rule(g_s_master->selected_port == before && g_s_master->current_quality == quality,
             "a skipped selection would have chosen otherwise");
    }

    std::uint32_t holdover_word = 1;
    std::map<std::uint32_t, neighbour_pdu> last_said;

    source_model model;
    bool chosen = false;  // the last step made a choice
    struct {
        const ssm_port *source, *manual;
    } former = {};  // before it

  protected:
    std::uint64_t together[FEATURES][FEATURES] = {};  // after how many steps both were in force
};

// Frames and time are most of a switch's life.
const random_rules::action random_rules::ACTIONS[] = {
    {"hear_information", 30, false, [](auto& t, auto& s) { t.hear_from(s, false); }},
    {"hear_event", 6, false, [](auto& t, auto& s) { t.hear_from(s, true); }},
    {"wait", 30, false, [](auto& t, auto& s) { t.wait(1 + s.value % 2500); }},
    {"link_up", 4, false, [](auto& t, auto& s) { t.change_link(s.port, true, false); }},
    {"link_down", 4, false, [](auto& t, auto& s) { t.change_link(s.port, false, false); }},
    {"bind", 3, false, [](auto& t, auto& s) { t.change_link(s.port, s.on(), true); }},
    {"unbind", 2, false, [](auto& t, auto& s) { t.unbind(s.port, s.on()); }},
    {"dpll", 4, false, [](auto& t, auto& s) { t.report_clock(1 + s.value % 5, s.other % 9); }},
    {"foreign_frame", 3, false,
     [](auto& t, auto& s) {  // of an interface whose index has the low octet of a port's
         t.nsm_says(NSM_MSG_LINK_ADD, link_body(256 + s.port, true));
         const ssm_port* p = t.port(s.port);
         const ssm_quality before = p ? p->recv_quality : ssm_quality{QL_NONE};
         t.hear(256 + s.port, s.quality());
         t.rule(!p || p->recv_quality == before, "an index above 255 is no port's");
         t.rule(ssm_port_lookup_by_ifindex(256 + s.port) == p, "lookups are by the low octet");
         t.unbind(256 + s.port);
     }},
    {"global", 1, true, [](auto&, auto& s) { (void)ssm_opts_set_global_enable(s.mostly_on()); }},
    {"ssm", 2, true, [](auto&, auto& s) { (void)ssm_opts_set_ssm_enable(s.mostly_on()); }},
    {"extend", 1, true, [](auto&, auto& s) { (void)ssm_opts_set_ssm_extend(s.on()); }},
    {"guard", 2, true, [](auto&, auto& s) { (void)ssm_opts_set_loop_guard(s.mostly_on()); }},
    {"guard_bounds", 1, true,
     [](auto&, auto& s) {
         (void)ssm_opts_set_guard_hold(100 + s.value % 4901);
         (void)ssm_opts_set_guard_hops(1 + s.other % 4);
     }},
    {"role", 2, true, [](auto&, auto& s) { (void)ssm_opts_set_device_type(1 + s.value % 3); }},
    {"quality", 2, true,
     [](auto&, auto& s) {
         (void)ssm_opts_set_local_quality(s.other % 3 ? std::uint32_t{QL_DNU} : s.quality(),
                                          static_cast<std::uint8_t>(1 + s.on()));
     }},
    {"priority", 2, true, [](auto&, auto& s) { (void)ssm_opts_set_local_priority(1 + s.value % 3); }},
    {"synce", 3, true, [](auto& t, auto& s) { (void)ssm_opts_set_port_synce(t.intf(s.port), s.mostly_on()); }},
    {"esmc_add", 2, true, [](auto& t, auto& s) { (void)ssm_opts_set_port_esmc(t.intf(s.port), 1 + s.value % 4); }},
    {"esmc_remove", 2, true,
     [](auto& t, auto& s) { (void)ssm_opts_unset_port_esmc(t.intf(s.port), 1 + s.value % 3); }},
    {"port_priority", 3, true,
     [](auto& t, auto& s) { (void)ssm_opts_set_port_priority(t.intf(s.port), 1 + s.value % 3); }},
    {"group", 2, true, [](auto& t, auto& s) { (void)ssm_opts_set_port_dnu_group(t.intf(s.port), s.value % 3); }},
    {"replace", 2, true, [](auto& t, auto& s) { (void)ssm_opts_set_port_replace_clockid(t.intf(s.port), s.on()); }},
    {"forced", 3, true,
     [](auto& t, auto& s) {
         const ssm_port* p = t.port(s.port);
         const char* token = TOKENS[s.other % std::size(TOKENS)];
         (void)ssm_opts_set_port_quality(t.intf(s.port), 1 + s.on(), token);
         if (p && p->force_rx_quality != QL_NONE)
             source_model::without_fault(p, &t.model.ports[s.port], t.daemon->now_ms());
     }},
    {"force", 1, true,
     [](auto& t, auto& s) {
         if (t.port(s.port)) (void)ssm_opts_set_force_port(t.port(s.port));
     }},
    {"unforce", 1, true, [](auto&, auto&) { (void)ssm_opts_clear_force(); }},
    {"hold_off", 1, true, [](auto&, auto& s) { (void)ssm_opts_set_hold_off(s.mostly_on() * 1800); }},
    {"port_hold_off", 1, true,
     [](auto& t, auto& s) { (void)ssm_opts_set_port_hold_off(t.intf(s.port), s.on() * 300); }},
    {"restore", 1, true, [](auto&, auto& s) { (void)ssm_opts_set_restore(s.on() * 7); }},
    {"port_restore", 1, true,
     [](auto& t, auto& s) {
         if (s.on())
             (void)ssm_opts_set_port_restore(t.intf(s.port), s.other % 3 * 5);
         else
             (void)ssm_opts_unset_port_restore(t.intf(s.port));
     }},
    {"end_restore", 1, true, [](auto& t, auto& s) { t.end_restore(s.on() ? t.port(s.port) : nullptr); }},
    {"lockout", 2, true,
     [](auto& t, auto& s) {
         const ssm_port* p = t.port(s.port);
         t.chosen = p && p->lockout != (s.value % 4 == 0);
         (void)ssm_opts_set_port_lockout(t.intf(s.port), s.value % 4 == 0);
     }},
    {"manual", 3, true,
     [](auto& t, auto& s) {
         const char* why = nullptr;
         t.chosen = ssm_opts_manual_switch(t.intf(s.port), &why) == 0;
         t.former.manual = t.chosen ? t.port(s.port) : nullptr;
     }},
    {"clear_switch", 1, true,
     [](auto& t, auto&) {
         t.former.manual = nullptr;
         if (g_s_master->force_port && !g_s_master->non_revertive)
             t.former.source = nullptr;  // its end has the selection choose anew
         t.chosen = ssm_opts_clear_switch() == 0;
     }},
    {"non_revertive", 1, true,
     [](auto& t, auto& s) {
         t.chosen = g_s_master->non_revertive != s.on();
         (void)ssm_opts_set_non_revertive(s.on());
     }},
    {"limit", 3, true,
     [](auto& t, auto& s) {
         const ssm_limit limit = s.value / 2 % 2 ? ssm_limit::maximum : ssm_limit::minimum;
         (void)ssm_opts_set_port_limit(t.intf(s.port), 1 + s.on(), limit, LIMITS[s.other % std::size(LIMITS)]);
     }},
    {"form", 1, true,
     [](auto& t, auto& s) {
         (void)ssm_opts_set_extend_form(1 + s.on());
         (void)ssm_opts_set_port_extend_form(t.intf(s.port), s.other % 3);
     }},
    {"clock_type", 1, true, [](auto&, auto& s) { (void)ssm_opts_set_clock_type(s.on()); }},
    {"gephy", 3, true, [](auto& t, auto& s) { set_gephy_by_command(t.intf(s.port), s.on(), 1 + s.other % 2); }},
    {"ssm_gephy", 2, true,
     [](auto&, auto& s) {
         if (g_s_master->gephy_manual_count) return;
         g_s_master->gephy_dynamic = s.on();
         (void)ssm_opts_set_ssm_enable(1);
     }},
};

TEST_F(random_rules, hold_after_every_step) {
    const char* steps_wanted = std::getenv("ESMC_RANDOM_STEPS");
    const char* seed_wanted = std::getenv("ESMC_RANDOM_SEED");
    const std::uint64_t total = steps_wanted ? std::strtoull(steps_wanted, nullptr, 10) : 450'000;
    const std::uint64_t first_seed = seed_wanted ? std::strtoull(seed_wanted, nullptr, 10) : 1;
    constexpr std::size_t LENGTH = 500;
    for (std::uint64_t seed = first_seed; seed < first_seed + (total + LENGTH - 1) / LENGTH; ++seed) {
        std::mt19937 random(static_cast<std::uint32_t>(seed));
        script steps = make_script(random, LENGTH);
        const std::optional<fault> found = run(steps);
        if (!found) continue;
        steps.resize(found->at + 1);
        FAIL() << "broken: " << found->what << " (seed " << seed << "); shortest script:\n"
               << print(shrink(steps));
    }
    for (std::size_t one = 0; one < FEATURES && total >= 450'000; ++one)
        for (std::size_t other = 0; other < one; ++other)
            EXPECT_EQ(together[one][other] > 0, one != MANUAL || other != FORCED) << one << " with " << other;
}

}  // namespace
