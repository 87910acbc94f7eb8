// The requests to NSM: the last one of each kind (of each port, for the gephy role) is kept, in the order in
// which they were last made, and stated again after every dump. The core makes them; client.cpp says
// when the link takes them.
//
// What can go wrong: no link, or one that is full for the moment. The request then stays pending, its sender
// is told so, and it goes out after those that wait before it. Memory is needed for one entry a port; when it
// is exhausted the request is sent if the link is open, but not kept.
#include <cerrno>
#include <cstring>

#include "suite/base/memory.h"
#include "suite/log/log.h"
#include "suite/manager/record.h"
#include "suite/ports/interface.h"

namespace {

constexpr std::size_t FIRST_ROOM = 8;  // the four kinds without a port always find a place

bool same_subject(const nsm_client_request& a, const nsm_client_request& b) {
    if (a.type != b.type) return false;
    return a.type != NSM_MSG_SSM_SET_GEPHY_ROLE || a.word[0] == b.word[0];
}

void remove_at(nsm_client* nc, std::size_t at) {
    --nc->request_count;
    std::memmove(nc->requests + at, nc->requests + at + 1,
                 (nc->request_count - at) * sizeof(nsm_client_request));
}

void forget(nsm_client* nc, const nsm_client_request& like) {
    for (std::size_t i = 0; i < nc->request_count; ++i)
        if (same_subject(nc->requests[i], like)) return remove_at(nc, i);
}

bool make_room(nsm_client* nc) {
    if (nc->request_count < nc->request_room) return true;
    const std::size_t room = nc->request_room ? nc->request_room * 2 : FIRST_ROOM;
    void* grown = memmgr_realloc(nc->requests, room * sizeof(nsm_client_request), MTYPE_NSM);
    if (!grown) return false;
    nc->requests = static_cast<nsm_client_request*>(grown);
    nc->request_room = room;
    return true;
}

int send_unkept(nsm_client* nc, const nsm_client_request& r) {
    log_suite(LOG_LEVEL_ERROR, "NSM: no memory to keep request %u", r.type);
    if (nc->phase != nsm_client_phase::synchronised) return -ENOMEM;
    return nsm_client_send(nc, r.type, r.word, r.words);
}

int request(nsm_client* nc, nsm_client_request r) {
    if (!nc || nc->stopped) return -ENOTCONN;
    forget(nc, r);
    if (!make_room(nc)) return send_unkept(nc, r);
    r.pending = true;
    nc->requests[nc->request_count++] = r;
    nsm_client_requests_flush(nc);
    return nc->requests[nc->request_count - 1].pending ? -EAGAIN : 0;
}

bool port_exists(const nsm_client* nc, std::uint32_t ifindex) {
    const interface* intf = if_lookup_by_index(nc->ctx->ifm, ifindex);
    return intf && intf->bound;
}

}  // namespace

bool nsm_client_requests_init(nsm_client* nc) {
    return make_room(nc);
}

void nsm_client_requests_free(nsm_client* nc) {
    memmgr_free(nc->requests, MTYPE_NSM);
    nc->requests = nullptr;
    nc->request_count = nc->request_room = 0;
}

void nsm_client_requests_flush(nsm_client* nc) {
    if (nc->phase != nsm_client_phase::synchronised) return;
    for (std::size_t i = 0; i < nc->request_count; ++i) {
        nsm_client_request& r = nc->requests[i];
        if (!r.pending) continue;
        const int result = nsm_client_send(nc, r.type, r.word, r.words);
        // A broken link shows itself to the reader; a full one is waited for.
        if (result == -EAGAIN || result == -ENOBUFS) nsm_client_want_write(nc);
        if (result < 0) return;
        r.pending = false;
    }
}

void nsm_client_requests_restate(nsm_client* nc) {
    for (std::size_t i = 0; i < nc->request_count;) {
        const nsm_client_request& r = nc->requests[i];
        if (r.type == NSM_MSG_SSM_SET_GEPHY_ROLE && !port_exists(nc, r.word[0])) {
            remove_at(nc, i);
            continue;
        }
        nc->requests[i++].pending = true;
    }
    nsm_client_requests_flush(nc);
}

void nsm_client_requests_port_gone(nsm_client* nc, std::uint32_t ifindex) {
    forget(nc, {NSM_MSG_SSM_SET_GEPHY_ROLE, 0, {ifindex, 0, 0}, false});
}

int nsm_client_send_ssm_global_enable(nsm_client* nc, nsm_ssm_global_enable r) {
    return request(nc, {NSM_MSG_SSM_GLOBAL_ENABLE, 1, {r.enable, 0, 0}, false});
}

int nsm_client_send_ssm_clock_recovery_select(nsm_client* nc, nsm_ssm_clock_recovery_select r) {
    return request(nc, {NSM_MSG_SSM_CLOCK_RECOVERY_SELECT, 1, {r.select, 0, 0}, false});
}

int nsm_client_send_ssm_holdover_enable(nsm_client* nc, nsm_ssm_holdover_enable r) {
    return request(nc, {NSM_MSG_SSM_HOLDOVER_ENABLE, 1, {r.value, 0, 0}, false});
}

int nsm_client_send_ssm_selected_if_index(nsm_client* nc, nsm_ssm_selected_if_index r) {
    return request(nc, {NSM_MSG_SSM_SELECTED_IF_INDEX, 2, {r.ifindex, r.reserved, 0}, false});
}

int nsm_client_send_ssm_set_gephy_role(nsm_client* nc, nsm_ssm_gephy_role r) {
    return request(nc, {NSM_MSG_SSM_SET_GEPHY_ROLE, 3, {r.ifindex, r.role_enable, r.role}, false});
}
