// The kernel's clock interface: nsmd as a whole against a kernel made of messages that behaves like each kind
// of driver. What is checked is the order of the settings, and what the daemon is told.
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <bit>

#include <atomic>
#include <csignal>
#include <map>

#include "nsmd/dpll/message.h"
#include "nsmd/probe.h"
#include "nsmd_support.h"

namespace {

enum class driver {
    manual,         // connecting one does not release others
    switches_over,  // connecting one releases the others
    automatic,      // pins are ranked; "connected" can't be asked for, and what is so already is an error
};

constexpr std::uint32_t DEVICE = 1, PORT_PINS[] = {11, 12};
constexpr std::uint64_t CLOCK = 0x0102030405060708ULL;

struct fake_pin {
    std::uint32_t capabilities = PIN_CAN_STATE;
    std::map<std::uint32_t, std::uint32_t> places = {};  // its state on the device, or on MUX pins
    std::uint32_t prio = 5, signal = 1;
    std::uint32_t refused = 0, bad = 0;  // errno of setting and of reading it
    std::uint16_t label_kind = DPLL_PIN_A_BOARD_LABEL;
    const char* label = "";
    std::uint32_t type = 3;   // a port's
    std::int32_t offset = 0;  // in 10^-6; told in both forms when there is one
};

// Dumps and settings are recorded as text: "dump devices", "3 on 1 connected".
struct fake_dpll : fake_family {
    driver kind = driver::manual;
    std::map<std::uint32_t, fake_pin> pins;
    const char* module = "chip";
    std::uint32_t lock_error = 0;
    std::vector<std::uint32_t> levels = {};
    bool tells_operstate = false, has_modes = false;
    std::uint32_t unreadable = 0, unknown_state = 0;  // errno of reading pins, and the device
    std::uint32_t has_device = 1, notifies = 1, type = DPLL_TYPE_EEC, status = DPLL_STATUS_UNLOCKED;
    std::uint32_t busy = 0, disturbed_dumps = 0;  // so many settings and dumps fail
    std::uint32_t tracked = 0;                    // the pin that the device follows
    std::atomic<int>* hold = nullptr;             // shared with helpers: settings take until it is 0
    std::uint32_t newest = 5;                     // without ranks, the pin that was set last comes first

    explicit fake_dpll(fake_kernel& k) : fake_family(k, "dpll") {}
    bool is_automatic() const { return kind == driver::automatic; }

    nl_builder about_device(std::uint8_t command, std::uint16_t flags = 0) const {
        nl_builder b = generic_message(ID, command, flags);
        const std::uint32_t mode = is_automatic() ? DPLL_MODE_AUTOMATIC : DPLL_MODE_MANUAL;
        nl_put_u32(&b, DPLL_A_ID, DEVICE);
        nl_put_text(&b, DPLL_A_MODULE_NAME, module);
        nl_put(&b, DPLL_A_CLOCK_ID, &CLOCK, sizeof CLOCK);
        nl_put_u32(&b, DPLL_A_LOCK_STATUS, status);
        nl_put_u32(&b, DPLL_A_MODE, mode);
        nl_put_u32(&b, 6, mode);  // the modes that it can have
        nl_put_u32(&b, DPLL_A_TYPE, type);
        if (lock_error) nl_put_u32(&b, DPLL_A_LOCK_STATUS_ERROR, lock_error);
        for (const std::uint32_t level : levels) nl_put_u32(&b, DPLL_A_CLOCK_QUALITY_LEVEL, level);
        return b;
    }
    nl_builder about_pin(std::uint32_t id, std::uint8_t command, std::uint16_t flags = 0) const {
        const fake_pin& p = pins.at(id);
        nl_builder b = generic_message(ID, command, flags);
        nl_put_u32(&b, DPLL_PIN_A_ID, id);
        nl_put_text(&b, 3, module);
        nl_put(&b, 5, &CLOCK, sizeof CLOCK);
        if (*p.label) nl_put_text(&b, p.label_kind, p.label);
        nl_put_u32(&b, DPLL_PIN_A_TYPE, p.type);
        nl_put_u32(&b, DPLL_PIN_A_CAPABILITIES, p.capabilities);
        const std::int64_t fine = std::int64_t{p.offset} * 1000000 + 5;
        const std::uint64_t measured = 24999999999;
        if (p.offset) nl_put(&b, DPLL_PIN_A_FFO_PPT, &fine, sizeof fine);
        if (p.offset) nl_put(&b, DPLL_PIN_A_FFO, &p.offset, sizeof p.offset);
        if (p.offset) nl_put(&b, DPLL_PIN_A_MEASURED_FREQUENCY, &measured, sizeof measured);
        for (const auto phase_limit : {std::uint16_t{20}, std::uint16_t{21}}) nl_put_u32(&b, phase_limit, 0);
        for (const auto& [parent, state] : p.places) {
            const bool on_device = parent == DEVICE;
            const std::size_t nest =
                nl_nest_begin(&b, on_device ? DPLL_PIN_A_PARENT_DEVICE : DPLL_PIN_A_PARENT_PIN);
            // Without a place of its own for it, the pin in use is shown as connected.
            const bool in_use = on_device && is_automatic() && !tells_operstate && tracked == id;
            nl_put_u32(&b, DPLL_PIN_A_PARENT_ID, parent);
            nl_put_u32(&b, DPLL_PIN_A_STATE, in_use && state == PIN_SELECTABLE ? PIN_CONNECTED : state);
            if (on_device && p.capabilities & PIN_CAN_PRIO) nl_put_u32(&b, DPLL_PIN_A_PRIO, p.prio);
            if (on_device) nl_put_u32(&b, DPLL_PIN_A_DIRECTION, 1);
            if (on_device && tells_operstate) nl_put_u32(&b, DPLL_PIN_A_OPERSTATE, tracked == id ? 1 : 2);
            nl_nest_end(&b, nest);
        }
        return b;
    }
    void notify_device(std::uint8_t command = DPLL_CMD_DEVICE_CHANGE_NTF) {
        if (notifies) say(about_device(command));
    }
    void notify_pin(std::uint32_t id, std::uint8_t command = DPLL_CMD_PIN_CHANGE_NTF) {
        if (notifies) say(about_pin(id, command));
    }

    // Its own signal, or that of a pin that is connected to it.
    bool carries_signal(std::uint32_t id) const {
        return std::any_of(pins.begin(), pins.end(), [&](const auto& one) {
            const auto& [other, p] = one;
            return p.signal && (other == id || (p.places.count(id) && p.places.at(id) == PIN_CONNECTED));
        });
    }
    bool may_follow(std::uint32_t id) const {
        const fake_pin& p = pins.at(id);
        if (!p.places.count(DEVICE) || !carries_signal(id)) return false;
        const std::uint32_t state = p.places.at(DEVICE);
        return is_automatic() ? state != PIN_DISCONNECTED : state == PIN_CONNECTED;
    }
    // The device looks at its inputs.
    void work() {
        std::uint32_t best = 0;
        for (const auto& [id, p] : pins)
            if (may_follow(id) && (!best || p.prio < pins.at(best).prio)) best = id;
        const std::uint32_t before = std::exchange(tracked, best);
        const std::uint32_t now = best                             ? DPLL_STATUS_LOCKED_HO_ACQ
                                  : status == DPLL_STATUS_UNLOCKED ? DPLL_STATUS_UNLOCKED
                                                                   : DPLL_STATUS_HOLDOVER;
        for (const std::uint32_t changed : {before, best})
            if (is_automatic() && before != best && changed) notify_pin(changed);
        if (std::exchange(status, now) != now) notify_device();
    }
    int set_state(std::uint32_t id, std::uint32_t parent, std::uint32_t state) {
        auto& places = pins[id].places;
        const bool on_mux = parent != DEVICE;
        if (!on_mux && state == (is_automatic() ? PIN_CONNECTED : PIN_SELECTABLE)) return EINVAL;
        if (is_automatic() && places[parent] == state) return EINVAL;
        // A MUX has one child only.
        const bool takes_over = on_mux ? state == PIN_CONNECTED : kind == driver::switches_over;
        for (auto& [other, p] : pins)
            if (takes_over && p.places.count(parent)) p.places[parent] = PIN_DISCONNECTED;
        places[parent] = state;
        if (!is_automatic()) pins[id].prio = --newest;
        return 0;
    }
    int set_pin(const_octets attributes) {
        while (hold && *hold) usleep(1000);
        std::map<unsigned, std::uint32_t> value;  // those of the place too, whose numbers are others
        nl_attr a, inner;
        while (nl_next_attr(&attributes, &a)) {
            value[a.type] = nl_u32(a.value);
            while (a.type != DPLL_PIN_A_ID && nl_next_attr(&a.value, &inner))
                value[inner.type] = nl_u32(inner.value);
        }
        const std::uint32_t id = value[DPLL_PIN_A_ID], parent = value[DPLL_PIN_A_PARENT_ID];
        const bool is_prio = value.count(DPLL_PIN_A_PRIO);
        static const char* const states[] = {" ?", " connected", " disconnected", " selectable"};
        add(std::to_string(id) + " on " + std::to_string(parent) +
            (is_prio ? " prio " + std::to_string(value[DPLL_PIN_A_PRIO]) : states[value[DPLL_PIN_A_STATE]]));
        if (busy > 0) return --busy, EBUSY;
        if (pins[id].refused) return static_cast<int>(pins[id].refused);
        const auto expected = parent == DEVICE ? DPLL_PIN_A_PARENT_DEVICE : DPLL_PIN_A_PARENT_PIN;
        if (!value.count(expected) || !pins[id].places.count(parent)) return EINVAL;
        if (is_prio) pins[id].prio = value[DPLL_PIN_A_PRIO];
        const int error = is_prio ? 0 : set_state(id, parent, value[DPLL_PIN_A_STATE]);
        if (error) return error;
        notify_pin(id);
        work();
        return 0;
    }

    int set_mode(const_octets attributes) {
        nl_attr a;
        EXPECT_TRUE(nl_next_attr(&attributes, &a) && a.type == DPLL_A_MODE);
        add("mode " + std::to_string(nl_u32(a.value)));
        if (!has_modes) return EINVAL;
        kind = nl_u32(a.value) == DPLL_MODE_AUTOMATIC ? driver::automatic : driver::manual;
        return 0;
    }

    int requested(std::uint8_t command, const_octets attributes, std::uint32_t sequence) override {
        if (command == DPLL_CMD_PIN_SET) return set_pin(attributes);
        nl_attr a;
        EXPECT_TRUE(nl_next_attr(&attributes, &a));
        if (command == DPLL_CMD_DEVICE_SET) return set_mode(attributes);
        const std::uint32_t id = nl_u32(a.value);
        const bool is_device = command == DPLL_CMD_DEVICE_GET;
        if (is_device ? !has_device : !pins.count(id)) return ENODEV;
        if (const std::uint32_t error = is_device ? unknown_state : unreadable ? unreadable : pins[id].bad)
            return static_cast<int>(error);
        say(is_device ? about_device(command) : about_pin(id, command), sequence);
        return 0;
    }
    int dumped(std::uint8_t command, std::uint32_t sequence, std::uint16_t* flags) override {
        const bool devices = command == DPLL_CMD_DEVICE_GET;
        add(devices ? "dump devices" : "dump pins");
        if (const std::uint32_t error = devices ? unknown_state : unreadable) return static_cast<int>(error);
        *flags = disturbed_dumps > 0 ? NLM_F_MULTI | NLM_F_DUMP_INTR : NLM_F_MULTI;
        if (disturbed_dumps > 0) --disturbed_dumps;
        if (devices && has_device) say(about_device(command, *flags), sequence);
        for (const auto& [id, p] : pins) {
            if (!devices && p.bad) return static_cast<int>(p.bad);
            if (!devices) say(about_pin(id, command, *flags), sequence);
        }
        return 0;
    }
};

// nsmd and its daemon with a board: the pins 11 and 12 are those of the ports 1 and 2.
struct clock_session : nsmd_session {
    fake_dpll dpll{kernel};

    explicit clock_session(driver kind = driver::manual) {
        act("quiet sw1 1 pin 11, quiet sw2 2 pin 12, quiet sw3 3");
        options.dpll = dpll_kind::kernel;
        options.poll.slow_ms = 0;
        options.kernel.prio_other = 14;
        options.source_codes[0] = {1, 1};
        options.source_codes[1] = {2, 2};
        options.source_code_count = 2;
        dpll.kind = kind;
        const std::uint32_t capabilities = dpll.is_automatic() ? PIN_CAN_STATE | PIN_CAN_PRIO : PIN_CAN_STATE;
        for (const std::uint32_t id : PORT_PINS)
            dpll.pins[id] = {.capabilities = capabilities, .places = {{DEVICE, PIN_DISCONNECTED}}};
        // The ports are behind it.
        verbs["mux"] = [=, this](const numbers& w) {
            dpll.pins[w[0]] = {
                .capabilities = capabilities, .places = {{DEVICE, PIN_SELECTABLE}}, .signal = 0};
            for (const std::uint32_t id : PORT_PINS) {
                dpll.pins[id].places.erase(DEVICE);
                dpll.pins[id].places[w[0]] = PIN_DISCONNECTED;
            }
        };
        const std::map<const char*, std::uint32_t fake_dpll::*> of_device = {
            {"type", &fake_dpll::type},
            {"has-device", &fake_dpll::has_device},
            {"notifies", &fake_dpll::notifies},
            {"disturb", &fake_dpll::disturbed_dumps},
            {"busy", &fake_dpll::busy},
            {"status", &fake_dpll::status},
            {"unreadable", &fake_dpll::unreadable},
            {"unknown-state", &fake_dpll::unknown_state}};
        for (const auto& [verb, field] : of_device)
            verbs[verb] = [this, at = field](const numbers& w) {
                dpll.*at = w[0];
                dpll.notify_device();
            };
        using pin_field = std::uint32_t fake_pin::*;
        const std::map<const char*, pin_field> of_pin = {{"capable", &fake_pin::capabilities},
                                                         {"signal", &fake_pin::signal},
                                                         {"bad", &fake_pin::bad},
                                                         {"refuse", &fake_pin::refused}};
        for (const auto& [verb, field] : of_pin)
            verbs[verb] = [this, at = field](const numbers& w) {
                dpll.pins[w[0]].*at = w[1];
                dpll.work();
            };
        // An input of the board that is no port's, or with a label the first external one.
        verbs["input"] = [this](const numbers& w) {
            dpll.pins[w[0]] = dpll.pins[11];
            if (w.size() == 1) return;
            dpll.pins[w[0]].label_kind = static_cast<std::uint16_t>(w[1]);
            dpll.pins[w[0]].label = options.kernel.bits[0] = "EXT";
        };
        verbs["state"] = [this](const numbers& w) {
            dpll.pins[w[0]].places[DEVICE] = w[1];
            dpll.work();
        };
        verbs["forget"] = [this](const numbers& w) {
            dpll.notify_pin(w[0], DPLL_CMD_PIN_DELETE_NTF);
            dpll.pins.erase(w[0]);
            dpll.tracked = 0;
            dpll.status = DPLL_STATUS_UNLOCKED;
            dpll.notify_device();
        };
        // Another program's setting.
        verbs["hand"] = [this](const numbers& w) {
            EXPECT_EQ(dpll.set_state(w[0], DEVICE, w[1]), 0);
            dpll.notify_pin(w[0]);
            dpll.work();
        };
        verbs["notice"] = [this](const numbers& w) { dpll.notify_pin(w[0], DPLL_CMD_PIN_CREATE_NTF); };
        verbs["lose"] = [this](const numbers&) { dpll.push({}, -ENOBUFS); };
        verbs["device"] = [this](const numbers& w) {
            dpll.has_device = w[0];
            dpll.notify_pin(11, w[0] ? DPLL_CMD_PIN_CREATE_NTF : DPLL_CMD_PIN_DELETE_NTF);
            dpll.notify_device(w[0] ? DPLL_CMD_DEVICE_CREATE_NTF : DPLL_CMD_DEVICE_DELETE_NTF);
            dpll.pins[11].places[DEVICE] = PIN_DISCONNECTED;
            dpll.status = DPLL_STATUS_UNLOCKED;
        };
        hardware = &dpll;
    }
    ~clock_session() { stop(); }
    void start() {
        nsmd_session::start();
        dpll.take();
    }
};

constexpr const char* FOLLOW = "enable 1, select 1";
constexpr const char* FOUR_READINGS =
    "dump devices, dump pins, dump devices, dump pins, dump devices, dump pins, dump devices, dump pins";

const struct {
    struct {
        const char* fault;  // what it would be
        driver kind;
        const char* board = "";  // verbs before the start
    } when;
    std::vector<step> steps;
    struct {
        const char* text = "can't";
        long times = 0;
        int error = 0;  // whose text, in the C library's words, follows
    } said = {};
} stories[] = {
    {{"the old pin is released first, or not at all", driver::manual},
     {{FOLLOW, 30, "clock 4 1", "11 on 1 connected"},
      {"select 2", 30, "clock 4 2", "12 on 1 connected, 11 on 1 disconnected"},
      {"signal 12 0", 1, "clock 3 0", ""},  // the hardware says so by itself
      {"holdover 0", 30, "", "12 on 1 disconnected"},
      {"signal 12 1", 1, "", ""},  // in holdover as asked
      {"holdover 1, select 2", 30, "clock 4 2", "12 on 1 connected"}}},
    {{"a driver that switches over by itself is forced into holdover by a release", driver::switches_over},
     {{FOLLOW, 30, "clock 4 1", "11 on 1 connected"}, {"select 2", 30, "clock 4 2", "12 on 1 connected"}}},
    {{"the old source does not stay at its MUX until the new one is there", driver::automatic,
      "mux 21, mux 22"},
     {{FOLLOW, 30, "clock 4 1", "11 on 21 connected, 21 on 1 prio 0"},
      {"select 2", 30, "clock 4 2", "12 on 22 connected, 22 on 1 prio 0, 11 on 21 disconnected"},
      {"signal 12 0", 1, "clock 3 0", ""},
      {"holdover 0", 30, "", "12 on 22 disconnected"},
      {"signal 12 1", 1, "", ""},
      {"holdover 1, select 2", 30, "clock 4 2", "12 on 21 connected"}}},
    {{"pins of an automatic device are not ranked before they are offered", driver::automatic},
     {{FOLLOW, 30, "clock 4 1", "11 on 1 prio 0, 11 on 1 selectable"},
      {"select 2", 30, "clock 4 2", "12 on 1 prio 0, 12 on 1 selectable, 11 on 1 disconnected"},
      {"signal 12 0", 1, "clock 3 0", ""},
      {"holdover 0", 30, "", "12 on 1 disconnected"},
      {"holdover 1, signal 12 1, select 2", 30, "clock 4 2", "12 on 1 selectable"}}},
    {{"a single MUX is changed by more than the kernel's own change", driver::automatic, "mux 21"},
     {{FOLLOW, 30, "clock 4 1"}, {"select 2", 30, "clock 4 2", "12 on 21 connected"}}},
    {{"an external input is not the pin named in the configuration", driver::automatic, "input 30 6"},
     {{FOLLOW, 30, "clock 4 1"},
      {"recover 1", 30, "clock 4 8", "30 on 1 prio 0, 30 on 1 selectable, 11 on 1 disconnected"},
      {"recover 2", 30, "clock 3 0", "30 on 1 disconnected"},  // no pin is named for it
      {"recover 0", 30, "clock 4 1", "11 on 1 selectable"}},
     {"no pin for external input 2", 1}},
    {{"a panel label does not name an input", driver::automatic, "input 30 7"},
     {{"recover 1", 30, "clock 4 8"}}},
    {{"a package label does not name an input", driver::automatic, "input 30 8"},
     {{"recover 1", 30, "clock 4 8"}}},
    {{"switched off releases other pins than ours", driver::automatic, "input 40, state 40 3"},
     {{FOLLOW, 30, "clock 4 1"},
      {"enable 0", 30, "clock 4 0", "11 on 1 disconnected"}}},  // locked, to something that is none of ours
    {{"something is touched before a source is named", driver::manual, "state 11 1"},
     {{"enable 1", 30, "", ""}, {"select 1", 30, "", ""}}},  // as it is already
    {{"a lock state is another one to the daemon", driver::manual},
     {{FOLLOW, 30, "clock 4 1"},
      {"status 2", 1, ""},  // without a holdover to fall back to, but locked still
      {"status 4", 1, "clock 3 0"},
      {"status 1", 1, "clock 2 0"},
      {"status 77", 1, "clock 5 0"},  // a status of the future is transient
      {"status 3", 1, "clock 4 1"}}},
    {{"without notifications the state is not asked for", driver::automatic, "notifies 0"},
     {{FOLLOW, 1030, "clock 4 1"}, {"signal 11 0", 1001, "clock 3 0"}, {"signal 11 1", 1010, "clock 4 1"}}},
    {{"after lost notifications and in disturbed dumps old news are believed", driver::automatic,
      "disturb 2"},
     {{FOLLOW, 30, "clock 4 1"}, {"signal 11 0, lose", 10, "clock 3 0", "dump devices, dump pins"}}},
    {{"a refused source is not said in one line, or becomes no holdover", driver::switches_over},
     {{FOLLOW, 30, "clock 4 1"},
      {"refuse 12 22, select 2", 30, "clock 3 0", "12 on 1 connected, 11 on 1 disconnected"},
      {"refuse 12 0, select 2", 30, "clock 4 2"}},
     {"clock: can't use pin 12 (sw2): Invalid argument", 1}},
    {{"a pin without the capability is tried", driver::manual, "capable 11 0"},
     {{FOLLOW, 30, "", ""}},
     {"can't use pin 11 (sw1): ", 1, EOPNOTSUPP}},
    {{"pins that can only be ranked are not ranked last", driver::automatic,
      "capable 11 2, capable 12 2, state 11 3, state 12 3"},
     {{FOLLOW, 30, "", "11 on 1 prio 0, 12 on 1 prio 14"},
      {"select 2", 30, "clock 4 2", "12 on 1 prio 0, 11 on 1 prio 14"}}},
    {{"what is forbidden is said more than once a request", driver::manual, "refuse 11 1, refuse 12 1"},
     {{FOLLOW, 5030, ""}},
     {"Operation not permitted", 1}},
    {{"a busy driver is not asked again", driver::automatic, "mux 21, mux 22, busy 3"},
     {{FOLLOW, 30, ""}, {"", 3100, "clock 4 1"}}},
    {{"a busy driver is given up, or asked ever as often", driver::automatic, "busy 10"},
     {{FOLLOW, 100000, ""}, {"", 10000, "clock 4 1"}},
     {"", 1, EBUSY}},
    {{"a release that failed is not tried again, or said each time", driver::manual},
     {{FOLLOW, 30, "clock 4 1"},
      {"refuse 11 5, holdover 0", 20000, ""},
      {"refuse 11 0", 1001, "clock 3 0", "dump devices, dump pins, 11 on 1 disconnected"},
      {"", 60000, "", ""}},
     {"can't release pin 11 (sw1): ", 1, EIO}},
    {{"what can't be read is forgotten", driver::manual},
     {{FOLLOW, 30, "clock 4 1"},
      {"unreadable 5, sw4 4", 3000, "add 4 4 1"},
      {"unreadable 0, unknown-state 5, gone 4", 1500, "gone 4 1"},
      {"unknown-state 0, select 2", 1100, "clock 4 2"}},
     {"clock: devices and pins can't be read: ", 1, EIO}},
    {{"a state that can't be read stays what it was", driver::manual},
     {{FOLLOW, 30, "clock 4 1"},
      {"unknown-state 5", 4000, "clock 5 0"},
      {"", 7000, "clock 2 0"},
      {"unknown-state 0", 1010, "clock 4 1"}},
     {"the state of device 1 can't be read", 1}},
    {{"a pin that can't be read costs others, or its own reading is not tried ever slower", driver::automatic,
      "mux 21, bad 11 5"},
     {{"enable 1, select 2", 4900, ""},
      {"", 300, "clock 4 2"},
      {"", 30000, "", FOUR_READINGS},
      {"select 1", 30, "clock 3 0", "12 on 21 disconnected"},
      {"bad 11 0", 1100, "clock 4 1"}},
     {"clock: pin 11 (sw1) can't be read: ", 1, EIO}},
    {{"a pin of somebody else that ends the list costs ours", driver::manual, "input 30, bad 30 5"},
     {{FOLLOW, 4900, ""},
      {"", 300, "clock 4 1"},
      {"", 22000, "", FOUR_READINGS},
      {"holdover 0, state 30 1", 4000, "clock 5 0"}},
     {"the list of pins fails", 1}},
    {{"a source that can't be read is locked, or released for ever", driver::manual},
     {{FOLLOW, 30, "clock 4 1"},
      {"bad 11 5", 7000, "clock 5 0"},
      {"holdover 0", 30, "clock 3 0", "11 on 1 disconnected"},
      {"", 22000, "", FOUR_READINGS},
      {"holdover 1, select 2", 30, "clock 4 2", "12 on 1 connected"}},
     {"clock: pin 11 (sw1) can't be read: ", 1, EIO}},
    {{"another hand on the pins is not undone, or not said", driver::switches_over},
     {{FOLLOW, 30, "clock 4 1"},
      {"hand 12 1", 30, "", "dump devices, dump pins, 11 on 1 connected"},
      {"hand 12 1", 30, "", ""},  // not at once again
      {"", 300, "", "dump devices, dump pins, 11 on 1 connected"}},
     {"changed by another program", 1}},
    {{"a port without a pin is followed, or not when its driver comes up with one", driver::automatic,
      "input 13"},
     {{FOLLOW, 30, "clock 4 1"},
      {"select 3", 30, "clock 3 0", "11 on 1 disconnected"},
      {"sw3 3 pin 13", 200, "clock 4 0", "dump devices, dump pins, 13 on 1 prio 0, 13 on 1 selectable"}},
     {"port 3 (sw3) has no clock pin", 1}},
    {{"a device that goes and returns gets not what is wanted", driver::manual},
     {{FOLLOW, 30, "clock 4 1"},
      {"device 0", 200, "clock 2 0"},
      {"device 1", 200, "clock 4 1", "dump devices, dump pins, 11 on 1 connected"}}},
    {{"a deleted pin stays its port's, or one that comes later is not learnt", driver::manual},
     {{FOLLOW, 2000, "clock 4 1"},  // nobody asks for links any more
      {"quiet sw1 1, forget 11", 200, "clock 2 0"},
      {"quiet sw1 1 pin 12, quiet sw2 2, notice 12", 200, "clock 4 1",
       "dump devices, dump pins, 12 on 1 connected"}},
     {"port 1 (sw1) has no clock pin", 1}},
    {{"a device that comes later is not waited for", driver::manual, "has-device 0"},
     {{FOLLOW, 30, ""}, {"device 1", 200, "clock 4 1"}},
     {"no kernel device yet", 1}},
    {{"a device that is not for Ethernet is taken", driver::manual, "type 1"}, {{FOLLOW, 30, ""}}},
};

TEST(dpll, stories) {
    for (const auto& [when, steps, said] : stories)
        for (const bool tells_operstate : {false, true}) {
            SCOPED_TRACE(when.fault);
            clock_session s(when.kind);
            s.dpll.tells_operstate = tells_operstate;
            s.act(when.board);
            s.start();
            s.play(steps);
            const std::string error = said.error ? strerror(said.error) : "";
            EXPECT_EQ(s.log.count(said.text + error), said.times);
            EXPECT_EQ(s.kernel.generic_groups, std::vector<unsigned>{fake_family::GROUP});
        }
}

// In real time: the simulated kernel is in the helpers, behind descriptors that can be waited for.
struct helped_session : clock_session {
    netlink_edge behind = kernel.edge();

    helped_session() {
        dpll.hold = static_cast<std::atomic<int>*>(
            mmap(nullptr, sizeof *dpll.hold, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        for (int fd = 3; fd < 64; ++fd) loop.descriptors.push_back(fd);
        netlink_edge edge = behind;
        edge.arg = this;
        edge.open = [](void* arg, int protocol) {
            auto* s = static_cast<helped_session*>(arg);
            const int silent = eventfd(0, 0), fd = s->behind.open(s->behind.arg, protocol);
            return fd < 0 ? close(silent), fd : (dup2(silent, fd), close(silent), fd);
        };
        edge.join = [](void* arg, int fd, unsigned group) {
            return kept(arg).join(kept(arg).arg, fd, group);
        };
        edge.receive = [](void* arg, int fd, octets to) { return kept(arg).receive(kept(arg).arg, fd, to); };
        edge.send = [](void* arg, int fd, const_octets m) { return kept(arg).send(kept(arg).arg, fd, m); };
        edge.close = [](void*, int fd) { close(fd); };
        n = nsmd_start(&loop.ctx, options, {edge, nullptr, 1000});
        EXPECT_TRUE(n && nsmd_detach(n));
        (void)connect();
    }
    ~helped_session() { stop(); }
    static const netlink_edge& kept(void* arg) { return static_cast<helped_session*>(arg)->behind; }
    // Everything that is told until the condition holds.
    std::string until(const std::function<bool()>& condition) {
        int left = 10000;
        while (left > 0 && !condition()) loop.run(1), usleep(1000), --left;
        EXPECT_GT(left, 0);
        loop.run(1);
        return c.take_all();
    }
    pid_t clock_helper() {
        const std::string all = status(), end = ". for the driver of clock device 1 (chip)";
        const std::size_t at = all.rfind("process ", all.find(end));
        return all.find(end) == all.npos ? 0 : std::stoi(all.substr(at + std::strlen("process ")));
    }
};

TEST(dpll, a_driver_that_takes_its_time_holds_up_nobody_and_the_newest_wish_counts) {
    helped_session s;
    *s.dpll.hold = 1;
    s.act(FOLLOW);
    s.until([&] { return s.log.count("the driver of clock device 1 (chip) has not answered for ") > 0; });
    EXPECT_NE(s.status().find("which has not answered for "), std::string::npos);
    for (const char* wish : {"select 2", "select 1", "holdover 0", "holdover 1, select 2"}) {
        s.act(wish);
        s.loop.run(20);
    }
    *s.dpll.hold = 0;
    EXPECT_EQ(s.until([&] { return s.log.count("clock: locked, source 2") == 1; }), "clock 4 2");
    EXPECT_NE(s.status().find(" 3 settings, 0 refused"), std::string::npos) << s.status();
    s.until([&] { return s.log.count("the driver of clock device 1 (chip) answers again") > 0; });

    // One that dies meanwhile is replaced, and what was wanted is done by the next; nsmd ends without its
    // answer.
    *s.dpll.hold = 1;
    s.act("select 1");
    s.loop.run(20);
    const pid_t helper = s.clock_helper();
    ASSERT_GT(helper, 0);
    kill(helper, SIGKILL);
    s.until([&] { return s.clock_helper() > 0 && s.clock_helper() != helper; });
    *s.dpll.hold = 0;
    s.until([&] { return s.log.count("clock: locked, source 1") == 1; });
    *s.dpll.hold = 1;
    s.act("select 2");
    s.loop.run(20);
    const nanoseconds before = monotonic_now();
    s.stop();
    EXPECT_LT(monotonic_now() - before, NS_PER_S);
    *s.dpll.hold = 0;
}

// What Linux 6.12's own DPLL core said of a mock driver's device and pins, behind the generic header.
TEST(dpll, the_simulated_kernel_speaks_as_the_real_one) {
    fake_kernel kernel;
    fake_dpll dpll{kernel};
    dpll.module = "dpll_mock";
    dpll.pins[0] = {.places = {{DEVICE, PIN_DISCONNECTED}}, .label = "SWP0"};
    dpll.pins[3] = {.capabilities = 6, .places = {{DEVICE, PIN_DISCONNECTED}}, .prio = 1, .label = "SWP0"};
    dpll.pins[7] = {.places = {{6, PIN_DISCONNECTED}}, .label = "SWP0"};
    const auto hex = [](const nl_builder& b) {
        std::string text;
        for (std::size_t i = 20; i < b.length; ++i) {
            char octet[3];
            std::snprintf(octet, sizeof octet, "%02x", b.data[i]);
            text += octet;
        }
        return text;
    };
    if constexpr (std::endian::native == std::endian::big)
        GTEST_SKIP() << "the octets were taken on a little-endian machine";
    const auto pin = [&](std::uint32_t id) { return hex(dpll.about_pin(id, DPLL_CMD_PIN_GET)); };
    const std::string module = "64706c6c5f6d6f636b000000", clock = "0807060504030201";
    const auto head = [&](const std::string& id, const std::string& capabilities) {
        return "08000100" + id + "0e000300" + module + "0c000500" + clock +
               "090006005357503000000000"
               "0800090003000000"
               "08001100" +
               capabilities +
               "0800140000000000"
               "0800150000000000";
    };
    EXPECT_EQ(hex(dpll.about_device(DPLL_CMD_DEVICE_GET)), "08000100010000000e000200" + module + "0c000400" +
                                                               clock +
                                                               "08000700010000000800050001000000"
                                                               "0800060001000000"
                                                               "0800090002000000");
    EXPECT_EQ(pin(0), head("00000000", "04000000") +
                          "1c001280"
                          "0800020001000000"
                          "0800100002000000"
                          "08000a0001000000");
    EXPECT_EQ(pin(3), head("03000000", "06000000") +
                          "24001280"
                          "0800020001000000"
                          "0800100002000000"
                          "08000f0001000000"
                          "08000a0001000000");
    EXPECT_EQ(pin(7), head("07000000", "04000000") +
                          "14001380"
                          "0800020006000000"
                          "0800100002000000");
}

TEST(dpll, asked_for_by_name_the_interface_must_be_there) {
    clock_session s;
    s.kernel.on_generic = nullptr;
    EXPECT_EQ(nsmd_start(&s.loop.ctx, s.options, {s.kernel.edge(), nullptr, 1000}), nullptr);
    EXPECT_EQ(s.log.count("error clock: "), 1);
}

TEST(dpll, a_device_is_named_by_number_module_or_clock) {
    const std::map<const char*, int> names = {
        {"1", 1},    {"chip", 1},  {"chip/0102030405060708", 1}, {"2", 0},
        {"ship", 0}, {"chip/", 0}, {"chip/102030405060709", 0}};
    for (const auto& [name, found] : names) {
        clock_session s;
        s.options.kernel.device = name;
        s.start();
        EXPECT_EQ(s.log.count("kernel device 1 of chip"), found) << name;
    }
}

TEST(dpll, the_mode_is_set_where_the_driver_lets_it) {
    for (const bool has_modes : {false, true}) {
        clock_session s;
        s.options.kernel.mode = DPLL_MODE_AUTOMATIC;
        s.dpll.has_modes = has_modes;
        s.start();
        s.play({{FOLLOW, 30, "clock 4 1",
                 has_modes ? "mode 2, 11 on 1 selectable" : "mode 2, 11 on 1 connected"},
                {"", 60000, ""}});
        EXPECT_EQ(s.log.count("can't set device 1 to automatic: Invalid argument"), has_modes ? 0 : 1);
        EXPECT_EQ(s.status().find("not as wanted: the device is in another mode") == std::string::npos,
                  has_modes);
    }
}

TEST(dpll, the_status_and_the_daemon_are_told_what_the_driver_tells_beyond_the_state) {
    clock_session s(driver::automatic);
    s.act("mux 21");
    s.dpll.tells_operstate = true;
    s.dpll.lock_error = 3;
    s.dpll.levels = {1, 4};
    s.dpll.pins[11].label = "SWP0";
    s.dpll.pins[11].offset = -7;
    s.dpll.pins[21].label = "MUX";
    s.options.kernel.tells_quality = true;
    s.start();
    EXPECT_EQ(s.c.details.take(),
              "0: error 3 quality 4, 1: offset -6999995 frequency 24999999999 SWP0, 2:, 3:");
    s.play({{FOLLOW, 30, "clock 4 1"}});
    const std::string all = s.status();
    for (const char* part : {"kernel device 1 (chip 0102030405060708), automatic, status 3 (locked, holdover "
                             "acquired), error 3 (media "
                             "down), type EEC",
                             "pin 11 (sw1): on pin 21, connected; SyncE port; label SWP0; frequency offset "
                             "-6999.995 ppb; measured "
                             "24999999.999 Hz",
                             "pin 21 (MUX): on device 1, selectable, active, priority 0"})
        EXPECT_NE(all.find(part), std::string::npos) << part << " in\n" << all;
    ASSERT_TRUE(nsmd_detach(s.n));
}

TEST(dpll, the_probe_says_what_is_missing) {
    const struct {
        const char* board;
        driver kind;
        const char* answer;
    } cases[] = {
        {"", driver::manual, "yes: clock device 1 can follow sw1, sw2\n"},
        {"mux 21", driver::automatic, "yes: clock device 1 can follow sw1, sw2\n"},
        {"capable 11 0", driver::manual, "yes: clock device 1 can follow sw2\n"},
        {"capable 11 2, capable 12 2", driver::automatic,
         "in holdover the device may go on following one\nyes: "},
        {"capable 11 2, capable 12 2", driver::manual, "no: the driver lets nobody set"},
        {"has-device 0", driver::manual, "no: no clock device: "},
        {"type 1", driver::manual, "no: no clock device of type EEC"},
        {"quiet sw1 1, quiet sw2 2", driver::manual, "port sw1: no clock pin\n"},
        {"quiet sw1 1, quiet sw2 2", driver::manual, "no: no port has a clock pin"},
        {"quiet sw1 1 pin 77, quiet sw2 2", driver::manual, "no: no port's clock pin leads to the device"},
        {"unreadable 16", driver::manual, "no: devices and pins can't be read: "},
        {"bad 11 5", driver::manual, "no port's are not shown\nyes: clock device 1 can follow sw2\n"},
        {"bad 11 5, bad 12 5", driver::manual, "pin 12 (sw2): can't be read: "},
        {"input 5, bad 11 5, bad 12 5", driver::manual, "no: no port's clock pin that can be read leads"},
        {"unknown-state 1", driver::manual, "no: no permission"},
    };
    for (const auto& one : cases) {
        clock_session s(one.kind);
        s.options.dpll = dpll_kind::none;
        s.act(one.board);
        s.start_alone();
        text_buffer out;
        const std::string answer = one.answer;
        const bool yes = nsmd_probe(nsmd_table_of(s.n), s.kernel.edge(), s.options.kernel, &out);
        EXPECT_EQ(yes, answer.find("yes: ") != answer.npos) << one.board;
        EXPECT_NE(out.view().find(answer), std::string_view::npos) << one.board << "\n" << out.c_str();
        text_free(&out);
    }
}

}  // namespace
