// The map's metrics beside the switch's own, where a system test does not come: every quality level, and
// switches that tell what none should.
#include <regex>
#include <sstream>

#include "daemon_fixture.h"
#include "esmcmap/model/read_json.h"
#include "esmcmap/serve/metrics.h"

namespace {

using namespace esmcmap;

// The text for one switch A that answers this.
std::string told_by(const std::string& json, answer how = answer::ok) {
    auto report = std::make_shared<switch_report>();
    auto values = std::make_shared<reported_values>();
    EXPECT_EQ(read_json(json, *report, *values), "") << json;
    network_builder builder;
    const network net = builder.next({{"A", how, 1'700'000'000'123, "", report}}, 1'700'000'009'000, true);
    return metrics_text(net, {{"A", values}}, 0.25);
}

std::string line_of(const std::string& text, const std::string& begin) {
    const std::size_t at = text.find("\n" + begin);
    return at == text.npos
               ? ""
               : text.substr(at + 1 + begin.size(), text.find('\n', at + 1) - at - 1 - begin.size());
}

using map_metrics = daemon_test;

TEST_F(map_metrics, quality_levels_are_the_switchs_numbers) {
    for (const ssm_option option : {SSM_OPTION_1, SSM_OPTION_2}) {
        g_s_master->ql_option = option;
        for (std::uint16_t code = 0; code <= (QL_ENHANCED_EPRC << 8 | 0xF); ++code) {
            if ((code & 0xFF) > 0xF)
                code = static_cast<std::uint16_t>(code < 0x1F00 ? 0x2000 : (code | 0xFF) + 1);
            g_s_master->current_quality = code;
            const std::string own = shown("show clock synce metrics");
            const std::string of_map = told_by(shown("show clock synce json"));
            EXPECT_EQ(line_of(of_map, "esmcd_quality_level{switch=\"A\"}"),
                      line_of(own, "esmcd_quality_level"));
        }
    }
}

TEST(MapMetrics, SwitchThatTellsNonsenseMakesNoTextThatCanNotBeRead) {
    const std::string text = told_by(
        R"({"running_state":"lock","synce_enabled":true,"changes":-4,"loop_guard_holds":1e300,"dpll_state":"\"\n\\","ports":[)"
        R"({"name":"a\"b\n\\","synce_enabled":true,"link_up":true,"hop_count":-1e308,"information_in":-1,"information_age_ms":1000,)"
        R"("not_source_reason":"holding for 300 ms: 8 hops, ours 3","flapping":"yes","frequency_offset_ppt":-5},)"
        R"({"name":"a\"b\n\\","synce_enabled":true,"link_up":true},{"name":"off","link_up":true}]})");
    const std::regex form(
        R"re(# (HELP|TYPE|UNIT) \w+ .*|# EOF|\w+(\{(\w+="([^"\\\n]|\\["\\n])*",?)+\})? -?[0-9.e+-]+)re");
    std::istringstream lines(text);
    std::set<std::string> series;
    for (std::string line; std::getline(lines, line);) {
        EXPECT_TRUE(std::regex_match(line, form)) << line;
        EXPECT_TRUE(series.insert(line.substr(0, line.rfind(' '))).second || line[0] == '#') << line;
    }
    EXPECT_EQ(text.find("esmcd_changes_total"), text.npos) << "a counter is no negative number";
    EXPECT_EQ(text.find("\"off\""), text.npos);
    EXPECT_EQ(line_of(text, R"(esmcd_port_up{switch="A",port="a\"b)"), R"(�\\"} 1)");
    EXPECT_EQ(line_of(text, "esmcd_port_usable{switch=\"A\",port="),
              R"("a\"b�\\",reason="may lead back here"} 0)");
    EXPECT_EQ(line_of(text, "esmcd_port_information_timestamp_seconds{switch=\"A\",port="),
              R"("a\"b�\\"} 1699999999.123)");
    EXPECT_EQ(line_of(text, "esmcd_port_frequency_offset_ratio{switch=\"A\",port="), R"("a\"b�\\"} -5e-12)");
}

// By SNMP there are no sentences, and not all of the numbers.
TEST(MapMetrics, WhatTheMibDoesNotTellIsNotGuessed) {
    const std::string text = told_by(
        R"({"running_state":"lock","synce_enabled":true,"ssm_extended":true,"loop_guard_holds":2,"ports":[)"
        R"({"name":"p1","synce_enabled":true,"source":true},{"name":"p2","synce_enabled":true}]})");
    EXPECT_EQ(line_of(text, "esmcd_loop_guard_enabled"), "{switch=\"A\"} 1");
    EXPECT_EQ(line_of(text, "esmcd_loop_guard_in_force"), "{switch=\"A\"} 1");
    EXPECT_EQ(line_of(text, "esmcd_port_usable{switch=\"A\",port="), "\"p1\",reason=\"candidate\"} 1");
    for (const char* untold :
         {"esmcd_changed_meanwhile{", "esmcd_changes_total{", "esmcd_port_hops{", "\"p2\",reason"})
        EXPECT_EQ(text.find(untold), text.npos) << untold;
}

TEST(MapMetrics, SwitchThatIsSilentHasOnlyWhatTheMapKnows) {
    const std::string text =
        told_by(R"({"running_state":"holdover","synce_enabled":true,"ports":[]})", answer::silent);
    EXPECT_EQ(line_of(text, "esmcmap_switch_up{switch=\"A\"}"), " 0");
    EXPECT_EQ(line_of(text, "esmcmap_switch_answered_timestamp_seconds{switch=\"A\"}"), " 1700000000.123");
    EXPECT_EQ(line_of(text, "esmcmap_poll_duration_seconds"), " 0.250");
    EXPECT_EQ(text.find("\nesmcd_"), text.npos);
}

}  // namespace
