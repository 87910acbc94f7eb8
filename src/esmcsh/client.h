// The shell's end of the local terminal socket. suite/terminal/wire.h says what goes over it.
#pragma once

#include <string_view>

// Exit statuses of the shell.
enum shell_status : int {
    SHELL_OK = 0,
    SHELL_LINE_FAILED = 1,
    SHELL_UNREACHABLE = 2,
};

// A connected descriptor, or negative: said on standard error.
int client_connect(const char* path);
// Sends everything. False when the daemon is gone.
bool client_send(int fd, std::string_view data);
// Writes everything; ends the shell when standard output is gone.
void client_print(std::string_view data);
void client_lost();  // says on standard error that the connection is gone

// Runs one line of a batch session and prints what it prints. `ended` is set when the line ended the session.
shell_status client_run(int fd, std::string_view line, bool* ended);

// Lines of standard input, one after another.
shell_status client_run_input(int fd);

// A terminal session until either side ends it.
shell_status client_interactive(int fd);
