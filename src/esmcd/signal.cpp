// Signal dispositions and what each signal does. Handlers may interrupt anything, the log and the memory
// manager included, so they count and wake the loop, nothing else.
#include "esmcd/signal.h"

#include <csignal>
#include <cstdlib>

#include "core/debug.h"
#include "esmcd/start.h"
#include "suite/loop/thread.h"
#include "suite/process/pal.h"

namespace {

// How often a signal came, written by its handler alone, and how often it was answered, written by the loop
// alone: nothing is lost when one comes while the loop is answering another.
struct counted_signal {
    volatile std::sig_atomic_t came;
    std::sig_atomic_t answered;
};

counted_signal hangup, user1, terminate;

void note(counted_signal* signal) {
    signal->came = (signal->came + 1) & 0xffff;
    thread_interrupt();
}

bool take(counted_signal* signal) {
    if (signal->came == signal->answered) return false;
    signal->answered = (signal->answered + 1) & 0xffff;
    return true;
}

}  // namespace

void _ssm_sighup(int) {
    note(&hangup);
}

void _ssm_sigint(int) {
    note(&terminate);
}

void _ssm_sigusr1(int) {
    note(&user1);
}

void ssm_signal_init() {
    pal_signal_init();
    // A failed sigaction leaves the platform's disposition, which is harmless.
    (void)pal_signal_set(SIGHUP, _ssm_sighup);
    (void)pal_signal_set(SIGINT, _ssm_sigint);
    (void)pal_signal_set(SIGTERM, _ssm_sigint);
    (void)pal_signal_set(SIGUSR1, _ssm_sigusr1);
}

void ssm_signal_deliver(lib_globals*) {
    pal_signal_report();
    while (take(&hangup)) SSM_LOG(LOG_LEVEL_INFO, "%s%sSIGHUP received");
    while (take(&user1)) SSM_LOG(LOG_LEVEL_INFO, "%s%sSIGUSR1 on received");
    if (!take(&terminate)) return;
    SSM_LOG(LOG_LEVEL_INFO, "%s%sTerminating on signal");
    (void)ssm_terminate();
    std::exit(0);
}
