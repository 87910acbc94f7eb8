// docs/CLI.md and what it describes must not part: each installed command stands in the table of its mode and
// no other one does, each token has a help text, and the fields of the JSON object are those of the document.
//
// A section's heading says which modes its tables are about; a row's first cell is the command string as the
// command object has it, blanks around brackets and bars aside, with the bars escaped as a table wants them.
#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>

#include "suite/command/parse.h"
#include "whole_tree.h"

namespace {

using names = std::set<std::string>;

struct section {
    const char* heading;
    std::vector<std::int32_t> modes;
};
const section SECTIONS[] = {
    {"## Every mode", {EXEC_MODE, CONFIG_MODE, INTERFACE_MODE}},
    {"## Both configuration modes", {CONFIG_MODE, INTERFACE_MODE}},
    {"## Exec mode", {EXEC_MODE}},
    {"## Configuration mode", {CONFIG_MODE}},
    {"## Interface mode", {INTERFACE_MODE}},
    {"## Debugging", {DEBUG_MODE}},
};

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

class cli_document : public daemon_test {
  protected:
    void SetUp() override {
        daemon_test::SetUp();
        install_whole_tree(ctx_);
    }
};

TEST_F(cli_document, names_every_command_in_its_mode_and_no_other) {
    std::map<std::int32_t, names> written, installed;
    for (const section& s : SECTIONS)
        for (std::int32_t mode : s.modes) written[mode].merge(rows_below(s.heading));
    cli_walk(
        ctx_->ctree,
        [](void* arg, std::int32_t mode, const cli_element* element, std::uint32_t flags) {
            if (flags & CLI_FLAG_HIDDEN) return;
            (*static_cast<std::map<std::int32_t, names>*>(arg))[mode].insert(normal(element->string));
        },
        &installed);
    EXPECT_GE(installed[CONFIG_MODE].size(), 40u);  // the tree is the whole one
    for (std::int32_t mode = 0; mode < CLI_MODE_COUNT; mode++) {
        names alone;
        std::ranges::set_symmetric_difference(installed[mode], written[mode],
                                              std::inserter(alone, alone.end()));
        EXPECT_EQ(alone, names{}) << "in the document or in the tree alone, mode " << mode;
    }
}

TEST_F(cli_document, every_token_has_a_help_text) {
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

TEST_F(cli_document, describes_the_fields_of_the_json_object) {
    add_port("p1", 1);
    ASSERT_EQ(run("show clock synce json"), cli_result::ok);
    const std::string text = output();
    names fields;
    for (std::size_t at = text.find("\":"); at != std::string::npos; at = text.find("\":", at + 1)) {
        const std::size_t first = text.rfind('"', at - 1) + 1;
        fields.insert(text.substr(first, at - first));
    }
    EXPECT_GE(fields.size(), 20u);
    EXPECT_EQ(fields, rows_below("## The JSON object"));
}

}  // namespace
