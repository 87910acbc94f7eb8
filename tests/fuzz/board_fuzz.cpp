// Board information files of any octets: read through the real file path, and line by line.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "esmcd/board.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int fd = memfd_create("board", MFD_CLOEXEC);
    static char path[64];
    if (!path[0]) std::snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    if (ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) std::abort();
    ssm_board_use_file(path);
    ssm_board_info first, again;
    if (ssm_board_info_get(&first) != 0) std::abort();
    // Read once: what the file says later does not count.
    if (ftruncate(fd, 0) != 0 || ssm_board_info_get(&again) != 0) std::abort();
    if (std::memcmp(&first, &again, sizeof first) != 0) std::abort();
    ssm_board_use_file(nullptr);
    return 0;
}
