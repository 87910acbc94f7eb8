// The command engine: what a line means (shortening, ambiguity, ranges, modes), what handlers get, filters.
#include <gtest/gtest.h>

#include <cstdarg>
#include <string>
#include <vector>

#include "suite/cli.h"
#include "suite/cli_parse.h"
#include "suite/completion.h"
#include "suite/log.h"
#include "suite/memory.h"

namespace {

std::string called;  // "string|argument|argument"

int record(cli*, const char* string, int argc, char** argv) {
    called = string;
    for (int i = 0; i < argc; i++) called += std::string("|") + argv[i];
    return CLI_SUCCESS;
}

// One handler a command string, so that a call tells which command ran.
#define COMMAND(name, text) \
    const cli_element name = {text, [](cli* s, int argc, char** argv) { return record(s, text, argc, argv); }}

COMMAND(ssm_enable, "clock synce ssm enable (gephy| )");
COMMAND(ssm_extend, "clock synce ssm extend");
COMMAND(local_op1, "clock synce local-quality option1 (dnu | eec1 | prc)");
COMMAND(local_priority, "clock synce local-priority <1-255>");
COMMAND(no_local_priority, "no clock synce local-priority");
COMMAND(slave_only, "clock synce slave-only");
COMMAND(quality,
        "clock synce quality-eth (rx | tx) (prc | ssu-a | ssu-b | eec1 | dnu | prs | stu |st2 | tnc | smc | "
        "st3e | "
        "prov | eec2 | dus)");
COMMAND(show_synce, "show clock synce (IFPHYSICAL |)");
COMMAND(show_brief, "show clock synce brief");
COMMAND(show_bits, "show clock bits");
COMMAND(show_debugging, "show debugging");
COMMAND(show_debugging_ssm, "show debugging ssm");
COMMAND(debug_ssm, "debug ssm (event|cli|timer|packet|all)");
COMMAND(logging, "logging");
COMMAND(log_file, "log file PATH");
COMMAND(description, "description LINE");
COMMAND(pair, "pair (one two|three|) end");

int enter_interface(cli* session, int argc, char** argv) {
    session->mode = INTERFACE_MODE;
    session->index = nullptr;
    return record(session, "interface", argc, argv);
}
const cli_element interface_cmd = {"interface IFNAME", enter_interface};

int refuse(cli* session, int, char**) {
    session->out_func(session->out_val, "%% No\n");
    return CLI_ERROR;
}
const cli_element refuse_cmd = {"refuse", refuse};

int show_lines(cli* session, int, char**) {
    session->out_func(session->out_val, "alpha one\nbeta");
    session->out_func(session->out_val, " two\nalpha three\n");
    return CLI_SUCCESS;
}
const cli_element show_lines_cmd = {"show lines", show_lines};

int append(void* out_val, const char* format, ...) {
    char text[1024];
    va_list args;
    va_start(args, format);
    int count = std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    *static_cast<std::string*>(out_val) += text;
    return count;
}

class Cli : public testing::Test {
  protected:
    void SetUp() override {
        log_use_sink(LOG_SINK_STDERR, false);
        tree = cli_tree_create();
        ASSERT_NE(tree, nullptr);
        for (const cli_element* e :
             {&ssm_enable, &ssm_extend, &local_op1, &local_priority, &no_local_priority, &slave_only,
              &logging, &log_file, &pair, &interface_cmd, &refuse_cmd})
            ASSERT_EQ(cli_install(tree, CONFIG_MODE, e), 0) << e->string;
        ASSERT_EQ(cli_install(tree, INTERFACE_MODE, &quality), 0);
        ASSERT_EQ(cli_install(tree, INTERFACE_MODE, &description), 0);
        for (const cli_element* e :
             {&show_synce, &show_brief, &show_bits, &show_debugging, &show_debugging_ssm, &show_lines_cmd})
            ASSERT_EQ(cli_install(tree, EXEC_MODE, e), 0) << e->string;
        ASSERT_EQ(cli_install(tree, DEBUG_MODE, &debug_ssm), 0);
        session.out_func = append;
        session.out_val = &printed;
        session.ifm = &ifm;
        session.mode = CONFIG_MODE;
        session.privilege = PRIVILEGE_MAX;
    }
    void TearDown() override {
        cli_tree_free(tree);
        if_finish(&ifm);
        EXPECT_EQ(memmgr_type_stats(MTYPE_CLI_TREE).blocks, 0u);
        EXPECT_EQ(memmgr_type_stats(MTYPE_CLI_SESSION).blocks, 0u);
    }
    // What ran, or what was printed.
    std::string run(std::string_view line) {
        called.clear();
        printed.clear();
        cli_run_line(tree, &session, line);
        return called.empty() ? printed : called;
    }
    std::string run_in(std::int32_t mode, std::string_view line) {
        session.mode = mode;
        return run(line);
    }

    cli_tree* tree = nullptr;
    if_master ifm{};
    cli session{};
    std::string printed;
};

const char UNKNOWN[] = "% Unknown command\n", AMBIGUOUS[] = "% Ambiguous command\n",
           INCOMPLETE[] = "% Incomplete command\n";

TEST_F(Cli, KeywordsArriveInFullAndEmptyAlternativesGiveNoArgument) {
    EXPECT_EQ(run("clock synce ssm enable"), "clock synce ssm enable (gephy| )");
    EXPECT_EQ(run(" cl  syn\tss en g \r"), "clock synce ssm enable (gephy| )|gephy");
    EXPECT_EQ(run("clock synce local-q option1 e"),
              "clock synce local-quality option1 (dnu | eec1 | prc)|eec1");
    EXPECT_EQ(run_in(INTERFACE_MODE, "clock synce quality-eth r st2"),
              std::string(quality.string) + "|rx|st2");
    EXPECT_EQ(run_in(INTERFACE_MODE, "clock synce quality-eth tx stu"),
              std::string(quality.string) + "|tx|stu");
    EXPECT_EQ(run("clock synce quality-eth tx st"), AMBIGUOUS);
    EXPECT_EQ(run("clock synce quality-eth tx pr"), AMBIGUOUS);
    EXPECT_EQ(run("clock synce quality-eth tx prov"), std::string(quality.string) + "|tx|prov");
    EXPECT_EQ(run_in(EXEC_MODE, "sh cl syn"), show_synce.string);
    EXPECT_EQ(run("sh cl syn eth1"), std::string(show_synce.string) + "|eth1");
}

TEST_F(Cli, AlternativesOfSeveralWords) {
    EXPECT_EQ(run("pair one two end"), std::string(pair.string) + "|one|two");
    EXPECT_EQ(run("pair three end"), std::string(pair.string) + "|three");
    EXPECT_EQ(run("pair end"), pair.string);
    EXPECT_EQ(run("pair one end"), UNKNOWN);
    EXPECT_EQ(run("pair one"), INCOMPLETE);
}

TEST_F(Cli, AmbiguityIsJudgedOverTheWholeLine) {
    EXPECT_EQ(run("clock synce ssm e"), AMBIGUOUS);
    EXPECT_EQ(run("clock synce ssm e g"), "clock synce ssm enable (gephy| )|gephy");
    EXPECT_EQ(run("clock synce l 7"), "clock synce local-priority <1-255>|7");
    EXPECT_EQ(run("clock synce l"), AMBIGUOUS);
    EXPECT_EQ(run("clock synce s"), AMBIGUOUS) << "slave-only would fit, but ssm is meant as likely";
    EXPECT_EQ(run("clock synce sl"), slave_only.string);
    EXPECT_EQ(run("clock synce ssm"), INCOMPLETE);
    EXPECT_EQ(run("clock"), INCOMPLETE);
    EXPECT_EQ(run("clock synce ssm enable gephy more"), UNKNOWN);
    EXPECT_EQ(run("CLOCK synce slave-only"), UNKNOWN);
}

TEST_F(Cli, ExactWordBeatsLongerOnes) {
    EXPECT_EQ(run("log file x"), std::string(log_file.string) + "|x");
    EXPECT_EQ(run("log"), INCOMPLETE) << "a whole keyword is meant, not the beginning of logging";
    EXPECT_EQ(run("logg"), logging.string);
    EXPECT_EQ(run_in(EXEC_MODE, "show debugging"), show_debugging.string);
    EXPECT_EQ(run("show debugging ssm"), show_debugging_ssm.string);
    EXPECT_EQ(run("sh deb"), show_debugging.string);
}

TEST_F(Cli, KeywordOrInterfaceName) {
    session.mode = EXEC_MODE;
    EXPECT_EQ(run("show clock synce bri"), show_brief.string);
    EXPECT_EQ(run("show clock synce br0"), std::string(show_synce.string) + "|br0");
    ASSERT_NE(if_add(&ifm, "bri", 1, IF_TYPE_SYNCE), nullptr);
    ASSERT_NE(if_add(&ifm, "brief", 2, IF_TYPE_SYNCE), nullptr);
    EXPECT_EQ(run("show clock synce bri"), std::string(show_synce.string) + "|bri")
        << "a port of that name is meant";
    EXPECT_EQ(run("show clock synce brief"), show_brief.string);
    EXPECT_EQ(run("show clock synce b"), show_brief.string);
}

TEST_F(Cli, RangesAreTheParsers) {
    for (const char* good : {"1", "255", "007"})
        EXPECT_EQ(run(std::string("clock synce local-priority ") + good),
                  std::string("clock synce local-priority <1-255>|") + good);
    for (const char* bad :
         {"0", "256", "abc", "-1", "+5", "0x10", "1.5", "99999999999999999999999999", "4294967297"})
        EXPECT_EQ(run(std::string("clock synce local-priority ") + bad), UNKNOWN) << bad;
    EXPECT_EQ(run("clock synce local-priority"), INCOMPLETE);
}

TEST_F(Cli, ModesAndTheirCommands) {
    EXPECT_EQ(run("show clock bits"), UNKNOWN);
    for (std::int32_t mode : {EXEC_MODE, CONFIG_MODE, INTERFACE_MODE})
        EXPECT_EQ(run_in(mode, "debug ssm a"), std::string(debug_ssm.string) + "|all");
    EXPECT_EQ(run_in(EXEC_MODE, "clock synce slave-only"), UNKNOWN);
    EXPECT_EQ(run_in(95, "debug ssm all"), UNKNOWN);
    EXPECT_EQ(run_in(-1, "debug ssm all"), UNKNOWN);
}

TEST_F(Cli, ConfigurationCommandLeavesTheInterface) {
    EXPECT_EQ(run("interface eth7"), "interface|eth7");
    EXPECT_STREQ(session.name, "eth7");
    EXPECT_EQ(session.mode, INTERFACE_MODE);
    EXPECT_EQ(run("clock synce ssm en"), "clock synce ssm enable (gephy| )");
    EXPECT_EQ(session.mode, CONFIG_MODE);
    EXPECT_STREQ(session.name, "");
    session.mode = INTERFACE_MODE;
    EXPECT_EQ(run("nonsense"), UNKNOWN);
    EXPECT_EQ(run("clock synce l"), AMBIGUOUS);
    EXPECT_EQ(session.mode, INTERFACE_MODE) << "a line that does not run changes nothing";
}

TEST_F(Cli, InterfaceIsLookedUpBeforeEachLine) {
    run("interface eth1");
    EXPECT_EQ(session.index, nullptr);
    interface* intf = if_add(&ifm, "eth1", 1, IF_TYPE_SYNCE);
    run("description x");
    EXPECT_EQ(session.index, intf);
    if_remove(&ifm, intf);
    run("description x");
    EXPECT_EQ(session.index, nullptr) << "a removed interface must not be reachable";
}

TEST_F(Cli, PrivilegesAndFlags) {
    static COMMAND(high, "clock synce slave-only now");
    static COMMAND(terminal, "terminal only");
    ASSERT_EQ(cli_install_gen(tree, CONFIG_MODE, 4, 0, &high), 0);
    ASSERT_EQ(cli_install_gen(tree, CONFIG_MODE, 1, CLI_FLAG_INTERACTIVE, &terminal), 0);
    session.privilege = 3;
    EXPECT_EQ(run("clock synce slave-only now"), UNKNOWN);
    session.privilege = 4;
    EXPECT_EQ(run("clock synce slave-only now"), high.string);
    EXPECT_EQ(run("terminal only"), "% Only at a terminal\n");
    session.line = &session;
    EXPECT_EQ(run("terminal only"), terminal.string);
}

TEST_F(Cli, SameStringTakesTheFirstOnesPlace) {
    static const cli_element mine = {"show clock bits", refuse};
    ASSERT_EQ(cli_install(tree, EXEC_MODE, &mine), 0);
    EXPECT_EQ(run_in(EXEC_MODE, "show clock bits"), "% No\n");
}

TEST_F(Cli, ResultsOfLines) {
    EXPECT_EQ(cli_run_line(tree, &session, ""), cli_result::empty);
    EXPECT_EQ(cli_run_line(tree, &session, " \t\r\n"), cli_result::empty);
    EXPECT_EQ(cli_run_line(tree, &session, "  ! comment"), cli_result::empty);
    EXPECT_EQ(cli_run_line(tree, &session, "#clock"), cli_result::empty);
    EXPECT_EQ(cli_run_line(tree, &session, "refuse"), cli_result::failed);
    EXPECT_EQ(cli_run_line(tree, &session, "clock synce slave-only"), cli_result::ok);
}

TEST_F(Cli, AnyOctetsAndAnyLength) {
    using namespace std::string_view_literals;
    EXPECT_EQ(run("log file a\0b"sv), UNKNOWN) << "the argument would be cut";
    EXPECT_EQ(run("log file a\x1b[2J"), UNKNOWN);
    EXPECT_EQ(run("clock\0 synce slave-only"sv), UNKNOWN);
    EXPECT_EQ(run("log file /tmp/h\xc3\xa9.log"), std::string(log_file.string) + "|/tmp/h\xc3\xa9.log");
    EXPECT_EQ(run(std::string(2'000'000, 'x')), UNKNOWN);
    std::string words;
    for (int i = 0; i < 200'000; i++) words += "clock ";
    EXPECT_EQ(run(words), UNKNOWN);
    EXPECT_EQ(run_in(INTERFACE_MODE, "description " + words),
              "description LINE|" + words.substr(0, words.size() - 1));
    std::string name(100'000, 'n');
    EXPECT_EQ(run_in(CONFIG_MODE, "interface " + name), "interface|" + name);
}

TEST_F(Cli, EveryAllocationMayFail) {
    for (std::uint64_t n = 1; n < 4; n++) {
        memmgr_fail_at(n);
        std::string result = run("clock synce local-priority 9");
        EXPECT_TRUE(result == "% Out of memory\n" || result == "clock synce local-priority <1-255>|9")
            << result;
    }
    memmgr_fail_at(0);
    static COMMAND(late, "late command");
    memmgr_fail_at(1);
    EXPECT_EQ(cli_install(tree, CONFIG_MODE, &late), -1);
    memmgr_fail_at(0);
    EXPECT_EQ(run("late command"), UNKNOWN);
}

TEST_F(Cli, MalformedStringsStayOut) {
    for (const char* text : {"", "  ", "a (b", "a b)", "(a|)", "a (b (c|d)|e)", "a <5-1>", "a <x-9>",
                             "a <1-9", "a | b", "a LINE b", "a <1-4294967296>"}) {
        cli_element element = {text, refuse};
        EXPECT_EQ(cli_install(tree, CONFIG_MODE, &element), -1) << text;
    }
    std::string many;
    for (int i = 0; i < 65; i++) many += "w ";
    cli_element element = {many.c_str(), refuse};
    EXPECT_EQ(cli_install(tree, CONFIG_MODE, &element), -1);
}

TEST_F(Cli, FiltersOfShowCommands) {
    session.mode = EXEC_MODE;
    EXPECT_EQ(run("show lines"), "alpha one\nbeta two\nalpha three\n");
    EXPECT_EQ(run("show lines | include alpha"), "alpha one\nalpha three\n");
    EXPECT_EQ(run("show lines |i beta two "), "beta two\n");
    EXPECT_EQ(run("show lines | exclude alpha"), "beta two\n");
    EXPECT_EQ(run("show lines | begin beta"), "beta two\nalpha three\n");
    EXPECT_EQ(run("show lines | count"), "3\n");
    EXPECT_EQ(run("show lines | include"), INCOMPLETE);
    EXPECT_EQ(run("show lines |"), INCOMPLETE);
    EXPECT_EQ(run("show lines | count x"), UNKNOWN);
    EXPECT_EQ(run("show lines | grep x"), UNKNOWN);
    EXPECT_EQ(run("show nothing | count"), UNKNOWN);
    EXPECT_EQ(session.out_val, &printed) << "the output function is back in place";
    EXPECT_EQ(run_in(INTERFACE_MODE, "description a | include b"), "description LINE|a | include b");
}

std::vector<std::string> texts(const completion_list& list) {
    std::vector<std::string> result;
    for (std::size_t i = 0; i < list.count; i++) result.push_back(list.items[i].text);
    return result;
}

TEST_F(Cli, WhatMayFollow) {
    static constexpr cli_help help[] = {{"", "synce", "anywhere"},
                                        {"show clock", "synce", "Synchronous Ethernet"},
                                        {"clock", "synce", "shorter"}};
    ASSERT_EQ(cli_install_help(tree, help, 3), 0);
    session.mode = EXEC_MODE;
    completion_list list;
    completion_help(tree, &session, "sh cl ", &list);
    EXPECT_EQ(texts(list), (std::vector<std::string>{"bits", "synce"}));
    EXPECT_STREQ(list.items[1].help, "Synchronous Ethernet");
    EXPECT_FALSE(list.may_end);
    completion_help(tree, &session, "show clock synce ", &list);
    EXPECT_EQ(texts(list), (std::vector<std::string>{"IFPHYSICAL", "brief"}));
    EXPECT_TRUE(list.may_end);
    completion_help(tree, &session, "show clock x ", &list);
    EXPECT_EQ(list.result, cli_result::unknown);

    ASSERT_NE(if_add(&ifm, "eth10", 1, IF_TYPE_SYNCE), nullptr);
    ASSERT_NE(if_add(&ifm, "eth11", 2, IF_TYPE_SYNCE), nullptr);
    completion_words(tree, &session, "show clock synce e", &list);
    EXPECT_EQ(texts(list), (std::vector<std::string>{"eth10", "eth11"}));
    EXPECT_EQ(completion_common(list), "eth1");
    completion_words(tree, &session, "show lines | ", &list);
    EXPECT_EQ(texts(list), (std::vector<std::string>{"begin", "count", "exclude", "include"}));
    session.mode = CONFIG_MODE;
    completion_help(tree, &session, "clock synce local-priority ", &list);
    EXPECT_EQ(texts(list), (std::vector<std::string>{"<1-255>"}));
    completion_words(tree, &session, "do show cl", &list);
    EXPECT_EQ(texts(list), (std::vector<std::string>{"clock"}));
}

TEST(CliNumbers, WholeDecimalNumbersOnly) {
    struct {
        const char* text;
        bool good;
        std::int32_t value;
    } cases[] = {{"0", true, 0},
                 {"255", true, 255},
                 {"-1", true, -1},
                 {"2147483647", true, INT32_MAX},
                 {"-2147483648", true, INT32_MIN},
                 {"2147483648", false, 0},
                 {"", false, 0},
                 {"-", false, 0},
                 {"+5", false, 0},
                 {"5 ", false, 0},
                 {" 5", false, 0},
                 {"0x10", false, 0},
                 {"99999999999999999999", false, 0}};
    for (const auto& c : cases) {
        int status = 5;
        std::int32_t value = cmd_str2int(c.text, &status);
        EXPECT_EQ(status == 0, c.good) << c.text;
        EXPECT_TRUE(status == 0 || status < 0) << c.text;
        if (c.good) {
            EXPECT_EQ(value, c.value) << c.text;
        }
    }
}

}  // namespace
