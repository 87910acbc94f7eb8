// The NSM client's record and what its files call of each other. Private to the NSM client.
#pragma once

#include "suite/base/octets.h"
#include "suite/log/limit.h"
#include "suite/manager/client.h"

struct thread;

// What a peer can do wrong. Each kind is logged once a minute at most.
enum class nsm_client_fault : std::uint8_t {
    length,      // length field against the packet
    type,        // unknown, or of the other direction
    body,        // shorter than its type asks
    order,       // not where the session is
    second_ack,  // HELLO_ACK on a link that has been accepted
    interface,   // index or name that can't be used
    refused,     // HELLO_ACK with another status than 0
    memory,      // ours, not the peer's: a message that could not be taken
    COUNT,
};

// Session on one link.
enum class nsm_client_phase : std::uint8_t {
    down,          // no link
    greeting,      // HELLO to be sent, or sent and not answered
    dump,          // accepted; what is known is being compared
    synchronised,  // SYNC_DONE seen
};

// A request as it goes out: type and one to three words. The list is in the order in which requests were
// last made, with one entry a type (and a port, for the gephy role).
struct nsm_client_request {
    std::uint16_t type;
    std::uint16_t words;
    std::uint32_t word[3];
    bool pending;  // to be sent on this link
};

struct nsm_client {
    lib_globals* ctx;
    std::uint16_t version, protocol_id;
    std::uint32_t service_mask;
    nsm_callback on_bridge, on_clock_state, on_detail;
    void (*on_synchronised)();

    int fd;  // -1 while there is no link
    nsm_client_phase phase;
    bool handling;     // inside a message: a stop is put off to its end
    bool stopped;      // stop was called meanwhile
    bool outage_said;  // the server's absence has been logged
    bool hello_sent;
    bool refused;  // the server's answer to HELLO: the link is to be closed
    thread *read, *write, *retry;
    std::uint32_t next_sequence;

    // Dump: the indexes that were mentioned since HELLO_ACK.
    std::uint32_t* mentioned;
    std::size_t mentioned_count, mentioned_room;
    bool mention_lost;  // one could not be noted: nothing is taken for gone this time

    // Last of each, to tell after a reconnection what did not change.
    bool have_bridge, have_clock_state;
    bool bridge_seen, clock_state_seen, detail_seen;  // on this link
    nsm_bridge_message bridge;
    nsm_clock_state_message clock_state;

    nsm_client_request* requests;
    std::size_t request_count, request_room;

    log_limit faults[static_cast<std::size_t>(nsm_client_fault::COUNT)];
    nsm_client_stats stats;
};

// client.cpp
// Counts a fault and logs it, unless its kind was logged less than a minute ago.
void nsm_client_fault_seen(nsm_client* nc, nsm_client_fault kind, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
// Sends one message on the open link. Negative errno on failure.
int nsm_client_send(nsm_client* nc, std::uint16_t type, const std::uint32_t* words, std::size_t count);
void nsm_client_want_write(nsm_client* nc);

// interfaces.cpp; `body` is as long as its type asks, or longer.
void nsm_client_link_add(nsm_client* nc, const_octets body);
void nsm_client_link_delete(nsm_client* nc, const_octets body);
void nsm_client_link_updown(nsm_client* nc, const_octets body, bool up);
void nsm_client_dump_begin(nsm_client* nc);
void nsm_client_dump_end(nsm_client* nc);  // what was not mentioned goes

// requests.cpp
bool nsm_client_requests_init(nsm_client* nc);
void nsm_client_requests_free(nsm_client* nc);
void nsm_client_requests_restate(nsm_client* nc);  // marks all that still make sense and begins to send
void nsm_client_requests_flush(nsm_client* nc);    // sends what is pending, as far as the link takes it
void nsm_client_requests_port_gone(nsm_client* nc, std::uint32_t ifindex);
