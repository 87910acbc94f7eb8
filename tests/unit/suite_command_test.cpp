// The command engine: what a line means (shortening, ambiguity, ranges, modes), what handlers get, filters.
#include <algorithm>

#include "suite/command/completion.h"
#include "suite/command/explain.h"
#include "suite/command/parse.h"
#include "suite/command/tree.h"
#include "unit/suite_support.h"

namespace {

using namespace std::string_literals;

std::string arguments, called;  // "|argument|argument", and those behind the string of the command

int record(cli*, int argc, char** argv) {
    arguments.clear();
    for (int i = 0; i < argc; i++) arguments += "|"s + argv[i];
    return CLI_SUCCESS;
}

int enter_interface(cli* session, int argc, char** argv) {
    session->mode = INTERFACE_MODE;
    return record(session, argc, argv);
}

int refuse(cli* session, int, char**) {
    session->out_func(session->out_val, "%% No\n");
    return CLI_ERROR;
}

int show_lines(cli* session, int, char**) {
    session->out_func(session->out_val, "alpha one\nbeta");
    session->out_func(session->out_val, " two\nalpha three\n");
    return CLI_SUCCESS;
}

const std::pair<std::int32_t, cli_element> commands[] = {
    {CONFIG_MODE, {"clock ssm enable (gephy| )", record}},
    {CONFIG_MODE, {"clock ssm extend", record}},
    {CONFIG_MODE, {"clock priority <1-255>", record}},
    {CONFIG_MODE, {"clock slave-only", record}},
    {CONFIG_MODE, {"logging", record}},
    {CONFIG_MODE, {"log file PATH", record}},
    {CONFIG_MODE, {"pair (one two|three|) end", record}},
    {CONFIG_MODE, {"interface IFNAME", enter_interface}},
    {CONFIG_MODE, {"refuse", refuse}},
    {INTERFACE_MODE, {"quality (rx | tx) (prc | prov | stu |st2)", record}},
    {INTERFACE_MODE, {"description LINE", record}},
    {EXEC_MODE, {"show clock synce (IFPHYSICAL |)", record}},
    {EXEC_MODE, {"show clock synce brief", record}},
    {EXEC_MODE, {"show clock bits", record}},
    {EXEC_MODE, {"show debugging", record}},
    {EXEC_MODE, {"show debugging ssm", record}},
    {EXEC_MODE, {"show lines", show_lines}},
    {DEBUG_MODE, {"debug ssm (event|all)", record}},
};

const std::string UNKNOWN = "% Unknown command\n", AMBIGUOUS = "% Ambiguous command\n",
                  INCOMPLETE = "% Incomplete command\n";

class Cli : public Suite {
  protected:
    Cli() {
        session.ifm = ctx.ifm = &ifm;
        ctx.ctree = cli_tree_create();
        ctx.ctree->after_run = [](cli*, const cli_command* c) { called = c->element->string + arguments; };
        for (const auto& [mode, element] : commands) EXPECT_EQ(install(mode, &element), 0) << element.string;
        session.line = nullptr;
        session.mode = CONFIG_MODE;
    }
    ~Cli() override {
        cli_tree_free(ctx.ctree);
        if_finish(ctx.ifm);
    }
    int install(std::int32_t mode, const cli_element* element) {
        return cli_install(ctx.ctree, mode, element);
    }
    // What was printed, or what ran.
    std::string run(const std::string& line) { return run_in(session.mode, line); }
    std::string run_in(std::int32_t mode, const std::string& line) {
        called.clear();
        const std::string printed = runner.run(line, mode);
        return printed.empty() ? called : printed;
    }
    void expect(std::int32_t mode, const std::vector<std::pair<std::string, std::string>>& cases) {
        for (const auto& [line, result] : cases) EXPECT_EQ(run_in(mode, line), result) << line;
    }
    void expect_all(std::int32_t mode, const std::string& result, const words& all) {
        for (const std::string& line : all) EXPECT_EQ(run_in(mode, line), result) << line;
    }

    if_master ifm{};
    lib_globals ctx{};
    line_runner runner{&ctx};
    cli& session = runner.session;
};

TEST_F(Cli, KeywordsArriveInFullAndEmptyAlternativesGiveNoArgument) {
    const std::string quality = "quality (rx | tx) (prc | prov | stu |st2)",
                      pair = "pair (one two|three|) end";
    expect(CONFIG_MODE, {{"clock ssm enable", "clock ssm enable (gephy| )"},
                         {" cl  ssm\ten g \r", "clock ssm enable (gephy| )|gephy"},
                         {"pair one two end", pair + "|one|two"},
                         {"pair three end", pair + "|three"},
                         {"pair end", pair}});
    expect(INTERFACE_MODE, {{"quality r st2", quality + "|rx|st2"},
                            {"quality tx prov", quality + "|tx|prov"},
                            {"description more  than one ", "description LINE|more  than one"}});
}

TEST_F(Cli, AmbiguityIsJudgedOverTheWholeLineAndAnExactWordBeatsLongerOnes) {
    expect_all(INTERFACE_MODE, AMBIGUOUS, {"quality tx st", "quality tx pr"});
    // slave-only would fit, but ssm is meant as likely
    expect_all(CONFIG_MODE, AMBIGUOUS, {"clock ssm e", "clock s"});
    // a whole keyword, not the beginning of logging
    expect_all(CONFIG_MODE, INCOMPLETE, {"clock ssm", "pair one", "log"});
    // an argument that would be cut, or play tricks with the screen, too
    expect_all(CONFIG_MODE, UNKNOWN,
               {"pair one end", "clock ssm enable gephy more", "CLOCK slave-only", "log file a\0b"s,
                "log file a\x1b[2J", "clock priority 0", "clock priority 256", "clock priority 4294967297"});
    ASSERT_NE(if_add(ctx.ifm, "bri", 1, IF_TYPE_SYNCE), nullptr);
    expect(EXEC_MODE, {{"sh deb", "show debugging"},
                       {"show debugging ssm", "show debugging ssm"},
                       {"show clock synce b", "show clock synce brief"},
                       {"show clock synce bri", "show clock synce (IFPHYSICAL |)|bri"}});
    expect(CONFIG_MODE, {{"clock ssm e g", "clock ssm enable (gephy| )|gephy"},
                         {"clock sl", "clock slave-only"},
                         {"log file x", "log file PATH|x"},
                         {"log file /tmp/h\xc3\xa9.log", "log file PATH|/tmp/h\xc3\xa9.log"},
                         {"logg", "logging"},
                         {"clock priority 007", "clock priority <1-255>|007"}});
}

TEST_F(Cli, ModesReplacementPrivilegesAndFlags) {
    for (std::int32_t mode : {EXEC_MODE, CONFIG_MODE, INTERFACE_MODE})
        EXPECT_EQ(run_in(mode, "debug ssm a"), "debug ssm (event|all)|all");
    for (std::int32_t mode : {-1, 95}) expect_all(mode, UNKNOWN, {"debug ssm all"});
    static const cli_element high = {"clock high", record}, terminal = {"terminal only", record},
                             mine = {"show clock bits", refuse};
    ASSERT_EQ(install(EXEC_MODE, &mine), 0);
    EXPECT_EQ(run_in(EXEC_MODE, "show clock bits"), "% No\n") << "it takes the first one's place";
    ASSERT_EQ(cli_install_gen(ctx.ctree, CONFIG_MODE, 4, 0, &high), 0);
    ASSERT_EQ(cli_install_gen(ctx.ctree, CONFIG_MODE, 1, CLI_FLAG_INTERACTIVE, &terminal), 0);
    session.privilege = 3;
    expect(CONFIG_MODE, {{"clock high", UNKNOWN}, {"terminal only", "% Only at a terminal\n"}});
    session.privilege = 4;
    session.line = &session;
    expect(CONFIG_MODE, {{"clock high", "clock high"}, {"terminal only", "terminal only"}});
}

TEST_F(Cli, InterfaceModeIsLeftByAConfigurationCommandAndItsInterfaceLookedUpBeforeEachLine) {
    EXPECT_EQ(run("interface eth7"), "interface IFNAME|eth7");
    EXPECT_STREQ(session.name, "eth7");
    EXPECT_EQ(session.mode, INTERFACE_MODE);
    EXPECT_EQ(session.index, nullptr);
    interface* intf = if_add(ctx.ifm, "eth7", 1, IF_TYPE_SYNCE);
    run("description x");
    EXPECT_EQ(session.index, intf);
    if_remove(ctx.ifm, intf);
    run("description x");
    EXPECT_EQ(session.index, nullptr) << "a removed interface must not be reachable";
    expect(INTERFACE_MODE, {{"nonsense", UNKNOWN}, {"clock s", AMBIGUOUS}});
    EXPECT_EQ(session.mode, INTERFACE_MODE) << "a line that does not run changes nothing";
    EXPECT_EQ(run("clock slave-only"), "clock slave-only");
    EXPECT_EQ(session.mode, CONFIG_MODE);
    EXPECT_STREQ(session.name, "");
}

TEST_F(Cli, ResultsOfLines) {
    for (const char* line : {"", " \t\r\n", "  ! comment", "#clock"})
        EXPECT_EQ(cli_run_line(ctx.ctree, &session, line), cli_result::empty) << line;
    EXPECT_EQ(run("refuse"), "% No\n");
    EXPECT_EQ(runner.result, cli_result::failed);
    memmgr_fail_at(1);
    EXPECT_EQ(run("clock priority 9"), "% Out of memory\n");
    static const cli_element late = {"late command", record};
    memmgr_fail_at(1);
    EXPECT_EQ(install(CONFIG_MODE, &late), -1);
    EXPECT_EQ(run("late command"), UNKNOWN);
}

TEST_F(Cli, MalformedStringsStayOut) {
    std::string many;
    for (int i = 0; i < 65; i++) many += "w ";
    for (const char* text : {"", "  ", "a (b", "a b)", "(a|)", "a (b (c|d)|e)", "a <5-1>", "a <x-9>",
                             "a <1-9", "a | b", "a LINE b", "a <1-4294967296>", many.c_str()}) {
        cli_element element = {text, refuse};
        EXPECT_EQ(install(CONFIG_MODE, &element), -1) << text;
    }
}

TEST_F(Cli, FiltersOfShowCommands) {
    expect(EXEC_MODE, {{"show lines | include alpha", "alpha one\nalpha three\n"},
                       {"show lines |i beta two ", "beta two\n"},
                       {"show lines | exclude alpha", "beta two\n"},
                       {"show lines | begin beta", "beta two\nalpha three\n"},
                       {"show lines | count", "3\n"},
                       {"show lines", "alpha one\nbeta two\nalpha three\n"}});
    expect_all(EXEC_MODE, INCOMPLETE, {"show lines | include", "show lines |"});
    expect_all(EXEC_MODE, UNKNOWN, {"show lines | count x", "show lines | grep x", "show nothing | count"});
    EXPECT_EQ(session.out_val, &runner.printed) << "the output function is back in place";
    EXPECT_EQ(run_in(INTERFACE_MODE, "description a | include b"), "description LINE|a | include b");
}

// A listing that comes in parts, or at once: a filter goes on where the part before ended.
TEST_F(Cli, FiltersOfListingsInPartsAndJson) {
    static constexpr cli_element show_parts = {
        "show parts", [](cli* c, int, char**) {
            constexpr const char* parts[] = {"alpha\nal", "pha\nbeta\n", "gamma\n"};
            if (c->json) c->out_func(c->out_val, "[1]\n");
            while (!c->json && c->part.passed < std::size(parts)) {
                c->out_func(c->out_val, "%s", parts[c->part.passed++]);
                if (cli_is_full(c)) return CLI_MORE;
            }
            return CLI_SUCCESS;
        }};
    ASSERT_EQ(cli_install_gen(ctx.ctree, EXEC_MODE, PRIVILEGE_NORMAL, CLI_FLAG_JSON, &show_parts), 0);
    for (const bool in_parts : {false, true}) {
        if (in_parts) session.full = [](const cli*) { return true; };
        for (const auto& [line, printed] : std::vector<std::pair<std::string, std::string>>{
                 {"show parts", "alpha\nalpha\nbeta\ngamma\n"},
                 {"show parts | begin b", "beta\ngamma\n"},
                 {"show parts | count", "4\n"},
                 {"show parts | i alpha", "alpha\nalpha\n"},
                 {"show parts | j", "[1]\n"},
                 {"show lines | json", "% This command has no JSON form\n"},
                 {"show parts | json x", UNKNOWN}}) {
            std::string all = runner.run(line);
            while (runner.result == cli_result::more) all += runner.run(line);
            EXPECT_EQ(all, printed) << line;
        }
    }
    completion_list list;
    session.mode = CONFIG_MODE;
    completion_words(ctx.ctree, &session, "do show parts | j", &list);
    EXPECT_EQ(completion_common(list), "json");
    completion_help(ctx.ctree, &session, "do show lines | j", &list);
    EXPECT_EQ(list.count, 0u);
}

// "word word", " <cr>" when the line may end there.
std::string texts(const completion_list& list) {
    std::string all;
    for (std::size_t i = 0; i < list.count; i++) all += (i ? " "s : ""s) + list.items[i].text;
    return list.may_end ? all + " <cr>" : all;
}

TEST_F(Cli, WhatMayFollow) {
    static constexpr cli_help help[] = {{"", "synce", "anywhere"},
                                        {"show clock", "synce", "Synchronous Ethernet"},
                                        {"clock", "synce", "shorter"}};
    ASSERT_EQ(cli_install_help(ctx.ctree, help, 3), 0);
    ASSERT_NE(if_add(ctx.ifm, "eth10", 1, IF_TYPE_SYNCE), nullptr);
    ASSERT_NE(if_add(ctx.ifm, "eth11", 2, IF_TYPE_SYNCE), nullptr);
    completion_list list;
    const struct {
        std::int32_t mode;
        decltype(&completion_help) find;
        const char *line, *words, *common = nullptr;
    } cases[] = {
        {EXEC_MODE, completion_help, "show clock synce ", "IFPHYSICAL brief <cr>"},
        {EXEC_MODE, completion_words, "show clock synce e", "eth10 eth11", "eth1"},
        {EXEC_MODE, completion_words, "show lines | ", "begin count exclude include"},
        {CONFIG_MODE, completion_help, "clock priority ", "<1-255>"},
        {CONFIG_MODE, completion_words, "do show cl", "clock", "clock"},
        {EXEC_MODE, completion_help, "sh cl ", "bits synce"},
    };
    for (const auto& c : cases) {
        session.mode = c.mode;
        c.find(ctx.ctree, &session, c.line, &list);
        EXPECT_EQ(texts(list), c.words) << c.line;
        EXPECT_TRUE(!c.common || completion_common(list) == c.common) << c.line;
    }
    EXPECT_STREQ(list.items[1].help, "Synchronous Ethernet");
    completion_help(ctx.ctree, &session, "show clock x ", &list);
    EXPECT_EQ(list.result, cli_result::unknown);
}

TEST_F(Cli, ShowsRunInTheConfigurationModesOfATerminalAndItsModeStays) {
    for (std::int32_t mode : {CONFIG_MODE, INTERFACE_MODE})
        expect_all(mode, UNKNOWN, {"show clock bits", "sh"});  // a file, where nobody would read the answer
    session.line = &session;
    const interface* intf = if_add(ctx.ifm, "eth7", 1, IF_TYPE_SYNCE);
    run("interface eth7");
    static const cli_element enter = {"show enter", enter_interface}, exec = {"shutdown", record};
    ASSERT_EQ(install(EXEC_MODE, &enter) | install(EXEC_MODE, &exec), 0);
    for (std::int32_t mode : {INTERFACE_MODE, CONFIG_MODE}) {
        expect(mode, {{"sh lines | i beta", "beta two\n"},
                      {"show clock b", "show clock bits"},
                      {"show enter", "show enter"},
                      {"show clock", INCOMPLETE},
                      {"shutdown", UNKNOWN}});
        EXPECT_EQ(session.mode, mode);
        EXPECT_EQ(session.index, intf);
        EXPECT_STREQ(session.name, "eth7") << "lines of the interface go on";
    }
    completion_list list;
    completion_help(ctx.ctree, &session, "sh", &list);
    EXPECT_EQ(texts(list), "show");
    completion_words(ctx.ctree, &session, "show cl", &list);
    EXPECT_EQ(texts(list), "clock");
}

TEST_F(Cli, RefusedLineIsExplained) {
    static const cli_element more[] = {{"set (north|northern) pole", record},
                                       {"set no pole SECRET", record},
                                       {"many (a|b|c|d|e|f|g|h|i|j|k)", record}};
    for (const cli_element& element : more) ASSERT_EQ(install(CONFIG_MODE, &element), 0);
    session.line = &session;
    const struct {
        std::int32_t mode;
        const char *line, *possible;  // "^" before the place
    } cases[] = {
        {EXEC_MODE, "^nothing here", "debug show"},
        {EXEC_MODE, " show\t\tclock ^synk brief", "bits synce"},
        {EXEC_MODE, "show clock ^", "bits synce"},
        {EXEC_MODE, "show clock ^| include x", "bits synce"},
        {EXEC_MODE, "show lines ^more | count", " <cr>"},
        {EXEC_MODE, "show lines | ^grep x", "begin count exclude include"},
        {EXEC_MODE, "show lines | ^", "begin count exclude include"},
        {EXEC_MODE, "show lines | inc ^", "TEXT"},
        {EXEC_MODE, "show lines | ^json", "begin count exclude include"},
        {EXEC_MODE, "show lines | count  ^x y", " <cr>"},
        {EXEC_MODE, "show clock synce ^a$b | count", "IFPHYSICAL brief <cr>"},
        {CONFIG_MODE, "clock priority ^256", "<1-255>"},
        {CONFIG_MODE, "clock ssm ^e", "enable extend"},
        {CONFIG_MODE, "set ^nor pole", "north northern"},
        {CONFIG_MODE, "clock ^s", "slave-only ssm"},
        {CONFIG_MODE, "clock s ^extent", "enable extend <cr>"},
        {CONFIG_MODE, "log file ^a;b", "PATH"},
        {INTERFACE_MODE, "quality ^r\xc3\xbc prc", "rx tx"},
        {INTERFACE_MODE, "clock ^priorities", "priority slave-only ssm"},
    };
    cli_explanation found;
    for (const auto& c : cases) {
        std::string line = c.line;
        const std::size_t at = line.find('^');
        line.erase(at, 1);
        EXPECT_EQ(run_in(c.mode, line)[0], '%') << line;
        ASSERT_TRUE(cli_explain(ctx.ctree, &session, line, &found)) << line;
        EXPECT_EQ(found.at, at) << line;
        EXPECT_EQ(texts(found.possible), c.possible) << line;
    }
    session.mode = CONFIG_MODE;
    for (const char* line :
         {"set no pole sesame x", "set no pole \x1b", "sett no pol sesame", "clock slave-only", "refuse"})
        EXPECT_FALSE(cli_explain(ctx.ctree, &session, line, &found)) << line;
    std::string deep = "password";
    for (int i = 0; i < 20'000; i++) deep = "do " + deep;
    ASSERT_EQ(cli_install_default(ctx.ctree, CONFIG_MODE), 0);
    EXPECT_TRUE(cli_visible_part(ctx.ctree, &session, deep).secret) << "and the stack is not used up";
    for (const auto& [line, rows] : {std::pair{"set x", 3}, {"many x", 6}}) {
        text_buffer printed;
        ASSERT_TRUE(cli_explain(ctx.ctree, &session, line, &found));
        cli_print_possible(found.possible, 40, &printed);
        const std::string text = take_text(&printed);
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), rows) << text;
    }
}

TEST(CliNumbers, WholeDecimalNumbersOnly) {
    int status = 5;
    for (std::int32_t value : {0, 255, -1, INT32_MAX, INT32_MIN}) {
        EXPECT_EQ(cmd_str2int(std::to_string(value).c_str(), &status), value);
        EXPECT_EQ(status, 0) << value;
    }
    for (const char* bad : {"2147483648", "", "-", "+5", "5 ", " 5", "0x10", "99999999999999999999"}) {
        cmd_str2int(bad, &status);
        EXPECT_LT(status, 0) << bad;
    }
}

}  // namespace
