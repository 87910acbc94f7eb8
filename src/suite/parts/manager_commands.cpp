// `show nsm`: the state of the link, its counters, and the requests that would be stated after the next dump.
#include <cinttypes>
#include <iterator>

#include "suite/command/cli.h"
#include "suite/manager/record.h"
#include "suite/parts/parts.h"

namespace {

const char* phase_text(nsm_client_phase phase) {
    switch (phase) {
        case nsm_client_phase::down:
            break;
        case nsm_client_phase::greeting:
            return "waiting for the answer to HELLO";
        case nsm_client_phase::dump:
            return "connected, initial dump";
        case nsm_client_phase::synchronised:
            return "synchronised";
    }
    return "not connected";
}

const char* request_text(std::uint16_t type) {
    switch (type) {
        case NSM_MSG_SSM_GLOBAL_ENABLE:
            return "global enable";
        case NSM_MSG_SSM_CLOCK_RECOVERY_SELECT:
            return "clock recovery select";
        case NSM_MSG_SSM_HOLDOVER_ENABLE:
            return "holdover enable";
        case NSM_MSG_SSM_SELECTED_IF_INDEX:
            return "selected interface";
        case NSM_MSG_SSM_SET_GEPHY_ROLE:
            return "gephy role";
        default:
            return "unknown";
    }
}

void show_request(cli* terminal, const nsm_client_request& r) {
    terminal->out_func(terminal->out_val, "  %-22s", request_text(r.type));
    for (std::size_t i = 0; i < r.words; ++i) terminal->out_func(terminal->out_val, " %" PRIu32, r.word[i]);
    terminal->out_func(terminal->out_val, "%s\n", r.pending ? "  (not sent)" : "");
}

int show_nsm(cli* terminal, int, char**) {
    const nsm_client* nc = terminal->zg->nsm;
    if (!nc) {
        terminal->out_func(terminal->out_val, "NSM link: not started\n");
        return CLI_SUCCESS;
    }
    const nsm_client_stats s = nsm_client_get_stats(nc);
    terminal->out_func(terminal->out_val, "NSM link: %s\n", phase_text(nc->phase));
    terminal->out_func(terminal->out_val,
                       "  Connections %" PRIu64 ", messages received %" PRIu64 ", sent %" PRIu64
                       ", dropped %" PRIu64 "\n",
                       s.connects, s.messages_in, s.messages_out, s.dropped);
    terminal->out_func(terminal->out_val, "Requests kept: %" PRIu64 "\n", s.requests_kept);
    for (std::size_t i = 0; i < nc->request_count; ++i) show_request(terminal, nc->requests[i]);
    return CLI_SUCCESS;
}

const cli_element SHOW_NSM = {"show nsm", show_nsm};

const cli_help help_texts[] = {
    {"show", "nsm", "The link to the network services manager, and what it was asked for"},
};

}  // namespace

int nsm_client_cli_init(lib_globals* ctx) {
    return cli_install(ctx->ctree, EXEC_MODE, &SHOW_NSM) |
           cli_install_help(ctx->ctree, help_texts, std::size(help_texts));
}
