// The command line of nsmd: a table of the options and their handlers, over getopt_long. Called once, before
// anything else exists; a value that makes no sense is refused here and nowhere else.
#include "nsmd/options.h"

#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "nsmd/dpll/message.h"
#include "suite/log/log.h"

namespace {

bool parse_number(const char* text, unsigned long most, std::uint32_t* out) {
    if (text[0] < '0' || text[0] > '9') return false;
    char* end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(text, &end, 10);
    if (errno || *end || value > most) return false;
    *out = static_cast<std::uint32_t>(value);
    return true;
}

bool take_port(nsmd_options* o, const char* text) {
    if (!*text || o->pattern_count == NSMD_PATTERNS_MAX) return false;
    o->patterns[o->pattern_count++] = text;
    return true;
}

bool take_dpll(nsmd_options* o, const char* text) {
    static constexpr struct {
        const char* word;
        dpll_kind kind;
    } kinds[] = {{"auto", dpll_kind::automatic},
                 {"kernel", dpll_kind::kernel},
                 {"sim", dpll_kind::simulated},
                 {"none", dpll_kind::none}};
    for (const auto& k : kinds)
        if (std::strcmp(text, k.word) == 0) {
            o->dpll = k.kind;
            return true;
        }
    return false;
}

// A day at most, so that no timer overflows.
bool take_lock_ms(nsmd_options* o, const char* text) {
    return parse_number(text, 86400000, &o->sim.lock_ms);
}
bool take_holdover_s(nsmd_options* o, const char* text) {
    return parse_number(text, 86400, &o->sim.holdover_s);
}
bool take_grace_s(nsmd_options* o, const char* text) {
    return parse_number(text, 86400, &o->grace_s);
}
bool take_poll_ms(nsmd_options* o, const char* text) {
    if (!parse_number(text, 60000, &o->poll.slow_ms)) return false;
    o->poll.fast_ms = o->poll.slow_ms && o->poll.slow_ms < 50 ? o->poll.slow_ms : 50;
    return true;
}

bool take_state_file(nsmd_options* o, const char* text) {
    o->sim.state_file = text;
    return text[0] == '/';
}

bool take_device(nsmd_options* o, const char* text) {
    o->kernel.device = text;
    return *text != 0;
}

template <int input>
bool take_bits(nsmd_options* o, const char* text) {
    o->kernel.bits[input - 1] = text;
    return *text != 0;
}

bool take_prio_best(nsmd_options* o, const char* text) {
    return parse_number(text, 255, &o->kernel.prio_best);
}
bool take_mode(nsmd_options* o, const char* text) {
    const bool is_manual = std::strcmp(text, "manual") == 0;
    o->kernel.mode = is_manual ? DPLL_MODE_MANUAL : DPLL_MODE_AUTOMATIC;
    return is_manual || std::strcmp(text, "automatic") == 0;
}
bool take_prio_other(nsmd_options* o, const char* text) {
    return parse_number(text, 255, &o->kernel.prio_other);
}

bool take_source_code(nsmd_options* o, const char* text) {
    char index[16];
    const char* equals = std::strchr(text, '=');
    if (!equals || static_cast<std::size_t>(equals - text) >= sizeof index) return false;
    std::memcpy(index, text, static_cast<std::size_t>(equals - text));
    index[equals - text] = 0;
    if (o->source_code_count == NSMD_SOURCE_CODES_MAX) return false;
    source_code& entry = o->source_codes[o->source_code_count];
    if (!parse_number(index, 9999, &entry.ifindex) || entry.ifindex == 0) return false;
    if (!parse_number(equals + 1, 0xffffffffUL, &entry.code)) return false;
    ++o->source_code_count;
    return true;
}

bool take_log_level(nsmd_options* o, const char* text) {
    return log_level_of(text, &o->log_level);
}

bool take_user(nsmd_options* o, const char* text) {
    const char* wrong = rights_user_find(text, &o->user);
    if (wrong) std::fprintf(stderr, "user '%s': %s\n", text, wrong);
    return !wrong;
}

struct option_kind {
    const char* name;
    const char* value;
    bool (*take)(nsmd_options*, const char*);
    const char* help;
};

constexpr option_kind KINDS[] = {
    {"port", "PATTERN", take_port,
     "also serve interfaces with such names (shell pattern, repeatable);\n"
     "physical Ethernet ports are served without it"},
    {"dpll", "KIND", take_dpll,
     "clock hardware: kernel (the kernel's DPLL interface), sim (simulated),\nnone, or auto: kernel where it "
     "has one, else none (default auto)"},
    {"dpll-device", "NAME", take_device,
     "kernel clock device: its number, MODULE or MODULE/CLOCKID\n(default: the first Ethernet clock)"},
    {"dpll-mode", "MODE", take_mode,
     "set the kernel clock device to this mode: manual or automatic\n(default: as it is)"},
    {"bits1", "PIN", take_bits<1>, "pin of external input 1, by number or label"},
    {"bits2", "PIN", take_bits<2>, "pin of external input 2"},
    {"prio-best", "N", take_prio_best, "priority of the pin to follow in automatic mode (default 0)"},
    {"prio-other", "N", take_prio_other, "priority of pins that can't be disconnected (default 14)"},
    {"sim-lock-ms", "N", take_lock_ms, "simulated clock: time to lock to a reference (default 300)"},
    {"sim-holdover-s", "N", take_holdover_s,
     "simulated clock: how long holdover lasts before it runs free\n(default 0: for ever)"},
    {"sim-state", "FILE", take_state_file,
     "simulated clock: keep its registers in FILE (absolute), so that it\noutlives nsmd as hardware does"},
    {"source-code", "IFINDEX=CODE", take_source_code, "code to report for this reference (repeatable)"},
    {"grace-s", "N", take_grace_s,
     "leave the hardware alone for N seconds after esmcd vanished, then go\nto holdover (default 10)"},
    {"poll-ms", "N", take_poll_ms,
     "ask the kernel for the state of ports at least this often apart\n(default 100; 0: only after a "
     "change)"},
    {"user", "NAME[:GROUP]", take_user, "become this user, and this group, once everything is open"},
    {"log-level", "LEVEL", take_log_level, "error, warning, info (default) or debug"},
};
constexpr int FIRST_LONG = 256;

const option_kind* long_kind(int value) {
    const std::size_t at = static_cast<std::size_t>(value) - FIRST_LONG;
    return value >= FIRST_LONG && at < std::size(KINDS) ? &KINDS[at] : nullptr;
}

void set_defaults(nsmd_options* out) {
    *out = nsmd_options{};
    out->dpll = dpll_kind::automatic;
    out->grace_s = 10;
    out->log_level = LOG_LEVEL_INFO;
}

void print_option(const char* name, const char* help) {
    std::printf("  %-28s ", name);
    for (const char* c = help; *c; ++c) {
        std::putchar(*c);
        if (*c == '\n') std::printf("%31s", "");
    }
    std::putchar('\n');
}

}  // namespace

options_result nsmd_options_parse(int argc, char** argv, nsmd_options* out) {
    option longs[std::size(KINDS) + 7] = {};
    std::size_t count = 0;
    for (; count < std::size(KINDS); ++count)
        longs[count] = {KINDS[count].name, required_argument, nullptr, FIRST_LONG + static_cast<int>(count)};
    longs[count++] = {"status", no_argument, nullptr, 's'};
    longs[count++] = {"clock-quality", no_argument, nullptr, 'q'};
    longs[count++] = {"probe", no_argument, nullptr, 'p'};
    longs[count++] = {"daemon", no_argument, nullptr, 'd'};
    longs[count++] = {"help", no_argument, nullptr, 'h'};
    longs[count++] = {"version", no_argument, nullptr, 'v'};

    set_defaults(out);
    optind = 0;  // glibc: begin anew, also for a second call
    options_result result = options_result::run;
    for (int value; (value = getopt_long(argc, argv, "dhv", longs, nullptr)) != -1;) {
        if (value == 'h') return options_result::help;
        if (value == 'v') return options_result::version;
        if (value == 's') return options_result::status;
        if (value == 'q') {
            out->kernel.tells_quality = true;
            continue;
        }
        if (value == 'p') {
            result = options_result::probe;
            continue;
        }
        if (value == '?') return options_result::bad;  // getopt has said why
        if (value == 'd') {
            out->daemonize = true;
            continue;
        }
        const option_kind* kind = long_kind(value);
        if (!kind || !kind->take(out, optarg)) {
            std::fprintf(stderr, "%s: bad value '%s' for --%s\n", argv[0], optarg, kind ? kind->name : "?");
            return options_result::bad;
        }
    }
    if (optind < argc) {
        std::fprintf(stderr, "%s: unexpected argument '%s'\n", argv[0], argv[optind]);
        return options_result::bad;
    }
    return result;
}

void nsmd_options_usage(const char* progname) {
    std::printf("Usage: %s [OPTION]...\nServes this host's Ethernet ports and clock hardware to esmcd.\n\n",
                progname);
    for (const auto& kind : KINDS) {
        char name[64];
        std::snprintf(name, sizeof name, "--%s %s", kind.name, kind.value);
        print_option(name, kind.help);
    }
    print_option("--clock-quality",
                 "tell esmcd the quality that the kernel clock device claims of itself,\n"
                 "for where none is configured");
    print_option("--status", "print what the nsmd of this host is doing, and end");
    print_option("--probe", "say whether this host's clock hardware can do Synchronous Ethernet, and end");
    print_option("-d, --daemon", "run in the background, log to syslog");
    print_option("-h, --help", "this text");
    print_option("-v, --version", "the version");
}

std::uint32_t nsmd_source_code(const nsmd_options& options, std::uint32_t ifindex) {
    static constexpr source_code defaults[] = {{26, 1}, {25, 2}, {24, 3}, {20, 4}, {DPLL_SOURCE_BITS, 8}};
    for (std::size_t i = options.source_code_count; i > 0; --i)  // the last one given counts
        if (options.source_codes[i - 1].ifindex == ifindex) return options.source_codes[i - 1].code;
    for (const auto& entry : defaults)
        if (entry.ifindex == ifindex) return entry.code;
    return 0;
}
