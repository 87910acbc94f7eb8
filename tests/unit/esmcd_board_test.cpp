// The board file: read once, by prefix, hexadecimal.
#include "esmcd/board.h"

#include <gtest/gtest.h>

#include "daemon_fixture.h"

namespace {

ssm_board_info read_board(const char* content) {
    board_file file(content);
    ssm_board_info board = {};
    EXPECT_EQ(ssm_board_info_get(&board), 0);
    return board;
}

TEST(board, fields_come_from_lines_of_key_and_hexadecimal_value) {
    const ssm_board_info board = read_board(
        "flash_size 8000000\nsdram_size 0x10000000\n# a remark\nboard_type 1ab\nproduct_series 1ff\n"
        "synce_support 10\n");
    EXPECT_EQ(board.flash_size, 0x8000000U);
    EXPECT_EQ(board.sdram_size, 0x10000000U);
    EXPECT_EQ(board.board_type, 0xab);
    EXPECT_EQ(board.product_series, 0xff);
    EXPECT_EQ(board.synce_support, 0x10U);
}

TEST(board, last_value_counts_and_longer_keys_match_by_their_beginning) {
    const ssm_board_info board = read_board(
        "flash_size 1\nflash_size_total 10\nsynce_support 1\nsynce_support 0\n synce_support 1\n"
        "product_series 7\nproduct_series\nproduct_series \nproduct_series yes\n");
    EXPECT_EQ(board.flash_size, 0x10U);
    EXPECT_EQ(board.synce_support, 0U);   // an indented key is none
    EXPECT_EQ(board.product_series, 7U);  // a line without a value changes nothing
}

TEST(board, long_line_is_taken_in_pieces) {
    // The second piece begins with a key, right behind 255 other octets.
    const std::string line = std::string(255, 'x') + "synce_support 3\n";
    EXPECT_EQ(read_board(line.c_str()).synce_support, 3U);
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
    for (int i = 0; i < 2; i++) {
        board = {};
        ASSERT_EQ(ssm_board_info_get(&board), 0);
        EXPECT_EQ(board.synce_support, 1U);
        file.remove();
    }
}

}  // namespace
