// Command lines: parsing, running, completion and help must agree with each other on any octets. The input is
// lines; the first octet of a line chooses the mode. A line that parses runs, one that does not runs nothing.
#include "fuzz/fuzz.h"
#include "suite/command/completion.h"
#include "suite/command/explain.h"
#include "suite/command/parse.h"
#include "suite/log/log.h"
#include "suite/terminal/session.h"
#include "suite/terminal/terminal.h"

namespace {

int runs;

int run(cli* session, int argc, char** argv) {
    runs++;
    for (int i = 0; i < argc; i++) session->out_func(session->out_val, "%s\n", argv[i]);
    return argv[argc] ? CLI_ERROR : CLI_SUCCESS;
}

int enter(cli* session, int argc, char** argv) {
    session->mode = INTERFACE_MODE;
    return run(session, argc, argv);
}

constexpr std::int32_t MODES[] = {EXEC_MODE, CONFIG_MODE, INTERFACE_MODE};
const std::pair<std::int32_t, cli_element> COMMANDS[] = {
    {CONFIG_MODE, {"clock synce ssm enable (gephy| )", run}},
    {CONFIG_MODE, {"clock synce ssm extend", run}},
    {CONFIG_MODE, {"clock synce ssm extend standard", run}},
    {CONFIG_MODE, {"clock synce hold-off <300-1800>", run}},
    {CONFIG_MODE, {"clock synce local-quality option1 (dnu | eec1 | prc)", run}},
    {CONFIG_MODE, {"clock synce local-priority <1-255>", run}},
    {CONFIG_MODE, {"no clock synce local-priority", run}},
    {CONFIG_MODE, {"interface IFNAME", enter}},
    {CONFIG_MODE, {"log file PATH", run}},
    {CONFIG_MODE, {"logging (a b|a c d|) end", run}},
    {INTERFACE_MODE, {"clock synce quality-eth (rx | tx) (prc | ssu-a | st2 |stu| tnc)", run}},
    {INTERFACE_MODE, {"clock synce quality-eth (minimum|maximum) (eprtc|prtc|eprc|eeec|prc)", run}},
    {INTERFACE_MODE, {"clock synce quality-eth tx (minimum|maximum) (eprtc|prtc|eprc|eeec|prc)", run}},
    {INTERFACE_MODE, {"clock synce extend form (own|standard)", run}},
    {INTERFACE_MODE, {"clock synce priority <0-4294967295>", run}},
    {INTERFACE_MODE, {"description LINE", run}},
    {EXEC_MODE, {"show clock synce (IFPHYSICAL |)", run}},
    {EXEC_MODE, {"show clock synce brief", run}},
    {EXEC_MODE, {"clock synce manual-switch IFNAME", run}},
    {EXEC_MODE, {"clear clock synce (switch|history)", run}},
    {EXEC_MODE, {"clear clock synce wait-to-restore (IFNAME|)", run}},
    {EXEC_MODE, {"show (a|b|) (c|d|) (WORD|<1-9>|)", run}},
    {DEBUG_MODE, {"debug ssm (event|cli|timer|packet|all)", run}},
};

int print_nothing(void*, const char*, ...) {
    return 0;
}

lib_globals* make_context() {
    static lib_globals ctx{};
    static if_master ports{};
    log_use_sink(LOG_SINK_STDERR, false);
    ctx.ctree = cli_tree_create();
    ctx.ifm = &ports;
    for (const auto& [mode, element] : COMMANDS)
        must(cli_install(ctx.ctree, mode, &element) == 0, "commands can be installed");
    for (std::int32_t mode : MODES)
        must(cli_install_default(ctx.ctree, mode) == 0, "defaults can be installed");
    (void)if_add(&ports, "eth1", 1, IF_TYPE_SYNCE);
    (void)if_add(&ports, "brie", 2, IF_TYPE_SYNCE);
    return &ctx;
}

void try_line(cli* session, std::string_view line) {
    static completion_list list;
    cli_tree* tree = session->zg->ctree;
    completion_help(tree, session, line, &list);
    completion_words(tree, session, line, &list);
    must(completion_common(list).size() >= (list.count ? list.partial.size() : 0), "completion only adds");
    cli_parsed parsed;
    cli_parse(tree, session, line, &parsed);
    bool plain = line.find('|') == std::string_view::npos;
    runs = 0;
    cli_result result = cli_run_line(tree, session, line);
    bool ran = result == cli_result::ok || result == cli_result::failed;
    must(!plain || (parsed.result == cli_result::ok) == ran, "what parses runs");
    must(ran || !runs, "what does not parse runs nothing");
    static cli_explanation why;
    const bool explained = cli_explain(tree, session, line, &why);
    must(!explained || why.at <= line.size() + 1, "a fault is in the line, or behind it");
    must(!plain || ran || result == cli_result::empty ||
             explained == !cli_visible_part(tree, session, line).secret,
         "what does not parse is explained, but for secrets");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static lib_globals* const ctx = make_context();
    cli session{};
    session.zg = ctx;
    session.ifm = ctx->ifm;
    session.out_func = print_nothing;
    session.privilege = PRIVILEGE_MAX;
    static struct session record;
    session.line = &record;
    std::string_view rest{reinterpret_cast<const char*>(data), size};
    while (!rest.empty()) {
        session.mode = MODES[static_cast<unsigned char>(rest[0]) % 3];
        const std::size_t end = std::min(rest.find('\n', 1), rest.size());
        try_line(&session, rest.substr(1, end - 1));
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return 0;
}
