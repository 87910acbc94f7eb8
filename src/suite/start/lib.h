// The library context: one a process, reached by every part of the suite. The daemon owns nothing in it but
// what it stores in `protocol_id`, `master` and `proto_data`.
#pragma once

#include <cstdint>

#include "suite/ports/interface.h"

struct thread_master;
struct cli_tree;
struct host_state;  // suite/host/host.cpp: configuration file, sessions
struct snmp_agent;  // suite/agentx/agent.cpp

constexpr std::uint8_t LIB_SHUTTING_DOWN = 0x01;

struct lib_globals {
    std::uint8_t flags;  // LIB_SHUTTING_DOWN: thread_fetch yields nothing any more
    std::int32_t protocol_id;
    thread_master* master;
    if_master ifm;
    cli_tree* ctree;
    host_state* host;
    snmp_agent* snmp;
    void* proto_data;  // the protocol's own record
};

// Null when memory is exhausted.
lib_globals* lib_create(const char* name);
// Prepares logging, interface list and CLI tree. Negative on failure.
int lib_start(lib_globals* ctx);
// Closes terminals, sub-agent, event master, interface list; frees the context. Null is ignored.
void lib_stop(lib_globals* ctx);

// "esmcd version X" and a newline on standard output.
void print_version(const char* progname);
const char* lib_version();  // "X"
