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
    const auto numbers = [](const nsmd_options& o) {
        return std::vector<std::uint64_t>{o.pattern_count,     o.sim.lock_ms,
                                          o.sim.holdover_s,    o.source_code_count,
                                          o.grace_s,           static_cast<unsigned>(o.log_level),
                                          o.daemonize,         o.kernel.prio_best,
                                          o.kernel.prio_other, o.poll.fast_ms};
    };
    const nsmd_options& o = given.options;
    const std::vector<std::uint64_t> wanted = {2, 20, 5, 1, 0, LOG_LEVEL_DEBUG, 1, 3, 9, 20};
    const std::vector<std::uint64_t> defaults = {0, 300, 0, 0, 10, LOG_LEVEL_INFO, 0, 0, 14, 50};
    EXPECT_EQ(numbers(o), wanted);
    EXPECT_EQ(numbers(parsed("").options), defaults);
    EXPECT_EQ(given.result, options_result::run);
    EXPECT_EQ(o.dpll, dpll_kind::simulated);
    EXPECT_EQ(o.source_codes[0].ifindex * 10 + o.source_codes[0].code, 34U);
    EXPECT_EQ(std::string(o.patterns[1]) + o.kernel.device + o.kernel.bits[0] + o.kernel.bits[1], "p?iceAB");
}

}  // namespace
