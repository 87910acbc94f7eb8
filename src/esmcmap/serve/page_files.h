// The files of the page, which are part of the program: made from src/esmcmap/page when it is built.
#pragma once

#include <span>
#include <string_view>

namespace esmcmap {

struct page_file {
    std::string_view path;  // "/", "/page.css"
    const char* type;
    std::string_view content;
};

std::span<const page_file> page_files();

}  // namespace esmcmap
