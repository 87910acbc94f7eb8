// Reads the board information file, which decides whether the SyncE commands exist. Called by the command
// installation. A file that is missing is no error of the daemon: nothing is logged, and the next call looks
// again. One that somebody else than root could have written is as if it were not there, and that is said
// once: it lies where everybody may make files.
#include "esmcd/board.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstring>

#include "core/debug.h"
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

// Why the open file is not to be believed; null: it is.
const char* distrust(int descriptor) {
    struct stat file {};
    if (lstat(board_file, &file) == 0 && S_ISLNK(file.st_mode) && file.st_uid != 0)
        return "is a symbolic link of somebody's";
    if (fstat(descriptor, &file) < 0 || !S_ISREG(file.st_mode)) return "is no regular file";
    if (file.st_uid != 0) return "is not root's";
    return file.st_mode & (S_IWGRP | S_IWOTH) ? "may be written by others than root" : nullptr;
}

void say_once(const char* why) {
    static bool said = false;
    if (said) return;
    said = true;
    SSM_LOG(LOG_LEVEL_WARNING, "%s%sboard information %s %s: not believed", board_file, why);
}

bool load() {
    // Not blocking: a FIFO under this name must not hold start-up.
    const int descriptor = open(board_file, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0) return false;
    if (const char* why = distrust(descriptor)) {
        say_once(why);
        close(descriptor);
        return false;
    }
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

namespace {

// The hexadecimal number at `text`, with or without a sign and 0x; of one above 32 bits the low 32. False:
// none.
bool parse_hexadecimal(const char* text, std::uint32_t* value) {
    while (std::isspace(static_cast<unsigned char>(*text))) ++text;
    const bool negative = *text == '-';
    if (*text == '-' || *text == '+') ++text;
    if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) text += 2;
    if (!std::isxdigit(static_cast<unsigned char>(*text))) return false;
    std::uint32_t number = 0;
    for (; std::isxdigit(static_cast<unsigned char>(*text)); ++text) {
        const int digit = std::tolower(static_cast<unsigned char>(*text));
        number = number << 4 | static_cast<std::uint32_t>(digit > '9' ? digit - 'a' + 10 : digit - '0');
    }
    *value = negative ? 0 - number : number;
    return true;
}

}  // namespace

void ssm_board_parse_line(const char* line, ssm_board_info* info) {
    for (const auto& entry : keys) {
        if (std::strncmp(line, entry.key, std::strlen(entry.key)) != 0) continue;
        const char* behind = line + std::strcspn(line, " \t\n\v\f\r");  // the key's word may be longer
        std::uint32_t value = 0;
        if (parse_hexadecimal(behind, &value)) entry.store(info, value);
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
