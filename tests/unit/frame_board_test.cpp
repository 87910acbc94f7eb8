// The board file: read once, by prefix, hexadecimal.
#include "frame/ssm_board.h"

#include <gtest/gtest.h>

#include "daemon_fixture.h"

namespace {

TEST(board, fields_come_from_lines_of_key_and_hexadecimal_value) {
    board_file file(
        "flash_size 8000000\nsdram_size 0x10000000\n# a remark\nboard_type 1ab\nproduct_series 1ff\n"
        "synce_support 1\n");
    ssm_board_info board = {};
    ASSERT_EQ(ssm_board_info_get(&board), 0);
    EXPECT_EQ(board.flash_size, 0x8000000U);
    EXPECT_EQ(board.sdram_size, 0x10000000U);
    EXPECT_EQ(board.board_type, 0xab);
    EXPECT_EQ(board.product_series, 0xff);
    EXPECT_EQ(board.synce_support, 1U);
}

TEST(board, last_value_counts_and_longer_keys_match_by_their_beginning) {
    board_file file(
        "flash_size 1\nflash_size_total 10\nsynce_support 1\nsynce_support 0\n synce_support 1\n");
    ssm_board_info board = {};
    ASSERT_EQ(ssm_board_info_get(&board), 0);
    EXPECT_EQ(board.flash_size, 0x10U);
    EXPECT_EQ(board.synce_support, 0U);  // an indented key is none
}

TEST(board, line_without_a_value_changes_nothing) {
    ssm_board_info board = {
        .product_series = 7, .board_type = 0, .flash_size = 0, .sdram_size = 0, .synce_support = 1};
    for (const char* line :
         {"synce_support", "synce_support \n", "synce_support yes\n", "product_series\n", ""})
        ssm_board_parse_line(line, &board);
    EXPECT_EQ(board.synce_support, 1U);
    EXPECT_EQ(board.product_series, 7);
}

TEST(board, long_line_is_taken_in_pieces) {
    // The second piece begins with a key, right behind 255 other octets.
    const std::string line = std::string(255, 'x') + "synce_support 3\n";
    board_file file(line.c_str());
    ssm_board_info board = {};
    ASSERT_EQ(ssm_board_info_get(&board), 0);
    EXPECT_EQ(board.synce_support, 3U);
}

TEST(board, missing_file_is_looked_for_again_and_a_read_one_never) {
    board_file file("");
    file.remove();
    ssm_board_info board = {};
    board.flash_size = 99;
    EXPECT_EQ(ssm_board_info_get(&board), -999);
    EXPECT_EQ(board.flash_size, 99U);  // untouched
    file.write("synce_support 1\n");
    EXPECT_EQ(ssm_board_info_get(nullptr), -999);
    ASSERT_EQ(ssm_board_info_get(&board), 0);
    EXPECT_EQ(board.synce_support, 1U);
    EXPECT_EQ(board.flash_size, 0U);
    file.remove();
    board = {};
    ASSERT_EQ(ssm_board_info_get(&board), 0);
    EXPECT_EQ(board.synce_support, 1U);
}

}  // namespace
