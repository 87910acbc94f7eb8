// The daemon's options and its two texts about itself.
#pragma once

#include <cstdint>

// The platform takes the low 16 bits of a port setting: 54697 by default.
constexpr std::int32_t SSM_VTY_PORT_DEFAULT = 710057;

enum class ssm_action : std::uint8_t { run, show_version, show_usage, refuse };

struct ssm_settings {
    ssm_action action;
    bool daemon_mode;
    const char* config_file;  // the argument itself; null: the platform's default
    std::int32_t vty_port;
    const char* progname;  // part of argv[0]
};

// Reads the options up to the first that ends the process (help, version, one that is not known; the option
// parser has then said on standard error what it did not like).
ssm_settings ssm_command_line(int argc, char** argv);

// Prints the usage (status 0, standard output) or a hint (standard error) and exits with the status.
[[noreturn]] void ssm_usage(int status, const char* progname);
