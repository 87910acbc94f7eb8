// How the daemon runs an event of its loop, and what selection may conclude from it: a PDU that says what its
// port's last one said can't change a choice that the event before it left standing. With 255 ports talking
// that is nearly every PDU.
//
// The rule is on the safe side by itself: only a PDU's selection leaves the choice standing, so after any
// other event (a command, NSM, SNMP, a time-out, a refused PDU, ...) and in code that runs outside
// ssm_run_event the next PDU selects.
#pragma once

struct thread;

// As thread_call.
int ssm_run_event(thread* event);

// After an accepted PDU: runs ssm_clock_select, unless the PDU repeats its port's last one and the choice
// stands.
void ssm_select_after_pdu(bool repeated);
