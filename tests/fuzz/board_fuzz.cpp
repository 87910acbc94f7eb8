// Board information files of any octets: read through the real file path, and line by line.
#include <cstring>

#include "esmcd/board.h"
#include "fuzz/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const memory_file file({reinterpret_cast<const char*>(data), size});
    ssm_board_info first, again;
    ssm_board_use_file(file.path);
    must(ssm_board_info_get(&first) == 0, "a file can be read");
    must(ftruncate(file.fd, 0) == 0 && ssm_board_info_get(&again) == 0, "it is read once");
    must(std::memcmp(&first, &again, sizeof first) == 0, "what it says later does not count");
    ssm_board_use_file(nullptr);
    return 0;
}
