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

int try_listen(terminal_state* terminals);

int try_again(thread* event) {
    auto* terminals = static_cast<terminal_state*>(event->arg);
    retry_begin(&terminals->local_retry);
    return try_listen(terminals);
}

int try_listen(terminal_state* terminals) {
    retry* again = &terminals->local_retry;
    const int result = listener_start_unix(&terminals->local, terminals->ctx, terminals->local_path,
                                           SOCK_STREAM, on_connection, terminals);
    if (result == 0) {
        if (again->delay_ms) log_suite(LOG_LEVEL_INFO, "local terminal %s: open now", terminals->local_path);
        retry_stop(again);
        return 0;
    }
    if (!again->delay_ms)
        log_suite(LOG_LEVEL_ERROR, "local terminal %s: %s; trying again", terminals->local_path,
                  std::strerror(-result));
    retry_later(again, terminals->ctx, try_again, terminals);
    return -1;
}

}  // namespace

int local_terminal_start(terminal_state* terminals, const char* path) {
    terminals->local_path = path;
    return try_listen(terminals);
}

void local_terminal_stop(terminal_state* terminals) {
    retry_stop(&terminals->local_retry);
    listener_stop(&terminals->local);
}
