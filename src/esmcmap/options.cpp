// Written by hand since a word behind --serve may be left out, which getopt_long only has as --serve=WORD.
#include "esmcmap/options.h"

#include <cstring>

namespace esmcmap {

const char HELP[] =
    R"(Usage: esmcmap FILE [--watch] [--json | --svg OUT]
       esmcmap FILE --serve [ADDRESS:PORT]
       esmcmap --replay RECORDING --serve [ADDRESS:PORT]

Asks all switches of FILE (- is standard input) and shows the synchronisation network that they make: who follows whom at which
quality, loops, islands whose clock comes from no master, switches that promise what they have not, strangers, silence.

  --watch              again and again; with --json each state is a line, which --replay takes
  --json               the state as one JSON object
  --svg OUT            the state as a drawing in the file OUT (- is standard output)
  --serve [WHERE]      a live map for browsers, and /metrics for Prometheus; WHERE is ADDRESS:PORT, 127.0.0.1:8466 unless told
                       otherwise, port 0 takes one that is free
  --replay RECORDING   serves the states of a recording at their pace
  --help, --version

FILE, a line each:
  switch NAME command ARGV...            a command that prints `show clock synce json`
  switch NAME snmp ADDRESS v2c COMMUNITY
  switch NAME snmp ADDRESS v3 USER noAuthNoPriv | authNoPriv AUTH PASS | authPriv AUTH PASS PRIV PASS
  every SECONDS                          between two questions, 1 unless told otherwise
  timeout SECONDS                        until a switch counts as silent, 3 unless told otherwise

Exit status: 0 all is well; 1 a loop or an island stands; 2 nothing could be asked (command line, FILE); 3 a switch does not
answer, and the others show neither loop nor island.
)";

namespace {

bool take_word(int argc, const char* const argv[], int& at, std::string& word) {
    if (at + 1 >= argc) return false;
    word = argv[++at];
    return true;
}

bool is_option(const char* word) {
    return word[0] == '-' && word[1] != '\0';
}

std::string contradiction(const options& of) {
    if (of.file.empty() == of.replay.empty())
        return of.file.empty() ? "which file of switches?" : "either a FILE or a recording";
    if (!of.replay.empty() && !of.serve) return "--replay goes with --serve";
    if (of.serve && (of.watch || of.json || !of.svg.empty()))
        return "--serve goes alone: the map has /state for JSON";
    if (of.json && !of.svg.empty()) return "--json or --svg, one of them";
    return {};
}

// Whether what stands behind --serve is its address, rather than the file's name.
bool is_address(const char* word) {
    serve_address unused;
    return (std::strchr(word, ':') || std::strncmp(word, "127.", 4) == 0) && read_serve_address(word, unused);
}

}  // namespace

std::string read_options(int argc, const char* const argv[], options& read) {
    for (int at = 1; at < argc; ++at) {
        const std::string word = argv[at];
        if (word == "--help" || word == "-h") {
            read.help = true;
        } else if (word == "--version") {
            read.version = true;
        } else if (word == "--json") {
            read.json = true;
        } else if (word == "--watch") {
            read.watch = true;
        } else if (word == "--svg") {
            if (!take_word(argc, argv, at, read.svg)) return "--svg wants the name of a file";
        } else if (word == "--replay") {
            if (!take_word(argc, argv, at, read.replay)) return "--replay wants the name of a recording";
        } else if (word == "--serve") {
            read.serve = true;
            if (at + 1 < argc && is_address(argv[at + 1])) (void)read_serve_address(argv[++at], read.at);
        } else if (is_option(word.c_str())) {
            return "unknown option " + word;
        } else if (!read.file.empty() && read.serve && std::strcmp(argv[at - 1], "--serve") == 0) {
            return word + " is no ADDRESS:PORT";
        } else if (!read.file.empty()) {
            return "one FILE of switches, not " + read.file + " and " + word;
        } else {
            read.file = word;
        }
    }
    return read.help || read.version ? std::string() : contradiction(read);
}

}  // namespace esmcmap
