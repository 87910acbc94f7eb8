// The sub-agent's commands: where the master is, notifications, `show snmp`, and their lines of the running
// configuration, which stand with the platform's own.
#include <cinttypes>
#include <cstring>

#include "suite/agentx/record.h"
#include "suite/command/cli.h"
#include "suite/command/tree.h"
#include "suite/loop/thread.h"
#include "suite/parts/parts.h"

namespace {

snmp_agent* agent_of(cli* terminal) {
    return terminal->zg->snmp;  // as long as its commands are installed
}

bool same_target(const agentx_target& a, const agentx_target& b) {
    if (a.tcp != b.tcp) return false;
    return a.tcp ? a.port == b.port && std::strcmp(a.host, b.host) == 0 : std::strcmp(a.path, b.path) == 0;
}

// Restarts only for another master: a repeated line does no harm.
int use_target(cli* terminal, const agentx_target& target) {
    snmp_agent* agent = agent_of(terminal);
    if (same_target(agent->target, target)) return CLI_SUCCESS;
    agent->target = target;
    agentx_restart(agent);
    return CLI_SUCCESS;
}

int set_unix(cli* terminal, int, char** argv) {
    agentx_target target{};
    if (!agentx_set_unix(&target, argv[0])) return cli_refuse(terminal, "Not a usable absolute path");
    return use_target(terminal, target);
}

int set_tcp(cli* terminal, int, char** argv) {
    agentx_target target{};
    int status = 0;
    const std::int32_t port = cmd_str2int(argv[1], &status);
    if (status < 0 || !agentx_set_tcp(&target, argv[0], static_cast<std::uint16_t>(port)))
        return cli_refuse(terminal, "Not a numeric address or localhost");
    return use_target(terminal, target);
}

int set_default(cli* terminal, int, char**) {
    agentx_target target{};
    (void)agentx_set_unix(&target, AGENTX_DEFAULT_PATH);  // the path is one that fits
    return use_target(terminal, target);
}

int notifications(cli* terminal, int, char**) {
    agentx_notify_switch(agent_of(terminal), true);
    return CLI_SUCCESS;
}

int no_notifications(cli* terminal, int, char**) {
    agentx_notify_switch(agent_of(terminal), false);
    return CLI_SUCCESS;
}

const char* phase_text(agentx_phase phase) {
    switch (phase) {
        case agentx_phase::down:
            break;
        case agentx_phase::connecting:
            return "connecting";
        case agentx_phase::opening:
            return "waiting for the answer to Open";
        case agentx_phase::registering:
            return "waiting for the answer to Register";
        case agentx_phase::serving:
            return "registered";
    }
    return "not connected";
}

void show_master(cli* terminal, const snmp_agent* agent) {
    const agentx_target& t = agent->target;
    if (t.tcp)
        terminal->out_func(terminal->out_val, "  %-14s: tcp %s port %u\n", "Master", t.host,
                           unsigned{t.port});
    else
        terminal->out_func(terminal->out_val, "  %-14s: unix %s\n", "Master", t.path);
}

int show_snmp(cli* terminal, int, char**) {
    const snmp_agent* agent = agent_of(terminal);
    const agentx_stats& s = agent->stats;
    terminal->out_func(terminal->out_val, "SNMP sub-agent: %s\n", phase_text(agent->phase));
    show_master(terminal, agent);
    if (agent->phase == agentx_phase::down && agent->timer)
        terminal->out_func(terminal->out_val, "  %-14s: in %" PRIu32 " ms\n", "Next try",
                           thread_timer_remaining_ms(agent->timer));
    terminal->out_func(terminal->out_val,
                       "  %-14s: %" PRIu64 " connections, %" PRIu64 " sessions lost, %" PRIu64
                       " malformed messages\n",
                       "Link", s.connects, s.drops, s.malformed);
    terminal->out_func(terminal->out_val,
                       "  %-14s: %" PRIu64 " messages received, %" PRIu64 " requests, %" PRIu64
                       " sets, %" PRIu64 " sets taken back\n",
                       "Requests", s.pdus_in, s.requests, s.sets, s.sets_undone);
    terminal->out_func(terminal->out_val, "  %-14s: %s, %" PRIu64 " sent\n", "Notifications",
                       agent->notifications_on ? "enable" : "disable", s.notifications);
    terminal->out_func(terminal->out_val, "  %-14s: %s\n", "Last error",
                       agent->last_error[0] ? agent->last_error : "none");
    return CLI_SUCCESS;
}

int write_config(cli* terminal) {
    const snmp_agent* agent = agent_of(terminal);
    if (!agent) return 0;
    const agentx_target& t = agent->target;
    if (t.tcp)
        terminal->out_func(terminal->out_val, "snmp agentx tcp %s %u\n", t.host, unsigned{t.port});
    else if (std::strcmp(t.path, AGENTX_DEFAULT_PATH) != 0)
        terminal->out_func(terminal->out_val, "snmp agentx unix %s\n", t.path);
    if (agent->notifications_on) terminal->out_func(terminal->out_val, "snmp notifications\n");
    return 0;
}

const cli_element SHOW = {"show snmp", show_snmp};
const cli_element CONFIG[] = {
    {"snmp agentx unix PATH", set_unix},
    {"snmp agentx tcp WORD <1-65535>", set_tcp},
    {"no snmp agentx", set_default},
    {"snmp notifications", notifications},
    {"no snmp notifications", no_notifications},
};

const cli_help help_texts[] = {
    {"", "snmp", "SNMP sub-agent"},
    {"show", "snmp", "State of the SNMP sub-agent"},
    {"snmp", "agentx", "Where the AgentX master is"},
    {"no snmp", "agentx", "The master is at /var/agentx/master again"},
    {"snmp agentx", "unix", "A Unix socket"},
    {"snmp agentx unix", "PATH", "Absolute path of the socket"},
    {"snmp agentx", "tcp", "A TCP port"},
    {"snmp agentx tcp", "WORD", "Numeric address, or localhost"},
    {"", "<1-65535>", "Port number"},
    {"snmp", "notifications", "Tell the master's receivers of changes"},
    {"no snmp", "notifications", "Tell nobody of changes"},
};

}  // namespace

int agentx_cli_init(lib_globals* ctx) {
    int result = cli_install(ctx->ctree, EXEC_MODE, &SHOW);
    for (const cli_element& element : CONFIG)
        result |= cli_install_gen(ctx->ctree, CONFIG_MODE, PRIVILEGE_MAX, 0, &element);
    result |= cli_install_config(ctx->ctree, CLI_WRITERS_FIRST, write_config);
    return result | cli_install_help(ctx->ctree, help_texts, std::size(help_texts));
}
