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

struct step {
    enum kind_t {
        hear_information,
        hear_event,
        wait,
        link_up,
        link_down,
        bind,
        unbind,
        dpll,
        global,
        ssm,
        extend,
        role,
        quality,
        priority,
        port_synce,
        port_esmc_add,
        port_esmc_remove,
        port_priority,
        port_group,
        port_replace,
        port_forced,
        force,
        unforce,
        gephy,
        ssm_gephy,
        KINDS
    } kind;
    std::uint32_t port;
    std::uint32_t value, other;
};

const char* const NAMES[] = {
    "hear_information", "hear_event",   "wait",        "link_up",       "link_down",        "bind",
    "unbind",           "dpll",         "global",      "ssm",           "extend",           "role",
    "quality",          "priority",     "port_synce",  "port_esmc_add", "port_esmc_remove", "port_priority",
    "port_group",       "port_replace", "port_forced", "force",         "unforce",          "gephy",
    "ssm_gephy"};
static_assert(std::size(NAMES) == step::KINDS);

using script = std::vector<step>;

class random_rules : public sim {
  protected:
    void SetUp() override {}
    void TearDown() override {}

    script make_script(std::mt19937& random, std::size_t length) {
        // Frames and time are most of a switch's life.
        std::discrete_distribution<int> kinds(
            {30, 6, 30, 4, 4, 3, 2, 4, 1, 1, 1, 2, 2, 2, 3, 2, 2, 3, 2, 2, 3, 1, 1, 1, 1});
        std::uniform_int_distribution<std::uint32_t> ports(1, PORTS), values;
        script s;
        for (std::size_t i = 0; i < length; ++i)
            s.push_back(
                {static_cast<step::kind_t>(kinds(random)), ports(random), values(random), values(random)});
        return s;
    }

    // Runs a script on a fresh daemon; the first broken rule, with the number of the step after which it was.
    struct fault {
        std::size_t at;
        std::string what;
    };
    std::optional<fault> run(const script& steps) {
        sim::SetUp();
        run_as_the_daemon();
        broken.clear();
        holdover_word = 1;
        last_said.clear();
        on_sent = [this](const sent_pdu& pdu) { check_sent(pdu); };
        for (std::uint32_t i = 1; i <= PORTS; ++i) nsm_says(NSM_MSG_LINK_ADD, port_body(i));
        in_event([&] { enable(); });
        std::optional<fault> found;
        for (std::size_t i = 0; i < steps.size() && !found; ++i) {
            apply(steps[i]);
            check_records();
            check_requests();
            if (!broken.empty()) found = fault{i, broken};
        }
        on_sent = nullptr;
        sim::TearDown();
        return found;
    }

    // Drops ever smaller pieces as long as the rest still breaks a rule.
    script shrink(script failing) {
        for (std::size_t piece = failing.size() / 2; piece > 0; piece /= 2) {
            for (std::size_t at = 0; at + piece <= failing.size();) {
                script shorter = failing;
                shorter.erase(shorter.begin() + static_cast<std::ptrdiff_t>(at),
                              shorter.begin() + static_cast<std::ptrdiff_t>(at + piece));
                if (run(shorter))
                    failing = shorter;
                else
                    at += piece;
            }
        }
        return failing;
    }

    static std::string print(const script& steps) {
        std::ostringstream out;
        for (const step& s : steps)
            out << "  {step::" << NAMES[s.kind] << ", " << s.port << ", " << s.value << "u, " << s.other
                << "u},\n";
        return out.str();
    }

  private:
    std::string broken;
    std::vector<nsm_request> seen;

    template <typename... Words>
    void rule(bool holds, const Words&... words) {
        if (holds || !broken.empty()) return;
        std::ostringstream out;
        (out << ... << words);
        broken = out.str();
    }

    void apply(const step& s) {
        static constexpr std::uint8_t QUALITIES[] = {QL_PRC, QL_SSU_A, QL_SSU_B, QL_EEC1, QL_DNU,
                                                     QL_PRS, QL_STU,   QL_ST2,   QL_EEC2, 5};
        const auto quality = QUALITIES[s.value % std::size(QUALITIES)];
        switch (s.kind) {
            case step::hear_information:
            case step::hear_event: {
                neighbour_pdu& pdu = last_said[s.port];
                // Neighbours mostly say again what they said before.
                if (s.other % 4 == 0) {
                    pdu = {.quality = quality, .extended = s.other / 4 % 2 == 0};
                    pdu.clock_id = {0, 1, 2, 0xFF, 0xFE, 0, 0, static_cast<std::uint8_t>(s.other / 8 % 4)};
                    pdu.hops = static_cast<std::uint8_t>(s.other / 32 % 3);
                }
                pdu.event = s.kind == step::hear_event;
                const bool taken = takes(s.port, pdu.quality);
                hear(s.port, pdu);
                if (taken) check_choice_is_settled();
                return;
            }
            case step::wait:
                advance(1 + s.value % 2500);
                return;
            case step::link_up:
                link_up(s.port);
                return;
            case step::link_down:
                link_down(s.port);
                return;
            case step::bind:
                nsm_says(NSM_MSG_LINK_ADD, port_body(s.port, s.value % 2));
                return;
            case step::unbind:
                unbind(s.port, s.value % 2);
                return;
            case step::dpll:
                dpll(1 + s.value % 5, s.other % 9);
                return;
            default:
                in_event([&] { operate(s, quality); });
        }
    }

    void operate(const step& s, std::uint8_t quality) {
        static constexpr const char* TOKENS[] = {"prc", "ssu-a", "ssu-b", "eec1", "dnu",
                                                 "na",  "prs",   "st2",   "tnc",  "dus"};
        interface* i = intf(s.port);
        const std::uint32_t on = s.value % 2;
        switch (s.kind) {
            case step::global:
                (void)ssm_opts_set_global_enable(s.value % 4 != 0);
                break;
            case step::ssm:
                (void)ssm_opts_set_ssm_enable(s.value % 4 != 0);
                break;
            case step::extend:
                (void)ssm_opts_set_ssm_extend(on);
                break;
            case step::role:
                (void)ssm_opts_set_device_type(1 + s.value % 3);
                break;
            case step::quality:
                (void)ssm_opts_set_local_quality(s.other % 3 ? std::uint32_t{QL_DNU} : quality,
                                                 static_cast<std::uint8_t>(1 + on));
                break;
            case step::priority:
                (void)ssm_opts_set_local_priority(1 + s.value % 3);
                break;
            case step::port_synce:
                (void)ssm_opts_set_port_synce(i, s.value % 4 != 0);
                break;
            case step::port_esmc_add:
                (void)ssm_opts_set_port_esmc(i, 1 + s.value % 4);
                break;
            case step::port_esmc_remove:
                (void)ssm_opts_unset_port_esmc(i, 1 + s.value % 3);
                break;
            case step::port_priority:
                (void)ssm_opts_set_port_priority(i, 1 + s.value % 3);
                break;
            case step::port_group:
                (void)ssm_opts_set_port_dnu_group(i, s.value % 3);
                break;
            case step::port_replace:
                (void)ssm_opts_set_port_replace_clockid(i, on);
                break;
            case step::port_forced:
                (void)ssm_opts_set_port_quality(i, 1 + on, TOKENS[s.other % std::size(TOKENS)]);
                break;
            case step::force:
                if (ssm_if_port(i)) (void)ssm_opts_set_force_port(ssm_if_port(i));
                break;
            case step::unforce:
                (void)ssm_opts_clear_force();
                break;
            case step::gephy:
                set_gephy_by_command(i, on, 1 + s.other % 2);
                break;
            case step::ssm_gephy:
                if (g_s_master->gephy_manual_count) break;
                g_s_master->gephy_dynamic = on;
                (void)ssm_opts_set_ssm_enable(1);
                break;
            default:
                FAIL() << "no operation";
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

    // ---- The rules ----

    bool live(const ssm_port* p) {
        bool found = false;
        ssm_port_walk([&](const ssm_port* known) { found |= known == p; });
        return found;
    }

    void check_records() {
        const ssm_master& m = *g_s_master;
        rule(!m.selected_port || live(m.selected_port), "the selected port is no live record");
        rule(!m.force_port || live(m.force_port), "the forced port is no live record");
        rule(!m.gephy_dynamic_intf || live(ssm_if_port(m.gephy_dynamic_intf)),
             "the dynamic gephy interface has no record");
        rule(!m.freerun || !m.holdover, "free-run and holdover at once");
        rule(!m.freerun || !m.selected_port, "a source is selected in free-run");
        rule(!m.holdover || !m.selected_port, "a source is selected in holdover");
        // The operator's force switch is stronger than the role.
        rule(m.device_type != SSM_MASTER_ONLY || !m.selected_port || m.selected_port == m.force_port,
             "a master-only switch has a source");
        rule(m.global_enable || !m.selected_port, "a source is selected with SyncE off");
        if (m.selected_port && live(m.selected_port))
            rule(m.selected_port->link_up && m.selected_port->synce_enable, "the source is down or disabled");

        std::uint32_t forced = 0, manual = 0;
        ssm_port_walk([&](const ssm_port* p) {
            forced += (p->force_rx_quality != QL_NONE) + (p->force_tx_quality != QL_NONE);
            manual += p->gephy_by_command;
            const bool runs = p->synce_enable && m.global_enable && m.ssm_enable;
            const bool transmits = p->esmc_mode == SSM_ESMC_TX || p->esmc_mode == SSM_ESMC_ALL;
            // On a port that is down, an event PDU that was still on its way arms the timer for one last
            // time.
            rule(!p->link_up || (p->send_timer != nullptr) == (runs && transmits), "send timer of port ",
                 p->intf->ifindex);
            // A frame that was on its way when the link went down still counts as heard.
            rule(!p->timeout_timer || (p->synce_enable && m.global_enable && m.ssm_enable),
                 "time-out timer of port ", p->intf->ifindex);
            rule(!p->gephy_by_command || p->gephy_role_enable, "gephy command without a role");
        });
        const bool option_1 = m.ql_option == SSM_OPTION_1;
        rule((option_1 ? m.forced_ql_count_op1 : m.forced_ql_count_op2) == forced,
             "count of forced qualities");
        rule((option_1 ? m.forced_ql_count_op2 : m.forced_ql_count_op1) == 0, "count of the other option");
        rule(m.gephy_manual_count == manual, "count of manual gephy roles");
    }

    void check_sent(const sent_pdu& pdu) {
        const ssm_port* p = port(pdu.port);
        rule(p != nullptr, "a PDU on a port without a record");
        if (!p) return;
        const ssm_port* source = g_s_master->selected_port;
        if (!p->link_up) return;  // nothing leaves
        rule(p->synce_enable && g_s_master->global_enable && g_s_master->ssm_enable,
             "a PDU where none is due");
        rule(p->esmc_mode == SSM_ESMC_TX || p->esmc_mode == SSM_ESMC_ALL,
             "a PDU against the port's direction");
        rule(p != source || pdu.quality == QL_DNU, "the source was not told DNU");
        rule(!source || !p->dnu_group || p->dnu_group != source->dnu_group || pdu.quality == QL_DNU,
             "the source's DNU group was not told DNU");
        rule(pdu.quality != QL_NONE && pdu.quality <= QL_DNU, "quality ", int{pdu.quality}, " on the wire");
    }

    // Holdover is requested on and off in turn, never twice the same; a source is named again only by a force
    // switch.
    void check_requests() {
        for (const nsm_request& r : take_requests()) {
            if (r.type == NSM_MSG_SSM_HOLDOVER_ENABLE) {
                rule(holdover_word != r.words[0], "holdover requested twice");
                holdover_word = r.words[0];
            } else if (r.type == NSM_MSG_SSM_SELECTED_IF_INDEX) {
                rule(r.words[0] >= 1 && r.words[0] <= PORTS, "a source that is no port");
            }
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

TEST_F(random_rules, hold_after_every_step) {
    const char* steps_wanted = std::getenv("ESMC_RANDOM_STEPS");
    const char* seed_wanted = std::getenv("ESMC_RANDOM_SEED");
    const std::uint64_t total = steps_wanted ? std::strtoull(steps_wanted, nullptr, 10) : 100'000;
    const std::uint32_t first_seed =
        seed_wanted ? static_cast<std::uint32_t>(std::strtoul(seed_wanted, nullptr, 10)) : 1;
    constexpr std::size_t LENGTH = 500;
    for (std::uint32_t round = 0; round < (total + LENGTH - 1) / LENGTH; ++round) {
        std::mt19937 random(first_seed + round);
        const script steps = make_script(random, LENGTH);
        const std::optional<fault> found = run(steps);
        if (!found) continue;
        const script shortest =
            shrink(script(steps.begin(), steps.begin() + static_cast<std::ptrdiff_t>(found->at + 1)));
        FAIL() << found->what << " (seed " << first_seed + round << "); shortest script:\n"
               << print(shortest);
    }
}

}  // namespace
