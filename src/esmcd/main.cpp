// esmcd: the synchronisation-status daemon of a SyncE switch. Glue; everything else is a library.
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>

#include "core/debug.h"
#include "esmcd/command_line.h"
#include "esmcd/signal.h"
#include "esmcd/start.h"
#include "suite/log/log.h"
#include "suite/process/single.h"
#include "suite/rights/user.h"
#include "suite/start/lib.h"

namespace {

// The user to run as comes from the environment, where a service unit can set it: the command line's options
// are fixed. user->name is null when ESMCD_USER is not set. False for a user who does not exist, with a line
// on standard error.
bool find_user(const char* progname, rights_user* user) {
    *user = {};
    const char* text = std::getenv("ESMCD_USER");
    const char* wrong = text ? rights_user_find(text, user) : nullptr;
    if (wrong) std::fprintf(stderr, "%s: ESMCD_USER '%s': %s\n", progname, text, wrong);
    return !wrong;
}

}  // namespace

int main(int argc, char** argv) {
    umask(027);
    const ssm_settings settings = ssm_command_line(argc, argv);
    switch (settings.action) {
        case ssm_action::show_version:
            print_version(settings.progname);
            std::exit(0);
        case ssm_action::show_usage:
            ssm_usage(0, settings.progname);
        case ssm_action::refuse:
            ssm_usage(1, settings.progname);
        case ssm_action::run:
            break;
    }
    rights_user user;
    if (!find_user(settings.progname, &user)) std::exit(1);
    log_open(settings.progname);
    if (!single_claim(SSM_LOCK_FILE)) std::exit(1);
    ssm_signal_init();
    const std::int32_t rv = ssm_start(settings.daemon_mode, settings.config_file, settings.vty_port,
                                      settings.progname, user.name ? &user : nullptr);
    if (rv < 0) SSM_LOG(LOG_LEVEL_ERROR, "%s%sSSM start fail");
    std::exit(rv);
}
