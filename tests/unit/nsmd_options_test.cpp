// The command line of nsmd: what is taken, what is refused.
#include "nsmd/options.h"

#include <sstream>

#include "nsmd_support.h"

namespace {

// Of words between blanks; "''" is an empty one.
struct parsed {
    std::vector<std::string> texts{"nsmd"};
    std::vector<char*> words;
    nsmd_options options;
    options_result result;
    std::string said;

    explicit parsed(const std::string& line) {
        std::istringstream in(line);
        for (std::string word; in >> word;) texts.push_back(word == "''" ? "" : word);
        for (auto& text : texts) words.push_back(text.data());
        words.push_back(nullptr);
        testing::internal::CaptureStderr();
        result = nsmd_options_parse(static_cast<int>(texts.size()), words.data(), &options);
        said = testing::internal::GetCapturedStderr();
    }
};

TEST(nsmd_options, values_and_defaults) {
    const parsed given(
        "--port sw* --port=p? --dpll sim --sim-lock-ms 20 --sim-holdover-s=5 --source-code 3=4 --grace-s 0 "
        "--log-level debug -d --dpll-device=ice --bits1=A --bits2=B --prio-best=3 --prio-other=9 "
        "--poll-ms=20");
    const parsed none("");
    for (const parsed* p : {&given, &none}) {
        const nsmd_options& o = p->options;
        const bool is_given = p == &given;
        const struct {
            const char* option;
            std::uint64_t value, given, otherwise;
        } numbers[] = {{"port", o.pattern_count, 2, 0},
                       {"sim-lock-ms", o.sim.lock_ms, 20, 300},
                       {"sim-holdover-s", o.sim.holdover_s, 5, 0},
                       {"source-code", o.source_code_count, 1, 0},
                       {"grace-s", o.grace_s, 0, 10},
                       {"prio-best", o.kernel.prio_best, 3, 0},
                       {"prio-other", o.kernel.prio_other, 9, 14},
                       {"poll-ms", o.poll.fast_ms, 20, 50},
                       {"-d", o.daemonize, 1, 0}};
        EXPECT_EQ(p->result, options_result::run);
        for (const auto& n : numbers) EXPECT_EQ(n.value, is_given ? n.given : n.otherwise) << n.option;
        EXPECT_EQ(o.log_level, is_given ? LOG_LEVEL_DEBUG : LOG_LEVEL_INFO);
        EXPECT_EQ(o.dpll, is_given ? dpll_kind::simulated : dpll_kind::automatic);
    }
    const nsmd_options& o = given.options;
    EXPECT_EQ(o.source_codes[0].ifindex, 3U);
    EXPECT_EQ(o.source_codes[0].code, 4U);
    EXPECT_STREQ(o.patterns[1], "p?");
    EXPECT_STREQ(o.kernel.device, "ice");
    EXPECT_STREQ(o.kernel.bits[0], "A");
    EXPECT_STREQ(o.kernel.bits[1], "B");
}

TEST(nsmd_options, what_makes_no_sense_is_refused_by_name) {
    for (const char* line : {"--sim-lock-ms -1", "--sim-lock-ms 1x", "--sim-lock-ms ''", "--source-code 3",
                             "--source-code 0=1", "--source-code 3=", "--grace-s 99999999999999999999",
                             "--sim-state relative", "--port ''", "--port", "stray"}) {
        const parsed p(line);
        EXPECT_EQ(p.result, options_result::bad) << line;
        EXPECT_NE(p.said.find(p.texts[1]), std::string::npos) << p.said;
    }
    std::string many;
    for (std::size_t i = 0; i <= NSMD_PATTERNS_MAX; ++i) many += " --port=x";
    EXPECT_EQ(parsed(many).result, options_result::bad);
}

}  // namespace
