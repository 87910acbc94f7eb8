// Commands about the terminals themselves: name in the prompt, password, idle limit, pages, log lines on the
// screen.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "suite/command/tree.h"
#include "suite/log/log.h"
#include "suite/terminal/session.h"
#include "suite/terminal/terminal.h"

namespace {

terminal_state* terminals_of(const cli* terminal) {
    return terminal->zg->terminals;
}

int hostname(cli* terminal, int, char** argv) {
    terminal_state* terminals = terminals_of(terminal);
    if (std::strlen(argv[0]) >= sizeof terminals->host_name) return cli_refuse(terminal, "Name too long");
    std::snprintf(terminals->host_name, sizeof terminals->host_name, "%s", argv[0]);
    return CLI_SUCCESS;
}

int no_hostname(cli* terminal, int, char**) {
    terminals_of(terminal)->host_name[0] = 0;
    return CLI_SUCCESS;
}

void keep_password(terminal_state* terminals, const char* hash) {
    std::snprintf(terminals->password, sizeof terminals->password, "%s", hash);
}

void on_hashed(lib_globals* ctx, void* owner, const char* hash) {
    auto* s = static_cast<session*>(owner);
    if (hash) keep_password(ctx->terminals, hash);
    if (!hash) session_write(s, "% The password can't be hashed\n");
    session_finish(s, hash != nullptr);
}

int password(cli* terminal, int, char** argv) {
    terminal_state* terminals = terminals_of(terminal);
    if (!password_supported()) return cli_refuse(terminal, "This build has no password check");
    if (std::strlen(argv[0]) > PASSWORD_MAX) return cli_refuse(terminal, "Password too long");
    if (terminal->line) {
        session* s = session_of(terminal);
        s->busy = password_start(terminal->zg, argv[0], nullptr, on_hashed, s);
        return s->busy ? CLI_SUCCESS : cli_refuse(terminal, "The password can't be hashed");
    }
    char hash[PASSWORD_HASH_SIZE];
    if (!password_hash_now(argv[0], hash)) return cli_refuse(terminal, "The password can't be hashed");
    keep_password(terminals, hash);
    return CLI_SUCCESS;
}

int password_encrypted(cli* terminal, int, char** argv) {
    if (!password_is_hash(argv[0])) return cli_refuse(terminal, "Not the hash of a password");
    keep_password(terminals_of(terminal), argv[0]);
    return CLI_SUCCESS;
}

int no_password(cli* terminal, int, char**) {
    terminals_of(terminal)->password[0] = 0;
    return CLI_SUCCESS;
}

int exec_timeout(cli* terminal, int, char** argv) {
    terminals_of(terminal)->exec_timeout_s =
        static_cast<std::uint32_t>(std::strtoul(argv[0], nullptr, 10)) * 60;
    sessions_rearm(terminals_of(terminal)->sessions);
    return CLI_SUCCESS;
}

int no_exec_timeout(cli* terminal, int, char**) {
    terminals_of(terminal)->exec_timeout_s = DEFAULT_EXEC_TIMEOUT_S;
    sessions_rearm(terminals_of(terminal)->sessions);
    return CLI_SUCCESS;
}

int terminal_length(cli* terminal, int, char** argv) {
    session_of(terminal)->page_length = static_cast<std::int32_t>(std::strtol(argv[0], nullptr, 10));
    return CLI_SUCCESS;
}

int terminal_monitor(cli* terminal, int, char**) {
    if (session_of(terminal)->stage == session_stage::batch)
        return cli_refuse(terminal, "A script's session can't show the log");
    if (session_monitor(session_of(terminal), true)) return CLI_SUCCESS;
    return cli_refuse(terminal, "Too many terminals show the log");
}

int no_terminal_monitor(cli* terminal, int, char**) {
    (void)session_monitor(session_of(terminal), false);  // taking it away can't fail
    return CLI_SUCCESS;
}

const cli_element config_commands[] = {
    {"hostname WORD", hostname},          {"no hostname", no_hostname},
    {"password SECRET", password},        {"password encrypted SECRET", password_encrypted},
    {"no password", no_password},         {"exec-timeout <0-35791>", exec_timeout},
    {"no exec-timeout", no_exec_timeout},
};

const cli_element terminal_commands[] = {
    {"terminal length <0-512>", terminal_length},
    {"terminal monitor", terminal_monitor},
    {"no terminal monitor", no_terminal_monitor},
};

const cli_help help_texts[] = {
    {"", "hostname", "Name of this switch in the prompt"},
    {"hostname", "WORD", "Name, at most 63 octets"},
    {"", "exec-timeout", "Minutes after which an idle terminal is closed (default 10)"},
    {"exec-timeout", "<0-35791>", "Minutes; 0: never"},
    {"", "password", "Password of the TCP terminal"},
    {"password", "SECRET", "The password; its hash is kept"},
    {"password", "encrypted", "Give the hash itself"},
    {"password encrypted", "SECRET", "Hash, as the running configuration shows it"},
    {"", "terminal", "Settings of this terminal"},
    {"terminal", "length", "Lines of a page (default: the window)"},
    {"terminal length", "<0-512>", "Lines; 0: no pages"},
    {"terminal", "monitor", "Show log messages here"},
};

}  // namespace

void terminals_write(cli* terminal) {
    const terminal_state* terminals = terminals_of(terminal);
    if (terminals->host_name[0]) terminal->out_func(terminal->out_val, "hostname %s\n", terminals->host_name);
    if (terminals->password[0])
        terminal->out_func(terminal->out_val, "password encrypted %s\n", terminals->password);
    if (terminals->exec_timeout_s != DEFAULT_EXEC_TIMEOUT_S)
        terminal->out_func(terminal->out_val, "exec-timeout %u\n", terminals->exec_timeout_s / 60);
}

int terminals_install(cli_tree* tree) {
    int result = 0;
    tree->before_refusal = session_explain;
    for (const cli_element& element : config_commands)
        result |= cli_install_gen(tree, CONFIG_MODE, PRIVILEGE_MAX, 0, &element);
    for (const cli_element& element : terminal_commands)
        result |= cli_install_gen(tree, EXEC_MODE, PRIVILEGE_NORMAL, CLI_FLAG_INTERACTIVE, &element);
    return result | cli_install_help(tree, help_texts, std::size(help_texts));
}
