// Runs command lines without a terminal, and keeps what they print.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>

#include "suite/command/cli.h"

struct line_runner {
    cli session{};
    std::string printed;  // by the last line

    explicit line_runner(lib_globals* ctx) {
        session.out_func = print;
        session.out_val = this;
        session.zg = ctx;
        session.ifm = &ctx->ifm;
        session.privilege = PRIVILEGE_MAX;
    }
    line_runner(const line_runner&) = delete;
    line_runner& operator=(const line_runner&) = delete;

    cli_result run(const std::string& line, std::int32_t mode = EXEC_MODE) {
        printed.clear();
        session.mode = mode;
        return cli_run_line(session.zg->ctree, &session, line);
    }

    static int print(void* self, const char* format, ...) {
        char text[512];
        va_list args;
        va_start(args, format);
        const int length = std::vsnprintf(text, sizeof text, format, args);
        va_end(args);
        static_cast<line_runner*>(self)->printed += text;
        return length;
    }
};
