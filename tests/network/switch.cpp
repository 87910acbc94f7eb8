#include "network/switch.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "fuzz/world.h"
#include "nsm/session.h"

namespace {

network_switch* current = nullptr;
int opened_link = -1;  // for the client that is about to connect

message bridge_body(std::uint32_t id) {
    message body(nsm_bridge_body::SIZE);
    body[nsm_bridge_body::MAC] = 2;
    put_be32(body, nsm_bridge_body::MAC + 2, id + 1);
    return body;
}

}  // namespace

network_switch::network_switch(std::uint32_t number, const switch_settings& wanted,
                               const std::vector<port_settings>& ports, surroundings* around)
    : id(number), settings(wanted), around_(around), ports_(ports), up_(ports.size() + 1, true) {}

network_switch::~network_switch() {
    if (!ctx_) return;
    enter();
    while (ctx_->ifm->count) if_remove(ctx_->ifm, ctx_->ifm->items[0]);
    nsm_client_stop(instance_->nsm_client);
    lib_stop(ctx_);
    memmgr_free(instance_, MTYPE_SSM_INSTANCE);
    memmgr_free(master_, MTYPE_SSM_MASTER);
    close(nsm_fd_);
}

void network_switch::enter() {
    current = this;
    g_p_esmcd = ctx_;
    g_s_master = master_;
    ssm_instance = instance_;
}

void network_switch::start() {
    int pair[2];
    must(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair) == 0, "a socket pair");
    nsm_fd_ = pair[0];
    opened_link = pair[1];
    nsm_client_set_link_open([] { return std::exchange(opened_link, -1); });

    ctx_ = lib_create("network");
    const auto now = [](void* self) { return static_cast<network_switch*>(self)->around_->now(); };
    const thread_edges edges = {now, wait_edge, this};
    ctx_->master = thread_master_create(&edges);
    master_ = static_cast<ssm_master*>(ssm_calloc(sizeof(ssm_master), MTYPE_SSM_MASTER));
    instance_ =
        static_cast<ssm_instance_record*>(ssm_calloc(sizeof(ssm_instance_record), MTYPE_SSM_INSTANCE));
    must(ctx_->master && master_ && instance_, "memory");
    enter();
    instance_->sock = -1;
    instance_->lib_ctx = ctx_;
    instance_->send_edge = [](const slow_address& to, const std::uint8_t* pdu, std::size_t length) {
        current->around_->send(current, to.ifindex, pdu);
        return static_cast<std::int32_t>(length);
    };
    must(ssm_master_init() == 0 && ssm_nsm_client_init() == 0, "a switch");
    must(thread_add_read(ctx_, one_event, this, nsm_fd_) != nullptr, "an event");

    inbox_.emplace_back([this] {
        tell(NSM_MSG_HELLO_ACK, be_words({0}));
        tell(NSM_MSG_BRIDGE_ADD, bridge_body(id));
        for (std::uint32_t port = 1; port <= ports_.size(); ++port)
            tell(NSM_MSG_LINK_ADD, link_body(port, up_[port]));
        tell(NSM_MSG_SSM_SEND_BACK_CLOCK_STATE, be_words({SSM_DPLL_FREERUN, 0}));
        tell(NSM_MSG_SYNC_DONE, {});
    });
    inbox_.emplace_back([this] {
        if (settings.quality != QL_DNU) (void)ssm_opts_set_local_quality(settings.quality, SSM_OPTION_1);
        if (settings.master) (void)ssm_opts_set_device_type(SSM_MASTER_ONLY);
        (void)ssm_opts_set_local_priority(settings.priority);
        (void)ssm_opts_set_ssm_extend(settings.extend);
        (void)ssm_opts_set_extend_form(settings.standard ? SSM_FORM_STANDARD : SSM_FORM_OWN);
        (void)ssm_opts_set_guard_hold(settings.hold_ms);
        if (settings.hold_off_ms) (void)ssm_opts_set_hold_off(settings.hold_off_ms);
        if (settings.restore_s) (void)ssm_opts_set_restore(settings.restore_s);
        (void)ssm_opts_set_non_revertive(settings.non_revertive);
        (void)ssm_opts_set_advertise_when_locked(settings.when_locked);
        (void)ssm_opts_set_guard_hops(settings.hops);
        (void)ssm_opts_set_loop_guard(settings.guard);
        for (std::uint32_t port = 1; port <= ports_.size(); ++port) {
            interface* intf = if_lookup_by_index(ctx_->ifm, port);
            (void)ssm_opts_set_port_priority(intf, ports_[port - 1].priority);
            (void)ssm_opts_set_port_replace_clockid(intf, ports_[port - 1].replace_clockid);
            (void)ssm_opts_set_port_synce(intf, 1);
        }
        (void)ssm_opts_set_global_enable(1);
        (void)ssm_opts_set_ssm_enable(1);
    });
    run();
}

void network_switch::hear(std::uint32_t port, const std::uint8_t* pdu) {
    std::array<std::uint8_t, SSM_RECEIVE_SIZE> frame = {};
    std::copy_n(pdu, esmc::SIZE, frame.begin());
    inbox_.emplace_back([port, frame] {
        slow_address from = {};
        std::memcpy(from.destination, ssm_grp_addr, sizeof from.destination);
        from.ifindex = port;
        (void)ssm_take_frame(from, frame.data(), esmc::SIZE);
    });
    run();
}

void network_switch::link(std::uint32_t port, bool up) {
    up_[port] = up;
    if (!started()) return;
    if (!up && clock_source_ == port && clock_state_ == SSM_DPLL_LOCK) hold_over();
    if (up && clock_source_ == port) lock_to(port);
    inbox_.emplace_back([=, this] { tell(up ? NSM_MSG_LINK_UP : NSM_MSG_LINK_DOWN, be_words({port})); });
    run();
}

void network_switch::set_own_quality(std::uint8_t quality) {
    inbox_.emplace_back([=] { (void)ssm_opts_set_local_quality(quality, SSM_OPTION_1); });
    run();
}

void network_switch::woken() {
    if (!started()) return;
    if (locks_at_ && locks_at_ <= around_->now()) {
        locks_at_ = 0;
        if (up_[clock_source_]) report(SSM_DPLL_LOCK);
    }
    run();
}

std::uint32_t network_switch::source() const {
    return master_->selected_port ? master_->selected_port->ifindex : 0;
}

// ---- The event loop -------------------------------------------------------------------------------------

void network_switch::run() {
    enter();
    timer_at_ = 0;
    for (idle_ = false; !idle_;) {
        thread event;
        must(thread_fetch(ctx_, &event) != nullptr, "the loop goes on");
        (void)ssm_run_event(&event);
    }
    take_requests();
    if (timer_at_) around_->wake(this, timer_at_);
    if (locks_at_) around_->wake(this, locks_at_);
}

int network_switch::one_event(thread* event) {
    auto* self = static_cast<network_switch*>(event->arg);
    must(thread_add_read(self->ctx_, one_event, self, self->nsm_fd_) != nullptr, "an event");
    if (self->inbox_.empty()) {
        self->idle_ = true;
        return 0;
    }
    const auto work = std::move(self->inbox_.front());
    self->inbox_.pop_front();
    work();
    return 0;
}

// Where a daemon would sleep, the network goes on with another switch.
int network_switch::wait_edge(void* arg, int timeout_ms, thread_ready* out, int) {
    auto* self = static_cast<network_switch*>(arg);
    if (self->inbox_.empty() && timeout_ms == 0) return 0;
    if (timeout_ms > 0)
        self->timer_at_ = self->around_->now() + static_cast<nanoseconds>(timeout_ms) * NS_PER_MS;
    out[0] = {self->nsm_fd_, true, false};
    return 1;
}

// ---- NSM and the clock hardware ---------------------------------------------------------------------------

void network_switch::tell(std::uint16_t type, const message& body) {
    const message m = virtual_daemon::with_header(type, body);
    nsm_client_deliver(instance_->nsm_client, m.data(), m.size());
}

void network_switch::take_requests() {
    const std::uint64_t sent = nsm_client_get_stats(instance_->nsm_client).messages_out;
    if (sent == std::exchange(requests_seen_, sent)) return;
    std::uint8_t buffer[64];
    for (ssize_t n; (n = recv(nsm_fd_, buffer, sizeof buffer, MSG_DONTWAIT)) > 0;) {
        const const_octets request(buffer, static_cast<std::size_t>(n));
        const std::uint16_t type = get_be16(request, 0);
        if (type == NSM_MSG_SSM_SELECTED_IF_INDEX) lock_to(get_be32(request, NSM_HEADER_SIZE));
        if (type == NSM_MSG_SSM_HOLDOVER_ENABLE && get_be32(request, NSM_HEADER_SIZE) == 0) {
            clock_source_ = 0;
            hold_over();
        }
    }
    if (!inbox_.empty()) run();
}

void network_switch::report(std::uint32_t state) {
    if (std::exchange(clock_state_, state) == state) return;
    inbox_.emplace_back([=, this] { tell(NSM_MSG_SSM_SEND_BACK_CLOCK_STATE, be_words({state, 0})); });
}

void network_switch::lock_to(std::uint32_t port) {
    clock_source_ = port;
    locks_at_ = around_->now() + settings.lock_ms * NS_PER_MS;
}

void network_switch::hold_over() {
    locks_at_ = 0;
    report(SSM_DPLL_HOLDOVER);
}
