// docs/CLI.md and what it describes must not part: each installed command stands in the table of its mode and
// no other one does, each token has a help text, and the fields of the JSON object are those of the document.
//
// A section's heading says which modes its tables are about; a row's first cell is the command string as the
// command object has it, blanks around brackets and bars aside, with the bars escaped as a table wants them.
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "suite/cli_parse.h"
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

std::vector<std::string> document() {
    std::ifstream in(CLI_DOC_PATH);
    EXPECT_TRUE(in.good()) << CLI_DOC_PATH;
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

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

// The first cell of a table row when it is code, else nothing.
std::string row_name(const std::string& line) {
    if (!line.starts_with("| `")) return {};
    return line.substr(3, line.find('`', 3) - 3);
}

// What the tables below a heading name, each with whether anything is said about it.
std::map<std::string, bool> rows_below(const std::vector<std::string>& lines, const std::string& heading) {
    std::map<std::string, bool> rows;
    bool inside = false;
    for (const std::string& line : lines) {
        if (line.starts_with("## ")) inside = line == heading;
        const std::string name = row_name(line);
        if (!inside || name.empty()) continue;
        const std::size_t behind = line.find("` |", 3);
        const bool said =
            behind != std::string::npos && line.find_first_not_of(" |", behind + 3) != std::string::npos;
        EXPECT_TRUE(rows.emplace(normal(name), said).second) << heading << ": " << name << " stands twice";
    }
    return rows;
}

names only_in(const names& a, const names& b) {
    names rest;
    for (const std::string& name : a)
        if (!b.contains(name)) rest.insert(name);
    return rest;
}

class cli_document : public daemon_test {
  protected:
    void SetUp() override {
        daemon_test::SetUp();
        install_whole_tree(ctx_);
    }
};

TEST_F(cli_document, names_every_command_in_its_mode_and_no_other) {
    const std::vector<std::string> lines = document();
    std::map<std::int32_t, names> written, installed;
    for (const section& s : SECTIONS) {
        for (const auto& [command, said] : rows_below(lines, s.heading)) {
            EXPECT_TRUE(said) << command << " has no meaning";
            for (std::int32_t mode : s.modes) written[mode].insert(command);
        }
    }
    cli_walk(
        ctx_->ctree,
        [](void* arg, std::int32_t mode, const cli_element* element, std::uint32_t flags) {
            if (flags & CLI_FLAG_HIDDEN) return;
            (*static_cast<std::map<std::int32_t, names>*>(arg))[mode].insert(normal(element->string));
        },
        &installed);
    EXPECT_GE(installed[CONFIG_MODE].size(), 40u);  // the tree is the whole one
    for (std::int32_t mode = 0; mode < CLI_MODE_COUNT; mode++) {
        EXPECT_EQ(only_in(installed[mode], written[mode]), names{}) << "not in the document, mode " << mode;
        EXPECT_EQ(only_in(written[mode], installed[mode]), names{}) << "not installed, mode " << mode;
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
    names fields, described;
    for (std::size_t at = text.find("\":"); at != std::string::npos; at = text.find("\":", at + 1)) {
        const std::size_t first = text.rfind('"', at - 1) + 1;
        fields.insert(text.substr(first, at - first));
    }
    EXPECT_GE(fields.size(), 20u);
    for (const auto& [name, said] : rows_below(document(), "## The JSON object")) described.insert(name);
    EXPECT_EQ(fields, described);
}

}  // namespace
