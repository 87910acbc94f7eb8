// The NSM server: sessions and their messages. Owns the list of clients and the listening socket. Everything
// a client sends is untrusted: what is malformed is dropped and said, each kind of fault once a minute at
// most.
#include "nsmd/server/server.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>

#include "suite/base/memory.h"
#include "suite/log/log.h"
#include "suite/loop/thread.h"
#include "suite/ports/interface.h"
#include "suite/process/listener.h"

namespace {

constexpr std::uint32_t PEERS_MAX = 16;

enum class fault {
    too_long,
    bad_header,
    bad_length,
    unknown_type,
    short_body,
    no_hello,
    second_hello,
    count
};

constexpr const char* FAULT_TEXTS[] = {
    "message too long",
    "message shorter than a header",
    "length field differs from the packet",
    "unknown message type",
    "body too short",
    "message before HELLO",
    "HELLO a second time",
};
static_assert(std::size(FAULT_TEXTS) == static_cast<std::size_t>(fault::count));

}  // namespace

struct nsmd_server {
    lib_globals* ctx;
    nsmd_server_sink sink;
    listener entrance;
    nsmd_peer* peers;
    std::uint32_t greeted;
    std::uint64_t accepted, dropped;
    log_limit faults[static_cast<std::size_t>(fault::count)];
};

namespace {

void complain(nsmd_server* s, const nsmd_peer* peer, fault kind, unsigned type) {
    ++s->dropped;
    const auto at = static_cast<std::size_t>(kind);
    log_limited(&s->faults[at], thread_now(s->ctx), "client %ld: %s (type %u), dropped",
                static_cast<long>(peer->pid), FAULT_TEXTS[at], type);
}

void broadcast(nsmd_server* s, nsmd_peer* only, std::uint16_t type, const_octets body) {
    if (only) {
        nsmd_peer_send(only, type, body);
        return;
    }
    for (nsmd_peer* p = s->peers; p; p = p->next)
        if (p->greeted) nsmd_peer_send(p, type, body);
}

void send_word(nsmd_server* s, nsmd_peer* peer, std::uint16_t type, std::uint32_t word) {
    std::uint8_t body[4];
    put_be32(body, 0, word);
    broadcast(s, peer, type, body);
}

void take_hello(nsmd_server* s, nsmd_peer* peer, const_octets body) {
    if (peer->greeted) {
        complain(s, peer, fault::second_hello, NSM_MSG_HELLO);
        return;
    }
    const std::uint16_t version = get_be16(body, 0);
    if (version != NSM_LINK_VERSION) {
        log_suite(LOG_LEVEL_WARNING, "client %ld speaks version %u of the link, refused",
                  static_cast<long>(peer->pid), version);
        send_word(s, peer, NSM_MSG_HELLO_ACK, 1);
        nsmd_peer_finish(peer);
        return;
    }
    log_suite(LOG_LEVEL_INFO, "client %ld (protocol %u) connected", static_cast<long>(peer->pid),
              get_be16(body, 2));
    send_word(s, peer, NSM_MSG_HELLO_ACK, 0);
    peer->greeted = true;
    ++s->greeted;
    s->sink.dump(s->sink.arg, peer);
    broadcast(s, peer, NSM_MSG_SYNC_DONE, {});
    s->sink.clients(s->sink.arg, s->greeted, false);
}

void take_status_get(nsmd_server* s, nsmd_peer* peer) {
    constexpr std::size_t piece = NSM_MESSAGE_MAX - NSM_HEADER_SIZE;
    text_buffer text;
    // Cut short where memory runs out: what there is is still worth showing.
    (void)s->sink.status(s->sink.arg, &text);
    const const_octets all{reinterpret_cast<const std::uint8_t*>(text.c_str()), text.length};
    for (std::size_t at = 0; at < all.size(); at += piece)
        broadcast(s, peer, NSMD_MSG_STATUS_TEXT, all.subspan(at, std::min(piece, all.size() - at)));
    broadcast(s, peer, NSMD_MSG_STATUS_TEXT, {});
    text_free(&text);
}

struct message_kind {
    std::uint16_t type;
    std::uint8_t body_size;
    bool before_hello;
    bool is_request;  // words for the owner of the clock
};

constexpr message_kind KINDS[] = {
    {NSM_MSG_HELLO, 8, true, false},
    {NSM_MSG_BYE, 0, false, false},
    {NSMD_MSG_STATUS_GET, 0, true, false},
    {NSM_MSG_SSM_GLOBAL_ENABLE, 4, false, true},
    {NSM_MSG_SSM_CLOCK_RECOVERY_SELECT, 4, false, true},
    {NSM_MSG_SSM_HOLDOVER_ENABLE, 4, false, true},
    {NSM_MSG_SSM_SELECTED_IF_INDEX, 8, false, true},
    {NSM_MSG_SSM_SET_GEPHY_ROLE, 12, false, true},
};

void take_message(nsmd_server* s, nsmd_peer* peer, const message_kind& kind, const_octets body) {
    if (kind.is_request) {
        std::uint32_t words[NSM_REQUEST_WORDS] = {};
        for (std::size_t i = 0; i < kind.body_size / sizeof words[0]; ++i) words[i] = get_be32(body, i * 4);
        s->sink.request(s->sink.arg, kind.type, words);
        return;
    }
    switch (kind.type) {
        case NSM_MSG_HELLO:
            take_hello(s, peer, body);
            break;
        case NSM_MSG_BYE:
            peer->said_bye = true;
            break;
        default:
            take_status_get(s, peer);
            break;
    }
}

void packet_came(void* arg, nsmd_peer* peer, const_octets packet, bool truncated) {
    auto* s = static_cast<nsmd_server*>(arg);
    const unsigned type = packet.size() >= 2 ? get_be16(packet, 0) : 0U;
    if (truncated) return complain(s, peer, fault::too_long, type);
    if (packet.size() < NSM_HEADER_SIZE) return complain(s, peer, fault::bad_header, type);
    if (get_be16(packet, 2) != packet.size()) return complain(s, peer, fault::bad_length, type);
    const auto* kind =
        std::find_if(std::begin(KINDS), std::end(KINDS), [&](const auto& k) { return k.type == type; });
    if (kind == std::end(KINDS)) return complain(s, peer, fault::unknown_type, type);
    const const_octets body = packet.subspan(NSM_HEADER_SIZE);
    if (body.size() < kind->body_size) return complain(s, peer, fault::short_body, type);
    if (!peer->greeted && !kind->before_hello) return complain(s, peer, fault::no_hello, type);
    take_message(s, peer, *kind, body);
}

void peer_closed(void* arg, nsmd_peer* peer) {
    auto* s = static_cast<nsmd_server*>(arg);
    nsmd_peer** link = &s->peers;
    while (*link && *link != peer) link = &(*link)->next;
    if (*link) *link = peer->next;
    const bool greeted = peer->greeted, clean = peer->said_bye;
    if (greeted)
        log_suite(LOG_LEVEL_INFO, "client %ld %s", static_cast<long>(peer->pid),
                  clean ? "said goodbye" : "is gone");
    nsmd_peer_free(peer);
    if (!greeted) return;
    --s->greeted;
    s->sink.clients(s->sink.arg, s->greeted, clean);
}

void connection_came(void* arg, int fd, const sockaddr_storage&) {
    (void)nsmd_server_adopt(static_cast<nsmd_server*>(arg), fd);
}

}  // namespace

nsmd_server* nsmd_server_create(lib_globals* ctx, const nsmd_server_sink& sink) {
    auto* s = static_cast<nsmd_server*>(memmgr_calloc(sizeof(nsmd_server), MTYPE_NSMD));
    if (!s) return nullptr;
    s->ctx = ctx;
    s->sink = sink;
    return s;
}

int nsmd_server_listen(nsmd_server* s, const char* path) {
    const int result = listener_start_unix(&s->entrance, s->ctx, path, SOCK_SEQPACKET, connection_came, s);
    if (result == 0) return 0;
    log_suite(LOG_LEVEL_ERROR, "can't listen on %s: %s", path,
              result == -EADDRINUSE ? "another server is there" : std::strerror(-result));
    return -1;
}

void nsmd_server_free(nsmd_server* s) {
    if (!s) return;
    listener_stop(&s->entrance);
    while (nsmd_peer* peer = s->peers) {
        s->peers = peer->next;
        nsmd_peer_free(peer);
    }
    memmgr_free(s, MTYPE_NSMD);
}

nsmd_peer* nsmd_server_adopt(nsmd_server* s, int fd) {
    std::uint32_t count = 0;
    for (const nsmd_peer* p = s->peers; p; p = p->next) ++count;
    nsmd_peer* peer = nullptr;
    if (count >= PEERS_MAX)
        close(fd);
    else
        peer = nsmd_peer_create(s->ctx, fd, {packet_came, peer_closed, s});
    if (!peer) {
        log_suite(LOG_LEVEL_WARNING, "a client was turned away: %s",
                  count >= PEERS_MAX ? "too many clients" : "no memory");
        return nullptr;
    }
    ++s->accepted;
    peer->next = s->peers;
    s->peers = peer;
    return peer;
}

void nsmd_server_send_port(nsmd_server* s, nsmd_peer* peer, const nsmd_port& port) {
    std::uint8_t body[nsm_link_body::SIZE] = {};
    put_be32(body, nsm_link_body::IFINDEX, port.ifindex);
    put_be32(body, nsm_link_body::KERNEL_IFINDEX, port.kernel_ifindex);
    put_be16(body, nsm_link_body::TYPE, IF_TYPE_SYNCE);
    put_be16(body, nsm_link_body::FLAGS, port.up ? nsm_link_body::FLAG_UP : std::uint16_t{0});
    std::memcpy(body + nsm_link_body::MAC, port.mac, sizeof port.mac);
    std::memcpy(body + nsm_link_body::NAME, port.name, std::strlen(port.name));
    broadcast(s, peer, NSM_MSG_LINK_ADD, body);
}

void nsmd_server_send_port_gone(nsmd_server* s, const nsmd_port& port) {
    std::uint8_t body[8];
    put_be32(body, 0, port.ifindex);
    put_be32(body, 4, NSM_LINK_GONE);
    broadcast(s, nullptr, NSM_MSG_LINK_DELETE, body);
}

void nsmd_server_send_link(nsmd_server* s, const nsmd_port& port) {
    send_word(s, nullptr, port.up ? NSM_MSG_LINK_UP : NSM_MSG_LINK_DOWN, port.ifindex);
}

void nsmd_server_send_bridge(nsmd_server* s, nsmd_peer* peer, const bridge_identity& identity) {
    std::uint8_t body[nsm_bridge_body::SIZE] = {};
    std::memcpy(body + nsm_bridge_body::NAME, identity.name, std::strlen(identity.name));
    put_be32(body, nsm_bridge_body::ID, identity.id);
    std::memcpy(body + nsm_bridge_body::MAC, identity.mac, sizeof identity.mac);
    broadcast(s, peer, NSM_MSG_BRIDGE_ADD, body);
}

void nsmd_server_send_clock(nsmd_server* s, nsmd_peer* peer, std::uint32_t state, std::uint32_t source) {
    std::uint8_t body[8];
    put_be32(body, 0, state);
    put_be32(body, 4, source);
    broadcast(s, peer, NSM_MSG_SSM_SEND_BACK_CLOCK_STATE, body);
}

void nsmd_server_send_detail(nsmd_server* s, nsmd_peer* peer, const dpll_detail& d) {
    std::uint8_t body[nsm_detail_body::SIZE] = {};
    put_be32(body, nsm_detail_body::SUBJECT, d.subject);
    put_be32(body, nsm_detail_body::KNOWN, d.known);
    put_be32(body, nsm_detail_body::ERROR, d.error);
    put_be32(body, nsm_detail_body::QUALITY, d.quality);
    put_be32(body, nsm_detail_body::STATE, d.state);
    put_be64(body, nsm_detail_body::OFFSET, static_cast<std::uint64_t>(d.offset_ppt));
    put_be64(body, nsm_detail_body::FREQUENCY, d.frequency_mhz);
    std::memcpy(body + nsm_detail_body::LABEL, d.label, sizeof d.label);
    broadcast(s, peer, NSM_MSG_SSM_CLOCK_DETAIL, body);
}

bool nsmd_server_status(const nsmd_server* s, text_buffer* out) {
    return text_printf(out, "clients: %u connected, %" PRIu64 " accepted, %" PRIu64 " messages dropped\n",
                       s->greeted, s->accepted, s->dropped);
}
