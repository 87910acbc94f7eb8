// The process from its start to its end: the ordered start-up, the daemon-instance record, the event loop,
// the end.
#pragma once

#include <cstdint>

struct lib_globals;
struct rights_user;

constexpr const char* SSM_PID_FILE = "/var/run/esmcd.pid";
constexpr const char* SSM_LOCK_FILE = "/var/run/esmcd.lock";  // see suite/process/single.h

// Brings the daemon up and runs the event loop. 0 when the loop has run dry; a negative result code when
// start-up failed (there is no pid file then). `config_file` null: the platform's default. Only the low 16
// bits of `vty_port` count. `user` is whom to run as once everything that needs root is open; null: whoever
// started the daemon. A user who can't be taken on is a failure.
std::int32_t ssm_start(bool daemon_mode, const char* config_file, std::int32_t vty_port, const char* progname,
                       const rights_user* user = nullptr);

// Makes the instance record, opens the socket, starts the NSM client. 0; -100 without memory; -1 when the
// socket or the client failed (said on standard error). The record stays in any case.
std::int32_t ssm_instance_create(lib_globals* ctx);

// Work at the end of the process: pid file and library. 0.
std::int32_t ssm_terminate();
