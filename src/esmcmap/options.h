// What the command line asks for.
#pragma once

#include <string>

#include "esmcmap/serve/server.h"

namespace esmcmap {

struct options {
    std::string file;    // of switches; "-": standard input
    std::string replay;  // a recording instead
    std::string svg;     // where the drawing goes; empty: none is wanted
    bool json = false, watch = false, serve = false, help = false, version = false;
    serve_address at;
};

extern const char HELP[];

// Empty when it was understood, else what is wrong.
std::string read_options(int argc, const char* const argv[], options& read);

}  // namespace esmcmap
