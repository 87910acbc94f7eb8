// Random operations, frames, link events, clock states and waits against the rules that must hold after each
// of them. A script that breaks a rule is shrunk to the shortest one that still does, and printed.
//
//   ESMC_RANDOM_STEPS=5000000 ESMC_RANDOM_SEED=7 scenario_test --gtest_filter='random_rules.*'
#include <cstdlib>
#include <optional>
#include <random>
#include <sstream>

#include "scenario/sim.h"

namespace {

constexpr std::uint32_t PORTS = 6;
constexpr std::uint8_t QUALITIES[] = {QL_PRC, QL_SSU_A, QL_SSU_B, QL_EEC1, QL_DNU,
                                      QL_PRS, QL_STU,   QL_ST2,   QL_EEC2, 5};
constexpr const char* TOKENS[] = {"prc", "ssu-a", "ssu-b", "eec1", "dnu", "na", "prs", "st2", "tnc", "dus"};

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
        daemon->on_sent = [this](std::uint32_t index, const_octets frame) {
            check_sent(index, frame[PDU_AT + 13]);
        };
        for (std::uint32_t i = 1; i <= PORTS; ++i) nsm_says(NSM_MSG_LINK_ADD, port_body(i));
        std::optional<fault> found;
        for (std::size_t i = 0; i < steps.size() && !found; ++i) {
            const auto act = [&] { ACTIONS[steps[i].what].run(*this, steps[i]); };
            if (ACTIONS[steps[i].what].is_command)
                daemon->in_event(act);
            else
                act();
            check_records();
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
    static const action ACTIONS[34];

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
        }
        pdu.event = event;
        const bool taken = takes(s.port, pdu.quality);
        hear(s.port, pdu);
        if (taken) check_choice_is_settled();
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

    void check_sent(std::uint32_t index, std::uint8_t quality) {
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
};

// Frames and time are most of a switch's life.
const random_rules::action random_rules::ACTIONS[] = {
    {"hear_information", 30, false, [](auto& t, auto& s) { t.hear_from(s, false); }},
    {"hear_event", 6, false, [](auto& t, auto& s) { t.hear_from(s, true); }},
    {"wait", 30, false, [](auto& t, auto& s) { t.advance(1 + s.value % 2500); }},
    {"link_up", 4, false, [](auto& t, auto& s) { t.link_up(s.port); }},
    {"link_down", 4, false, [](auto& t, auto& s) { t.link_down(s.port); }},
    {"bind", 3, false, [](auto& t, auto& s) { t.nsm_says(NSM_MSG_LINK_ADD, port_body(s.port, s.on())); }},
    {"unbind", 2, false, [](auto& t, auto& s) { t.unbind(s.port, s.on()); }},
    {"dpll", 4, false, [](auto& t, auto& s) { t.report_clock(1 + s.value % 5, s.other % 9); }},
    {"foreign_frame", 3, false,
     [](auto& t, auto& s) {  // of an interface whose index has the low octet of a port's
         t.nsm_says(NSM_MSG_LINK_ADD, link_body(256 + s.port, true));
         const ssm_port* p = t.port(s.port);
         const ssm_quality before = p ? p->recv_quality : ssm_quality{QL_NONE};
         t.hear(256 + s.port, s.quality());
         t.rule(!p || p->recv_quality == before, "an index above 255 is no port's");
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
         (void)ssm_opts_set_port_quality(t.intf(s.port), 1 + s.on(), TOKENS[s.other % std::size(TOKENS)]);
     }},
    {"force", 1, true,
     [](auto& t, auto& s) {
         if (t.port(s.port)) (void)ssm_opts_set_force_port(t.port(s.port));
     }},
    {"unforce", 1, true, [](auto&, auto&) { (void)ssm_opts_clear_force(); }},
    {"hold_off", 1, true, [](auto&, auto& s) { (void)ssm_opts_set_hold_off(s.on() * 300); }},
    {"restore", 1, true, [](auto&, auto& s) { (void)ssm_opts_set_restore(s.on() * 7); }},
    {"lockout", 2, true, [](auto& t, auto& s) { (void)ssm_opts_set_port_lockout(t.intf(s.port), s.on()); }},
    {"manual", 3, true,
     [](auto& t, auto& s) {
         const char* why = nullptr;
         (void)ssm_opts_manual_switch(t.intf(s.port), &why);
     }},
    {"clear_switch", 1, true, [](auto&, auto&) { (void)ssm_opts_clear_switch(); }},
    {"non_revertive", 1, true, [](auto&, auto& s) { (void)ssm_opts_set_non_revertive(s.on()); }},
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
}

}  // namespace
