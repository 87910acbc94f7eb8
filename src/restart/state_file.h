// The file in which the daemon leaves its state: two places, written in turn, each with a number that grows
// and a checksum. Whatever ends a process that writes, the place written before is whole. The file lies in
// /run, whose content no reboot outlives; it is written in place, because the daemon may be a user who can't
// make files there.
#pragma once

#include <cstdint>

#include "suite/base/octets.h"
#include "suite/base/text.h"

struct rights_user;

constexpr const char* STATE_FILE = "/run/esmcd.state";
constexpr std::size_t STATE_SIZE_MAX = 512 * 1024;

struct state_file {
    int fd = -1;
    std::uint32_t number = 0;  // of what was written last
};

// Another file for tests; null: the real one again.
void state_file_use(const char* path);
// What was written last, and whole; the file is empty afterwards. 0, -ENOENT (nothing there), -EBADMSG
// (damaged), -EPERM (not a file that only this daemon's user or root may write), or another negative errno.
[[nodiscard]] int state_file_take(text_buffer* out);
// While the program is root: makes the file for the user who can't. 0 or a negative errno.
int state_file_give(const rights_user& user);
// 0 or a negative errno, -EFBIG above STATE_SIZE_MAX. The file is made where there is none.
[[nodiscard]] int state_file_write(state_file* file, const_octets state);
// Nothing is there to be taken any more.
void state_file_discard(state_file* file);
