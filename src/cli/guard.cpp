// The loop guard's commands, its lines in the running configuration, and its block in "show clock synce".
#include "core/guard.h"

#include "cli/commands.h"
#include "cli/handler.h"
#include "core/opts.h"

namespace {

// The guard judges by what only the extension brings. Whoever has one without the other hears of it.
void note_without_extension(cli* terminal) {
    if (g_s_master->guard.enable && !g_s_master->ssm_extend)
        terminal->out_func(terminal->out_val,
                           "Note: the loop guard has no effect without \"clock synce ssm extend\"\n");
}

int loop_guard_handler(cli* terminal, int, char**) {
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sclock synce loop-guard");
    const int result = ssm_cli_finish(terminal, ssm_opts_set_loop_guard(1));
    note_without_extension(terminal);
    return result;
}

int no_ssm_extend_handler(cli* terminal, int, char**) {
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, "%s%sno clock synce ssm extend");
    (void)ssm_opts_set_extend_form(SSM_FORM_DEFAULT);  // always 0
    const int result = ssm_cli_finish(terminal, ssm_opts_set_ssm_extend(0));
    note_without_extension(terminal);
    return result;
}

template <ssm_cli_trace Trace, auto Operation>
int number_handler(cli* terminal, int, char** argv) {
    SSM_TRACE(SSM_DEBUG_CLI, LOG_LEVEL_DEBUG, Trace.format, argv[0]);
    int status = 0;
    const std::int32_t number = cmd_str2int(argv[0], &status);
    return ssm_cli_finish(
        terminal, status < 0 ? SSM_CLI_E_INVALID_INPUT : Operation(static_cast<std::uint32_t>(number)));
}

constexpr cli_help help_texts[] = {
    {"clock synce", "loop-guard", "Follow only offers that are proved not to lead back here"},
    {"clock synce loop-guard", "hold",
     "How long to hold over before an offer is followed that is not proved"},
    {"clock synce loop-guard hold", "<100-5000>", "Milliseconds (default 500)"},
    {"clock synce loop-guard", "hops", "The longest chain of clocks to follow"},
    {"clock synce loop-guard hops", "<1-254>", "Hops (default 60)"},
};

}  // namespace

const cli_element ssm_loop_guard_cmd = {"clock synce loop-guard", loop_guard_handler};
const cli_element no_ssm_loop_guard_cmd = {
    "no clock synce loop-guard", ssm_cli_global<"%s%sno clock synce loop-guard", ssm_opts_set_loop_guard, 0>};
const cli_element ssm_loop_guard_hold_cmd = {
    "clock synce loop-guard hold <100-5000>",
    number_handler<"%s%sclock synce loop-guard hold %s", ssm_opts_set_guard_hold>};
const cli_element no_ssm_loop_guard_hold_cmd = {
    "no clock synce loop-guard hold",
    ssm_cli_global<"%s%sno clock synce loop-guard hold", ssm_opts_set_guard_hold, SSM_GUARD_HOLD_MS>};
const cli_element ssm_loop_guard_hops_cmd = {
    "clock synce loop-guard hops <1-254>",
    number_handler<"%s%sclock synce loop-guard hops %s", ssm_opts_set_guard_hops>};
const cli_element no_ssm_loop_guard_hops_cmd = {
    "no clock synce loop-guard hops",
    ssm_cli_global<"%s%sno clock synce loop-guard hops", ssm_opts_set_guard_hops, SSM_GUARD_HOPS>};

const cli_element no_ssm_set_ssm_extend_cmd = {"no clock synce ssm extend", no_ssm_extend_handler};
const std::span<const cli_help> ssm_guard_help = help_texts;

void ssm_guard_config_write(cli* terminal) {
    const ssm_guard& guard = g_s_master->guard;
    if (guard.enable) terminal->out_func(terminal->out_val, "clock synce loop-guard\n");
    if (guard.hold_ms != SSM_GUARD_HOLD_MS)
        terminal->out_func(terminal->out_val, "clock synce loop-guard hold %u\n",
                           static_cast<unsigned>(guard.hold_ms));
    if (guard.hops != SSM_GUARD_HOPS)
        terminal->out_func(terminal->out_val, "clock synce loop-guard hops %u\n",
                           static_cast<unsigned>(guard.hops));
}
