// The kernel's clock interface: nsmd as a whole against a kernel made of messages that behaves like each kind
// of driver. What is checked is the exact order of the requests, and what the daemon is told.
#include <map>
#include <optional>

#include "nsmd/clock/message.h"
#include "nsmd_support.h"

namespace {

enum class driver {
    direct_manual,    // pins on the device; connecting one does not release others; released: runs free
    forces_holdover,  // pins on the device; connecting switches over; releasing any pin forces holdover
    mux_automatic,    // port pins behind MUX pins; a state that is so already is an error
    automatic,        // pins on the device, ranked; "connected" can't be asked for
};

struct fake_pin {
    std::uint32_t capabilities = PIN_CAN_STATE;
    std::map<std::uint32_t, std::uint32_t> devices = {};  // device to state
    std::map<std::uint32_t, std::uint32_t> muxes = {};    // pin to state
    std::uint32_t prio = 5;
    bool signal = true;
    std::string label = {};
    std::uint16_t label_kind = DPLL_PIN_A_BOARD_LABEL;
    bool output = false;
};

// Requests are recorded as text: "dump devices", "get pin 3", "pin 3 device 1 state connected".
struct fake_dpll : fake_family {
    const driver kind;
    texts log;
    std::map<std::uint32_t, fake_pin> pins;
    bool has_device = true, tells_operstate = false, notifies = true;
    std::uint32_t type = DPLL_TYPE_EEC, status = DPLL_STATUS_UNLOCKED;
    std::map<std::uint32_t, int> refused;  // errno by pin
    int busy = 0;                          // so many settings are refused with EBUSY
    int disturbed_dumps = 0;
    std::uint32_t tracked = 0;  // the pin that the device follows

    fake_dpll(fake_kernel& k, driver d) : fake_family(k, "dpll"), kind(d) {}
    bool is_automatic() const { return kind == driver::mux_automatic || kind == driver::automatic; }

    // --- what it says ---

    nl_builder about_device(std::uint8_t command, std::uint16_t flags = 0) const {
        nl_builder b = generic_message(ID, command, flags);
        const std::uint64_t clock = 0x0011223344556677ULL;
        nl_put_u32(&b, DPLL_A_ID, 1);
        nl_put_text(&b, DPLL_A_MODULE_NAME, "chip");
        nl_put(&b, 3, nullptr, 0);  // padding before 64 bits
        nl_put(&b, DPLL_A_CLOCK_ID, &clock, sizeof clock);
        nl_put_u32(&b, DPLL_A_MODE, is_automatic() ? DPLL_MODE_AUTOMATIC : DPLL_MODE_MANUAL);
        nl_put_u32(&b, DPLL_A_LOCK_STATUS, status);
        nl_put_u32(&b, DPLL_A_TYPE, type);
        nl_put_u32(&b, 14, 1);  // an attribute of the future
        return b;
    }
    nl_builder about_pin(std::uint32_t id, std::uint8_t command, std::uint16_t flags = 0) const {
        const fake_pin& p = pins.at(id);
        nl_builder b = generic_message(ID, command, flags);
        nl_put_u32(&b, DPLL_PIN_A_ID, id);
        nl_put_text(&b, p.label_kind, p.label);
        nl_put_u32(&b, DPLL_PIN_A_CAPABILITIES, p.capabilities);
        for (const auto& [device, state] : p.devices) {
            const std::size_t nest = nl_nest_begin(&b, DPLL_PIN_A_PARENT_DEVICE);
            nl_put_u32(&b, DPLL_PIN_A_PARENT_ID, device);
            nl_put_u32(&b, DPLL_PIN_A_DIRECTION, p.output ? 2 : 1);
            if (p.capabilities & PIN_CAN_PRIO) nl_put_u32(&b, DPLL_PIN_A_PRIO, p.prio);
            if (tells_operstate) nl_put_u32(&b, DPLL_PIN_A_OPERSTATE, tracked == id ? 1 : 2);
            // Without a place of its own for it, the pin in use is shown as connected.
            const bool in_use = is_automatic() && !tells_operstate && tracked == id;
            nl_put_u32(&b, DPLL_PIN_A_STATE, in_use && state == PIN_SELECTABLE ? PIN_CONNECTED : state);
            nl_nest_end(&b, nest);
        }
        for (const auto& [mux, state] : p.muxes) {
            const std::size_t nest = nl_nest_begin(&b, DPLL_PIN_A_PARENT_PIN);
            nl_put_u32(&b, DPLL_PIN_A_PARENT_ID, mux);
            nl_put_u32(&b, DPLL_PIN_A_STATE, state);
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

    // --- what it does ---

    bool carries_signal(std::uint32_t id) const {
        bool is_mux = false, carries = false;
        for (const auto& [child_id, child] : pins) {
            const auto at = child.muxes.find(id);
            if (at == child.muxes.end()) continue;
            is_mux = true;
            carries |= at->second == PIN_CONNECTED && child.signal;
        }
        return is_mux ? carries : pins.at(id).signal;
    }
    bool may_follow(std::uint32_t id) const {
        const fake_pin& p = pins.at(id);
        const auto at = p.devices.find(1);
        if (at == p.devices.end() || p.output || !carries_signal(id)) return false;
        return is_automatic() ? at->second != PIN_DISCONNECTED : at->second == PIN_CONNECTED;
    }
    // The device looks at its inputs.
    void work() {
        std::uint32_t best = 0;
        for (const auto& [id, p] : pins) {
            if (!may_follow(id)) continue;
            const bool stays = !is_automatic() && tracked == id;
            if (!best || stays || p.prio < pins.at(best).prio) best = id;
            if (stays) break;
        }
        std::uint32_t now = status == DPLL_STATUS_UNLOCKED ? DPLL_STATUS_UNLOCKED : DPLL_STATUS_HOLDOVER;
        if (kind == driver::direct_manual && tracked && !best) now = DPLL_STATUS_UNLOCKED;
        if (best) now = DPLL_STATUS_LOCKED_HO_ACQ;
        const std::uint32_t before = std::exchange(tracked, best);
        if (before != best && is_automatic())
            for (const std::uint32_t changed : {before, best})
                if (changed) notify_pin(changed);
        if (std::exchange(status, now) != now) notify_device();
    }
    int set_state(std::uint32_t id, bool on_mux, std::uint32_t parent, std::uint32_t state) {
        auto& places = on_mux ? pins[id].muxes : pins[id].devices;
        if (!places.count(parent)) return EINVAL;
        if (!(pins[id].capabilities & PIN_CAN_STATE)) return EOPNOTSUPP;
        if (!on_mux && state == (is_automatic() ? PIN_CONNECTED : PIN_SELECTABLE)) return EINVAL;
        if (kind == driver::mux_automatic && places[parent] == state) return EINVAL;
        for (auto& [other, p] : pins) {
            const bool one_child_only = on_mux && state == PIN_CONNECTED;
            if (one_child_only && p.muxes.count(parent)) p.muxes[parent] = PIN_DISCONNECTED;
            if (kind == driver::forces_holdover && p.devices.count(1)) p.devices[1] = PIN_DISCONNECTED;
        }
        places[parent] = state;
        if (kind == driver::direct_manual && state == PIN_CONNECTED) tracked = id;
        return 0;
    }
    int set_prio(std::uint32_t id, std::uint32_t prio) {
        if (!(pins[id].capabilities & PIN_CAN_PRIO)) return EOPNOTSUPP;
        if (prio > 14) return EINVAL;
        pins[id].prio = prio;
        return 0;
    }
    int set_pin(const_octets attributes) {
        std::uint32_t id = 0, parent = 0, value = 0;
        bool on_mux = false, is_prio = false;
        nl_attr a, inner;
        while (nl_next_attr(&attributes, &a)) {
            if (a.type == DPLL_PIN_A_ID) {
                id = nl_u32(a.value);
                continue;
            }
            on_mux = a.type == DPLL_PIN_A_PARENT_PIN;
            const_octets nest = a.value;
            while (nl_next_attr(&nest, &inner)) {
                is_prio |= inner.type == DPLL_PIN_A_PRIO;
                (inner.type == DPLL_PIN_A_PARENT_ID ? parent : value) = nl_u32(inner.value);
            }
        }
        static const char* const states[] = {"?", "connected", "disconnected", "selectable"};
        log.push_back("pin " + std::to_string(id) + (on_mux ? " mux " : " device ") + std::to_string(parent) +
                      (is_prio ? " prio " + std::to_string(value) : std::string(" state ") + states[value]));
        if (busy > 0) {
            --busy;
            return EBUSY;
        }
        if (refused.count(id)) return refused[id];
        const int result = is_prio ? set_prio(id, value) : set_state(id, on_mux, parent, value);
        if (result == 0) {
            notify_pin(id);
            work();
        }
        return result;
    }

    // --- what it is asked ---

    void requested(std::uint8_t command, std::uint16_t flags, const_octets attributes,
                   std::uint32_t sequence) override {
        if ((flags & NLM_F_DUMP) == NLM_F_DUMP) return dump(command, sequence);
        if (command == DPLL_CMD_PIN_SET) return acknowledge(sequence, set_pin(attributes));
        nl_attr a;
        EXPECT_TRUE(nl_next_attr(&attributes, &a));
        const std::uint32_t id = nl_u32(a.value);
        const bool is_device = command == DPLL_CMD_DEVICE_GET;
        if (!is_device) log.push_back("get pin " + std::to_string(id));
        if (is_device ? !has_device : !pins.count(id)) return acknowledge(sequence, ENODEV);
        say(is_device ? about_device(command) : about_pin(id, command), sequence);
        acknowledge(sequence, 0);
    }
    void dump(std::uint8_t command, std::uint32_t sequence) {
        const bool devices = command == DPLL_CMD_DEVICE_GET;
        log.push_back(devices ? "dump devices" : "dump pins");
        std::uint16_t flags = NLM_F_MULTI;
        if (disturbed_dumps > 0) {
            --disturbed_dumps;
            flags |= NLM_F_DUMP_INTR;
        }
        if (devices && has_device) say(about_device(command, flags), sequence);
        if (!devices)
            for (const auto& [id, p] : pins) say(about_pin(id, command, flags), sequence);
        kernel.generic_queue.push_back(
            {0, control_octets(NLMSG_DONE, flags, {sequence, fake_kernel::PORT}, 0)});
    }
};

struct clock_test : nsmd_session {
    std::optional<fake_dpll> dpll;

    void SetUp() override {
        nsmd_session::SetUp();
        kernel.links = {port(1, 11), port(2, 12), port(3, -1)};
        options.dpll = dpll_kind::kernel;
        options.kernel.prio_other = 14;
        options.source_codes[0] = {1, 1};
        options.source_codes[1] = {2, 2};
        options.source_code_count = 2;
    }
    void TearDown() override { stop(); }
    static fake_link port(int index, int pin) {
        return {.index = index, .name = "eth" + std::to_string(index), .pin = pin};
    }
    // A board with the pins 11 and 12 for the ports 1 and 2, behind the MUX pins 21 and 22 if there are any.
    fake_dpll& board(driver kind) {
        fake_dpll& d = dpll.emplace(kernel, kind);
        const bool has_muxes = kind == driver::mux_automatic;
        const std::uint32_t capabilities = d.is_automatic() ? PIN_CAN_STATE | PIN_CAN_PRIO : PIN_CAN_STATE;
        for (const std::uint32_t id : {21U, 22U})
            if (has_muxes) d.pins[id] = {.capabilities = capabilities, .devices = {{1, PIN_SELECTABLE}}};
        for (const std::uint32_t id : {11U, 12U})
            if (has_muxes)
                d.pins[id].muxes = {{21, PIN_DISCONNECTED}, {22, PIN_DISCONNECTED}};
            else
                d.pins[id] = {.capabilities = capabilities, .devices = {{1, PIN_DISCONNECTED}}};
        return d;
    }
    // The daemon names its source. What is asked of the hardware is in requests() then.
    void follow(std::uint32_t ifindex) {
        enable(true);
        select(ifindex);
        loop.run(30);
    }
    // Started, and locked to port 1; what was asked and told is taken.
    void start_locked() {
        start();
        (void)requests();
        follow(1);
        ASSERT_EQ(c.take_all(), texts{"clock 4 1"});
        (void)requests();
    }
    texts requests() { return std::exchange(dpll->log, {}); }
    texts settings() {
        texts all = requests();
        std::erase_if(all, [](const auto& l) { return !l.starts_with("pin "); });
        return all;
    }
    void set_signal(std::uint32_t pin, bool on) {
        dpll->pins[pin].signal = on;
        dpll->work();
    }
};

// --- one driver behaviour after the other: select, switch, lose, holdover, return ---

const struct behaviour {
    const char* name;
    driver kind;
    texts first, second;  // what is asked to follow port 1, and then port 2
    const char* lost;     // the clock when port 2 loses its signal
    texts held, again;    // settings for holdover, and for port 2 after it
} behaviours[] = {
    {"pins on the device, manual: the new one first, then the old one, which is still connected",
     driver::direct_manual,
     {"pin 11 device 1 state connected", "get pin 11", "get pin 11"},
     {"pin 12 device 1 state connected", "get pin 12", "get pin 11", "pin 11 device 1 state disconnected",
      "get pin 11", "get pin 12"},
     "clock 2 0",
     {"pin 12 device 1 state disconnected"},
     {"pin 12 device 1 state connected"}},
    {"a driver that switches over by itself, and that a release would force into holdover",
     driver::forces_holdover,
     {"pin 11 device 1 state connected", "get pin 11", "get pin 11"},
     {"pin 12 device 1 state connected", "get pin 12", "get pin 11", "get pin 12"},
     "clock 3 0",
     {"pin 12 device 1 state disconnected"},
     {"pin 12 device 1 state connected"}},
    {"behind MUX pins: by the other MUX, so that the old source stays until the new one is there",
     driver::mux_automatic,
     {"pin 11 mux 21 state connected", "get pin 11", "pin 21 device 1 prio 0", "get pin 21", "get pin 11"},
     {"pin 12 mux 22 state connected", "get pin 12", "pin 22 device 1 prio 0", "get pin 22", "get pin 11",
      "pin 11 mux 21 state disconnected", "get pin 11", "get pin 12"},
     "clock 3 0",
     {"pin 12 mux 22 state disconnected"},
     {"pin 12 mux 21 state connected"}},
    {"pins on the device, automatic",
     driver::automatic,
     {"pin 11 device 1 prio 0", "get pin 11", "pin 11 device 1 state selectable", "get pin 11", "get pin 11"},
     {"pin 12 device 1 prio 0", "get pin 12", "pin 12 device 1 state selectable", "get pin 12", "get pin 11",
      "pin 11 device 1 state disconnected", "get pin 11", "get pin 12"},
     "clock 3 0",
     {"pin 12 device 1 state disconnected"},
     {"pin 12 device 1 state selectable"}},
};

TEST_F(clock_test, drivers_are_steered_as_each_needs_it) {
    // With and without operational states.
    for (std::size_t i = 0; i < 2 * std::size(behaviours); ++i) {
        const behaviour& b = behaviours[i / 2];
        SCOPED_TRACE(b.name);
        board(b.kind).tells_operstate = i % 2;
        start();
        (void)requests();
        follow(1);
        EXPECT_EQ(requests(), b.first);
        EXPECT_EQ(c.take_all(), texts{"clock 4 1"});
        follow(2);
        EXPECT_EQ(requests(), b.second);
        EXPECT_EQ(c.take_all(), texts{"clock 4 2"});
        set_signal(12, false);  // the hardware says so by itself
        EXPECT_EQ(after(1), texts{b.lost});
        EXPECT_EQ(requests(), texts{});
        hold(true);
        loop.run(30);
        EXPECT_EQ(settings(), b.held);
        set_signal(12, true);
        EXPECT_EQ(after(1), texts{});  // in holdover as asked
        hold(false);
        select(2);
        EXPECT_EQ(after(30), texts{"clock 4 2"});
        EXPECT_EQ(settings(), b.again);
        stop();
    }
    EXPECT_EQ(kernel.generic_groups, std::vector<unsigned>(2 * std::size(behaviours), fake_family::GROUP));
    EXPECT_EQ(log.count("can't use"), 0);
}

TEST_F(clock_test, with_a_single_mux_the_kernel_changes_the_child) {
    fake_dpll& d = board(driver::mux_automatic);
    d.pins.erase(22);
    for (const std::uint32_t id : {11U, 12U}) d.pins[id].muxes.erase(22);
    start_locked();
    follow(2);
    EXPECT_EQ(requests(), (texts{"pin 12 mux 21 state connected", "get pin 12", "get pin 11", "get pin 12"}));
    EXPECT_EQ(c.take_all().back(), "clock 4 2");
}

// --- the rest of the requests ---

TEST_F(clock_test, external_inputs_are_pins_named_in_the_configuration) {
    fake_dpll& d = board(driver::automatic);
    d.pins[30] = d.pins[11];
    d.pins[30].label = "BITS-A";
    options.kernel.bits[0] = "BITS-A";
    start_locked();
    recover_from(1);
    EXPECT_EQ(after(30), texts{"clock 4 8"});
    EXPECT_EQ(settings(), (texts{"pin 30 device 1 prio 0", "pin 30 device 1 state selectable",
                                 "pin 11 device 1 state disconnected"}));
    recover_from(2);  // no pin is named for it
    EXPECT_EQ(after(30), texts{"clock 3 0"});
    EXPECT_EQ(settings(), texts{"pin 30 device 1 state disconnected"});
    EXPECT_EQ(log.count("no pin for external input 2"), 1);
    recover_from(0);
    loop.run(30);
    EXPECT_EQ(settings(), texts{"pin 11 device 1 state selectable"});
}

TEST_F(clock_test, an_external_input_is_known_by_each_of_its_labels) {
    options.kernel.bits[0] = "EXT";
    for (const std::uint16_t kind :
         {DPLL_PIN_A_BOARD_LABEL, DPLL_PIN_A_PANEL_LABEL, DPLL_PIN_A_PACKAGE_LABEL}) {
        fake_dpll& d = board(driver::automatic);
        d.pins[30] = d.pins[11];
        d.pins[30].label = "EXT";
        d.pins[30].label_kind = kind;
        start();
        recover_from(1);
        EXPECT_EQ(after(30), texts{"clock 4 8"}) << kind;
        stop();
    }
}

TEST_F(clock_test, switched_off_releases_our_pins_and_nobody_elses) {
    fake_dpll& d = board(driver::automatic);
    d.pins[40] = d.pins[11];  // a receiver for satellites, say
    d.pins[40].devices[1] = PIN_SELECTABLE;
    d.pins[40].prio = 9;
    d.pins[41] = d.pins[11];
    d.pins[41].output = true;
    d.pins[41].devices[1] = PIN_CONNECTED;
    start();
    follow(1);
    EXPECT_EQ(after(30).back(), "clock 4 1");
    (void)requests();
    enable(false);
    EXPECT_EQ(after(30), texts{"clock 4 0"});  // locked, to something that is none of ours
    EXPECT_EQ(settings(), texts{"pin 11 device 1 state disconnected"});
}

TEST_F(clock_test, nothing_is_touched_before_a_source_is_named) {
    fake_dpll& d = board(driver::direct_manual);
    d.pins[11].devices[1] = PIN_CONNECTED;
    d.tracked = 11;
    d.work();
    start();
    enable(true);
    loop.run(30);
    EXPECT_EQ(settings(), texts{});
    select(1);  // as it is already
    EXPECT_EQ(after(30), texts{});
    EXPECT_EQ(settings(), texts{});
}

// --- states ---

TEST_F(clock_test, lock_states_as_the_daemon_knows_them) {
    fake_dpll& d = board(driver::direct_manual);
    start_locked();
    const std::pair<std::uint32_t, texts> states[] = {
        {DPLL_STATUS_LOCKED, {}},  // without a holdover to fall back to, but locked still
        {DPLL_STATUS_HOLDOVER, {"clock 3 0"}},
        {DPLL_STATUS_UNLOCKED, {"clock 2 0"}},
        {77, {"clock 5 0"}},  // a status of the future is transient
        {DPLL_STATUS_LOCKED_HO_ACQ, {"clock 4 1"}}};
    for (const auto& [status, told] : states) {
        d.status = status;
        d.notify_device();
        EXPECT_EQ(after(1), told) << status;
    }
}

TEST_F(clock_test, without_notifications_the_state_is_asked_for) {
    board(driver::automatic).notifies = false;
    start();
    follow(1);
    EXPECT_EQ(after(1000), texts{"clock 4 1"});
    set_signal(11, false);
    EXPECT_EQ(after(1001), texts{"clock 3 0"});
    set_signal(11, true);
    EXPECT_EQ(after(1010).back(), "clock 4 1");
}

TEST_F(clock_test, lost_notifications_and_disturbed_dumps_are_read_again) {
    fake_dpll& d = board(driver::automatic);
    d.disturbed_dumps = 2;
    start_locked();
    d.notifies = false;
    set_signal(11, false);
    kernel.generic_queue.push_back({-ENOBUFS, {}});
    EXPECT_EQ(after(10), texts{"clock 3 0"});
    EXPECT_EQ(requests(), (texts{"dump devices", "dump pins", "get pin 11"}));
}

// --- what can't be done ---

TEST_F(clock_test, a_refused_source_is_said_in_one_line_and_becomes_holdover) {
    fake_dpll& d = board(driver::forces_holdover);
    start_locked();
    d.refused[12] = EINVAL;
    follow(2);
    EXPECT_EQ(settings(), (texts{"pin 12 device 1 state connected", "pin 11 device 1 state disconnected"}));
    EXPECT_EQ(log.count("clock: can't use pin 12 (eth2): Invalid argument"), 1);
    EXPECT_EQ(c.take_all(), texts{"clock 3 0"});
    d.refused.clear();
    follow(2);
    EXPECT_EQ(c.take_all(), texts{"clock 4 2"});
}

TEST_F(clock_test, a_pin_without_the_capability_is_not_even_tried) {
    board(driver::direct_manual).pins[11].capabilities = 0;
    start();
    follow(1);
    EXPECT_EQ(settings(), texts{});
    EXPECT_EQ(log.count("can't use pin 11 (eth1): Operation not supported"), 1);
}

TEST_F(clock_test, pins_that_can_only_be_ranked_are_ranked_last) {
    fake_dpll& d = board(driver::automatic);
    for (const std::uint32_t id : {11U, 12U})
        d.pins[id] = {.capabilities = PIN_CAN_PRIO, .devices = {{1, PIN_SELECTABLE}}};
    start();
    follow(1);
    EXPECT_EQ(settings(), (texts{"pin 11 device 1 prio 0", "pin 12 device 1 prio 14"}));
    follow(2);
    EXPECT_EQ(settings(), (texts{"pin 12 device 1 prio 0", "pin 11 device 1 prio 14"}));
    EXPECT_EQ(c.take_all().back(), "clock 4 2");
}

TEST_F(clock_test, without_permission_it_is_said_once_a_request) {
    board(driver::direct_manual).refused = {{11, EPERM}, {12, EPERM}};
    start();
    follow(1);
    EXPECT_EQ(log.count("Operation not permitted"), 1);
    loop.run(5000);
    EXPECT_EQ(log.count("Operation not permitted"), 1);
}

TEST_F(clock_test, a_busy_driver_is_asked_again_for_a_while) {
    fake_dpll& d = board(driver::mux_automatic);
    d.busy = 3;
    start();
    follow(1);
    EXPECT_EQ(c.take_all(), texts{});
    EXPECT_EQ(after(3100), texts{"clock 4 1"});
    EXPECT_EQ(log.count("can't"), 0);
    d.busy = 1000;
    follow(2);
    loop.run(60000);
    EXPECT_EQ(log.count("stays busy"), 1);
    (void)requests();
    loop.run(10000);
    EXPECT_EQ(settings(), texts{});
}

TEST_F(clock_test, a_port_without_a_pin_can_not_be_followed) {
    fake_dpll& d = board(driver::automatic);
    start_locked();
    follow(3);
    EXPECT_EQ(log.count("port 3 (eth3) has no clock pin"), 1);
    EXPECT_EQ(settings(), texts{"pin 11 device 1 state disconnected"});
    EXPECT_EQ(c.take_all(), texts{"clock 3 0"});
    // The driver comes up with a pin for it.
    d.pins[13] = d.pins[12];
    kernel.set(port(3, 13));
    loop.run(200);
    EXPECT_EQ(settings(), (texts{"pin 13 device 1 prio 0", "pin 13 device 1 state selectable"}));
}

TEST_F(clock_test, a_device_that_goes_and_returns_gets_what_is_wanted) {
    fake_dpll& d = board(driver::direct_manual);
    start_locked();
    d.has_device = false;
    d.notify_pin(11, DPLL_CMD_PIN_DELETE_NTF);
    d.notify_device(DPLL_CMD_DEVICE_DELETE_NTF);
    EXPECT_EQ(after(200), texts{"clock 2 0"});
    d.has_device = true;
    d.pins[11].devices[1] = PIN_DISCONNECTED;
    d.status = DPLL_STATUS_UNLOCKED;
    d.notify_pin(11, DPLL_CMD_PIN_CREATE_NTF);
    d.notify_device(DPLL_CMD_DEVICE_CREATE_NTF);
    EXPECT_EQ(after(200), texts{"clock 4 1"});
    EXPECT_EQ(settings(), texts{"pin 11 device 1 state connected"});
}

// --- the start ---

TEST_F(clock_test, a_kernel_without_a_clock_for_ethernet) {
    options.dpll = dpll_kind::automatic;
    board(driver::direct_manual).there = false;
    start();
    follow(1);
    EXPECT_EQ(c.take_all(), texts{});
    EXPECT_EQ(log.count("this kernel has no clock interface, going on without"), 1);
    stop();
    board(driver::direct_manual).type = DPLL_TYPE_PPS;
    start();
    EXPECT_EQ(log.count("no clock device for Ethernet, going on without"), 1);
    stop();
    options.dpll = dpll_kind::kernel;  // asked for by name it must be there
    board(driver::direct_manual).there = false;
    EXPECT_EQ(nsmd_start(&loop.ctx, options, {kernel.edge(), nullptr, 1000}), nullptr);
    EXPECT_EQ(log.count("error clock: this kernel has no clock interface"), 1);
    board(driver::direct_manual).has_device = false;  // its driver may come later
    start();
    EXPECT_EQ(log.count("no kernel device yet"), 1);
}

TEST_F(clock_test, a_device_is_named_by_number_module_or_clock) {
    board(driver::direct_manual);
    const std::pair<const char*, bool> names[] = {{"1", true},     {"chip", true},
                                                  {"2", false},    {"chip/0011223344556677", true},
                                                  {"ship", false}, {"chip/11223344556678", false},
                                                  {"chip/", false}};
    for (const auto& [name, found] : names) {
        options.kernel.device = name;
        const long before = log.count("kernel device 1 of chip");
        start_alone();
        EXPECT_EQ(log.count("kernel device 1 of chip") - before, found) << name;
        stop();
    }
}

TEST_F(clock_test, the_status_shows_device_and_pins) {
    board(driver::mux_automatic);
    start_locked();
    const std::string all = status();
    EXPECT_GT(all.size(), NSM_MESSAGE_MAX);
    for (const char* part :
         {"kernel device 1 (chip 0011223344556677), automatic, status 3",
          "pin 11 (eth1): on pin 21, connected", "pin 21 (unnamed): on device 1, connected, priority 0"})
        EXPECT_NE(all.find(part), std::string::npos) << part << " in\n" << all;
}

}  // namespace
