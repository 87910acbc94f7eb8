// Reads the board information file, which decides whether the SyncE commands exist. Called by the command
// installation. A file that is missing is no error of the daemon: nothing is logged, and the next call looks
// again.
#include "esmcd/board.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "core/result.h"

namespace {

constexpr std::size_t LINE_SIZE = 256;  // a longer line is taken in pieces, each as a line of its own

const char* board_file = SSM_BOARD_FILE;
ssm_board_info cached;
bool loaded = false;

constexpr struct {
    const char* key;  // what the line must begin with
    void (*store)(ssm_board_info* info, std::uint32_t value);
} keys[] = {
    {"flash_size", [](ssm_board_info* info, std::uint32_t value) { info->flash_size = value; }},
    {"sdram_size", [](ssm_board_info* info, std::uint32_t value) { info->sdram_size = value; }},
    {"board_type",
     [](ssm_board_info* info, std::uint32_t value) { info->board_type = static_cast<std::uint8_t>(value); }},
    {"product_series", [](ssm_board_info* info,
                          std::uint32_t value) { info->product_series = static_cast<std::uint8_t>(value); }},
    {"synce_support", [](ssm_board_info* info, std::uint32_t value) { info->synce_support = value; }},
};

bool load() {
    // Not blocking: a FIFO under this name must not hold start-up.
    const int descriptor = open(board_file, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0) return false;
    FILE* file = fdopen(descriptor, "r");
    if (!file) {
        close(descriptor);
        return false;
    }
    cached = {};
    char line[LINE_SIZE];
    while (fgets(line, sizeof line, file)) ssm_board_parse_line(line, &cached);
    fclose(file);
    loaded = true;
    return true;
}

}  // namespace

void ssm_board_parse_line(const char* line, ssm_board_info* info) {
    for (const auto& entry : keys) {
        if (std::strncmp(line, entry.key, std::strlen(entry.key)) != 0) continue;
        char word[LINE_SIZE];
        unsigned value = 0;
        if (std::sscanf(line, "%255s %x", word, &value) == 2) entry.store(info, value);
        return;
    }
}

std::int32_t ssm_board_info_get(ssm_board_info* out) {
    if (!out) return SSM_E_GENERAL;
    if (!loaded && !load()) return SSM_E_GENERAL;
    *out = cached;
    return SSM_OK;
}

void ssm_board_use_file(const char* path) {
    board_file = path ? path : SSM_BOARD_FILE;
    loaded = false;
}
