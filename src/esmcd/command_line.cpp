// Command line of the daemon. Called by main before anything else exists, so it only reads and prints.
#include "esmcd/command_line.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

const char* program_name(int argc, char** argv) {
    if (argc < 1) return "esmcd";
    const char* slash = std::strrchr(argv[0], '/');
    return slash ? slash + 1 : argv[0];
}

constexpr option long_options[] = {
    {"daemon", no_argument, nullptr, 'd'},  {"config_file", required_argument, nullptr, 'f'},
    {"help", no_argument, nullptr, 'h'},    {"vty_port", required_argument, nullptr, 'P'},
    {"version", no_argument, nullptr, 'v'}, {nullptr, 0, nullptr, 0},
};

}  // namespace

ssm_settings ssm_command_line(int argc, char** argv) {
    ssm_settings settings = {ssm_action::run, false, nullptr, SSM_VTY_PORT_DEFAULT, program_name(argc, argv)};
    optind = 0;  // from the beginning, also when this is not the first command line of the process
    for (;;) {
        // `r` is a letter that the parser takes without a complaint of its own, but nothing is behind it.
        const int letter = getopt_long(argc, argv, "df:hP:rv", long_options, nullptr);
        switch (letter) {
            case -1:
                return settings;
            case 'd':
                settings.daemon_mode = true;
                break;
            case 'f':
                settings.config_file = optarg;
                break;
            case 'P':
                settings.vty_port = std::atoi(optarg);
                break;
            case 'v':
                settings.action = ssm_action::show_version;
                return settings;
            case 'h':
                settings.action = ssm_action::show_usage;
                return settings;
            default:
                settings.action = ssm_action::refuse;
                return settings;
        }
    }
}

void ssm_usage(int status, const char* progname) {
    if (status != 0)
        std::fprintf(stderr, "Try `%s --help' for more information.\n", progname);
    else
        std::printf(
            "Usage : %s [OPTION...]\n"
            "Daemon which manages SSM \n\n"
            "-d, --daemon       Runs in daemon mode\n"
            "-f, --config_file  Set configuration file name\n"
            "-P, --vty_port     Set vty's port number\n"
            "-v, --version      Print program version\n"
            "-h, --help         Display this help and exit\n\n"
            "Report bugs to %s\n",
            progname, "support");
    std::exit(status);
}
