// Generic netlink: family lookup, requests with their answers, notifications. Used by the kernel's clock
// backend and by the copper roles, each with a socket of its own. Owns the socket; nothing is allocated. What
// can go wrong is told by the result: the kernel's own code, or -ETIMEDOUT when it did not answer at all.
#include "nsmd/netlink/genl.h"

#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <cerrno>
#include <cstring>

namespace {

// More datagrams than any answer has: a socket that never runs dry can't hold the loop.
constexpr int DATAGRAMS_MAX = 4096;
constexpr std::size_t GENL_HEADER = 4;

// What one request is waiting for.
struct pending {
    std::uint32_t sequence;  // 0: nothing, notifications only
    bool done;
    bool disturbed;
    int result;
};

struct family_answer {
    const char* group;
    std::uint16_t family;
    std::uint32_t group_id;
};

void take_group(const_octets nest, family_answer* out) {
    nl_attr attr;
    std::string_view name;
    std::uint32_t id = 0;
    while (nl_next_attr(&nest, &attr)) {
        if (attr.type == CTRL_ATTR_MCAST_GRP_NAME) name = nl_text(attr.value);
        if (attr.type == CTRL_ATTR_MCAST_GRP_ID) id = nl_u32(attr.value);
    }
    if (out->group && name == out->group) out->group_id = id;
}

void take_family(void* arg, const genl_message& message) {
    auto* out = static_cast<family_answer*>(arg);
    const_octets rest = message.attributes;
    nl_attr attr;
    while (nl_next_attr(&rest, &attr)) {
        if (attr.type == CTRL_ATTR_FAMILY_ID) out->family = nl_u16(attr.value);
        if (attr.type != CTRL_ATTR_MCAST_GROUPS) continue;
        const_octets groups = attr.value;
        nl_attr group;
        while (nl_next_attr(&groups, &group)) take_group(group.value, out);
    }
}

void finish(pending* p, int result) {
    p->done = true;
    p->result = result == 0 && p->disturbed ? -EAGAIN : result;
}

void take_message(genl* g, const nl_message& message, pending* p) {
    const bool answer = p->sequence && message.sequence == p->sequence;
    if (answer && (message.flags & NLM_F_DUMP_INTR)) p->disturbed = true;
    if (message.type == NLMSG_ERROR || message.type == NLMSG_DONE) {
        if (answer) finish(p, message.body.size() >= 4 ? nl_error_code(message) : 0);
        return;
    }
    // The controller's own messages about families carry its identity; before ours is known they are wanted.
    if (g->family && message.type != g->family) return;
    if (message.body.size() < GENL_HEADER) return;
    g->sink.message(g->sink.arg, {message.body[0], !answer, message.body.subspan(GENL_HEADER)});
}

// One datagram. False when nothing more is there.
bool take_datagram(genl* g, pending* p) {
    const int got = g->edge.receive(g->edge.arg, g->fd, {g->buffer, sizeof g->buffer});
    if (got == -EINTR) return true;
    if (got == -ENOBUFS || got == -EMSGSIZE) {
        g->sink.lost(g->sink.arg);
        return true;
    }
    if (got < 0) return false;
    const_octets rest{g->buffer, static_cast<std::size_t>(got)};
    nl_message message;
    while (nl_next_message(&rest, &message)) take_message(g, message, p);
    return true;
}

int find_family(genl* g, const char* name, family_answer* out) {
    nl_builder request;
    genl_begin(g, &request, CTRL_CMD_GETFAMILY, 1, false);
    const std::uint16_t controller = GENL_ID_CTRL;
    std::memcpy(request.data + 4, &controller, sizeof controller);
    nl_put_text(&request, CTRL_ATTR_FAMILY_NAME, name);
    const genl_sink wanted = g->sink;
    g->sink = {take_family, [](void*) {}, out};
    const int result = genl_transact(g, request);
    g->sink = wanted;
    if (result < 0) return result;
    return out->family ? 0 : -ENOENT;
}

}  // namespace

int genl_open(genl* g, const netlink_edge& edge, const char* family, const char* group,
              const genl_sink& sink) {
    g->edge = edge;
    g->sink = sink;
    g->family = 0;
    g->sequence = 0;
    g->fd = edge.open(edge.arg, NETLINK_GENERIC);
    if (g->fd < 0) return g->fd;
    family_answer answer{group, 0, 0};
    int result = find_family(g, family, &answer);
    if (result == 0 && group) {
        result = answer.group_id ? edge.join(edge.arg, g->fd, answer.group_id) : -ENOENT;
    }
    if (result < 0) {
        genl_close(g);
        return result;
    }
    g->family = answer.family;
    return 0;
}

void genl_close(genl* g) {
    if (g->fd >= 0) g->edge.close(g->edge.arg, g->fd);
    g->fd = -1;
}

void genl_begin(genl* g, nl_builder* b, std::uint8_t command, std::uint8_t version, bool dump) {
    const int flags = NLM_F_REQUEST | (dump ? NLM_F_DUMP : NLM_F_ACK);
    nl_begin(b, g->family, static_cast<std::uint16_t>(flags), ++g->sequence);
    const std::uint8_t header[GENL_HEADER] = {command, version, 0, 0};
    nl_put_raw(b, header, sizeof header);
}

int genl_transact(genl* g, const nl_builder& request) {
    if (g->fd < 0) return -EBADF;
    if (request.overflow) return -EMSGSIZE;
    pending p{nl_u32(request.message().subspan(8)), false, false, 0};
    const int sent = g->edge.send(g->edge.arg, g->fd, request.message());
    if (sent < 0) return sent;
    for (int i = 0; i < DATAGRAMS_MAX && !p.done; ++i)
        if (!take_datagram(g, &p)) break;
    return p.done ? p.result : -ETIMEDOUT;
}

void genl_read(genl* g) {
    pending none{};
    for (int i = 0; i < 32 && take_datagram(g, &none); ++i) {
    }
}
