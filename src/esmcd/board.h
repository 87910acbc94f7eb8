// What the board says about itself, in the text file that the platform leaves: read once, kept for the life
// of the process.
#pragma once

#include <cstdint>

constexpr const char* SSM_BOARD_FILE = "/tmp/quarn_board_info";

// Fields whose key the file does not have are 0.
struct ssm_board_info {
    std::uint8_t product_series;
    std::uint8_t board_type;
    std::uint32_t flash_size;
    std::uint32_t sdram_size;
    std::uint32_t synce_support;  // non-zero: SyncE exists on this board
};

// 0, or SSM_E_GENERAL for a null pointer and while the file can't be opened; the next call tries again.
[[nodiscard]] std::int32_t ssm_board_info_get(ssm_board_info* out);

// Takes one line of the file into the record: "KEY VALUE", the value hexadecimal. Lines without a known key,
// or without a value that can be read, change nothing.
void ssm_board_parse_line(const char* line, ssm_board_info* info);

// Tests: another file (it must live as long as it is used; null restores the real one), nothing read yet.
void ssm_board_use_file(const char* path);
