// Clock selection: from which port the switch recovers its clock, or that it recovers from none. Whether a
// port is a candidate, and which of two is better, are pure functions of the records; applying the choice is
// one function. How candidates are ranked is one table in select.cpp, a row a key.
#pragma once

#include "core/records.h"

// By what ports are chosen: without SSM by priority alone; with it by what they receive, and with the
// extension by its identities and hop counts too.
enum class ssm_rule : std::uint8_t { priority, quality, extension };
ssm_rule ssm_rule_in_force();

// Why a port is no candidate.
enum class ssm_refusal : std::uint8_t {
    none,  // it is one
    synce_disabled,
    locked_out,
    link_down,
    nothing_received,  // and nothing forced
    forced_dnu,
    received_dnu,
    own_clock_id,       // extension: the port receives this switch's own clock back
    replaced_clock_id,  // extension: a port with replace-clockid receives the same identity
    below_minimum,
    waiting_to_restore,
    // The loop guard's:
    too_many_hops,
    own_holdover_as_good,
    may_lead_back,
};
ssm_refusal ssm_candidate_check(const ssm_port* port, ssm_rule rule = ssm_rule_in_force());
bool ssm_refusal_by_guard(ssm_refusal refusal);
// Whether the port says nothing against itself, whatever other ports and the loop guard do.
bool ssm_candidate_by_itself(const ssm_port* port);
const char* ssm_refusal_text(ssm_refusal refusal);  // one or a few words, never null

// Who of two candidates is better, and the name of the key that decided: `winner` is negative for `a`,
// positive for `b`, 0 for equal (then `key` is null).
struct ssm_order {
    int winner;
    const char* key;
};
ssm_order ssm_candidate_compare(const ssm_port* a, const ssm_port* b, ssm_rule rule = ssm_rule_in_force());

// Why the best candidate is not selected even so: the switch's own quality or priority beats it (default role
// only).
enum class ssm_own_clock : std::uint8_t { worse, better_quality, not_worse_priority };
ssm_own_clock ssm_own_clock_compare(const ssm_port* best, ssm_rule rule = ssm_rule_in_force());

ssm_port* ssm_best_candidate(ssm_rule rule = ssm_rule_in_force());  // null: none

// 1: `a` is worse than `b`, 0: they rank equal, -1: `a` is better; by the option in force.
std::int32_t ssm_ql_compare(ssm_quality a, ssm_quality b);
// What a port offers: the forced receive quality when there is one, else the received one.
ssm_quality ssm_port_select_quality(const ssm_port* port);
// What is advertised of this source: what it offers, but with "advertise when-locked" only while the clock is
// locked, and until then what the clock is worth by itself.
ssm_quality ssm_quality_followed(const ssm_port* port);
// 1 when some port with replace-clockid received this identity (8 octets). Which one is logged, once for each
// identity that it receives.
std::int32_t ssm_replace_clockid_seen(const std::uint8_t* clockid);

void ssm_clock_select();
void ssm_select_by_role(std::uint32_t role);
void ssm_select_default();
void ssm_select_slave_only();
std::int32_t ssm_select_without_ssm(std::uint32_t role);
