// The command line of nsmd: what is taken, what is refused.
#include "nsmd/options.h"

#include "nsmd_support.h"

namespace {

options_result parse(std::vector<const char*> words, nsmd_options* out, std::string* said = nullptr) {
    words.insert(words.begin(), "nsmd");
    words.push_back(nullptr);
    testing::internal::CaptureStderr();
    const options_result result =
        nsmd_options_parse(static_cast<int>(words.size()) - 1, const_cast<char**>(words.data()), out);
    const std::string text = testing::internal::GetCapturedStderr();
    if (said) *said = text;
    return result;
}

TEST(nsmd_options, values_and_defaults) {
    nsmd_options o;
    ASSERT_EQ(parse({"--port",
                     "sw*",
                     "--port=p?",
                     "--dpll",
                     "sim",
                     "--sim-lock-ms",
                     "20",
                     "--sim-holdover-s=5",
                     "--source-code",
                     "3=4",
                     "--grace-s",
                     "0",
                     "--log-level",
                     "debug",
                     "-d",
                     "--dpll-device=ice",
                     "--bits1=A",
                     "--bits2=B",
                     "--prio-best=3",
                     "--prio-other=9",
                     "--poll-ms=20"},
                    &o),
              options_result::run);
    ASSERT_EQ(o.pattern_count, 2U);
    EXPECT_STREQ(o.patterns[1], "p?");
    EXPECT_EQ(o.dpll, dpll_kind::simulated);
    EXPECT_EQ(o.sim.lock_ms, 20U);
    EXPECT_EQ(o.sim.holdover_s, 5U);
    ASSERT_EQ(o.source_code_count, 1U);
    EXPECT_EQ(o.source_codes[0].ifindex, 3U);
    EXPECT_EQ(o.source_codes[0].code, 4U);
    EXPECT_EQ(o.grace_s, 0U);
    EXPECT_EQ(o.log_level, LOG_LEVEL_DEBUG);
    EXPECT_TRUE(o.daemonize);
    EXPECT_STREQ(o.kernel.device, "ice");
    EXPECT_STREQ(o.kernel.bits[0], "A");
    EXPECT_STREQ(o.kernel.bits[1], "B");
    EXPECT_EQ(o.kernel.prio_best, 3U);
    EXPECT_EQ(o.kernel.prio_other, 9U);
    EXPECT_EQ(o.poll.fast_ms, 20U);
    ASSERT_EQ(parse({}, &o), options_result::run);  // nothing of the former is left
    EXPECT_EQ(o.pattern_count, 0U);
    EXPECT_EQ(o.sim.lock_ms, 300U);
    EXPECT_EQ(o.grace_s, 10U);
    EXPECT_EQ(o.log_level, LOG_LEVEL_INFO);
    EXPECT_FALSE(o.daemonize);
}

TEST(nsmd_options, what_makes_no_sense_is_refused_by_name) {
    nsmd_options o;
    std::string said;
    const std::pair<const char*, std::vector<const char*>> refused[] = {
        {"--sim-lock-ms", {"-1", "1x", ""}},
        {"--source-code", {"3", "0=1", "3="}},
        {"--grace-s", {"99999999999999999999"}},
        {"--sim-state", {"relative"}},
        {"--port", {""}}};
    for (const auto& [option, values] : refused)
        for (const char* value : values) {
            EXPECT_EQ(parse({option, value}, &o, &said), options_result::bad) << option << " " << value;
            EXPECT_NE(said.find(option), std::string::npos) << said;
        }
    EXPECT_EQ(parse({"--port"}, &o), options_result::bad);
    EXPECT_EQ(parse({"stray"}, &o, &said), options_result::bad);
    EXPECT_NE(said.find("stray"), std::string::npos);
    EXPECT_EQ(parse(std::vector<const char*>(NSMD_PATTERNS_MAX + 1, "--port=x"), &o), options_result::bad);
}

}  // namespace
