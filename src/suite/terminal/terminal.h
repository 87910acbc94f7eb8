// What all terminals share: their settings, the list of sessions, and the two listeners that sessions come
// from. The configuration file and what waits in it is the host's (suite/host).
#pragma once

#include <cstddef>
#include <cstdint>

#include "suite/base/context.h"
#include "suite/command/cli.h"
#include "suite/loop/retry.h"
#include "suite/process/listener.h"
#include "suite/terminal/password.h"

struct session;
struct tcp_terminal;

constexpr std::size_t HOST_NAME_SIZE = 64;
constexpr std::uint32_t DEFAULT_EXEC_TIMEOUT_S = 600;

struct terminal_state {
    lib_globals* ctx;
    char host_name[HOST_NAME_SIZE];     // in the prompt; empty: the system's name
    char password[PASSWORD_HASH_SIZE];  // hash; empty: none
    std::uint32_t exec_timeout_s;       // 0: never
    session* sessions;
    std::size_t session_count;
    listener local;
    const char* local_path;
    retry local_retry;
    std::uint16_t vty_port;
    tcp_terminal* tcp;
};

int terminals_create(lib_globals* ctx);  // 0, or -1 when memory is exhausted
void terminals_stop(lib_globals* ctx);   // closes listeners and sessions; frees the record
const char* host_name(const lib_globals* ctx);

// exit, end, do and help of a mode. A second call for a mode does nothing.
int cli_install_default(cli_tree* tree, std::int32_t mode);
// hostname, password, exec-timeout, terminal ... and their configuration lines.
int terminals_install(cli_tree* tree);
void terminals_write(cli* terminal);

// The local socket: mode 0660, at most SESSION_MAX sessions. A socket file that no process answers at is
// replaced; one of a daemon that runs is not. 0, or -1 (logged): it is tried again then. `path` outlives it.
int local_terminal_start(terminal_state* terminals, const char* path);
void local_terminal_stop(terminal_state* terminals);

// The TCP terminal on terminals->vty_port of 127.0.0.1 and ::1. What fails is logged and tried again.
void tcp_terminal_start(terminal_state* terminals);
void tcp_terminal_stop(terminal_state* terminals);
