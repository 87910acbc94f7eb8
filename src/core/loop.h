// How the daemon runs an event of its loop, and what selection may conclude from it: a PDU that says what its
// port's last one said can't change the choice as long as nothing happened since that choice but PDUs that
// came and went. With 255 ports talking that is nearly every PDU, and each would otherwise walk all ports.
//
// The rule is on the safe side by itself: every event that is not known to leave selection's inputs alone (a
// command, NSM, SNMP, a time-out, ...) makes the next PDU select again, and so does code that runs outside
// ssm_run_event.
#pragma once

struct thread;

// As thread_call.
int ssm_run_event(thread* event);

// After an accepted PDU: runs ssm_clock_select, unless `repeated` (the PDU changed nothing that selection
// looks at) and the last choice still stands.
void ssm_select_after_pdu(bool repeated);

// For code that a PDU runs: something that selection looks at has changed without a selection.
void ssm_choice_is_stale();
