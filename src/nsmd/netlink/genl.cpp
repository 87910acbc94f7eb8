// Generic netlink: family lookup, requests with their answers, notifications. Used by the kernel's clock
// backend and by the copper roles, each with a channel of its own. Owns the channel; nothing is allocated.
// What can go wrong is told by the result: the kernel's own code, -ETIMEDOUT when it did not answer at all,
// -EPIPE when the helper died meanwhile.
#include "nsmd/netlink/genl.h"

#include <linux/genetlink.h>
#include <linux/netlink.h>

#include <cerrno>
#include <cstring>

namespace {

// More datagrams than any answer has: a socket that never runs dry can't hold the loop.
constexpr int DATAGRAMS_MAX = 4096;
constexpr std::size_t GENL_HEADER = 4;

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

void finish(genl* g, int result) {
    g->waiting = 0;
    g->result = result == 0 && g->disturbed ? -EAGAIN : result;
}

void take_message(genl* g, const nl_message& message) {
    const bool answer = g->waiting && message.sequence == g->waiting;
    if (answer && (message.flags & NLM_F_DUMP_INTR)) g->disturbed = true;
    if (message.type == NLMSG_ERROR || message.type == NLMSG_DONE) {
        if (answer) finish(g, message.body.size() >= 4 ? nl_error_code(message) : 0);
        return;
    }
    // The controller's own messages about families carry its identity; before ours is known they are wanted.
    if (g->family && message.type != g->family) return;
    if (message.body.size() < GENL_HEADER) return;
    g->sink.message(g->sink.arg, {message.body[0], !answer, message.body.subspan(GENL_HEADER)});
}

// One datagram. False when nothing more is there.
bool take_datagram(genl* g) {
    const int got = netlink_channel_receive(&g->channel, {g->buffer, sizeof g->buffer});
    if (got == -EINTR) return true;
    if (got == -ENOBUFS || got == -EMSGSIZE) {
        g->sink.lost(g->sink.arg);
        return true;
    }
    if (got == -EPIPE && g->waiting) finish(g, -EPIPE);
    if (got < 0) return false;
    const_octets rest{g->buffer, static_cast<std::size_t>(got)};
    nl_message message;
    while (nl_next_message(&rest, &message)) take_message(g, message);
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
    genl_request(g, request);
    g->sink = wanted;
    if (g->result < 0) return g->result;
    return out->family ? 0 : -ENOENT;
}

}  // namespace

int genl_open(genl* g, const netlink_edge& edge, const char* family, const char* group,
              const genl_sink& sink) {
    g->sink = sink;
    g->family = 0;
    g->sequence = g->waiting = 0;
    int result = netlink_channel_open(&g->channel, edge, NETLINK_GENERIC);
    if (result < 0) return result;
    family_answer answer{group, 0, 0};
    result = find_family(g, family, &answer);
    if (result == 0 && group)
        result = answer.group_id ? netlink_channel_join(&g->channel, answer.group_id) : -ENOENT;
    if (result < 0) {
        genl_close(g);
        return result;
    }
    g->family = answer.family;
    return 0;
}

void genl_close(genl* g) {
    netlink_channel_close(&g->channel);
}

void genl_tend(genl* g, const char* subject) {
    if (!netlink_channel_tend(&g->channel, subject)) return;
    if (g->waiting) finish(g, -EPIPE);
    g->sink.lost(g->sink.arg);
}

void genl_begin(genl* g, nl_builder* b, std::uint8_t command, std::uint8_t version, bool dump) {
    const int flags = NLM_F_REQUEST | (dump ? NLM_F_DUMP : NLM_F_ACK);
    if (++g->sequence == 0) ++g->sequence;  // 0 is that of notifications
    nl_begin(b, g->family, static_cast<std::uint16_t>(flags), g->sequence);
    const std::uint8_t header[GENL_HEADER] = {command, version, 0, 0};
    nl_put_raw(b, header, sizeof header);
}

void genl_request(genl* g, const nl_builder& request) {
    g->disturbed = false;
    if (request.overflow) return finish(g, -EMSGSIZE);
    g->waiting = nl_u32(request.message().subspan(8));
    const int sent = netlink_channel_send(&g->channel, request.message());
    if (sent < 0) return finish(g, sent);
    if (g->channel.detached) return;
    for (int i = 0; i < DATAGRAMS_MAX && g->waiting; ++i)
        if (!take_datagram(g)) break;
    if (g->waiting) finish(g, -ETIMEDOUT);
}

bool genl_waits(const genl* g) {
    return g->waiting != 0;
}

void genl_read(genl* g) {
    for (int i = 0; i < 32 && take_datagram(g); ++i) {
    }
}
