// What the service manager that started the process is told: that the start is over, that the event loop
// turns, that the end has begun. It says in the environment where (NOTIFY_SOCKET) and how often
// (WATCHDOG_USEC); without these variables nothing is done.
#pragma once

struct lib_globals;

// The start is over. From here on the loop feeds the manager's watchdog, if it has one for this process.
// Called once, when the rights are what they will be.
void service_ready(lib_globals* ctx);
// The end has begun.
void service_stopping();
