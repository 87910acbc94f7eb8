// Command lines: parsing, running, completion and help must agree with each other on any octets. The input is
// lines; the first octet of a line chooses the mode. A line that parses runs, one that does not runs nothing.
#include <cstring>

#include "fuzz/fuzz.h"
#include "suite/command/completion.h"
#include "suite/command/parse.h"
#include "suite/log/log.h"
#include "suite/terminal/terminal.h"

namespace {

int runs;

int run(cli* session, int argc, char** argv) {
    runs++;
    for (int i = 0; i < argc; i++) session->out_func(session->out_val, "%s\n", argv[i]);
    return argv[argc] ? CLI_ERROR : CLI_SUCCESS;
}

int enter(cli* session, int, char**) {
    runs++;
    session->mode = INTERFACE_MODE;
    return CLI_SUCCESS;
}

const struct {
    std::int32_t mode;
    cli_element element;
} commands[] = {
    {CONFIG_MODE, {"clock synce ssm enable (gephy| )", run}},
    {CONFIG_MODE, {"clock synce ssm extend", run}},
    {CONFIG_MODE, {"clock synce local-quality option1 (dnu | eec1 | prc)", run}},
    {CONFIG_MODE, {"clock synce local-priority <1-255>", run}},
    {CONFIG_MODE, {"no clock synce local-priority", run}},
    {CONFIG_MODE, {"interface IFNAME", enter}},
    {CONFIG_MODE, {"log file PATH", run}},
    {CONFIG_MODE, {"logging (a b|a c d|) end", run}},
    {INTERFACE_MODE, {"clock synce quality-eth (rx | tx) (prc | ssu-a | st2 |stu| tnc)", run}},
    {INTERFACE_MODE, {"clock synce priority <0-4294967295>", run}},
    {INTERFACE_MODE, {"description LINE", run}},
    {EXEC_MODE, {"show clock synce (IFPHYSICAL |)", run}},
    {EXEC_MODE, {"show clock synce brief", run}},
    {EXEC_MODE, {"show (a|b|) (c|d|) (WORD|<1-9>|)", run}},
    {DEBUG_MODE, {"debug ssm (event|cli|timer|packet|all)", run}},
};

int count_octets(void* out_val, const char* format, ...) {
    *static_cast<std::size_t*>(out_val) += std::strlen(format);
    return 0;
}

struct {
    cli_tree* tree;
    if_master ifm;
} world;

void make_world() {
    log_use_sink(LOG_SINK_STDERR, false);
    world.tree = cli_tree_create();
    for (const auto& command : commands)
        must(cli_install(world.tree, command.mode, &command.element) == 0, "commands can be installed");
    for (std::int32_t mode : {EXEC_MODE, CONFIG_MODE, INTERFACE_MODE})
        must(cli_install_default(world.tree, mode) == 0, "defaults can be installed");
    (void)if_add(&world.ifm, "eth1", 1, IF_TYPE_SYNCE);
    (void)if_add(&world.ifm, "brie", 2, IF_TYPE_SYNCE);
}

void try_line(cli* session, std::string_view line) {
    static completion_list list;
    completion_help(world.tree, session, line, &list);
    completion_words(world.tree, session, line, &list);
    must(completion_common(list).size() >= (list.count ? list.partial.size() : 0), "completion only adds");
    cli_parsed parsed;
    cli_parse(world.tree, session, line, &parsed);
    bool plain = line.find('|') == std::string_view::npos;
    runs = 0;
    cli_result result = cli_run_line(world.tree, session, line);
    bool ran = result == cli_result::ok || result == cli_result::failed;
    must(!plain || (parsed.result == cli_result::ok) == ran, "what parses runs");
    must(ran || !runs, "what does not parse runs nothing");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (!world.tree) make_world();
    std::size_t printed = 0;
    lib_globals ctx{};
    ctx.ctree = world.tree;
    cli session{};
    session.zg = &ctx;
    session.ifm = &world.ifm;
    session.out_func = count_octets;
    session.out_val = &printed;
    session.privilege = PRIVILEGE_MAX;
    std::string_view rest{reinterpret_cast<const char*>(data), size};
    constexpr std::int32_t modes[] = {EXEC_MODE, CONFIG_MODE, INTERFACE_MODE};
    while (!rest.empty()) {
        session.mode = modes[static_cast<unsigned char>(rest[0]) % 3];
        rest.remove_prefix(1);
        std::size_t end = rest.find('\n') == std::string_view::npos ? rest.size() : rest.find('\n');
        try_line(&session, rest.substr(0, end));
        rest.remove_prefix(end < rest.size() ? end + 1 : end);
    }
    return 0;
}
