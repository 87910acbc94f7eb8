// What the process needs from the system beside the loop: daemon mode, signal dispositions, and the two
// printers that work when the log does not.
#pragma once

#include <csignal>
#include <cstdint>

using pal_signal_handler = void (*)(int);

// Leaves the terminal: the parent exits with status 0, the child goes on in a session of its own, in "/" with
// its standard streams on /dev/null unless the flags say to keep them. 0, or -1 with the reason on standard
// error: when the fork failed in the process as it was, when the new session failed in the child.
std::int32_t pal_daemonize(std::uint16_t keep_directory, std::uint16_t keep_streams);

// Empty mask, SA_RESTART. Returns the previous handler, or SIG_ERR.
pal_signal_handler pal_signal_set(int number, pal_signal_handler handler);
// The platform's dispositions; the daemon's own replace two of them afterwards.
void pal_signal_init();
// Handlers. They leave a note and wake the loop; pal_signal_report says it on the console.
void pal_sigxcpu(int number);
void pal_sigxfsz(int number);
// Says what the handlers noted, each once. From the loop and between the steps of start-up.
void pal_signal_report();

// One line on standard error; on the console, which may be missing. Text beyond 1023 octets is cut.
void pal_system_err(const char* format, ...) __attribute__((format(printf, 1, 2)));
void pal_console_log(const char* format, ...) __attribute__((format(printf, 1, 2)));
