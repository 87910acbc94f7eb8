// Signals of the daemon. The handlers only note the signal and wake the loop; what it asks for is done by
// ssm_signal_deliver, at the start of the loop's next turn or between two steps of start-up.
#pragma once

#include <cstdint>

struct lib_globals;

// The platform's dispositions, then the daemon's: SIGHUP, SIGINT, SIGTERM, SIGUSR1.
void ssm_signal_init();

void _ssm_sighup(int number);
void _ssm_sigint(int number);
void _ssm_sigusr1(int number);

// Does what the signals since the last call ask for, each once. SIGINT and SIGTERM end the process with
// status 0: then it does not return. `ctx` may be null.
void ssm_signal_deliver(lib_globals* ctx);
