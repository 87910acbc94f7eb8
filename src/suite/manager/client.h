// Client side of the link to the network services manager (NSM): connects, keeps the interface list and calls
// its hooks, hands messages to callbacks, sends the five requests, and restates the last of each kind after a
// dump. Never blocks; a server that is not there is tried again at least once a second.
#pragma once

#include <cstdint>

#include "suite/base/context.h"
#include "suite/manager/wire.h"

struct nsm_client;

// Message callbacks. Only `message`, the decoded record, is of use; it lives until the callback returns.
using nsm_callback = int (*)(void* header, void* client, void* message);

// Decoded records.
struct nsm_bridge_message {  // NSM_MSG_BRIDGE_ADD; the address lies at octets 24 to 29
    char name[16];
    std::uint32_t kind;
    std::uint32_t id;
    std::uint8_t mac[6];
    std::uint8_t zero[2];
};
struct nsm_clock_state_message {  // NSM_MSG_SSM_SEND_BACK_CLOCK_STATE
    std::uint32_t state;
    std::uint32_t source;
};

struct nsm_clock_detail {  // NSM_MSG_SSM_CLOCK_DETAIL; fields and bits as in wire.h
    std::uint32_t subject;
    std::uint32_t known;
    std::uint32_t error;
    std::uint32_t quality;
    std::uint32_t state;
    std::int64_t offset_ppt;
    std::uint64_t frequency_mhz;
    char label[nsm_detail_body::LABEL_SIZE + 1];  // ends in a zero
};

// Requests: 32-bit words in host order; the client encodes them.
struct nsm_ssm_global_enable {
    std::uint32_t enable;
};
struct nsm_ssm_clock_recovery_select {
    std::uint32_t select;
};
struct nsm_ssm_holdover_enable {
    std::uint32_t value;
};
struct nsm_ssm_selected_if_index {
    std::uint32_t ifindex;
    std::uint32_t reserved;
};
struct nsm_ssm_gephy_role {
    std::uint32_t ifindex;
    std::uint32_t role_enable;
    std::uint32_t role;
};

nsm_client* nsm_client_create(lib_globals* ctx, std::uint32_t debug);  // null when exhausted
void nsm_client_set_version(nsm_client* nc, std::uint16_t version);
void nsm_client_set_protocol(nsm_client* nc, std::uint16_t protocol_id);
void nsm_client_set_service(nsm_client* nc, std::uint32_t service_mask);
// For NSM_MSG_BRIDGE_ADD, NSM_MSG_SSM_SEND_BACK_CLOCK_STATE and NSM_MSG_SSM_CLOCK_DETAIL; -1 for any other
// type. The last is called with a null message when a dump ended in which no detail was told.
int nsm_client_set_callback(nsm_client* nc, std::int32_t message_type, nsm_callback callback);
// Called when all of a dump has been taken, before the requests are stated again.
void nsm_client_set_synchronised(nsm_client* nc, void (*callback)());
// Begins to connect. A server that can't be reached is not a failure; negative only when no event could be
// added.
int nsm_client_start(nsm_client* nc);
// Closes, cancels, frees; null is ignored. From inside a hook or callback it takes effect when that returns.
void nsm_client_stop(nsm_client* nc);
// The same without a goodbye: the server waits for who takes over.
void nsm_client_leave(nsm_client* nc);

// 0 when handed to the kernel; negative when not sent (then kept, and stated after the next SYNC_DONE).
int nsm_client_send_ssm_global_enable(nsm_client* nc, nsm_ssm_global_enable request);
int nsm_client_send_ssm_clock_recovery_select(nsm_client* nc, nsm_ssm_clock_recovery_select request);
int nsm_client_send_ssm_holdover_enable(nsm_client* nc, nsm_ssm_holdover_enable request);
int nsm_client_send_ssm_selected_if_index(nsm_client* nc, nsm_ssm_selected_if_index request);
int nsm_client_send_ssm_set_gephy_role(nsm_client* nc, nsm_ssm_gephy_role request);

// The one place where the link is opened: returns a connected (or connecting), non-blocking descriptor, or a
// negative errno. Tests replace it by one that hands out a socket pair. Null restores the real one.
using nsm_link_open = int (*)();
void nsm_client_set_link_open(nsm_link_open open_link);

// Tests and scenario harnesses: takes a message (`length` octets, header included) as if it had come from the
// link in its session state; without a link, as if the session were open.
void nsm_client_deliver(nsm_client* nc, const void* message, std::size_t length);

struct nsm_client_stats {
    bool connected;     // link open
    bool synchronised;  // SYNC_DONE seen on this link
    std::uint64_t connects, messages_in, messages_out, dropped, requests_kept;
};
nsm_client_stats nsm_client_get_stats(const nsm_client* nc);
