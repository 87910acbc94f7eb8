// The sub-agent's record and what its files call of each other. Private to the sub-agent.
//
//   register.cpp  modules, and the checks that their handlers share
//   codec.cpp     octets
//   lookup.cpp    which object a name means, and which comes next
//   answer.cpp    Get, GetNext, GetBulk
//   set.cpp       TestSet, CommitSet, UndoSet, CleanupSet
//   agent.cpp     session with the master
//   link.cpp      opens the link
//   notify.cpp    notifications
//
// Its commands are in suite/parts/snmp_commands.cpp.
#pragma once

#include "suite/agentx/codec.h"
#include "suite/agentx/snmp.h"
#include "suite/base/clock.h"

struct thread;

constexpr std::size_t SNMP_BASE_MAX = 16;
constexpr std::size_t SNMP_ROOT_SIZE = 6;  // 1.3.6.1.4.1

struct snmp_module {
    snmp_module* next;  // in the order of registration
    const char* name;   // the caller's
    const snmp_variable* variables;
    std::size_t entry_count;
    snmp_oid root_id[SNMP_ROOT_SIZE + SNMP_BASE_MAX];
    std::size_t root_length;
    agentx_name root() const { return {root_id, root_length}; }
};

// Where the master is.
struct agentx_target {
    bool tcp;
    char path[108];  // as long as a Unix socket's address takes
    char host[46];   // numeric
    std::uint16_t port;
};
// More than this is not put behind output that waits already.
constexpr std::size_t AGENTX_OUTPUT_ENOUGH = 64 * 1024;
constexpr const char* AGENTX_DEFAULT_PATH = "/var/agentx/master";

enum class agentx_phase : std::uint8_t { down, connecting, opening, registering, serving };

// An object that a SET has changed, with what puts it back. Its name and its old value follow the record.
struct agentx_change {
    agentx_change* next;  // what was changed before it
    const snmp_variable* variable;
    snmp_write_handler write;
    std::size_t name_length, old_length;
    snmp_oid* name() { return reinterpret_cast<snmp_oid*>(this + 1); }
    std::uint8_t* old_value() { return reinterpret_cast<std::uint8_t*>(name() + name_length); }
};

enum class agentx_set_state : std::uint8_t { unused, tested, committed, over };

struct agentx_transaction {
    agentx_set_state state;
    std::uint32_t id, packet;    // packet of its TestSet
    std::uint16_t error, index;  // the answer to it
    std::uint64_t order;
    agentx_change* changes;  // the last first
};
constexpr std::size_t AGENTX_TRANSACTIONS = 4;

struct agentx_sent_notification {
    bool used;
    std::uint32_t packet, tag;
    snmp_notify_done done;
};
constexpr std::size_t AGENTX_NOTIFICATIONS = 32;

struct agentx_stats {
    std::uint64_t connects, drops, pdus_in, requests, sets, sets_undone, notifications, malformed;
};

struct snmp_agent {
    lib_globals* ctx;
    snmp_module* modules;
    agentx_target target;

    agentx_phase phase;
    int fd;  // -1 while there is no link
    thread *read, *write, *timer;
    nanoseconds timer_due;
    bool more_input;  // a whole PDU waits in `in`
    text_buffer in, out;
    std::uint32_t session, next_packet;
    std::int64_t up_time_ahead;      // of the loop's clock, in ns: as the master said when the session began
    std::uint32_t awaited;           // packet of the Open or Register that is under way
    const snmp_module* registering;  // the module whose registration is under way
    nanoseconds step_started;        // of the phase
    nanoseconds heard;               // last octet from the master
    nanoseconds stalled_since;       // when output last moved, while there is some
    std::uint32_t unanswered;        // pings and notifications
    nanoseconds unanswered_since;
    std::uint32_t delay_ms;  // until the next try
    bool outage_said;
    char last_error[96];

    agentx_transaction transactions[AGENTX_TRANSACTIONS];
    std::uint64_t transaction_order;

    bool notifications_on;
    snmp_notifier notifier;
    thread* check;
    agentx_sent_notification sent[AGENTX_NOTIFICATIONS];

    agentx_stats stats;
};

// lookup.cpp. A name that was found, below its module's root, with the value that its handler gave.
struct agentx_found {
    const snmp_module* module;
    const snmp_variable* variable;
    agentx_oid name;
    const void* value;  // null: the object has no such instance
    std::size_t value_length;
    snmp_write_handler write;
};
// 0, AGENTX_NO_SUCH_OBJECT or AGENTX_NO_SUCH_INSTANCE; in the last case `write` is what the handler offered.
std::uint16_t agentx_find(const snmp_agent* agent, const agentx_oid* name, agentx_found* found);
// The first instance behind `start` (or at it, with its `include`) and before `end` (null name: no end).
bool agentx_find_next(const snmp_agent* agent, const agentx_oid* start, const agentx_oid* end,
                      agentx_found* found);
// The name of what was found, whole.
void agentx_full_name(const agentx_found* found, agentx_oid* name);

// answer.cpp. Answers one request into the writer's buffer. False when the payload can't be read or
// memory is exhausted: the session is of no use any more.
[[nodiscard]] bool agentx_answer(snmp_agent* agent, const agentx_header& header, const_octets payload,
                                 text_buffer* out);
// An answer without variables.
[[nodiscard]] bool agentx_answer_status(const agentx_header& header, std::uint16_t error, std::uint16_t index,
                                        text_buffer* out);

// set.cpp. The answer's error, and the variable that it is about (from 1).
struct agentx_set_result {
    bool readable;  // the payload
    std::uint16_t error, index;
};
agentx_set_result agentx_test_set(snmp_agent* agent, const agentx_header& header, agentx_reader* payload);
std::uint16_t agentx_commit_set(snmp_agent* agent, const agentx_header& header);
std::uint16_t agentx_undo_set(snmp_agent* agent, const agentx_header& header);
void agentx_cleanup_set(snmp_agent* agent, const agentx_header& header);
void agentx_sets_end(snmp_agent* agent);  // the link is gone: what was not committed is put back

// agent.cpp
void agentx_connect_soon(snmp_agent* agent);                       // at the next turn of the loop
void agentx_restart(snmp_agent* agent);                            // the target was changed
void agentx_drop(snmp_agent* agent, const char* why);              // and try again later
void agentx_close(snmp_agent* agent, agentx_close_reason reason);  // says good-bye, if it can be said at once
// Sends what agentx_begin and the put functions made; counts it as a request to be answered.
void agentx_request_sent(snmp_agent* agent);
void agentx_flush(snmp_agent* agent);
agentx_header agentx_new_request(snmp_agent* agent, agentx_type type);

// notify.cpp
void agentx_notify_answered(snmp_agent* agent, std::uint32_t packet, std::uint16_t error);
void agentx_notify_lost(snmp_agent* agent);  // the link is gone
void agentx_notify_switch(snmp_agent* agent, bool on);
void agentx_notify_end(snmp_agent* agent);

// link.cpp
using agentx_link_open = int (*)(const agentx_target*);
// A descriptor that becomes writable when the connection is made or has failed, or a negative errno.
int agentx_link_open_real(const agentx_target* target);
void agentx_set_link_open(agentx_link_open open);  // tests; null: the real one
// Takes "localhost" and numeric addresses; false for anything else.
[[nodiscard]] bool agentx_set_tcp(agentx_target* target, const char* host, std::uint16_t port);
[[nodiscard]] bool agentx_set_unix(agentx_target* target, const char* path);
