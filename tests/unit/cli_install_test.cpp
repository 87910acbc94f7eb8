// What the board's ability and the session's privilege leave of the commands, and which lines of a
// configuration file wait for their port.
#include "daemon_fixture.h"

namespace {

using names = std::vector<std::string>;

// The commands of the tree that are about synchronisation.
names synce_commands(const cli_tree* tree, std::uint32_t flags = 0) {
    struct search {
        std::uint32_t flags;
        names found;
    } search = {flags, {}};
    cli_walk(
        tree,
        [](void* arg, std::int32_t, const cli_element* element, std::uint32_t has) {
            auto* s = static_cast<struct search*>(arg);
            const std::string text = element->string;
            const bool ours = text.find("clock") != text.npos || text.find("ssm") != text.npos;
            if (ours && (has & s->flags) == s->flags) s->found.push_back(text);
        },
        &search);
    return search.found;
}

using installation = daemon_test;

TEST_F(installation, force_switch_alone_waits_for_its_port) {
    EXPECT_EQ(init_result_, 0);
    EXPECT_EQ(synce_commands(ctx_->ctree, CLI_FLAG_AFTER_BIND), names{"clock synce switch-force IFNAME"});
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
    EXPECT_EQ(synce_commands(ctx_->ctree), names{});
    config_mode();
    quiet("interface p1");
    cli_write_running(ctx_->ctree, &session_);
    EXPECT_NE(output().find("!\n"), std::string::npos);
}

TEST_F(board_without_synce, missing_board_file_is_the_result_of_the_installation) {
    ssm_board_use_file("/nonexistent/board");
    cli_tree* tree = cli_tree_create();
    EXPECT_EQ(ssm_cli_init(tree), -999);
    EXPECT_EQ(synce_commands(tree), names{});
    cli_tree_free(tree);
}

}  // namespace
