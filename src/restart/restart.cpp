#include "restart/restart.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "core/debug.h"
#include "core/pdu.h"
#include "core/ports.h"
#include "core/ql.h"
#include "core/socket.h"
#include "restart/checksum.h"
#include "restart/snapshot.h"
#include "restart/state_file.h"
#include "suite/host/host.h"

namespace {

constexpr std::uint32_t COPY_PERIOD_MS = 1000, COPY_SOONER_MS = 100;

// What a copy must not be behind: the neighbours were told it, or the hardware follows it.
struct told {
    ssm_standing standing;
    std::uint32_t dpll_state, nsm_source_ifindex;
    std::uint8_t clock_id[SSM_CLOCK_ID_SIZE];
    std::uint8_t hops;
    bool operator==(const told&) const = default;
};

struct restart_state {
    text_buffer left;  // by the daemon before, as long as it has not been taken over
    snapshot_origin origin;
    thread* give_up_timer;
    thread* copy_timer;
    state_file file;
    told copied;
    nanoseconds copied_at;
    int said_error;  // of writing, so that it is said once
} state;

void cold_start(const char* why) {
    SSM_LOG(LOG_LEVEL_INFO, "%s%scold start, the state of the daemon before is not taken over: %s", why);
}

// ---- What has to be the same ----

void read_boot(char (&boot)[40]) {
    std::memset(boot, 0, sizeof boot);
    const int fd = open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    (void)!read(fd, boot, 36);
    close(fd);
}

// False without memory for it.
bool hash_configuration(std::uint64_t* hash) {
    text_buffer text;
    const bool good = host_running_text(g_p_esmcd->host, &text);
    *hash = checksum_add(CHECKSUM_BEGIN, text.view());
    text_free(&text);
    return good;
}

const_octets octets_of(const text_buffer& text) {
    return {reinterpret_cast<const std::uint8_t*>(text.c_str()), text.length};
}

// Null: it can be taken over.
const char* why_not() {
    static snapshot_difference difference;
    std::uint64_t config = 0;
    if (thread_now(g_p_esmcd) - state.origin.saved_at > RESTART_WITHIN) return "it is too old";
    if (!hash_configuration(&config)) return "no memory";
    if (config != state.origin.config) return "the configuration is another";
    return snapshot_agrees(octets_of(state.left), &difference) ? nullptr : difference.text;
}

// ---- Taking over ----

// The daemon says and hears again, whether or not anything was taken over.
void go_on() {
    g_s_master->resuming = false;
    thread_cancel(state.give_up_timer);
    state.give_up_timer = nullptr;
    text_free(&state.left);
    ssm_socket_arm_read();
}

void take_over() {
    snapshot_apply(octets_of(state.left));
    const char* source = ssm_port_name(g_s_master->selected_port);
    SSM_LOG(LOG_LEVEL_INFO, "%s%sgoes on as the daemon before, which said so %d ms ago: source %s, %s",
            static_cast<int>((thread_now(g_p_esmcd) - state.origin.saved_at) / NS_PER_MS),
            source ? source : "none", ssm_ql_to_str(g_s_master->current_quality, SSM_QL_STYLE_SHORT));
}

int give_up(thread*) {
    state.give_up_timer = nullptr;
    cold_start("NSM has not said in time what there is");
    go_on();
    return 0;
}

// ---- Leaving ----

void say_error(int error) {
    if (error == std::exchange(state.said_error, error) || error == 0) return;
    SSM_LOG(LOG_LEVEL_WARNING, "%s%sCan't keep the state in %s: %s", STATE_FILE, std::strerror(-error));
}

told told_now() {
    told now = {ssm_standing_of(*g_s_master), g_s_master->dpll_state, g_s_master->nsm_source_ifindex, {}, 0};
    ssm_pdu_identity(now.clock_id, &now.hops);
    return now;
}

bool copy_state() {
    snapshot_origin origin = {};
    read_boot(origin.boot);
    origin.saved_at = thread_now(g_p_esmcd);
    text_buffer out;
    const bool good = hash_configuration(&origin.config) && snapshot_write(origin, &out);
    const int error = good ? state_file_write(&state.file, octets_of(out)) : -ENOMEM;
    text_free(&out);
    say_error(error);
    state.copied = told_now();
    state.copied_at = origin.saved_at;
    return error == 0;
}

int copy_due(thread*) {
    state.copy_timer = thread_add_timer_msec(g_p_esmcd, copy_due, nullptr, COPY_PERIOD_MS);
    (void)copy_state();  // said there
    return 0;
}

void copy_in(std::uint32_t milliseconds) {
    thread_cancel(state.copy_timer);
    state.copy_timer = thread_add_timer_msec(g_p_esmcd, copy_due, nullptr, milliseconds);
}

void stop_copying() {
    thread_cancel(state.copy_timer);
    state.copy_timer = nullptr;
    state_file_discard(&state.file);
}

}  // namespace

void restart_give(const rights_user& user) {
    say_error(state_file_give(user));
}

void restart_read() {
    char boot[sizeof state.origin.boot];
    read_boot(boot);
    const int result = state_file_take(&state.left);
    if (result == -ENOENT) return;
    if (result < 0)
        cold_start(result == -EBADMSG ? "it is damaged"
                   : result == -EPERM ? "others may have written it"
                                      : std::strerror(-result));
    else if (!snapshot_read_origin(octets_of(state.left), &state.origin))
        cold_start("it is of another version");
    else if (std::memcmp(boot, state.origin.boot, sizeof boot) != 0)
        cold_start("it is of another boot");
    else
        return;
    text_free(&state.left);
}

void restart_begin() {
    if (state.left.length == 0) return;
    if (!g_s_master->keep_state) {
        text_free(&state.left);
        return;
    }
    g_s_master->resuming = true;
    state.give_up_timer = thread_add_timer_msec(g_p_esmcd, give_up, nullptr, RESTART_WITHIN / NS_PER_MS);
    if (!state.give_up_timer) (void)give_up(nullptr);
}

void restart_synchronised() {
    if (!g_s_master->resuming) return;
    if (const char* why = why_not())
        cold_start(why);
    else
        take_over();
    go_on();
}

void restart_after_event() {
    if (!g_s_master->keep_state) {
        if (state.copy_timer) stop_copying();
        return;
    }
    if (g_s_master->resuming) return;
    if (!state.copy_timer) return copy_in(0);
    const told now = told_now();
    if (state.copied == now) return;
    state.copied = now;
    const nanoseconds since = thread_now(g_p_esmcd) - state.copied_at;
    const nanoseconds wait = COPY_SOONER_MS * NS_PER_MS;
    copy_in(since >= wait ? 0 : static_cast<std::uint32_t>((wait - since) / NS_PER_MS));
}

bool restart_leave() {
    if (!g_p_esmcd || !g_s_master || !g_s_master->keep_state) return false;
    // Who could not take over yet passes on what he was given.
    if (g_s_master->resuming) return state_file_write(&state.file, octets_of(state.left)) == 0;
    ssm_port_walk([](ssm_port* port) {
        if (port->send_timer) (void)ssm_pdu_tx(port, 1);
    });
    return copy_state();
}
