// The library context: one a process, reached by every part of the suite through pointers to what each part
// owns. Made and ended by suite/start/lib.h. The daemon owns nothing in it but what it stores in
// `protocol_id`, `master` and `proto_data`.
#pragma once

#include <cstdint>

struct thread_master;   // loop
struct if_master;       // ports: the interface list
struct nsm_client;      // manager
struct snmp_agent;      // agentx
struct cli_tree;        // command
struct terminal_state;  // terminal: sessions and listeners
struct host_state;      // host: configuration file and lines that wait

constexpr std::uint8_t LIB_SHUTTING_DOWN = 0x01;

struct lib_globals {
    std::uint8_t flags;  // LIB_SHUTTING_DOWN: thread_fetch yields nothing any more
    std::int32_t protocol_id;
    thread_master* master;
    if_master* ifm;
    nsm_client* nsm;
    snmp_agent* snmp;
    cli_tree* ctree;
    terminal_state* terminals;
    host_state* host;
    void* proto_data;  // the protocol's own record
};

inline const char* lib_version() {
    return ESMC_VERSION;  // "X"
}
