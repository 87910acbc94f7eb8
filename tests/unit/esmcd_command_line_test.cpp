// Options: what each sets, and which one ends the process.
#include "esmcd/command_line.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

ssm_settings parse(std::vector<std::string> words) {
    static std::vector<std::string> kept;  // the settings point into the arguments
    kept = std::move(words);
    std::vector<char*> argv;
    for (std::string& word : kept) argv.push_back(word.data());
    argv.push_back(nullptr);
    return ssm_command_line(static_cast<int>(kept.size()), argv.data());
}

TEST(command_line, defaults) {
    const ssm_settings settings = parse({"/usr/sbin/esmcd"});
    EXPECT_EQ(settings.action, ssm_action::run);
    EXPECT_FALSE(settings.daemon_mode);
    EXPECT_EQ(settings.config_file, nullptr);
    EXPECT_EQ(static_cast<std::uint16_t>(settings.vty_port), 54697);
    EXPECT_STREQ(settings.progname, "esmcd");
}

TEST(command_line, options_short_and_long) {
    const ssm_settings s = parse({"esmcd", "-d", "-f", "a", "-f", "b", "-P", "70000"});
    EXPECT_EQ(s.action, ssm_action::run);
    EXPECT_TRUE(s.daemon_mode);
    EXPECT_STREQ(s.config_file, "b");
    EXPECT_EQ(static_cast<std::uint16_t>(s.vty_port), 4464);
    const ssm_settings l = parse({"esmcd", "--daemon", "--config_file=x", "--vty_port", "abc"});
    EXPECT_TRUE(l.daemon_mode);
    EXPECT_STREQ(l.config_file, "x");
    EXPECT_EQ(l.vty_port, 0);
}

TEST(command_line, first_ending_option_counts) {
    EXPECT_EQ(parse({"esmcd", "-v", "-h"}).action, ssm_action::show_version);
    EXPECT_EQ(parse({"esmcd", "--help", "--version"}).action, ssm_action::show_usage);
    EXPECT_EQ(parse({"esmcd", "-v", "--nonsense"}).action, ssm_action::show_version);
    EXPECT_EQ(parse({"esmcd", "-r", "-h"}).action, ssm_action::refuse);
}

TEST(command_line_death, usage_and_hint) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(ssm_usage(1, "esmcd"), testing::ExitedWithCode(1), "^Try `esmcd --help'");
    EXPECT_EXIT(ssm_usage(0, "esmcd"), testing::ExitedWithCode(0), "^$");
}

}  // namespace
