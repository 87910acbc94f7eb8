// What is installed where, with and without SyncE on the board, and a help text for every token.
#include <set>

#include "daemon_fixture.h"
#include "suite/cli_parse.h"
#include "suite/cli_tree.h"

namespace {

struct installed {
    std::int32_t mode;
    const cli_element* element;
    std::uint32_t flags;
};

std::vector<installed> walk(const cli_tree* tree) {
    std::vector<installed> all;
    cli_walk(
        tree,
        [](void* arg, std::int32_t mode, const cli_element* element, std::uint32_t flags) {
            static_cast<std::vector<installed>*>(arg)->push_back({mode, element, flags});
        },
        &all);
    return all;
}

std::vector<std::string> strings(const cli_tree* tree, std::int32_t mode, const char* containing) {
    std::vector<std::string> found;
    for (const installed& command : walk(tree))
        if (command.mode == mode &&
            std::string(command.element->string).find(containing) != std::string::npos)
            found.push_back(command.element->string);
    return found;
}

using lines = std::vector<std::string>;
using installation = daemon_test;

TEST_F(installation, modes_and_order) {
    EXPECT_EQ(init_result_, 0);
    EXPECT_EQ(
        strings(ctx_->ctree, CONFIG_MODE, "clock"),
        (lines{"clock synce global-enable", "no clock synce global-enable",
               "clock synce ssm enable (gephy| )", "no clock synce ssm enable",
               "clock synce local-quality option1 (dnu | eec1 | prc)", "no clock synce local-quality",
               "clock synce local-quality option2 (dus | eec2 | prs)", "clock synce local-priority <1-255>",
               "no clock synce local-priority", "clock synce master-only", "no clock synce master-only",
               "clock synce slave-only", "no clock synce slave-only", "clock synce ssm extend",
               "no clock synce ssm extend", "clock synce switch-force IFNAME", "no clock synce switch-force",
               "clock recovery-select bits (bits1|bits2)", "no clock recovery-select"}));
    EXPECT_EQ(strings(ctx_->ctree, INTERFACE_MODE, "clock"),
              (lines{"clock synce enable", "no clock synce enable", "clock synce ssm enable (rx | tx | all)",
                     "no clock synce ssm enable (rx | tx | all)", "clock synce priority <1-255>",
                     "no clock synce priority", "clock synce dnu-group <1-255>", "no clock synce dnu-group",
                     "clock synce extend replace-clockid", "no clock synce extend replace-clockid",
                     "clock synce quality-eth (rx | tx) (prc | ssu-a | ssu-b | eec1 | dnu | prs | stu |st2 | "
                     "tnc | smc | "
                     "st3e | prov | eec2 | dus)",
                     "no clock synce quality-eth (rx | tx)", "clock synce gephy (master|slave)",
                     "no clock synce gephy"}));
    EXPECT_EQ(strings(ctx_->ctree, EXEC_MODE, "show clock"),
              (lines{"show clock synce (IFPHYSICAL |)", "show clock recovery-select", "show clock bits",
                     "show clock synce brief", "show clock synce selection", "show clock synce json"}));
    EXPECT_EQ(strings(ctx_->ctree, DEBUG_MODE, "ssm"),
              (lines{"no debug ssm (event|cli|timer|packet|all)", "debug ssm (event|cli|timer|packet|all)"}));
    EXPECT_EQ(strings(ctx_->ctree, EXEC_MODE, "debugging ssm"), lines{"show debugging ssm"});
    EXPECT_EQ(strings(ctx_->ctree, CONFIG_MODE, "interface"), lines{"interface IFNAME"});
}

TEST_F(installation, only_the_force_switch_waits_for_its_port) {
    for (const installed& command : walk(ctx_->ctree))
        EXPECT_EQ((command.flags & CLI_FLAG_AFTER_BIND) != 0, command.element == &ssm_switch_force_cmd)
            << command.element->string;
}

TEST_F(installation, clock_commands_need_privilege_4) {
    config_mode();
    session_.privilege = 3;
    EXPECT_EQ(run("clock synce global-enable"), cli_result::unknown);
    session_.privilege = 4;
    EXPECT_EQ(run("clock synce global-enable"), cli_result::ok);
}

class board_without_synce : public daemon_test {
    const char* board() const override { return "board_type 4\nsynce_support 0\n"; }
};

TEST_F(board_without_synce, has_interfaces_and_writers_alone) {
    EXPECT_EQ(init_result_, 0);
    for (std::int32_t mode : {EXEC_MODE, CONFIG_MODE, INTERFACE_MODE, DEBUG_MODE}) {
        EXPECT_EQ(strings(ctx_->ctree, mode, "clock"), lines{});
        EXPECT_EQ(strings(ctx_->ctree, mode, "ssm"), lines{});
    }
    EXPECT_EQ(run("show clock synce"), cli_result::unknown);
    EXPECT_EQ(run("debug ssm all"), cli_result::unknown);
    config_mode();
    EXPECT_EQ(run("clock synce global-enable"), cli_result::unknown);
    EXPECT_EQ(run("interface p1"), cli_result::ok);
    EXPECT_EQ(run("exit"), cli_result::ok);
    output();
    exec_mode();
    cli_write_running(ctx_->ctree, &session_);
    EXPECT_NE(output().find("!\n"), std::string::npos);
}

TEST_F(board_without_synce, missing_board_file_is_the_result_of_the_installation) {
    ssm_board_use_file("/nonexistent/board");
    cli_tree* tree = cli_tree_create();
    EXPECT_EQ(ssm_cli_init(tree), -999);
    EXPECT_EQ(strings(tree, CONFIG_MODE, "interface"), lines{"interface IFNAME"});
    cli_tree_free(tree);
}

// Follows every way through every command of the daemon, as `?` does.
void missing_texts(cli_tree* tree, cli* session, const std::string& typed, std::set<std::string>* missing) {
    struct state {
        cli_tree* tree;
        std::set<std::string> tokens;
        std::set<std::string>* missing;
        std::string typed;
    } here = {tree, {}, missing, typed};
    cli_list_next(
        tree, session, typed,
        [](void* arg, const cli_next_token& next) {
            auto* at = static_cast<state*>(arg);
            if (!next.token) return;
            if (!cli_help_find(at->tree, next)) at->missing->insert(at->typed + " " + next.token->text);
            at->tokens.insert(next.token->text);
        },
        &here);
    for (const std::string& token : here.tokens) {
        const std::string word = token[0] == '<' ? "1" : token;
        missing_texts(tree, session, typed + " " + word, missing);
    }
}

TEST_F(installation, every_token_has_a_help_text) {
    std::set<std::string> missing;
    for (std::int32_t mode : {EXEC_MODE, CONFIG_MODE, INTERFACE_MODE}) {
        session_.mode = mode;
        for (const char* begin : {"clock", "no clock", "show clock", "show debugging ssm", "debug ssm",
                                  "no debug ssm", "interface"})
            missing_texts(ctx_->ctree, &session_, begin, &missing);
    }
    EXPECT_EQ(missing, std::set<std::string>{});
}

}  // namespace
