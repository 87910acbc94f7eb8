// Commands about the terminals themselves: password, idle limit, pages, log lines on the screen.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "suite/host/state.h"
#include "suite/log/log.h"
#include "suite/terminal/session.h"

namespace {

void keep_password(host_state* host, const char* hash) {
    std::snprintf(host->password, sizeof host->password, "%s", hash);
}

// The hash is there. Its session may be gone; the command counts all the same.
void on_hashed(lib_globals* ctx, void* owner, const char* hash) {
    auto* s = static_cast<session*>(owner);
    if (hash) keep_password(ctx->host, hash);
    if (!hash && s) session_write(s, "% The password can't be hashed\n");
    if (!hash && !s) log_suite(LOG_LEVEL_ERROR, "the password can't be hashed");
    if (s) session_finish(s, hash != nullptr);
}

int password(cli* session, int, char** argv) {
    host_state* host = host_of(session);
    if (!password_supported()) return host_refuse(session, "This build has no password check");
    if (std::strlen(argv[0]) > PASSWORD_MAX) return host_refuse(session, "Password too long");
    if (session->line) {
        struct session* s = session_of(session);
        s->busy = password_start(session->zg, argv[0], nullptr, on_hashed, s) != nullptr;
        return s->busy ? CLI_SUCCESS : host_refuse(session, "The password can't be hashed");
    }
    char hash[PASSWORD_HASH_SIZE];
    if (!password_hash_now(argv[0], hash)) return host_refuse(session, "The password can't be hashed");
    keep_password(host, hash);
    return CLI_SUCCESS;
}

int password_encrypted(cli* session, int, char** argv) {
    if (!password_is_hash(argv[0])) return host_refuse(session, "Not the hash of a password");
    keep_password(host_of(session), argv[0]);
    return CLI_SUCCESS;
}

int no_password(cli* session, int, char**) {
    host_of(session)->password[0] = 0;
    return CLI_SUCCESS;
}

int exec_timeout(cli* session, int, char** argv) {
    host_of(session)->exec_timeout_s = static_cast<std::uint32_t>(std::strtoul(argv[0], nullptr, 10)) * 60;
    sessions_rearm(host_of(session)->sessions);
    return CLI_SUCCESS;
}

int no_exec_timeout(cli* session, int, char**) {
    host_of(session)->exec_timeout_s = HOST_DEFAULT_EXEC_TIMEOUT_S;
    sessions_rearm(host_of(session)->sessions);
    return CLI_SUCCESS;
}

int terminal_length(cli* session, int, char** argv) {
    session_of(session)->page_length = static_cast<std::int32_t>(std::strtol(argv[0], nullptr, 10));
    return CLI_SUCCESS;
}

int terminal_monitor(cli* session, int, char**) {
    if (session_monitor(session_of(session), true)) return CLI_SUCCESS;
    return host_refuse(session, "Too many terminals show the log");
}

int no_terminal_monitor(cli* session, int, char**) {
    (void)session_monitor(session_of(session), false);  // taking it away can't fail
    return CLI_SUCCESS;
}

const cli_element config_commands[] = {
    {"password WORD", password},          {"password encrypted WORD", password_encrypted},
    {"no password", no_password},         {"exec-timeout <0-35791>", exec_timeout},
    {"no exec-timeout", no_exec_timeout},
};

const cli_element terminal_commands[] = {
    {"terminal length <0-512>", terminal_length},
    {"terminal monitor", terminal_monitor},
    {"no terminal monitor", no_terminal_monitor},
};

const cli_help help_texts[] = {
    {"", "exec-timeout", "Minutes after which an idle terminal is closed (default 10)"},
    {"exec-timeout", "<0-35791>", "Minutes; 0: never"},
    {"", "password", "Password of the TCP terminal"},
    {"password", "WORD", "The password; its hash is kept"},
    {"password", "encrypted", "Give the hash itself"},
    {"password encrypted", "WORD", "Hash, as the running configuration shows it"},
    {"", "terminal", "Settings of this terminal"},
    {"terminal", "length", "Lines of a page (default: the window)"},
    {"terminal length", "<0-512>", "Lines; 0: no pages"},
    {"terminal", "monitor", "Show log messages here"},
};

}  // namespace

void host_terminal_write(const host_state* host, cli* session) {
    if (host->password[0]) session->out_func(session->out_val, "password encrypted %s\n", host->password);
    if (host->exec_timeout_s != HOST_DEFAULT_EXEC_TIMEOUT_S)
        session->out_func(session->out_val, "exec-timeout %u\n", host->exec_timeout_s / 60);
}

int host_terminal_install(cli_tree* tree) {
    int result = 0;
    for (const cli_element& element : config_commands)
        result |= cli_install_gen(tree, CONFIG_MODE, PRIVILEGE_MAX, 0, &element);
    for (const cli_element& element : terminal_commands)
        result |= cli_install_gen(tree, EXEC_MODE, PRIVILEGE_NORMAL, CLI_FLAG_INTERACTIVE, &element);
    return result | cli_install_help(tree, help_texts, std::size(help_texts));
}
