// What is read and answered around the daemon's start: the board file, the options, the signals.
#include <csignal>

#include "daemon_fixture.h"
#include "esmcd/command_line.h"
#include "esmcd/signal.h"

namespace {

using lines = std::vector<std::string>;

// ---- The board file: read once, by prefix, hexadecimal. ----

ssm_board_info read_board(const std::string& content) {
    board_file file(content);
    ssm_board_info board = {};
    EXPECT_EQ(ssm_board_info_get(&board), 0);
    return board;
}

TEST(board, fields_come_from_lines_of_key_and_hexadecimal_value) {
    const ssm_board_info board = read_board(
        "flash_size 1\nflash_size_total 10\nsdram_size 0x10000000\n# a remark\nboard_type 1ab\n"
        "product_series 1ff\nproduct_series\nproduct_series \nproduct_series yes\n synce_support 1\n");
    EXPECT_EQ(board.flash_size, 0x10U) << "longer keys match by their beginning, and the last value counts";
    EXPECT_EQ(board.sdram_size, 0x10000000U);
    EXPECT_EQ(board.board_type, 0xab);
    EXPECT_EQ(board.product_series, 0xff) << "a line without a value changes nothing";
    EXPECT_EQ(board.synce_support, 0U) << "an indented key is none";
    EXPECT_EQ(read_board("sdram_size 0x1234567890\nflash_size -1\n").sdram_size, 0x34567890U)
        << "the low 32 bits";
    // A long line is taken in pieces: the second begins with a key, right behind 255 other octets.
    EXPECT_EQ(read_board(std::string(255, 'x') + "synce_support 13\n").synce_support, 0x13U);
}

TEST(board, missing_file_is_looked_for_again_and_a_read_one_never) {
    board_file file("");
    file.remove();
    ssm_board_info board = {};
    board.flash_size = 99;
    EXPECT_EQ(ssm_board_info_get(&board), -999);
    EXPECT_EQ(board.flash_size, 99U) << "untouched";
    file.write("synce_support 1\n");
    for (int i = 0; i < 2; i++) {
        board = {};
        ASSERT_EQ(ssm_board_info_get(&board), 0);
        EXPECT_EQ(board.synce_support, 1U);
        file.remove();
    }
}

TEST(board, a_file_that_others_could_have_written_is_not_believed) {
    ssm_board_info board = {};
    board_file file("synce_support 1\n");
    const char* path = file.path();
    const auto believed = [&] { return ssm_board_info_get(&board) == 0; };
    for (mode_t mode : {0664, 0646, 0622}) {
        ASSERT_EQ(chmod(path, mode), 0);
        EXPECT_FALSE(believed()) << std::oct << mode;
    }
    ASSERT_TRUE(chmod(path, 0644) == 0 && chown(path, 65534, 0) == 0);
    EXPECT_FALSE(believed()) << "another user's";
    const std::string link = std::string(path) + ".link";
    ASSERT_TRUE(chown(path, 0, 0) == 0 && symlink(path, link.c_str()) == 0);
    ASSERT_EQ(lchown(link.c_str(), 65534, 0), 0);
    ssm_board_use_file(link.c_str());
    EXPECT_FALSE(believed()) << "another user's link";
    ASSERT_EQ(lchown(link.c_str(), 0, 0), 0);
    EXPECT_TRUE(believed());
    unlink(link.c_str());
}

// ---- Options: what each sets, and which one ends the process. ----

TEST(command_line, options_short_and_long_and_the_first_that_ends_counts) {
    const struct {
        lines words;
        ssm_action action;
        bool daemon_mode = false;
        const char* config_file = nullptr;
        std::uint16_t vty_port = 54697;
    } cases[] = {
        {{"/usr/sbin/esmcd"}, ssm_action::run},
        {{"esmcd", "-d", "-f", "a", "-f", "b", "-P", "70000"}, ssm_action::run, true, "b", 4464},
        {{"esmcd", "--daemon", "--config_file=x", "--vty_port", "abc"}, ssm_action::run, true, "x", 0},
        {{"esmcd", "-v", "-h"}, ssm_action::show_version},
        {{"esmcd", "--help", "--version"}, ssm_action::show_usage},
        {{"esmcd", "-v", "--nonsense"}, ssm_action::show_version},
        {{"esmcd", "-r", "-h"}, ssm_action::refuse},
    };
    for (const auto& c : cases) {
        lines words = c.words;
        std::vector<char*> argv;
        for (std::string& word : words) argv.push_back(word.data());
        argv.push_back(nullptr);
        const ssm_settings s = ssm_command_line(static_cast<int>(words.size()), argv.data());
        SCOPED_TRACE(testing::PrintToString(words));
        EXPECT_EQ(s.action, c.action);
        EXPECT_STREQ(s.progname, "esmcd");
        if (s.action != ssm_action::run) continue;
        EXPECT_EQ(s.daemon_mode, c.daemon_mode);
        EXPECT_STREQ(s.config_file, c.config_file);
        EXPECT_EQ(static_cast<std::uint16_t>(s.vty_port), c.vty_port);
    }
}

// ---- Signals: nothing happens in the handler, and afterwards each happens once. ----

class signals : public daemon_test {
  protected:
    static int look(thread* event) {
        auto* test = static_cast<signals*>(event->arg);
        test->seen_ = test->logged();
        return 0;
    }
    lines seen_;  // what was logged before the timer ran
};

TEST_F(signals, are_answered_outside_the_handler_each_once_and_before_anything_else) {
    ssm_signal_init();
    thread_set_interrupt(ctx_, ssm_signal_deliver);
    thread_add_timer_msec(ctx_, look, this, 0);
    for (int number : {SIGHUP, SIGUSR1, SIGHUP, SIGUSR2, SIGPIPE, SIGTSTP, SIGTTIN, SIGTTOU}) raise(number);
    EXPECT_EQ(logged(), lines{});
    thread event;
    ASSERT_NE(thread_fetch(ctx_, &event), nullptr);
    thread_call(&event);
    EXPECT_EQ(seen_, (lines{": SIGHUP received", ": SIGHUP received", ": SIGUSR1 on received"}));
    ssm_signal_deliver(ctx_);
    EXPECT_EQ(logged(), lines{});
}

}  // namespace
