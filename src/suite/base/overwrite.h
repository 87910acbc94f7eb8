// Writing over a file's content in place, where no new file may be made beside it.
#pragma once

#include <string_view>

// All of it, interrupted and short writes included. 0 or a negative errno.
[[nodiscard]] int write_all(int fd, std::string_view text);

// Room first, so that a full disk is found before the old content is touched; then the text over it, and what
// was beyond its end is cut. 0 or a negative errno, after which the content may be mixed. Not synced.
[[nodiscard]] int overwrite(int fd, std::string_view text);
