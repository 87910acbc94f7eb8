// The commands of the debug mask. The trace tests the mask as it was before the change: "no debug ssm cli" is
// traced, "debug ssm cli" only when it changes nothing.
#include "cli/commands.h"
#include "cli/handler.h"

namespace {

struct debug_choice {
    const char* keyword;
    std::uint32_t bits;
};

constexpr debug_choice choices[] = {
    {"all", SSM_DEBUG_ALL},       {"cli", SSM_DEBUG_CLI},     {"event", SSM_DEBUG_EVENT},
    {"packet", SSM_DEBUG_PACKET}, {"timer", SSM_DEBUG_TIMER},
};

// The first letter decides.
const debug_choice* find_choice(const char* argument) {
    for (const debug_choice& choice : choices)
        if (choice.keyword[0] == argument[0]) return &choice;
    return nullptr;
}

int debug_handler(cli*, int, char** argv) {
    const debug_choice* choice = find_choice(argv[0]);
    if (!choice) return CLI_SUCCESS;
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sdebug ssm %s", choice->keyword);
    ssm_debug |= choice->bits;
    return CLI_SUCCESS;
}

int no_debug_handler(cli*, int, char** argv) {
    const debug_choice* choice = find_choice(argv[0]);
    if (!choice) return CLI_SUCCESS;
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sno debug ssm %s", choice->keyword);
    ssm_debug &= ~choice->bits;
    return CLI_SUCCESS;
}

constexpr debug_choice shown[] = {
    {"timer", SSM_DEBUG_TIMER},
    {"cli", SSM_DEBUG_CLI},
    {"packet", SSM_DEBUG_PACKET},
    {"event", SSM_DEBUG_EVENT},
};

int show_debugging_handler(cli* terminal, int, char**) {
    terminal->out_func(terminal->out_val, "SSM debugging status:\n");
    for (const debug_choice& flag : shown)
        if (ssm_debug & flag.bits)
            terminal->out_func(terminal->out_val, " SSM %s debugging is on\n", flag.keyword);
    terminal->out_func(terminal->out_val, "\n");
    return CLI_SUCCESS;
}

constexpr cli_help help_texts[] = {
    {"", "debug", "Switch debug messages on"},
    {"show debugging", "ssm", "Status message daemon"},
    {"no", "debug", "Switch debug messages off"},
    {"debug", "ssm", "Status message daemon"},
    {"debug ssm", "event", "Events, requests, selection"},
    {"debug ssm", "cli", "Commands that are entered"},
    {"debug ssm", "timer", "Timers that expire"},
    {"debug ssm", "packet", "Frames sent and received"},
    {"debug ssm", "all", "All of them"},
};

}  // namespace

const cli_element ssm_debug_enable_cmd = {"debug ssm (event|cli|timer|packet|all)", debug_handler};
const cli_element no_ssm_debug_enable_cmd = {"no debug ssm (event|cli|timer|packet|all)", no_debug_handler};
const cli_element show_ssm_debugging_cmd = {"show debugging ssm", show_debugging_handler};
const std::span<const cli_help> ssm_debug_help = help_texts;
