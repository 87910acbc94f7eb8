// `show slow-protocols` (the socket, its totals, and a line a port) and the limit on what a port may bring
// in.
#include <cinttypes>
#include <cstring>
#include <iterator>

#include "suite/command/cli.h"
#include "suite/command/tree.h"
#include "suite/parts/parts.h"
#include "suite/ports/slow_socket.h"

namespace {

const char* kind_text(slow_kind kind) {
    switch (kind) {
        case slow_kind::native:
            return "switch kernel's slow-protocol family";
        case slow_kind::packet:
            return "packet socket";
        case slow_kind::replaced:
            return "replaced";
        case slow_kind::closed:
            break;
    }
    return "closed";
}

// Its column is there once a port has held something back.
bool any_held_back(cli* terminal) {
    slow_port_stats s;
    for (const interface* intf : if_list(terminal->ifm))
        if (slow_socket_port_stats(intf->ifindex, &s) && s.held_back) return true;
    return false;
}

void show_port(cli* terminal, const interface* intf, bool held_back) {
    slow_port_stats s;
    if (!slow_socket_port_stats(intf->ifindex, &s)) return;
    terminal->out_func(terminal->out_val,
                       "%-16s %5" PRIu32 " %10" PRIu64 " %10" PRIu64 " %9" PRIu64 " %9" PRIu64 " %9" PRIu64
                       " %9" PRIu64 " %9" PRIu64 " %9" PRIu64,
                       intf->name, intf->ifindex, s.frames_in, s.frames_out, s.limited, s.no_buffer, s.again,
                       s.link_down, s.no_device, s.other_errors);
    if (held_back) terminal->out_func(terminal->out_val, " %9" PRIu64, s.held_back);
    terminal->out_func(terminal->out_val, "\n");
    if (intf->ifindex > IF_INDEX_HEARD_MAX)
        terminal->out_func(terminal->out_val,
                           "%-16s index above %" PRIu32 ": %" PRIu64 " frames received and dropped\n", "",
                           IF_INDEX_HEARD_MAX, s.unheard);
}

void show_limit(cli* terminal, const slow_stats& s) {
    const std::uint32_t rate = slow_socket_rate_limit();
    if (rate == 0)
        terminal->out_func(terminal->out_val, "  No limit on what a port may bring in\n");
    else
        terminal->out_func(terminal->out_val,
                           "  Limit of a port %" PRIu32 " frames/s, burst %" PRIu32 ", dropped %" PRIu64 "\n",
                           rate, SLOW_BURST, s.limited);
}

int show_slow_protocols(cli* terminal, int, char**) {
    const slow_opened socket = slow_socket_opened();
    const slow_stats s = slow_socket_stats();
    terminal->out_func(terminal->out_val, "Slow-protocol socket: %s\n", kind_text(socket.kind));
    if (socket.kind == slow_kind::packet)
        terminal->out_func(
            terminal->out_val, "  Receive buffer %d octets, send buffer %d octets, filter %s\n",
            socket.receive_buffer, socket.send_buffer, socket.filtered ? "in the kernel" : "in the daemon");
    terminal->out_func(terminal->out_val, "  Frames received %" PRIu64 ", sent %" PRIu64 "\n", s.frames_in,
                       s.frames_out);
    terminal->out_func(terminal->out_val,
                       "  Lost in the kernel %" PRIu64 ", too short %" PRIu64 ", of unknown ports %" PRIu64
                       ", of indexes above %" PRIu32 " %" PRIu64 "\n",
                       s.kernel_drops, s.short_frames, s.unknown_port, IF_INDEX_HEARD_MAX, s.unheard);
    show_limit(terminal, s);
    const bool held_back = any_held_back(terminal);
    terminal->out_func(terminal->out_val, "%-16s %5s %10s %10s %9s %9s %9s %9s %9s %9s%s\n", "Interface",
                       "Index", "Received", "Sent", "Limited", "No-buffer", "Busy", "Link-down", "No-device",
                       "Other", held_back ? " Held-back" : "");
    for (const interface* intf : if_list(terminal->ifm)) show_port(terminal, intf, held_back);
    return CLI_SUCCESS;
}

int set_rate_limit(cli*, int, char** argv) {
    int status = 0;
    const std::int32_t rate = std::strcmp(argv[0], "off") == 0 ? 0 : cmd_str2int(argv[0], &status);
    if (status < 0) return CLI_ERROR;  // the parser has checked the range
    slow_socket_set_rate_limit(static_cast<std::uint32_t>(rate));
    return CLI_SUCCESS;
}

int no_rate_limit(cli*, int, char**) {
    slow_socket_set_rate_limit(SLOW_RATE_DEFAULT);
    return CLI_SUCCESS;
}

int write_config(cli* terminal) {
    const std::uint32_t rate = slow_socket_rate_limit();
    if (rate == 0)
        terminal->out_func(terminal->out_val, "slow-protocols rate-limit off\n");
    else if (rate != SLOW_RATE_DEFAULT)
        terminal->out_func(terminal->out_val, "slow-protocols rate-limit %" PRIu32 "\n", rate);
    return 0;
}

const cli_element SHOW_SLOW_PROTOCOLS = {"show slow-protocols", show_slow_protocols};
const cli_element RATE_LIMIT = {"slow-protocols rate-limit (<10-1000>|off)", set_rate_limit};
const cli_element NO_RATE_LIMIT = {"no slow-protocols rate-limit", no_rate_limit};

const cli_help help_texts[] = {
    {"show", "slow-protocols", "The packet socket and its counters"},
    {"", "slow-protocols", "Packet socket of the slow protocols"},
    {"no", "slow-protocols", "Packet socket of the slow protocols"},
    {"slow-protocols", "rate-limit", "Frames a second that a port may bring in for long (default 10)"},
    {"slow-protocols rate-limit", "<10-1000>", "Frames a second; a burst of 100 passes"},
    {"slow-protocols rate-limit", "off", "No limit"},
};

}  // namespace

int slow_socket_cli_init(lib_globals* ctx) {
    int result = cli_install(ctx->ctree, EXEC_MODE, &SHOW_SLOW_PROTOCOLS);
    result |= cli_install_gen(ctx->ctree, CONFIG_MODE, PRIVILEGE_MAX, 0, &RATE_LIMIT);
    result |= cli_install_gen(ctx->ctree, CONFIG_MODE, PRIVILEGE_MAX, 0, &NO_RATE_LIMIT);
    result |= cli_install_config(ctx->ctree, CLI_WRITERS_FIRST, write_config);
    return result | cli_install_help(ctx->ctree, help_texts, std::size(help_texts));
}
