// What the command handlers share: the keyword test, numbers, how a handler traces and how it ends, and the
// handlers that only hand one fixed value to one operation.
#pragma once

#include <cstring>
#include <string_view>

#include "core/debug.h"
#include "core/result.h"
#include "suite/command/cli.h"
#include "suite/ports/interface.h"

constexpr std::int32_t SSM_CLI_PRIVILEGE = 4;

// Whether the argument begins with the keyword. Alternatives are tried one after another; the last one is
// what is left and needs no test.
inline bool ssm_cli_keyword(const char* argument, std::string_view keyword) {
    return std::strncmp(argument, keyword.data(), keyword.size()) == 0;
}

// How a handler ends: a failed operation is printed.
int ssm_cli_finish(cli* terminal, std::int32_t rv);

// A number of 0 to 255. Otherwise says which value is wrong, and *value is untouched.
[[nodiscard]] bool ssm_cli_number(cli* terminal, const char* argument, const char* what, std::uint8_t* value);

// The interface of the interface mode: null when there is none of that name. The session may be older than
// the interface, which comes and goes with the network services manager.
interface* ssm_cli_interface(cli* terminal);
// The port of that name; null after it was said that there is none.
struct ssm_port* ssm_cli_named_port(cli* terminal, const char* name);

// Calls show(terminal, port, best candidate) for the ports in list order, as far as the terminal takes them
// now; from terminal->part on. The handler's result: it is called again after CLI_MORE.
int ssm_cli_list_ports(cli* terminal,
                       void (*show)(cli*, const struct ssm_port*, const struct ssm_port* best));

// The words for a quality, of both options.
#define SSM_CLI_QUALITIES                                                                                    \
    "(prtc | eprtc | eprc | prc | ssu-a | ssu-b | eeec | eec1 | dnu | prs | stu | st2 | tnc | smc | st3e | " \
    "prov | eec2 | dus)"
// How a handler of a port's quality ends.
int ssm_cli_finish_quality(cli* terminal, std::int32_t rv, const char* quality);

// A format as a template argument: the command's name in the trace, with the log's two prefix arguments.
template <std::size_t Size>
struct ssm_cli_trace {
    char format[Size] = {};
    consteval ssm_cli_trace(const char (&text)[Size]) {
        for (std::size_t i = 0; i < Size; ++i) format[i] = text[i];
    }
};

void ssm_cli_trace_line(const char* format);

// Traces, then gives one value to one operation of the switch.
template <ssm_cli_trace Trace, auto Operation, auto... Values>
int ssm_cli_global(cli* terminal, int, char**) {
    ssm_cli_trace_line(Trace.format);
    return ssm_cli_finish(terminal, Operation(Values...));
}

// The same for one port's operation.
template <ssm_cli_trace Trace, auto Operation, auto Value>
int ssm_cli_port(cli* terminal, int, char**) {
    ssm_cli_trace_line(Trace.format);
    return ssm_cli_finish(terminal, Operation(ssm_cli_interface(terminal), Value));
}
