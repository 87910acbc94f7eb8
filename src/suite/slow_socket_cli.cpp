// `show slow-protocols`: the socket, its totals, and a line a port. Installed at start-up; reads counters
// only.
#include <cinttypes>

#include "suite/cli.h"
#include "suite/slow_socket.h"
#include "suite/slow_socket_show.h"

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

void show_port(cli* session, const interface* intf) {
    slow_port_stats s;
    if (!slow_socket_port_stats(intf->ifindex, &s)) return;
    session->out_func(session->out_val,
                      "%-16s %5" PRIu32 " %10" PRIu64 " %10" PRIu64 " %9" PRIu64 " %9" PRIu64 " %9" PRIu64
                      " %9" PRIu64 " %9" PRIu64 "\n",
                      intf->name, intf->ifindex, s.frames_in, s.frames_out, s.no_buffer, s.again, s.link_down,
                      s.no_device, s.other_errors);
}

int show_slow_protocols(cli* session, int, char**) {
    const slow_opened socket = slow_socket_opened();
    const slow_stats s = slow_socket_stats();
    session->out_func(session->out_val, "Slow-protocol socket: %s\n", kind_text(socket.kind));
    if (socket.kind == slow_kind::packet)
        session->out_func(session->out_val, "  Receive buffer %d octets, send buffer %d octets, filter %s\n",
                          socket.receive_buffer, socket.send_buffer,
                          socket.filtered ? "in the kernel" : "in the daemon");
    session->out_func(session->out_val, "  Frames received %" PRIu64 ", sent %" PRIu64 "\n", s.frames_in,
                      s.frames_out);
    session->out_func(session->out_val,
                      "  Lost in the kernel %" PRIu64 ", too short %" PRIu64 ", of unknown ports %" PRIu64
                      "\n",
                      s.kernel_drops, s.short_frames, s.unknown_port);
    session->out_func(session->out_val, "%-16s %5s %10s %10s %9s %9s %9s %9s %9s\n", "Interface", "Index",
                      "Received", "Sent", "No-buffer", "Busy", "Link-down", "No-device", "Other");
    for (const interface* intf : if_list(session->ifm)) show_port(session, intf);
    return CLI_SUCCESS;
}

const cli_element SHOW_SLOW_PROTOCOLS = {"show slow-protocols", show_slow_protocols};

}  // namespace

int slow_socket_cli_init(lib_globals* ctx) {
    return cli_install(ctx->ctree, EXEC_MODE, &SHOW_SLOW_PROTOCOLS);
}
