// Which commands there are: what the board's ability leaves of them, and that
// docs/CLI.md and the tree do not part. Each installed command stands in the table of its mode and no other
// one does, each token has a help text, and the fields of the JSON object and the metrics are those of the
// document.
//
// A section's heading says which modes its tables are about; a row's first cell is the command string as the
// command object has it, blanks around brackets and bars aside, with the bars escaped as a table wants them.
#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>

#include "daemon_fixture.h"
#include "suite/command/parse.h"

namespace {

using names = std::set<std::string>;
using names_by_mode = std::map<std::int32_t, names>;

// One blank between words, none around "(", "|" and ")".
std::string normal(const std::string& text) {
    std::string spaced;
    for (char c : text) {
        if (c == '\\') continue;
        const bool mark = c == '(' || c == '|' || c == ')';
        spaced += mark ? std::string(" ") + c + " " : std::string(1, c);
    }
    std::istringstream in(spaced);
    std::string result;
    for (std::string word; in >> word;) result += (result.empty() ? "" : " ") + word;
    return result;
}

// What the tables below a heading name. Each row must say something and stand once.
names rows_below(const std::string& heading) {
    std::ifstream in(CLI_DOC_PATH);
    EXPECT_TRUE(in.good()) << CLI_DOC_PATH;
    names rows;
    bool inside = false;
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with("## ")) inside = line == heading;
        if (!inside || !line.starts_with("| `")) continue;
        const std::size_t end = line.find('`', 3);
        EXPECT_NE(line.find_first_not_of("` |", end), line.npos) << line << " has no meaning";
        EXPECT_TRUE(rows.insert(normal(line.substr(3, end - 3))).second) << line << " stands twice";
    }
    return rows;
}

class commands : public daemon_test {
  protected:
    // All that are not hidden.
    static names_by_mode installed(const cli_tree* tree) {
        names_by_mode found;
        cli_walk(
            tree,
            [](void* arg, std::int32_t mode, const cli_element* element, std::uint32_t flags) {
                if (flags & CLI_FLAG_HIDDEN) return;
                (*static_cast<names_by_mode*>(arg))[mode].insert(normal(element->string));
            },
            &found);
        return found;
    }
    // Whether some are about synchronisation.
    static bool know_synce(const cli_tree* tree) {
        const auto about_it = [](const std::string& name) { return name.find("synce") != name.npos; };
        for (const auto& [mode, all] : installed(tree))
            if (std::ranges::any_of(all, about_it)) return true;
        return false;
    }
};

TEST_F(commands, are_named_in_the_document_by_their_modes_and_no_other_is) {
    const std::pair<const char*, std::vector<std::int32_t>> sections[] = {
        {"## Every mode", {EXEC_MODE, CONFIG_MODE, INTERFACE_MODE}},
        {"## Both configuration modes", {CONFIG_MODE, INTERFACE_MODE}},
        {"## Exec mode", {EXEC_MODE}},
        {"## Configuration mode", {CONFIG_MODE}},
        {"## Interface mode", {INTERFACE_MODE}},
        {"## Debugging", {DEBUG_MODE}},
    };
    install_whole_tree();
    names_by_mode written, there = installed(ctx_->ctree);
    for (const auto& [heading, modes] : sections)
        for (std::int32_t mode : modes) written[mode].merge(rows_below(heading));
    EXPECT_GE(there[CONFIG_MODE].size(), 40u);  // the tree is the whole one
    for (std::int32_t mode = 0; mode < CLI_MODE_COUNT; mode++) {
        names alone;
        std::ranges::set_symmetric_difference(there[mode], written[mode], std::inserter(alone, alone.end()));
        EXPECT_EQ(alone, names{}) << "in the document or in the tree alone, mode " << mode;
    }
}

TEST_F(commands, have_a_help_text_for_every_token) {
    install_whole_tree();
    names missing;
    cli_walk_tokens(
        ctx_->ctree,
        [](void* arg, const cli_token_place& place) {
            if (place.help && *place.help) return;
            static_cast<names*>(arg)->insert(std::string(place.element->string) + ": " + place.token);
        },
        &missing);
    EXPECT_EQ(missing, names{});
}

TEST_F(commands, show_the_fields_of_the_json_object_that_the_document_describes) {
    add_port("p1", 1);
    ssm_port* candidate = add_port("p2", 2);
    candidate->synce_enable = candidate->link_up = candidate->recv_pdu = 1;
    candidate->recv_quality = QL_PRC;
    g_s_master->guard.enable = 1;  // has fields of its own; without it cli_show_test sees the whole object
    std::string text = shown("show clock synce json");
    g_s_master->history.count = 1;
    for (const char* show : {"brief", "selection", "history", "statistics p1"})
        text += shown(std::string("show clock synce ") + show + " | json");
    names fields;
    for (std::size_t at = text.find("\":"); at != std::string::npos; at = text.find("\":", at + 1)) {
        const std::size_t first = text.rfind('"', at - 1) + 1;
        fields.insert(text.substr(first, at - first));
    }
    EXPECT_GE(fields.size(), 20u);
    EXPECT_EQ(fields, rows_below("## The JSON object"));
}

TEST_F(commands, show_the_metrics_that_the_document_describes) {
    std::istringstream lines(shown("show clock synce metrics prometheus"));
    names families;
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with("# TYPE ")) families.insert(line.substr(7, line.find(' ', 7) - 7));
    EXPECT_EQ(families, rows_below("## Metrics"));
}

class board_without_synce : public commands {
    const char* board() const override { return "board_type 4\nsynce_support 0\n"; }
};

TEST_F(board_without_synce, has_interfaces_and_writers_alone) {
    EXPECT_EQ(init_result_, 0);
    EXPECT_FALSE(know_synce(ctx_->ctree));
    config_mode();
    quiet("interface p1");
    cli_write_running(ctx_->ctree, &session_);
    EXPECT_NE(output().find("!\n"), std::string::npos);
    // Without the board's file its absence is the result of the installation.
    ssm_board_use_file("/nonexistent/board");
    cli_tree* tree = cli_tree_create();
    EXPECT_EQ(ssm_cli_init(tree), -999);
    EXPECT_FALSE(know_synce(tree));
    cli_tree_free(tree);
}

}  // namespace
