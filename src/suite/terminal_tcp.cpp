#include "suite/terminal_tcp.h"
#include "suite/terminal.h"
void tcp_terminal_start(host_state*) {}
void tcp_terminal_stop(host_state*) {}
void tcp_password_line(session*, std::string_view) {}
