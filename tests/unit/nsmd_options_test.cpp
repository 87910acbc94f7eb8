// The command line of nsmd: what is taken, what is refused.
#include "nsmd/options.h"

#include "nsmd_support.h"

namespace {

options_result parse(std::vector<std::string> words, nsmd_options* out, std::string* said = nullptr) {
    words.insert(words.begin(), "nsmd");
    std::vector<char*> argv;
    for (auto& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    testing::internal::CaptureStderr();
    const options_result result = nsmd_options_parse(static_cast<int>(words.size()), argv.data(), out);
    const std::string text = testing::internal::GetCapturedStderr();
    if (said) *said = text;
    // Texts in the record point into `words`; tests copy what they need before.
    return result;
}

TEST(nsmd_options, values_and_defaults) {
    static nsmd_options o;
    ASSERT_EQ(parse({}, &o), options_result::run);
    EXPECT_EQ(o.sim.lock_ms, 300U);
    EXPECT_EQ(o.sim.holdover_s, 0U);
    EXPECT_EQ(o.grace_s, 10U);
    EXPECT_EQ(o.log_level, LOG_LEVEL_INFO);
    EXPECT_FALSE(o.daemonize);
    ASSERT_EQ(
        parse({"--port", "sw*", "--port=p?", "--dpll", "sim", "--sim-lock-ms", "20", "--sim-holdover-s=5",
               "--source-code", "3=4", "--grace-s", "0", "--log-level", "debug", "-d"},
              &o),
        options_result::run);
    EXPECT_EQ(o.pattern_count, 2U);
    EXPECT_EQ(o.dpll, dpll_kind::simulated);
    EXPECT_EQ(o.sim.lock_ms, 20U);
    EXPECT_EQ(o.sim.holdover_s, 5U);
    ASSERT_EQ(o.source_code_count, 1U);
    EXPECT_EQ(o.source_codes[0].ifindex, 3U);
    EXPECT_EQ(o.source_codes[0].code, 4U);
    EXPECT_EQ(o.grace_s, 0U);
    EXPECT_EQ(o.log_level, LOG_LEVEL_DEBUG);
    EXPECT_TRUE(o.daemonize);
    ASSERT_EQ(parse({"--dpll=kernel", "--dpll-device=ice", "--bits1=A", "--bits2=B", "--prio-best=3",
                     "--prio-other=9", "--poll-ms=20"},
                    &o),
              options_result::run);
    EXPECT_EQ(o.dpll, dpll_kind::kernel);
    EXPECT_NE(o.kernel.device, nullptr);
    EXPECT_NE(o.kernel.bits[0], nullptr);
    EXPECT_NE(o.kernel.bits[1], nullptr);
    EXPECT_EQ(o.kernel.prio_best, 3U);
    EXPECT_EQ(o.kernel.prio_other, 9U);
    EXPECT_EQ(o.poll.fast_ms, 20U);
    EXPECT_EQ(parse({"--status"}, &o), options_result::status);
    EXPECT_EQ(parse({"-h"}, &o), options_result::help);
    EXPECT_EQ(parse({"-v"}, &o), options_result::version);
}

TEST(nsmd_options, what_makes_no_sense_is_refused_by_name) {
    static nsmd_options o;
    std::string said;
    for (const auto& words :
         std::vector<std::vector<std::string>>{{"--dpll", "quartz"},
                                               {"--sim-lock-ms", "-1"},
                                               {"--sim-lock-ms", "1x"},
                                               {"--sim-lock-ms", ""},
                                               {"--sim-holdover-s", "99999999999999999999"},
                                               {"--source-code", "3"},
                                               {"--source-code", "0=1"},
                                               {"--source-code", "3="},
                                               {"--log-level", "loud"},
                                               {"--sim-state", "relative"},
                                               {"--port", ""}}) {
        EXPECT_EQ(parse(words, &o, &said), options_result::bad) << words[0] << " " << words[1];
        EXPECT_NE(said.find(words[0]), std::string::npos) << said;
    }
    EXPECT_EQ(parse({"--port"}, &o, &said), options_result::bad);
    EXPECT_EQ(parse({"--unknown"}, &o, &said), options_result::bad);
    EXPECT_EQ(parse({"-x"}, &o, &said), options_result::bad);
    EXPECT_EQ(parse({"stray"}, &o, &said), options_result::bad);
    EXPECT_NE(said.find("stray"), std::string::npos);
    EXPECT_EQ(parse(std::vector<std::string>(NSMD_PATTERNS_MAX + 1, "--port=x"), &o, &said),
              options_result::bad);
}

}  // namespace
