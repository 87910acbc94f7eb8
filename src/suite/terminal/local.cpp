// The local terminal socket: who may open its file may configure.
#include <cstring>

#include "suite/log/log.h"
#include "suite/terminal/session.h"
#include "suite/terminal/terminal.h"

namespace {

void on_connection(void* arg, int fd, const sockaddr_storage&) {
    session* s = session_create(static_cast<terminal_state*>(arg)->ctx, fd, session_kind::local);
    if (!s) return;
    std::strcpy(s->peer, "local");
    session_settle(s);
}

}  // namespace

int local_terminal_start(terminal_state* terminals, const char* path) {
    const int result =
        listener_start_unix(&terminals->local, terminals->ctx, path, SOCK_STREAM, on_connection, terminals);
    if (result == 0) return 0;
    log_suite(LOG_LEVEL_ERROR, "local terminal %s: %s", path, std::strerror(-result));
    return -1;
}

void local_terminal_stop(terminal_state* terminals) {
    listener_stop(&terminals->local);
}
