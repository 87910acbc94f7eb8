// The debug mask and the callback through which the platform's "show debugging", "debug all" and
// "no debug all" reach it. The daemon's own commands for the mask are in cli/debug.cpp.
#include "core/debug.h"

std::uint32_t ssm_debug = 0;

namespace {

constexpr struct {
    ssm_debug_bit bit;
    const char* keyword;
} flags[] = {
    {SSM_DEBUG_EVENT, "event"},
    {SSM_DEBUG_CLI, "cli"},
    {SSM_DEBUG_TIMER, "timer"},
    {SSM_DEBUG_PACKET, "packet"},
};

void show_flag(cli* terminal, const char* keyword) {
    terminal->out_func(terminal->out_val, "%-16s%-16s%-24s%s\n", "ssm", "ssm", keyword, "on");
}

void show_flags(cli* terminal) {
    if ((ssm_debug & SSM_DEBUG_ALL) == SSM_DEBUG_ALL) {
        show_flag(terminal, "all");
        return;
    }
    for (const auto& flag : flags)
        if (ssm_debug & flag.bit) show_flag(terminal, flag.keyword);
}

}  // namespace

void ssm_debug_callback(cli* terminal, std::int32_t op, void*) {
    if (!terminal) return;
    switch (op) {
        case 0:
            show_flags(terminal);
            break;
        case 1:
            ssm_debug &= ~static_cast<std::uint32_t>(SSM_DEBUG_ALL);
            break;
        case 2:
            ssm_debug |= SSM_DEBUG_ALL;
            break;
        default:
            break;
    }
}

void ssm_debug_init() {
    // Without the callback only the platform's all-in-one commands are missing.
    (void)debug_callback_register(ssm_debug_callback, nullptr);
    ssm_debug &= ~static_cast<std::uint32_t>(SSM_DEBUG_EVENT | SSM_DEBUG_CLI);
}
