// The kernel's clock interface as a backend. Owns its channel, what is known of devices and pins, and its
// timers. Called by nsmd's core on the loop.
//
// One task is under way at a time: reading everything, reading the device, or steering. A driver may take its
// time over each request of it; what is wanted meanwhile is kept as a wish, the newest in the place of older
// ones.
//
// What is wanted becomes a goal: follow this pin, or none of ours. Only the pins of the ports served and of
// the named external inputs are ever touched.
//
// Whatever can't be read or is not as it is to be is tried again without end, ever more slowly: settings up
// to a minute apart while nothing wrong is followed, a second as long as the clock follows a pin that nobody
// watches. A source that can't be had becomes holdover meanwhile. The log says what fails first and what
// works again; the status report has the rest.
//
// Notifications come in the first network namespace only, so the device's state and the pin that is to be
// followed are also asked for once a second.
#include "nsmd/dpll/kernel.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "nsmd/dpll/record.h"
#include "suite/base/memory.h"
#include "suite/log/log.h"
#include "suite/loop/thread.h"

namespace {

constexpr std::uint32_t POLL_MS = 1000, AGAIN_MS = 50;
constexpr retry_waits READING_WAITS = {100, 1000}, UNSAFE_WAITS = {100, 1000}, SAFE_WAITS = {100, 60000};
// What fails less often in a row is no news.
constexpr unsigned READ_TRIES_SAID = 3, STEER_TRIES_SAID = 4;
constexpr nanoseconds CALM = 60 * NS_PER_S;        // after which a failure begins anew
constexpr nanoseconds UNCLEAR_MAX = 2 * NS_PER_S;  // a driver looks at its hardware twice a second or so
constexpr unsigned DUMP_TRIES = 3;
constexpr nanoseconds LIST_GIVEN_UP = 5 * NS_PER_S;  // after which pins are read one by one
constexpr retry_waits SINGLY_WAITS = {1000, 60000};

void again_in(dpll_kernel* k, std::uint32_t ms);
void work(dpll_kernel* k);

// --- reading ---

bool names_device(std::uint8_t command) {
    return command == DPLL_CMD_DEVICE_GET || command == DPLL_CMD_DEVICE_CREATE_NTF ||
           command == DPLL_CMD_DEVICE_CHANGE_NTF;
}

bool names_pin(std::uint8_t command) {
    return command == DPLL_CMD_PIN_GET || command == DPLL_CMD_PIN_CREATE_NTF ||
           command == DPLL_CMD_PIN_CHANGE_NTF;
}

bool comes_or_goes(std::uint8_t command) {
    return command == DPLL_CMD_DEVICE_CREATE_NTF || command == DPLL_CMD_DEVICE_DELETE_NTF ||
           command == DPLL_CMD_PIN_CREATE_NTF || command == DPLL_CMD_PIN_DELETE_NTF;
}

// A pin that is deleted stays until all is read: the message is about one of the devices that it was on.
// False without memory.
bool take_into(dpll_view* view, const genl_message& m) {
    dpll_device device;
    dpll_pin pin;
    if (names_device(m.command))
        return !dpll_device_parse(m.attributes, &device) || dpll_view_take_device(view, device);
    if (names_pin(m.command)) return !dpll_pin_parse(m.attributes, &pin) || dpll_view_take_pin(view, pin);
    if (m.command == DPLL_CMD_DEVICE_DELETE_NTF && dpll_device_parse(m.attributes, &device))
        dpll_view_drop_device(view, device.id);
    return true;
}

bool is_reading_all(const dpll_kernel* k) {
    return k->task == clock_task::reads_devices || k->task == clock_task::reads_pins ||
           k->task == clock_task::reads_singly;
}

void note_read(dpll_kernel* k) {
    if (k->unread >= DPLL_UNREAD_DOUBTED)
        log_suite(LOG_LEVEL_INFO, "clock: the state of device %u can be read again", k->device);
    k->unread = 0;
}

void note_unread(dpll_kernel* k, int result) {
    k->unread_result = result;
    if (++k->unread == DPLL_UNREAD_DOUBTED)
        log_suite(LOG_LEVEL_WARNING, "clock: the state of device %u can't be read: %s", k->device,
                  std::strerror(-result));
}

void message_came(void* arg, const genl_message& m) {
    auto* k = static_cast<dpll_kernel*>(arg);
    bool stored = true;
    if (is_reading_all(k)) stored = take_into(&k->fresh, m);
    if (m.notification || !is_reading_all(k)) stored &= take_into(&k->view, m);
    if (!stored) log_suite(LOG_LEVEL_ERROR, "clock: no memory for a device or pin");
    dpll_device device;
    if (names_device(m.command) && dpll_device_parse(m.attributes, &device) && device.id == k->device)
        note_read(k);
    k->pins_heard |= names_pin(m.command);
    dpll_pin pin;
    if (!is_reading_all(k) && names_pin(m.command) && dpll_pin_parse(m.attributes, &pin) &&
        dpll_is_bad(k->singly.bad, pin.id)) {
        k->stale = true;
        again_in(k, AGAIN_MS);
    }
    if (!m.notification || !comes_or_goes(m.command)) return;
    k->pins_changed = true;  // the kernel sends no message about the links that they are of
    k->stale = true;
    again_in(k, AGAIN_MS);
}

void messages_lost(void* arg) {
    auto* k = static_cast<dpll_kernel*>(arg);
    k->stale = true;
    again_in(k, 0);
}

void ask_for_all(dpll_kernel* k) {
    nl_builder request;
    const dpll_command command =
        k->task == clock_task::reads_devices ? DPLL_CMD_DEVICE_GET : DPLL_CMD_PIN_GET;
    genl_begin(&k->link, &request, command, DPLL_VERSION, true);
    genl_request(&k->link, request);
}

void begin_reading(dpll_kernel* k) {
    dpll_view_clear(&k->fresh);
    dpll_singly_begin(&k->singly);
    k->task = clock_task::reads_devices;
    k->dump_tries = 1;
    k->stale = false;  // what is lost from here on counts again
    ask_for_all(k);
}

int read_again(thread* event) {
    auto* k = static_cast<dpll_kernel*>(event->arg);
    retry_begin(&k->reading);
    k->read_wanted = true;
    work(k);
    return 0;
}

void could_not_read(dpll_kernel* k) {
    k->stale = true;
    if (++k->read_tries == READ_TRIES_SAID)
        log_suite(LOG_LEVEL_WARNING, "clock: devices and pins can't be read: %s; trying again",
                  std::strerror(-k->read_result));
    retry_later(&k->reading, k->ctx, read_again, k, READING_WAITS);
}

void could_read(dpll_kernel* k) {
    const bool is_partial = k->list_fails_since != 0, was_partial = k->singly_tries > 0;
    dpll_singly_end(&k->singly);
    std::swap(k->view, k->fresh);
    const bool was_said = std::exchange(k->read_tries, 0) >= READ_TRIES_SAID || was_partial;
    if (was_said && !is_partial) log_suite(LOG_LEVEL_INFO, "clock: devices and pins can be read again");
    if (!was_partial && is_partial)
        log_suite(LOG_LEVEL_WARNING, "clock: the list of pins fails, they are read one by one");
    k->singly_tries = is_partial ? k->singly_tries + 1 : 0;
    if (is_partial)
        retry_later(&k->reading, k->ctx, read_again, k, SINGLY_WAITS);
    else
        retry_stop(&k->reading);
    if (dpll_kernel_choose(k)) retry_stop(&k->steers_again);
    k->steer_wanted = true;
}

void end_reading(dpll_kernel* k, int result) {
    k->task = clock_task::none;
    k->read_result = result;
    if (result == 0)
        could_read(k);
    else
        could_not_read(k);
    dpll_view_clear(&k->fresh);
}

void read_next_singly(dpll_kernel* k) {
    if (!dpll_singly_ask(&k->singly)) end_reading(k, 0);
}

void was_read_singly(dpll_kernel* k) {
    if (k->link.result == -EPIPE) return end_reading(k, k->link.result);  // the helper is gone
    dpll_singly_answered(&k->singly);
    read_next_singly(k);
}

// One pin that can't be read ends the kernel's list. For some seconds that may pass.
void pins_were_listed(dpll_kernel* k, int result) {
    const nanoseconds now = thread_now(k->ctx);
    if (result == 0)
        k->list_fails_since = 0;
    else if (!k->list_fails_since)
        k->list_fails_since = now;
    if (result == 0 || now - k->list_fails_since < LIST_GIVEN_UP) return end_reading(k, result);
    k->task = clock_task::reads_singly;
    read_next_singly(k);
}

void was_listed(dpll_kernel* k) {
    const int result = k->link.result;
    if (result == -EAGAIN && k->dump_tries++ < DUMP_TRIES) return ask_for_all(k);
    if (k->task == clock_task::reads_pins) return pins_were_listed(k, result);
    if (result < 0) k->list_fails_since = 0;
    if (result < 0) return end_reading(k, result);
    k->task = clock_task::reads_pins;
    k->dump_tries = 1;
    ask_for_all(k);
}

// What failed has a time of its own.
bool is_read_due(const dpll_kernel* k) {
    return k->stale && !(k->reading.event && k->read_tries);
}

// --- polling ---

void was_polled(dpll_kernel* k) {
    k->task = clock_task::none;
    const int result = k->link.result;
    if (result == -ENODEV) {
        dpll_view_drop_device(&k->view, k->device);
        k->stale = true;
    } else if (result < 0) {
        note_unread(k, result);
    }
    // Nothing told us, so nothing told us of the pins either.
    bool is_clear;
    if (k->unread == 0 && dpll_kernel_observe(k, &is_clear).state != k->now.state) k->stale = true;
    if (is_read_due(k)) return again_in(k, 0);
    dpll_goal goal;
    std::uint32_t pins[DPLL_MANAGED_MAX];
    if (!dpll_kernel_goal(k, &goal, pins) || !goal.has_target) return;
    k->task = clock_task::reads_target;
    k->polled_pin = goal.target;
    dpll_read_pin(&k->link, goal.target);
}

void was_target_read(dpll_kernel* k) {
    k->task = clock_task::none;
    const int result = k->link.result;
    if (result == 0 || (result != -ENODEV && dpll_is_bad(k->singly.bad, k->polled_pin))) return;
    k->stale = true;
    again_in(k, AGAIN_MS);
}

// --- reporting ---

void report(dpll_kernel* k) {
    bool is_clear;
    const dpll_report seen = dpll_kernel_observe(k, &is_clear);
    const nanoseconds now = thread_now(k->ctx);
    if (is_clear)
        k->unclear_since = 0;
    else if (!k->unclear_since)
        k->unclear_since = now;
    if (!is_clear && now - k->unclear_since < UNCLEAR_MAX) return;
    if (seen.state == k->now.state && seen.source == k->now.source) return;
    k->now = seen;
    k->sink.report(k->sink.arg, seen);
}

// --- steering ---

int steer_again(thread* event) {
    auto* k = static_cast<dpll_kernel*>(event->arg);
    retry_begin(&k->steers_again);
    k->read_wanted = k->steer_wanted = true;
    work(k);
    return 0;
}

// Sooner than was planned when there is danger.
void steer_later(dpll_kernel* k, bool unsafe) {
    if (k->calm_since && thread_now(k->ctx) - k->calm_since > CALM) k->steers_again.delay_ms = 0;
    thread_cancel(std::exchange(k->steers_again.event, nullptr));
    retry_later(&k->steers_again, k->ctx, steer_again, k, unsafe ? UNSAFE_WAITS : SAFE_WAITS);
}

bool is_reached(const dpll_kernel* k, const dpll_goal& goal) {
    dpll_setting missing;
    return dpll_plan_next(&k->view, goal, nullptr, &missing) == dpll_step::done;
}

bool is_in_mode(const dpll_kernel* k) {
    const dpll_device* d = dpll_kernel_device(k);
    return !d || !k->options.mode || d->mode == k->options.mode;
}

void set_mode(dpll_kernel* k) {
    nl_builder request;
    genl_begin(&k->link, &request, DPLL_CMD_DEVICE_SET, DPLL_VERSION, false);
    dpll_put_mode(&request, k->device, k->options.mode);
    k->task = clock_task::sets_mode;
    genl_request(&k->link, request);
}

// Refused as well as done: what is true counts.
void was_mode_set(dpll_kernel* k) {
    k->mode_result = k->link.result;
    k->task = clock_task::reads_mode;
    dpll_read_device(&k->link, k->device);
}

void was_mode_read(dpll_kernel* k) {
    k->task = clock_task::none;
    k->steer_wanted = true;
    if (is_in_mode(k)) k->mode_said = false;
    if (is_in_mode(k) || std::exchange(k->mode_said, true)) return;
    log_suite(LOG_LEVEL_WARNING, "clock: can't set device %u to %s: %s; going on as it is", k->device,
              dpll_mode_word(k->options.mode), std::strerror(-k->mode_result));
}

void begin_steering(dpll_kernel* k) {
    dpll_goal goal;
    std::uint32_t pins[DPLL_MANAGED_MAX];
    k->trouble[0] = 0;
    if (!dpll_kernel_goal(k, &goal, pins)) return;
    if (!is_in_mode(k) && !std::exchange(k->mode_tried, true)) return set_mode(k);
    k->mode_tried = false;
    k->fell_back = false;
    k->task = clock_task::steers;
    dpll_steer_begin(&k->steering, goal);
}

// What is followed now is not what the daemon believes and tells its neighbours. Holdover is.
void fall_back(dpll_kernel* k) {
    if (!k->fall_said) log_suite(LOG_LEVEL_WARNING, "clock: the source can't be followed, holdover instead");
    k->fall_said = k->fell_back = true;
    dpll_goal goal = k->steering.goal;
    goal.has_target = false;
    k->task = clock_task::steers;
    dpll_steer_begin(&k->steering, goal);
}

void is_calm(dpll_kernel* k) {
    if (k->steer_tries >= STEER_TRIES_SAID || k->steering.said_count)
        log_suite(LOG_LEVEL_INFO, "clock: as wanted, after %u tries", k->steer_tries + 1);
    k->steer_tries = 0;
    k->steering.said_count = 0;
    k->fall_said = false;
    thread_cancel(std::exchange(k->steers_again.event, nullptr));
    if (!k->calm_since) k->calm_since = thread_now(k->ctx);
}

void is_not_calm(dpll_kernel* k) {
    if (!k->trouble[0])
        std::snprintf(
            k->trouble, sizeof k->trouble, "%s",
            is_in_mode(k) ? "the driver does not do what was set" : "the device is in another mode");
    if (++k->steer_tries == STEER_TRIES_SAID && !k->steering.said_count && is_in_mode(k))
        log_suite(LOG_LEVEL_WARNING, "clock: %s; trying again", k->trouble);
    // Where the driver offers no way, haste is none.
    const bool is_offered = k->steering.set_result != -EOPNOTSUPP;
    steer_later(k, is_offered && dpll_plan_is_unsafe(&k->view, k->steering.goal));
    k->calm_since = 0;
}

void was_steered(dpll_kernel* k) {
    k->task = clock_task::none;
    const dpll_steering& s = k->steering;
    if (s.is_abandoned) return;
    if (s.why[0]) std::snprintf(k->trouble, sizeof k->trouble, "%s", s.why);
    if (s.end == dpll_steer_end::failed && s.goal.has_target) return fall_back(k);
    k->settled = is_reached(k, s.goal);
    k->pins_heard = false;
    if (k->settled && !k->fell_back && is_in_mode(k))
        is_calm(k);
    else
        is_not_calm(k);
}

// The pins are not as they were when steering ended: somebody else set them. That is undone at once when it
// is the first time for long.
void check_pins(dpll_kernel* k) {
    dpll_goal goal;
    std::uint32_t pins[DPLL_MANAGED_MAX];
    const bool is_steered_anyway = k->stale || k->again_timer || k->steer_wanted;
    if (!std::exchange(k->pins_heard, false) || !k->settled || is_steered_anyway) return;
    if (!dpll_kernel_goal(k, &goal, pins)) return;
    goal.has_target &= !k->fell_back;
    if (is_reached(k, goal)) return;
    ++k->hands;
    k->settled = false;
    log_limited(
        &k->hand_said, thread_now(k->ctx),
        "clock: the pins were changed by another program or by the driver itself, setting them again");
    steer_later(k, dpll_plan_is_unsafe(&k->view, goal));
    k->calm_since = 0;
    if (k->steers_again.delay_ms > UNSAFE_WAITS.first_ms) return;
    thread_cancel(std::exchange(k->steers_again.event, nullptr));
    k->read_wanted = k->steer_wanted = true;  // of the pins that went along nothing may have been told yet
}

// --- tasks ---

// False: there is none.
bool begin_next(dpll_kernel* k) {
    check_pins(k);
    if (std::exchange(k->read_wanted, false)) {
        begin_reading(k);
    } else if (std::exchange(k->steer_wanted, false)) {
        begin_steering(k);
    } else if (std::exchange(k->poll_wanted, false)) {  // last: slow drivers take longer than until the next
        k->task = clock_task::reads_device;
        dpll_read_device(&k->link, k->device);
    } else {
        return false;
    }
    return true;
}

void go_on(dpll_kernel* k) {
    if (k->task != clock_task::reads_singly) k->held = 0;  // many answers, but one list
    switch (k->task) {
        case clock_task::reads_devices:
        case clock_task::reads_pins:
            return was_listed(k);
        case clock_task::reads_singly:
            return was_read_singly(k);
        case clock_task::reads_device:
            return was_polled(k);
        case clock_task::reads_target:
            return was_target_read(k);
        case clock_task::sets_mode:
            return was_mode_set(k);
        case clock_task::reads_mode:
            return was_mode_read(k);
        case clock_task::steers:
            if (dpll_steer_run(&k->steering)) was_steered(k);
            return;
        case clock_task::none:
            return;
    }
}

// Does what is wanted, as far as the driver has answered.
void work(dpll_kernel* k) {
    while (!genl_waits(&k->link)) {
        if (k->task != clock_task::none)
            go_on(k);
        else if (!begin_next(k))
            break;
    }
    // On the way the clock may be between two sources.
    const bool is_on_the_way = k->task == clock_task::steers || k->steer_wanted;
    if (!is_on_the_way || dpll_kernel_is_lost(k)) report(k);
}

// --- events ---

int again_due(thread* event) {
    auto* k = static_cast<dpll_kernel*>(event->arg);
    k->again_timer = nullptr;
    const bool ask_links = std::exchange(k->pins_changed, false);
    if (ask_links) k->sink.pins(k->sink.arg);
    k->awaits_links = ask_links && !k->awaits_links;  // once: changes without end hold up nothing
    if (k->awaits_links) {
        again_in(k, AGAIN_MS);
        return 0;
    }
    k->read_wanted |= k->stale;
    k->steer_wanted = true;
    work(k);
    return 0;
}

void again_in(dpll_kernel* k, std::uint32_t ms) {
    if (k->again_timer && ms) return;
    thread_cancel(k->again_timer);
    k->again_timer = thread_add_timer_msec(k->ctx, again_due, k, ms);
}

int readable(thread* event) {
    auto* k = static_cast<dpll_kernel*>(event->arg);
    genl_read(&k->link);
    work(k);
    (void)netlink_channel_listen(&k->link.channel);  // logged; the poll reads too
    return 0;
}

// The last poll is not answered, or has not been made yet.
void note_waiting(dpll_kernel* k) {
    if (k->task == clock_task::reads_device)
        note_unread(k, -ETIMEDOUT);
    else
        ++k->held;
}

// A device that comes may not be told of.
int poll_due(thread* event) {
    auto* k = static_cast<dpll_kernel*>(event->arg);
    k->poll_timer = thread_add_timer_msec(k->ctx, poll_due, k, POLL_MS);
    if (genl_waits(&k->link)) note_waiting(k);
    k->poll_wanted = k->has_device;
    k->read_wanted |= !k->has_device || is_read_due(k);
    work(k);
    return 0;
}

void apply(void* self, const dpll_wanted& wanted) {
    auto* k = static_cast<dpll_kernel*>(self);
    k->wanted = wanted;
    k->was_asked = true;
    k->fall_said = k->no_pin_said = false;
    k->steering.said_count = 0;
    k->steer_tries = 0;
    retry_stop(&k->steers_again);
    k->steer_wanted = true;
    if (k->task == clock_task::steers) dpll_steer_abandon(&k->steering);
    work(k);
}

void tend(void* self) {
    auto* k = static_cast<dpll_kernel*>(self);
    char words[80];
    genl_tend(&k->link, dpll_kernel_subject(k, words));
}

void port(void* self, const nsmd_port&, port_event event) {
    auto* k = static_cast<dpll_kernel*>(self);
    // The hardware sees its links itself; what matters here is which pin stands for which port.
    if (event == port_event::up || event == port_event::down) return;
    k->stale = true;
    again_in(k, AGAIN_MS);
}

dpll_report current(const void* self) {
    return static_cast<const dpll_kernel*>(self)->now;
}

void finish(void* self) {
    auto* k = static_cast<dpll_kernel*>(self);
    thread_cancel(k->poll_timer);
    thread_cancel(k->again_timer);
    retry_stop(&k->reading);
    retry_stop(&k->steers_again);
    genl_close(&k->link);
    dpll_view_clear(&k->view);
    dpll_view_clear(&k->fresh);
    memmgr_free(k, MTYPE_NSMD);
}

int start(dpll_kernel* k, const netlink_edge& edge) {
    int result = genl_open(&k->link, edge, DPLL_FAMILY, DPLL_GROUP, {message_came, messages_lost, k});
    if (result < 0) return result;
    k->read_wanted = true;
    work(k);
    if (k->read_result == -EPERM || k->read_result == -EACCES) return k->read_result;
    if (k->read_result < 0)
        log_suite(LOG_LEVEL_WARNING, "clock: can't be read yet: %s; trying again",
                  std::strerror(-k->read_result));
    else if (!k->has_device)
        log_suite(LOG_LEVEL_INFO, "clock: no kernel device yet, waiting for one");
    bool is_clear;
    k->now = dpll_kernel_observe(k, &is_clear);
    k->poll_timer = thread_add_timer_msec(k->ctx, poll_due, k, POLL_MS);
    const bool listens = netlink_channel_attach(&k->link.channel, k->ctx, readable, k, false);
    return k->poll_timer && listens ? 0 : -ENOMEM;
}

}  // namespace

dpll_backend dpll_kernel_create(lib_globals* ctx, const port_table* table, const netlink_edge& edge,
                                const dpll_kernel_options& options, const dpll_sink& sink, int* error) {
    dpll_backend backend = {apply,  port,    current, dpll_kernel_status,
                            finish, nullptr, tend,    dpll_kernel_details};
    auto* k = static_cast<dpll_kernel*>(memmgr_calloc(sizeof(dpll_kernel), MTYPE_NSMD));
    *error = -ENOMEM;
    if (!k) return backend;
    k->ctx = ctx;
    k->table = table;
    k->options = options;
    k->sink = sink;
    k->link.channel.fd = -1;
    k->now = {DPLL_FREERUN, 0};
    k->singly = {&k->link, &k->fresh, &k->view, table, k->options.bits, {}, 0, 0};
    k->steering.link = &k->link;
    k->steering.view = &k->view;
    k->steering.bad = &k->singly.bad;
    k->steering.table = table;
    *error = start(k, edge);
    if (*error < 0)
        finish(k);
    else
        backend.self = k;
    return backend;
}
